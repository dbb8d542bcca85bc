// A program that replaces itself by itself all the time, from its lead thread or, with "thread", from another
// one. The first image writes one byte.
//
// usage: execs [lead|thread]
//
// Ends when its parent has gone: the signal that others get then does not outlive the exec of a thread.
#include <unistd.h>

#include <string>
#include <thread>

int main(int argc, char** argv)
{
    std::string mode = argc > 1 ? argv[1] : "lead";
    std::string parent = std::to_string(getppid());
    if (argc < 3)
        (void)!write(STDOUT_FILENO, "r", 1);
    else if (parent != argv[2])
        return 0;
    char* args[] = {argv[0], mode.data(), parent.data(), nullptr};
    auto replace = [&] { execv("/proc/self/exe", args); };
    if (mode == "lead")
        replace();
    std::thread(replace).join();
    return 1;
}
