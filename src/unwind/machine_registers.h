// The general registers of a stopped thread, as the unwinder wants them.
#pragma once

#include <array>
#include <cstdint>

struct machine_registers {
    std::array<uint64_t, 34> word{};  // in libunwind's numbering
    uint64_t thread_pointer = 0;      // of the thread's static TLS block; 0 when it cannot be read
    uint64_t signature_mask = 0;  // bits of a return address that hold its signature; 0 when none is signed
};
