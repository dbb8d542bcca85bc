// Machine code for stacks.c: calls its argument, a function, with a frame record of its own.
#pragma once

#include <stddef.h>

extern const unsigned char call_argument_code[];
extern const size_t call_argument_code_bytes;
