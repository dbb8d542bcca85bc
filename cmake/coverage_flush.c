// For coverage builds only, where the linker puts these in the place of the calls they wrap: a process that
// is about to end by a signal of its own writes its counters first, as the end of main does.
#define _GNU_SOURCE
#include <gcov.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

int __real_kill(pid_t pid, int signo);
int __real_raise(int signo);
sighandler_t __real_signal(int signo, sighandler_t action);

static void write_counters(void)
{
    __gcov_dump();
    __gcov_reset();
}

int __wrap_kill(pid_t pid, int signo)
{
    if (pid == getpid())
        write_counters();
    return __real_kill(pid, signo);
}

int __wrap_raise(int signo)
{
    write_counters();
    return __real_raise(signo);
}

// A fault handler restores the default action, and the fault comes again.
sighandler_t __wrap_signal(int signo, sighandler_t action)
{
    if (action == SIG_DFL)
        write_counters();
    return __real_signal(signo, action);
}

// A process that gave its rights up cannot write them. It would say so where a test reads the log.
__attribute__((destructor)) static void keep_quiet(void)
{
    if (geteuid() != 0)
        (void)!freopen("/dev/null", "w", stderr);
}
