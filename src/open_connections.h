// The server's open connections, and the limit against a flood of them: idle connections may stay for ever
// while they are few; of too many, those that have been idle for too long are closed. The listener and the
// connection threads share one object.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>

class open_connections
{
public:
    using clock = std::chrono::steady_clock;

    // No request under way from here on: a new connection, or one whose request has ended.
    void idle(int socket, clock::time_point now = clock::now());
    void busy(int socket);
    void forget(int socket);  // before the descriptor is closed

    bool too_many() const;
    // Ends the idle time of those idle for longest_idle, the longest first, until as many are left as may
    // stay: their threads then read an end and close them. At most once in sweep_period, with one log entry.
    // Returns how many. A request that had come before is still read and answered, one that comes later gets
    // EPIPE.
    size_t close_idle(clock::time_point now = clock::now());

    static constexpr size_t most_kept = 256;  // a quarter of the usual limit of descriptors
    static constexpr std::chrono::seconds longest_idle{60};
    static constexpr std::chrono::seconds sweep_period{1};

private:
    mutable std::mutex lock;
    std::map<int, clock::time_point> idle_since;  // socket; clock::time_point::max() while it is busy
    clock::time_point next_sweep = clock::time_point::min();
};
