// What a held thread shows: registers, frames, and the sections that need no hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <regex>

#include "support/dumper_test.h"
#include "support/log_capture.h"
#include "support/mounted_file.h"
#include "support/report.h"
#include "support/target.h"
#include "system_log.h"

using std::string;
using std::stringstream;

namespace
{
// One thread's block, dumped in this process.
thread_block dump_block(pid_t pid, pid_t tid, int mode)
{
    dumper_test job(pid, tid, mode);
    EXPECT_EQ(job.job.init_process_map(), 0);
    stringstream ss;
    EXPECT_EQ(job.job.dump_thread(tid, false, &ss), 0) << log_as_text();
    thread_block block = parse_block(ss.str());
    EXPECT_TRUE(block.whole) << ss.str();
    EXPECT_EQ(job.report(), "");
    return block;
}

}  // namespace

TEST(backtrace, has_its_form_with_names_and_without)
{
    const target program({"threads", "0"});
    for (const int mode : {int{SILENT}, SILENT | FUNC_PARSE}) {
        const string named = mode & FUNC_PARSE ? R"(|  (\?\?|[/\[]\S*) \(.+ \+ 0x[0-9a-f]+\))" : "";
        const std::regex form(R"(#( \d|\d\d) pc 0x[1-9a-f][0-9a-f]*( (\?\?|[/\[]\S*))" + named + ")");
        int number = 0;
        for (const string& frame : dump_block(program.pid(), program.pid(), mode).frames) {
            EXPECT_TRUE(std::regex_match(frame, form)) << frame;
            EXPECT_EQ(atoi(frame.c_str() + 1), number++);
        }
    }
}

TEST(backtrace, shows_code_of_no_file_as_unknown)
{
    const target program({"odd", "--code"});
    for (const int mode : {int{SILENT}, SILENT | FUNC_PARSE}) {
        thread_block block;
        const std::regex unknown(R"(# 0 pc 0x[0-9a-f]+ \?\?)");
        EXPECT_TRUE(eventually([&] {  // it says so just before it jumps there
            block = dump_block(program.pid(), program.pid(), mode);
            return !block.frames.empty() && std::regex_match(block.frames[0], unknown);
        })) << (block.frames.empty() ? "no frames" : block.frames[0]);
    }
}

TEST(capture, of_a_thread_that_is_not_held_leaves_the_heading)
{
    const target program({"odd", "free"});
    dumper_test job(program.pid(), program.pid());
    EXPECT_EQ(job.registers(nullptr, -1), -1);
    EXPECT_EQ(job.report(), "\nRegister:\n");
    EXPECT_EQ(log_as_text(), "6 Dumper: Ptrace error: No such process\n");
}

TEST(capture, of_the_kernel_stack_and_the_map_shows_all_or_nothing)
{
    const target program({"odd", "free"});
    const pid_t pid = program.pid();
    dumper_test job(pid, pid);
    stringstream ss;
    EXPECT_EQ(job.map_section(), -1);  // not loaded
    EXPECT_FALSE(job.ktrace(nullptr, 1));
    EXPECT_FALSE(job.ktrace(&ss, 1));
    EXPECT_EQ(job.report(), "");
    EXPECT_EQ(ss.str(), "\nKernel Trace:\n");
    ss.str("");
    {
        const mounted_file stack(task_file(pid, pid, "stack"), "[<0>] one\n");
        EXPECT_TRUE(job.ktrace(nullptr, -1));
        EXPECT_TRUE(job.ktrace(&ss, -1));
    }
    EXPECT_EQ(job.report(), "\nKernel Trace:\n  [<0>] one\n");
    EXPECT_EQ(ss.str(), job.report());
}
