// A program with a thread that never stops for a tracer: it waits, in uninterruptible sleep, for its vfork
// child, which lives until the test kills it.
//
// usage: vfork_parent [thread]
//
// The waiting thread is the lead, or with "thread" another. Writes the numbers of the waiting thread and of
// the child, ten characters each; later "u" whenever the waiting thread runs a handler of SIGUSR1. SIGTERM
// ends it with status 0.
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace
{
void say_got_it(int)
{
    (void)!write(STDOUT_FILENO, "u", 1);
}

void end(int)
{
    _exit(0);
}

void wait_for_child()
{
    static char text[32];
    static pid_t parent = gettid();
    const pid_t child = vfork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGTERM, SIG_DFL);
        snprintf(text, sizeof(text), "%10d%10d", parent, getpid());
        (void)!write(STDOUT_FILENO, text, 20);
        for (;;)
            pause();
    }
    for (;;)
        pause();
}

}  // namespace

int main(int argc, char**)
{
    signal(SIGUSR1, say_got_it);
    signal(SIGTERM, end);
    if (argc == 1)
        wait_for_child();
    std::thread(wait_for_child).detach();
    for (;;)
        pause();
}
