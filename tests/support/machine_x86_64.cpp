#include "support/machine.h"

namespace machine_names
{
const char* const pc = "rip";
const char* const stack_pointer = "rsp";
const uint64_t system_call_bytes = 2;
}  // namespace machine_names
