// A program that crashes on demand, as the target of crash reports.
// usage: crash_sample KIND [THREADS] [main|thread]
// KIND: segv bus ill fpe abrt trap overflow; together: every thread at once; wait: does not crash. THREADS
// (default 0) further threads wait meanwhile. The crash happens in the main thread, or in another one with
// "thread". One line says when all threads are there.
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace
{
volatile int sink;
volatile int zero = 0;
int* volatile bad_pointer = reinterpret_cast<int*>(0x10);

}  // namespace

extern "C" {
void write_through_bad_pointer()
{
    *bad_pointer = 1;
}

void read_past_end_of_file()
{
    const int file = memfd_create("empty", 0);
    sink = *static_cast<volatile int*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0));
}

// One word that is no instruction on either machine: ud2 on x86_64, udf on aarch64.
void execute_illegal_instruction()
{
    asm volatile(".4byte 0x00000b0f");
}

void divide_by_zero()
{
    sink = 1 / zero;
    raise(SIGFPE);  // aarch64 divides by zero without a trap
}

void give_up()
{
    abort();
}

// One word that is a breakpoint on either machine: int3 behind a prefix on x86_64, brk on aarch64.
void run_into_breakpoint()
{
    asm volatile(".4byte 0xd420cc40");
}

void recurse_for_ever(volatile char* caller)
{
    volatile char frame[512];
    frame[0] = *caller;
    recurse_for_ever(frame);
    sink = frame[0];
}

void wait_for_ever()
{
    for (;;)
        pause();
}
}

namespace
{
void crash(const std::string& kind)
{
    if (kind == "segv" || kind == "together")
        write_through_bad_pointer();
    else if (kind == "bus")
        read_past_end_of_file();
    else if (kind == "ill")
        execute_illegal_instruction();
    else if (kind == "fpe")
        divide_by_zero();
    else if (kind == "abrt")
        give_up();
    else if (kind == "trap")
        run_into_breakpoint();
    else if (kind == "overflow") {
        volatile char first = 0;
        recurse_for_ever(&first);
    } else if (kind == "wait")
        wait_for_ever();
    fprintf(stderr, "crash_sample: no crash by '%s'\n", kind.c_str());
    _exit(2);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: crash_sample KIND [THREADS] [main|thread]\n");
        return 2;
    }
    const std::string kind = argv[1];
    const int threads = argc > 2 ? atoi(argv[2]) : 0;
    const bool in_thread = argc > 3 && argv[3] == std::string("thread");

    pthread_barrier_t all_there;
    pthread_barrier_init(&all_there, nullptr, static_cast<unsigned>(threads) + 1);
    for (int i = 0; i < threads; i++)
        std::thread([&all_there, &kind] {
            pthread_barrier_wait(&all_there);
            if (kind == "together")
                write_through_bad_pointer();
            wait_for_ever();
        }).detach();
    pthread_barrier_wait(&all_there);
    printf("ready\n");
    fflush(stdout);
    if (in_thread)
        std::thread([&kind] { crash(kind); }).join();
    crash(kind);
}
