// A program to be dumped: named threads with known call chains. It says "ready" with one byte on standard
// output.
//
// usage: threads COUNT [FRAMES]
//
// COUNT further threads, each FRAMES (default 5) calls deep, waiting for ever.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace
{
int frames = 5;
pthread_barrier_t all_waiting;
volatile int sink;

}  // namespace

extern "C" void wait_for_ever()
{
    pthread_barrier_wait(&all_waiting);
    for (;;)
        pause();
}

namespace sample
{
struct worker {
    int id;
    void descend(int depth)
    {
        if (depth <= 1)
            wait_for_ever();
        else
            descend(depth - 1);
        sink = depth;
    }
    void run()
    {
        char name[16];
        snprintf(name, sizeof(name), "worker %d", id);
        pthread_setname_np(pthread_self(), name);
        descend(frames);
    }
};

}  // namespace sample

int main(int argc, char** argv)
{
    const int count = argc > 1 ? atoi(argv[1]) : 3;
    if (argc > 2)
        frames = atoi(argv[2]);
    pthread_barrier_init(&all_waiting, nullptr, static_cast<unsigned>(count) + 2);
    std::vector<sample::worker> workers(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        workers[static_cast<size_t>(i)].id = i;
        std::thread(&sample::worker::run, &workers[static_cast<size_t>(i)]).detach();
    }
    std::thread([] {
        pthread_setname_np(pthread_self(), "herald");
        pthread_barrier_wait(&all_waiting);
        (void)!write(STDOUT_FILENO, "r", 1);
    }).detach();
    sample::worker lead{-1};
    lead.descend(frames);
}
