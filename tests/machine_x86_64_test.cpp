// What only x86_64 shows.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/user.h>

#include "registers.h"

using std::string;

TEST(registers, are_laid_out_to_the_character)
{
    user_regs_struct regs = {};
    regs.r15 = 0x15;
    regs.r8 = 0xfedcba9876543210;
    regs.rbp = 6;
    regs.rdx = 4;
    regs.rax = 1;
    regs.rip = 0x7fb4c92d1df2;
    regs.eflags = 0x246;
    regs.cs = 0x33;
    regs.rsp = 0x7ffd8a3d04c0;
    regs.ss = 0x2b;
    register_set set = {.bytes = {}, .length = sizeof(regs)};
    memcpy(set.bytes.data(), &regs, sizeof(regs));
    string text;
    for (const string& line : register_lines(set))
        text += line;
    EXPECT_EQ(text,
              "    rax  0x0000000000000001  rbx  0x0000000000000000  rcx  0x0000000000000000  rdx  "
              "0x0000000000000004\n"
              "    rsi  0x0000000000000000  rdi  0x0000000000000000  rbp  0x0000000000000006  rsp  "
              "0x00007ffd8a3d04c0\n"
              "    r8   0xfedcba9876543210  r9   0x0000000000000000  r10  0x0000000000000000  r11  "
              "0x0000000000000000\n"
              "    r12  0x0000000000000000  r13  0x0000000000000000  r14  0x0000000000000000  r15  "
              "0x0000000000000015\n"
              "    rip  0x00007fb4c92d1df2  eflags  0x0000000000000246  cs   0x0000000000000033  ss   "
              "0x000000000000002b\n");
    set.length = 17 * sizeof(uint32_t);  // what the kernel gives of a 32-bit thread
    EXPECT_TRUE(register_lines(set).empty());
}
