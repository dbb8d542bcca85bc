// Two tellers who lock two accounts in opposite order and wait for each other for ever; the example that
// docs/reading_a_report.md reads. Prints "ready" when both hold their first account, then they hang.
#include <pthread.h>

#include <cstdio>
#include <functional>
#include <latch>
#include <mutex>
#include <thread>

namespace bank
{
struct account {
    std::mutex lock;
    long balance = 100;
};

account savings;
account salary;
std::latch both_hold_one(2);

void lock_second(account& to)
{
    to.lock.lock();
}

void transfer(account& from, account& to, long amount)
{
    from.lock.lock();
    if (both_hold_one.arrive_and_wait(); amount > 0)
        lock_second(to);
    from.balance -= amount;
    to.balance += amount;
}

void teller(const char* name, account& from, account& to)
{
    pthread_setname_np(pthread_self(), name);
    transfer(from, to, 10);
}
}  // namespace bank

int main()
{
    std::thread first(bank::teller, "teller 1", std::ref(bank::savings), std::ref(bank::salary));
    std::thread second(bank::teller, "teller 2", std::ref(bank::salary), std::ref(bank::savings));
    bank::both_hold_one.wait();
    puts("ready");
    fflush(stdout);
    first.join();
    second.join();
}
