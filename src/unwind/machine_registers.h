// The general registers of a stopped thread, as the kernel gives them and as the unwinder wants them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// One PTRACE_GETREGSET answer for NT_PRSTATUS, as the kernel lays it out: core(5), <sys/user.h>.
struct register_set {
    alignas(16) std::array<unsigned char, 512> bytes;  // room for that of either machine
    size_t length = 0;                                 // 0 until it was read
};

struct machine_registers {
    std::array<uint64_t, 34> word{};  // in libunwind's numbering
    uint64_t thread_pointer = 0;      // of the thread's static TLS block; 0 when it cannot be read
    uint64_t signature_mask = 0;  // bits of a return address that hold its signature; 0 when none is signed
};
