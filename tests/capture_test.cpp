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
