// Registers of x86_64: struct user_regs_struct, <sys/user.h>. The section has the style of the aarch64 one.
#include <sys/user.h>

#include <cstdio>
#include <cstring>

#include "registers.h"

std::vector<std::string> register_lines(const register_set& set)
{
    user_regs_struct user;
    static_assert(sizeof(user) <= sizeof(set.bytes));
    if (set.length != sizeof(user))
        return {};
    memcpy(&user, set.bytes.data(), sizeof(user));

    struct named_register {
        const char* name;
        unsigned long long value;
    };
    const named_register rows[][4] = {
        {{"rax", user.rax}, {"rbx", user.rbx}, {"rcx", user.rcx}, {"rdx", user.rdx}},
        {{"rsi", user.rsi}, {"rdi", user.rdi}, {"rbp", user.rbp}, {"rsp", user.rsp}},
        {{"r8", user.r8}, {"r9", user.r9}, {"r10", user.r10}, {"r11", user.r11}},
        {{"r12", user.r12}, {"r13", user.r13}, {"r14", user.r14}, {"r15", user.r15}},
        {{"rip", user.rip}, {"eflags", user.eflags}, {"cs", user.cs}, {"ss", user.ss}},
    };
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string text = "  ";
        for (const auto& reg : row) {
            char column[64];
            snprintf(column, sizeof(column), "  %-3s  0x%016llx", reg.name, reg.value);
            text += column;
        }
        lines.push_back(text + "\n");
    }
    return lines;
}
