// A program to be dumped: many threads, each waiting at the end of a chain of 21 functions (25 frames with
// those of the system). It writes one byte to standard output when all are there.
//
// usage: call_chains THREADS [CHAINS]
//
// Thread i takes chain i modulo CHAINS; each chain differs from the others.
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

static pthread_barrier_t all_waiting;
static volatile int sink;

static void wait_for_ever(void)
{
    pthread_barrier_wait(&all_waiting);
    for (;;)
        pause();
}

// Each level has two functions; a bit of the chain's number says which one is called.
#define CHOOSE(name, number)                                               \
    static inline __attribute__((always_inline)) void name(unsigned chain) \
    {                                                                      \
        if ((chain & 1) != 0)                                              \
            left_##number(chain);                                          \
        else                                                               \
            right_##number(chain);                                         \
    }

static inline __attribute__((always_inline)) void end_of_chain(unsigned chain)
{
    (void)chain;
    wait_for_ever();
}

#define STEP(number, next)              \
    void left_##number(unsigned chain)  \
    {                                   \
        next(chain >> 1);               \
        sink++;                         \
    }                                   \
    void right_##number(unsigned chain) \
    {                                   \
        next(chain >> 1);               \
        sink--;                         \
    }                                   \
    CHOOSE(level_##number, number)

STEP(1, end_of_chain)
STEP(2, level_1)
STEP(3, level_2)
STEP(4, level_3)
STEP(5, level_4)
STEP(6, level_5)
STEP(7, level_6)
STEP(8, level_7)
STEP(9, level_8)
STEP(10, level_9)
STEP(11, level_10)
STEP(12, level_11)
STEP(13, level_12)
STEP(14, level_13)
STEP(15, level_14)
STEP(16, level_15)
STEP(17, level_16)
STEP(18, level_17)
STEP(19, level_18)
STEP(20, level_19)

static void* run(void* chain)
{
    level_20((unsigned)(uintptr_t)chain);
    return NULL;
}

int main(int argc, char** argv)
{
    const unsigned threads = argc > 1 ? (unsigned)atoi(argv[1]) : 1;
    const unsigned chains = argc > 2 ? (unsigned)atoi(argv[2]) : 1;
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 256 * 1024);
    pthread_barrier_init(&all_waiting, NULL, threads + 1);
    for (unsigned i = 1; i <= threads; i++) {
        pthread_t thread;
        // Scattered bits, so that chains part at every level.
        if (pthread_create(&thread, &small, run, (void*)(uintptr_t)((i % chains) * 0x9e3779b1U)) != 0)
            return 1;
    }
    pthread_barrier_wait(&all_waiting);
    sink = (int)write(STDOUT_FILENO, "r", 1);
    for (;;)
        pause();
}
