// A target whose threads come and go: ten that stay, named "stay N", and forty that live a few milliseconds
// and are replaced. One byte on standard output says that all have started.
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

namespace
{
constexpr int staying = 10;
constexpr int replaced = 40;

void name_and_wait(int id)
{
    char name[16];
    snprintf(name, sizeof(name), "stay %d", id);
    pthread_setname_np(pthread_self(), name);
    for (;;)
        pause();
}

void start_short_life(unsigned life_us);

void live_shortly(unsigned life_us)
{
    usleep(life_us);
    start_short_life(life_us);
}

void start_short_life(unsigned life_us)
{
    std::thread(live_shortly, life_us).detach();
}

}  // namespace

int main()
{
    for (int i = 0; i < staying; i++)
        std::thread(name_and_wait, i).detach();
    for (unsigned i = 0; i < replaced; i++)
        start_short_life(20000 + i * 1000);
    usleep(20000);
    (void)!write(STDOUT_FILENO, "r", 1);
    for (;;)
        pause();
}
