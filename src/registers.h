// The general registers of a thread as report lines. One of registers_<machine>.cpp is built in: the only
// source files that differ by machine outside src/unwind/.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

constexpr size_t register_set_size = 512;  // room for NT_PRSTATUS of either machine: core(5), <sys/user.h>

// The lines of one PTRACE_GETREGSET answer, each with its newline. Empty when length is not that of a 64-bit
// thread's set, for instance for a 32-bit target.
std::vector<std::string> register_lines(const void* set, size_t length);
