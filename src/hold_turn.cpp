// See hold_turn.h.
#include "hold_turn.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace
{
constexpr auto longest_wait = std::chrono::milliseconds(5);  // usual holds take a tenth of one

// Not the library's semaphore: it spins and sleeps before it waits.
struct turn_count {
    std::mutex lock;
    std::condition_variable given_back;
    unsigned free = std::max(1U, std::thread::hardware_concurrency() / 2);
};

turn_count& turns()
{
    static turn_count all;
    return all;
}

}  // namespace

hold_turn::hold_turn()
{
    turn_count& all = turns();
    std::unique_lock guard(all.lock);
    mine = all.given_back.wait_for(guard, longest_wait, [&all] { return all.free > 0; });
    if (mine)
        all.free--;
}

hold_turn::~hold_turn()
{
    if (!mine)
        return;
    turn_count& all = turns();
    {
        std::lock_guard guard(all.lock);
        all.free++;
    }
    all.given_back.notify_one();
}
