#include "stacks.h"

const unsigned char call_argument_code[] = {
    0x55,              // push %rbp
    0x48, 0x89, 0xe5,  // mov  %rsp, %rbp
    0xff, 0xd7,        // call *%rdi
    0x5d,              // pop  %rbp
    0xc3,              // ret
};
const size_t call_argument_code_bytes = sizeof(call_argument_code);
