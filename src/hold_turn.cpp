// See hold_turn.h.
#include "hold_turn.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using std::chrono::steady_clock;

namespace
{
constexpr auto longest_wait = std::chrono::milliseconds(5);  // usual holds take a tenth of one

std::atomic<int>& free_turns()
{
    static std::atomic<int> count = static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    return count;
}

bool take_turn()
{
    std::atomic<int>& count = free_turns();
    int seen = count;
    while (seen > 0)
        if (count.compare_exchange_weak(seen, seen - 1))
            return true;
    return false;
}

}  // namespace

// Polls: a sleeping thread gets its processor later than the holds that it waits for take.
hold_turn::hold_turn() : mine(take_turn())
{
    if (mine)
        return;
    const auto end = steady_clock::now() + longest_wait;
    while (!mine && steady_clock::now() < end) {
        sched_yield();
        mine = take_turn();
    }
}

hold_turn::~hold_turn()
{
    if (mine)
        free_turns()++;
}
