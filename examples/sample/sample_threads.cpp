// The demo's target: a few named threads, each waiting at the end of a call chain through C++ and C.
// usage: sample_threads [THREADS]   prints one line when every thread waits
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern "C" void take_job(void (*ready)());

namespace
{
pthread_barrier_t all_waiting;

void report_ready()
{
    pthread_barrier_wait(&all_waiting);
}

}  // namespace

namespace shop
{
class counter
{
    std::string name;

public:
    explicit counter(std::string counter_name) : name(std::move(counter_name)) {}
    void serve() { handle_order(3); }

private:
    void handle_order(int items)
    {
        pthread_setname_np(pthread_self(), name.c_str());
        if (items > 1)
            handle_order(items - 1);
        else
            take_job(report_ready);
    }
};

}  // namespace shop

int main(int argc, char** argv)
{
    const unsigned count = argc > 1 ? static_cast<unsigned>(atoi(argv[1])) : 5;
    pthread_barrier_init(&all_waiting, nullptr, count + 1);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; i++)
        threads.emplace_back([i] { shop::counter("counter " + std::to_string(i)).serve(); });
    pthread_barrier_wait(&all_waiting);
    printf("ready\n");
    fflush(stdout);
    for (;;)
        pause();
}
