// A program that replaces itself by itself all the time, from its lead thread or, with "thread", from another
// one. The first image writes one byte.
//
// usage: execs [lead|thread|later]
//
// With "later" a thread waits for a file /tmp/exec, and does so once; then the lead does.
// Ends when its parent has gone: the signal that others get then does not outlive the exec of a thread.
#include <unistd.h>

#include <string>
#include <thread>

int main(int argc, char** argv)
{
    std::string mode = argc > 1 ? argv[1] : "lead";
    std::string lead = "lead";
    std::string parent = std::to_string(getppid());
    if (argc < 3)
        (void)!write(STDOUT_FILENO, "r", 1);
    else if (parent != argv[2])
        return 0;
    char* args[] = {argv[0], mode.data(), parent.data(), nullptr};
    auto replace = [&] {
        while (mode == "later" && access("/tmp/exec", F_OK) != 0)
            usleep(10000);
        args[1] = mode == "later" ? lead.data() : mode.data();
        execv("/proc/self/exe", args);
    };
    if (mode == "lead")
        replace();
    std::thread(replace).join();
    return 1;
}
