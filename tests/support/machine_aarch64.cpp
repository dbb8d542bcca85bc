#include "support/machine.h"

namespace machine_names
{
const char* const pc = "pc";
const char* const stack_pointer = "sp";
const uint64_t system_call_bytes = 4;
}  // namespace machine_names
