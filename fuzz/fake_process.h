// A process that consists of a fuzzer's input: what the code under test reads of process fake_pid comes from
// here, and nothing else is traced. Each fuzzer is a program of its own, with one input at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>

using bytes = std::span<const uint8_t>;

constexpr pid_t fake_pid = 1 << 22;  // one more than any process has: proc_sys_kernel(5), pid_max

struct fake_process {
    std::map<std::string, bytes> files;  // below /proc/<fake_pid>/
    std::map<uint64_t, bytes> memory;    // by address; zeros up to region_bytes
    bytes registers;                     // as PTRACE_GETREGSET gives them
    std::string created;                 // the last file that was to be made; none is
    static constexpr size_t region_bytes = 4 * 4096;
};
extern fake_process target;

// Ends the fuzzer when what must hold does not.
inline void check(bool holds)
{
    if (!holds)
        __builtin_trap();
}

// A descriptor of a file with these bytes.
int memory_file(bytes content);
