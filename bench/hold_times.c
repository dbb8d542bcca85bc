// Preloaded into a tool that traces: notes how long it holds each thread, from PTRACE_ATTACH or PTRACE_SEIZE
// to PTRACE_DETACH, and writes its peak memory and one line a hold, in milliseconds, to the file that
// HOLD_TIMES names when the tool ends.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/types.h>
#include <time.h>

enum { max_holds = 65536 };

static struct hold {
    pid_t tid;
    double start_ms;
    double end_ms;
} holds[max_holds];
static atomic_int hold_count;

static double now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static void note_end(pid_t tid, double now)
{
    const int count = atomic_load(&hold_count);
    for (int i = (count < max_holds ? count : max_holds) - 1; i >= 0; i--)
        if (holds[i].tid == tid) {
            holds[i].end_ms = now;
            return;
        }
}

long ptrace(enum __ptrace_request request, ...)
{
    static long (*next)(enum __ptrace_request, pid_t, void*, void*);
    va_list args;
    va_start(args, request);
    const pid_t tid = va_arg(args, pid_t);
    void* const address = va_arg(args, void*);
    void* const data = va_arg(args, void*);
    va_end(args);
    if (next == NULL)
        *(void**)&next = dlsym(RTLD_NEXT, "ptrace");
    const double before = now_ms();
    const long result = next(request, tid, address, data);
    if (result == 0 && (request == PTRACE_ATTACH || request == PTRACE_SEIZE)) {
        const int index = atomic_fetch_add(&hold_count, 1);
        if (index < max_holds)
            holds[index] = (struct hold){tid, before, 0};
    }
    if (result == 0 && request == PTRACE_DETACH)
        note_end(tid, now_ms());
    return result;
}

__attribute__((destructor)) static void write_holds(void)
{
    const char* path = getenv("HOLD_TIMES");
    FILE* file = path != NULL && hold_count > 0 ? fopen(path, "we") : NULL;
    if (file == NULL)
        return;
    // The peak that wait4 reports counts the memory of whoever started the tool.
    char line[128];
    FILE* status = fopen("/proc/self/status", "re");
    while (status != NULL && fgets(line, sizeof(line), status) != NULL)
        if (strncmp(line, "VmHWM:", 6) == 0)
            fprintf(file, "%s", line);
    if (status != NULL)
        fclose(status);
    for (int i = 0; i < hold_count && i < max_holds; i++)
        if (holds[i].end_ms != 0)
            fprintf(file, "%.4f %.4f\n", holds[i].start_ms, holds[i].end_ms - holds[i].start_ms);
    fclose(file);
}
