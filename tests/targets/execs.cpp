// A program that replaces itself by itself all the time, from its lead thread or, with "thread", from another
// one. The first image writes one byte. usage: execs [thread]
// Ends when its parent has gone: the signal that others get then does not outlive the exec of a thread.
#include <unistd.h>

#include <cstring>
#include <thread>

int main(int argc, char** argv)
{
    const bool again = argv[argc - 1][0] == '+';
    const bool from_thread = argc > 1 && strcmp(argv[1], "thread") == 0;
    if (getppid() == 1)
        return 0;
    if (!again)
        (void)!write(STDOUT_FILENO, "r", 1);
    char thread_mode[] = "thread";
    char mark[] = "+";
    char* args[] = {argv[0], from_thread ? thread_mode : mark, mark, nullptr};
    auto replace = [&] { execv("/proc/self/exe", args); };
    if (!from_thread)
        replace();
    std::thread(replace).join();
    return 1;
}
