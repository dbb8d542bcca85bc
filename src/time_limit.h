// How long something may be waited for, on a clock that nobody sets.
#pragma once

#include <chrono>

class time_limit
{
    using clock = std::chrono::steady_clock;
    const clock::time_point end;

public:
    explicit time_limit(std::chrono::milliseconds from_now) : end(clock::now() + from_now) {}
    bool passed() const { return clock::now() >= end; }
};
