// A process that cannot be stopped for as long as the tester likes: its only thread waits, uninterruptible,
// for a vfork's child, which lives until the signal SIGUSR1 reaches it. Then it waits for ever like any
// other. Standard output: "r", then the child's number and a newline.
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>

extern "C" void wait_for_ever()
{
    for (;;)
        pause();
}

int main()
{
    const pid_t child = vfork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char line[32];
        const int length = snprintf(line, sizeof(line), "r%d\n", static_cast<int>(getpid()));
        (void)!write(STDOUT_FILENO, line, static_cast<size_t>(length));
        for (;;)
            pause();
    }
    wait_for_ever();
}
