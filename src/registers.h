// The general registers of a thread as report lines. One of registers_<machine>.cpp is built in: the only
// source files that differ by machine outside src/unwind/.
#pragma once

#include <string>
#include <vector>

#include "unwind/machine_registers.h"

// The lines of a set, each with its newline. Empty when it is not that of a 64-bit thread, for instance for a
// 32-bit target.
std::vector<std::string> register_lines(const register_set& set);
