// x86_64: see machine.h.
#include "machine.h"

#include <sys/user.h>

#include <cstring>

namespace
{

// DW_CFA_def_cfa rbp+16; return address at cfa-8; rbp at cfa-16
constexpr uint8_t frame_record_bytes[] = {0x0c, 6, 16, 0x80 | 16, 1, 0x80 | 6, 2};
// DW_CFA_def_cfa rsp+8; return address at cfa-8
constexpr uint8_t call_site_bytes[] = {0x0c, 7, 8, 0x80 | 16, 1};

}  // namespace

namespace machine
{

const std::span<const uint8_t> frame_record_rules = frame_record_bytes;
const std::span<const uint8_t> call_site_rules = call_site_bytes;
const uint8_t return_column = 16;
const uint64_t table_columns = 17;
const int register_count = UNW_X86_64_RIP + 1;
const unw_regnum_t stack_pointer = UNW_X86_64_RSP;
const unw_regnum_t frame_pointer = UNW_X86_64_RBP;
const unw_regnum_t link_register = -1;
const size_t red_zone = 128;
const size_t frame_record_align = 8;

bool read_registers(pid_t, const register_set& set, machine_registers& registers)
{
    user_regs_struct regs;
    if (set.length != sizeof(regs))
        return false;
    memcpy(&regs, set.bytes.data(), sizeof(regs));
    registers.word = {regs.rax, regs.rdx, regs.rcx, regs.rbx, regs.rsi, regs.rdi, regs.rbp, regs.rsp, regs.r8,
                      regs.r9,  regs.r10, regs.r11, regs.r12, regs.r13, regs.r14, regs.r15, regs.rip};
    registers.thread_pointer = regs.fs_base;
    return true;
}

bool toggles_signature(uint8_t)
{
    return false;
}

bool at_function_edge(std::span<const uint8_t, edge_code_bytes> code)
{
    const uint8_t first = code[0];
    return first == 0xc3                                                                // ret
           || (first == 0xf3 && code[1] == 0xc3)                                        // rep ret
           || first == 0x55                                                             // push %rbp
           || (first == 0xf3 && code[1] == 0x0f && code[2] == 0x1e && code[3] == 0xfa)  // endbr64
           || (first == 0xff && code[1] == 0x25)                      // jmp *slot(%rip), a linkage stub
           || (first == 0xf2 && code[1] == 0xff && code[2] == 0x25);  // the same with bnd
}

bool follows_call(std::span<const uint8_t, call_code_bytes> code)
{
    if (code[3] == 0xe8)
        return true;  // call rel32
    // call r/m64: opcode ff, ModRM with /2, then up to five bytes of SIB and displacement
    for (size_t length = 2; length <= 7; length++) {
        const size_t at = call_code_bytes - length;
        if (code[at] == 0xff && (code[at + 1] & 0x38) == 0x10)
            return true;
    }
    return false;
}

}  // namespace machine
