// Odd programs to be dumped.
//
// usage: odd NAME | --churn
//
// Under a name it waits. SIGUSR1 makes it one that its user may not trace, and it says so. With a file
// /tmp/<NAME> there, it becomes one and aborts. The last signal of all is pending. With --churn threads are
// born and die all the time.
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace
{
void say(const char* text)
{
    (void)!write(STDOUT_FILENO, text, 1);
}

void become_untraceable(int)
{
    prctl(PR_SET_DUMPABLE, 0);
    say("u");
}

void* die_soon(void*)
{
    usleep(300);
    return nullptr;
}

void churn()
{
    for (bool first = true;; first = false) {
        pthread_t threads[6];
        int started = 0;
        while (started < 6 && pthread_create(&threads[started], nullptr, die_soon, nullptr) == 0)
            started++;
        if (first)
            say("r");
        for (int i = 0; i < started; i++)
            pthread_join(threads[i], nullptr);
    }
}

}  // namespace

int main(int, char** argv)
{
    setpgid(0, 0);  // not a group of orphans, which Ctrl-Z would not stop
    if (std::string(argv[1]) == "--churn")
        churn();
    signal(SIGUSR1, become_untraceable);
    sigset_t last;
    sigemptyset(&last);
    sigaddset(&last, SIGRTMAX);
    sigprocmask(SIG_BLOCK, &last, nullptr);
    raise(SIGRTMAX);
    prctl(PR_SET_NAME, argv[1]);
    say("r");
    while (access(("/tmp/" + std::string(argv[1])).c_str(), F_OK) != 0)
        usleep(10000);
    become_untraceable(SIGUSR1);
    abort();
}
