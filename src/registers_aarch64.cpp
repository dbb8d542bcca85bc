// Registers of 64-bit arm: struct user_pt_regs, <asm/ptrace.h>.
#include <asm/ptrace.h>

#include <cstdio>
#include <cstring>

#include "registers.h"

std::vector<std::string> register_lines(const register_set& set)
{
    user_pt_regs user;
    static_assert(sizeof(user) == 272 && sizeof(user) <= sizeof(set.bytes));
    if (set.length != sizeof(user))
        return {};
    memcpy(&user, set.bytes.data(), sizeof(user));
    const auto& regs = user.regs;

    std::vector<std::string> lines;
    char line[160];
    for (int i = 0; i < 28; i += 4) {
        snprintf(line, sizeof(line),
                 "    x%-2d  0x%016llx  x%-2d  0x%016llx  x%-2d  0x%016llx  x%-2d  0x%016llx\n", i, regs[i],
                 i + 1, regs[i + 1], i + 2, regs[i + 2], i + 3, regs[i + 3]);
        lines.emplace_back(line);
    }
    snprintf(line, sizeof(line), "    x28  0x%016llx  x29  0x%016llx  x30  0x%016llx\n", regs[28], regs[29],
             regs[30]);
    lines.emplace_back(line);
    snprintf(line, sizeof(line), "    sp   0x%016llx  pc   0x%016llx  pstate 0x%016llx\n", user.sp, user.pc,
             user.pstate);
    lines.emplace_back(line);
    return lines;
}
