// Odd programs to be dumped. usage: odd NAME     waits under that process name
//                                    odd --code   runs in code that it made itself, in anonymous memory
//                                    odd --churn  threads are born and die all the time
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace
{
void say(const char* text)
{
    (void)!write(STDOUT_FILENO, text, 1);
}

void loop_for_ever()
{
    for (;;)
        asm volatile("");
}

// In a copy of a function that runs wherever it stands.
void run_made_code()
{
    constexpr size_t size = 4096;
    void* code = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memcpy(code, reinterpret_cast<void*>(loop_for_ever), 32);
    mprotect(code, size, PROT_READ | PROT_EXEC);
    __builtin___clear_cache(static_cast<char*>(code), static_cast<char*>(code) + size);
    say("r");
    reinterpret_cast<void (*)()>(code)();
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
    const std::string mode = argv[1];
    if (mode == "--code")
        run_made_code();
    if (mode == "--churn")
        churn();
    prctl(PR_SET_NAME, argv[1]);
    say("r");
    for (;;)
        pause();
}
