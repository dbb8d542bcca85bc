// The C half of the sample: a worker's way down to a queue that stays empty.
#include <pthread.h>

static pthread_mutex_t queue_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t queue_filled = PTHREAD_COND_INITIALIZER;

void wait_for_work(void (*ready)(void))
{
    ready();
    pthread_mutex_lock(&queue_lock);
    for (;;)
        pthread_cond_wait(&queue_filled, &queue_lock);
}

void take_job(void (*ready)(void))
{
    wait_for_work(ready);
}
