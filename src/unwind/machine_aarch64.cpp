// aarch64: see machine.h.
#include "machine.h"

#include <asm/ptrace.h>
#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>

#ifndef NT_ARM_PAC_MASK
#define NT_ARM_PAC_MASK 0x406
#endif

namespace
{

// DW_CFA_def_cfa x29+16; x29 at cfa-16; x30 at cfa-8
constexpr uint8_t frame_record_bytes[] = {0x0c, 29, 16, 0x80 | 29, 2, 0x80 | 30, 1};
// DW_CFA_def_cfa sp+0; the return address stays in x30
constexpr uint8_t call_site_bytes[] = {0x0c, 31, 0};

bool get_register_set(pid_t tid, int type, void* to, size_t size)
{
    iovec vector{to, size};
    return ptrace(PTRACE_GETREGSET, tid, type, &vector) != -1 && vector.iov_len == size;
}

uint32_t instruction(const uint8_t* code)
{
    uint32_t word;
    memcpy(&word, code, sizeof(word));
    return word;
}

}  // namespace

namespace machine
{

const std::span<const uint8_t> frame_record_rules = frame_record_bytes;
const std::span<const uint8_t> call_site_rules = call_site_bytes;
const uint8_t return_column = 30;
const uint64_t table_columns = 97;
const int register_count = UNW_AARCH64_PSTATE + 1;
const unw_regnum_t stack_pointer = UNW_AARCH64_SP;
const unw_regnum_t frame_pointer = UNW_AARCH64_X29;
const unw_regnum_t link_register = UNW_AARCH64_X30;
const size_t red_zone = 0;
const size_t frame_record_align = 16;

bool read_registers(pid_t tid, const register_set& set, machine_registers& registers)
{
    user_pt_regs regs;
    if (set.length != sizeof(regs))
        return false;
    memcpy(&regs, set.bytes.data(), sizeof(regs));
    std::copy(std::begin(regs.regs), std::end(regs.regs), registers.word.begin());
    registers.word[UNW_AARCH64_SP] = regs.sp;
    registers.word[UNW_AARCH64_PC] = regs.pc;
    registers.word[UNW_AARCH64_PSTATE] = regs.pstate;
    uint64_t thread_pointer = 0;
    if (get_register_set(tid, NT_ARM_TLS, &thread_pointer, sizeof(thread_pointer)))
        registers.thread_pointer = thread_pointer;
    user_pac_mask mask{};  // refused by a kernel or a core without pointer authentication
    if (get_register_set(tid, NT_ARM_PAC_MASK, &mask, sizeof(mask)))
        registers.signature_mask = mask.insn_mask;
    return true;
}

bool toggles_signature(uint8_t opcode)
{
    return opcode == 0x2d;
}  // DW_CFA_AARCH64_negate_ra_state

bool at_function_edge(std::span<const uint8_t, edge_code_bytes> code)
{
    const uint32_t first = instruction(code.data());
    return first == 0xd65f03c0                    // ret
           || first == 0xd503233f                 // paciasp
           || (first & 0xffffff3f) == 0xd503241f  // bti
           || (first & 0xffc07fff) == 0xa9807bfd  // stp x29, x30, [sp, #-n]!
           || ((first & 0x9f00001f) == 0x90000010 &&
               (instruction(code.data() + 4) & 0xffc003ff) == 0xf9400211)  // a linkage stub
           || first == 0xd61f0220;                                         // br x17, its end
}

bool follows_call(std::span<const uint8_t, call_code_bytes> code)
{
    const uint32_t last = instruction(code.data() + 4);
    return (last & 0xfc000000) == 0x94000000      // bl
           || (last & 0xfffffc1f) == 0xd63f0000   // blr
           || (last & 0xfefff800) == 0xd63f0800;  // blraa, blrab and their zero forms
}

}  // namespace machine
