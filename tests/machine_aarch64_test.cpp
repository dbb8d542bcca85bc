// What only 64-bit arm shows: its registers, signed return addresses, 32-bit processes.
#include <asm/hwcap.h>
#include <asm/ptrace.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

#include "registers.h"
#include "support/report.h"
#include "support/target.h"
#include "support/tool.h"
#include "unwind/target_maps.h"

using std::string;
using std::vector;

TEST(registers, are_laid_out_to_the_character)
{
    user_pt_regs regs = {};
    for (uint64_t i = 0; i < 31; i++)
        regs.regs[i] = 0xfedcba9800000000 + i;
    regs.sp = 0xffffd1b2c3a0;
    regs.pc = 0xaaaab6c50ad0;
    regs.pstate = 0x60001000;
    register_set set = {.bytes = {}, .length = sizeof(regs)};
    memcpy(set.bytes.data(), &regs, sizeof(regs));
    string text;
    for (const string& line : register_lines(set))
        text += line;
    EXPECT_EQ(text,
              "    x0   0xfedcba9800000000  x1   0xfedcba9800000001  x2   0xfedcba9800000002  x3   "
              "0xfedcba9800000003\n"
              "    x4   0xfedcba9800000004  x5   0xfedcba9800000005  x6   0xfedcba9800000006  x7   "
              "0xfedcba9800000007\n"
              "    x8   0xfedcba9800000008  x9   0xfedcba9800000009  x10  0xfedcba980000000a  x11  "
              "0xfedcba980000000b\n"
              "    x12  0xfedcba980000000c  x13  0xfedcba980000000d  x14  0xfedcba980000000e  x15  "
              "0xfedcba980000000f\n"
              "    x16  0xfedcba9800000010  x17  0xfedcba9800000011  x18  0xfedcba9800000012  x19  "
              "0xfedcba9800000013\n"
              "    x20  0xfedcba9800000014  x21  0xfedcba9800000015  x22  0xfedcba9800000016  x23  "
              "0xfedcba9800000017\n"
              "    x24  0xfedcba9800000018  x25  0xfedcba9800000019  x26  0xfedcba980000001a  x27  "
              "0xfedcba980000001b\n"
              "    x28  0xfedcba980000001c  x29  0xfedcba980000001d  x30  0xfedcba980000001e\n"
              "    sp   0x0000ffffd1b2c3a0  pc   0x0000aaaab6c50ad0  pstate 0x0000000060001000\n");
}

// The kernel gives 18 registers of 32 bits. The target is a program of that kind when QV_ARM_PROGRAM names
// one.
TEST(registers, of_a_32_bit_process_are_none)
{
    const register_set set = {.bytes = {}, .length = 18 * sizeof(uint32_t)};
    EXPECT_TRUE(register_lines(set).empty());
    const char* program = getenv("QV_ARM_PROGRAM");
    if (program == nullptr)
        return;
    const target child({program});
    const tool_run run = run_tool({"-p", std::to_string(child.pid())});
    EXPECT_THAT(run.err, testing::HasSubstr("E Dumper[")) << run.err;
    EXPECT_THAT(run.err,
                testing::HasSubstr("Tid " + std::to_string(child.pid()) + " has a register set of " +
                                   std::to_string(set.length) + " bytes, not that of a 64-bit thread\n"));
    EXPECT_THAT(run.out, testing::HasSubstr("\nRegister:\n\nKernel Trace:\n  [<0>] "));
    EXPECT_EQ(count_of(run.out, "\nBacktrace:\n"), 0U);
    EXPECT_TRUE(child.runs_untraced());
}

// Holds up the tests of signed return addresses: on a core that signs, the words on the stacks of these
// programs are signed, and what the report shows of them is not.
TEST(stack, shows_signed_return_addresses_without_their_signature)
{
    const target child({"stacks_signed", "plain"});
    std::set<uint64_t> pcs;
    for (const frame& one : frames_of(run_tool({"-p", std::to_string(child.pid())}).out))
        pcs.insert(std::stoull(one.pc, nullptr, 16));

    const string process = "/proc/" + std::to_string(child.pid());
    const string maps = file_text(process + "/maps");
    mapping stack;
    ASSERT_TRUE(parse_mapping(maps.substr(maps.rfind('\n', maps.find("[stack]")) + 1).c_str(), stack));
    vector<uint64_t> words((stack.end - stack.start) / sizeof(uint64_t));
    const int memory = open((process + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
    const auto bytes = static_cast<ssize_t>(stack.end - stack.start);
    ASSERT_EQ(pread(memory, words.data(), static_cast<size_t>(bytes), static_cast<off_t>(stack.start)),
              bytes);
    close(memory);
    constexpr uint64_t address_bits = (uint64_t{1} << 48) - 1;
    const auto returns = [&](uint64_t word) { return pcs.contains(word & address_bits); };
    EXPECT_GE(std::ranges::count_if(words, returns), 4);
    // Not all: a signature has seven bits, and one of 128 is zero.
    const bool is_signed =
        std::ranges::any_of(words, [&](uint64_t word) { return returns(word) && word > address_bits; });
    EXPECT_EQ(is_signed, (getauxval(AT_HWCAP) & HWCAP_PACA) != 0);
}
