// See open_connections.h.
#include "open_connections.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "system_log.h"

using guard = std::lock_guard<std::mutex>;

void open_connections::idle(int socket, clock::time_point now)
{
    const guard all(lock);
    idle_since[socket] = now;
}

void open_connections::busy(int socket)
{
    const guard all(lock);
    idle_since[socket] = clock::time_point::max();
}

void open_connections::forget(int socket)
{
    const guard all(lock);
    idle_since.erase(socket);
}

bool open_connections::too_many() const
{
    const guard all(lock);
    return idle_since.size() > most_kept;
}

size_t open_connections::close_idle(clock::time_point now)
{
    const guard all(lock);
    const size_t open = idle_since.size();
    if (open <= most_kept || now < next_sweep)
        return 0;
    next_sweep = now + sweep_period;

    std::vector<std::pair<clock::time_point, int>> closing;
    for (const auto& [socket, since] : idle_since)
        if (since <= now - longest_idle)
            closing.emplace_back(since, socket);
    std::ranges::sort(closing);
    if (closing.size() > open - most_kept)
        closing.resize(open - most_kept);
    // Under the lock: a descriptor in the map is open, as its thread forgets it first.
    for (const auto& [since, socket] : closing) {
        shutdown(socket, SHUT_RD);
        idle_since.erase(socket);
    }
    if (!closing.empty())
        __android_log_print(ANDROID_LOG_WARN, "DumpServer",
                            "%zu connections are open: closing %zu that sent nothing for %lld s\n", open,
                            closing.size(), static_cast<long long>(longest_idle.count()));
    return closing.size();
}
