// What the tests must know of the machine; CMake picks support/machine_<machine>.cpp and
// machine_<machine>_test.cpp.
#pragma once

#include <cstdint>

namespace machine_names
{
extern const char* const pc;
extern const char* const stack_pointer;
extern const uint64_t system_call_bytes;  // of the instruction
}  // namespace machine_names
