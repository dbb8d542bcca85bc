// Attach, stop wait and release of single threads, in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/dumper_test.h"
#include "support/log_capture.h"
#include "support/target.h"
#include "system_log.h"

using std::string;

TEST(attach, refuses_what_is_not_there_without_touching_it)
{
    const target program({"threads", "1"});
    dumper_test job(program.pid(), 1);
    EXPECT_EQ(job.job.attach_thread(-1), -3);
    EXPECT_EQ(log_as_text(), "6 Dumper: Tid 1 does not exist in pid " + std::to_string(program.pid()) +
                                 ". ignoring request\n");
    clear_log();
    for (const pid_t gone : {2, 0, -5}) {
        dumper_test none(gone, gone);
        EXPECT_EQ(none.thread_exist(gone), -3);
        EXPECT_EQ(none.job.attach_thread(gone), -3);
    }
    EXPECT_EQ(log_as_text(), "");
    // A second tracer is refused by the kernel.
    dumper_test again(program.pid(), program.pid());
    ASSERT_EQ(again.job.attach_thread(-1), 0);
    EXPECT_EQ(again.job.attach_thread(-1), -1);
    EXPECT_THAT(log_as_text(),
                testing::HasSubstr("6 Dumper: Ptrace attach tid:" + std::to_string(program.pid()) +
                                   " failed: Operation not permitted\n"));
    ASSERT_EQ(again.job.attach_thread(program.other_thread()), 0);
    bool detach_failed = false;
    for (const pid_t tid : {program.pid(), program.other_thread()}) {
        EXPECT_EQ(again.wait_for_sigstop(&detach_failed, tid), SIGSTOP);
        EXPECT_EQ(again.job.detach_thread(tid), 0);
    }
    EXPECT_TRUE(program.runs_untraced());
}

TEST(attach, holds_the_thread_from_its_stop_to_its_release)
{
    const target program({"threads", "1"});
    dumper_test job(program.pid(), program.other_thread());
    bool detach_failed = false;
    ASSERT_EQ(job.job.attach_thread(-1), 0);
    EXPECT_EQ(job.wait_for_sigstop(&detach_failed, -1), SIGSTOP);
    EXPECT_TRUE(job.job.still_traced(program.other_thread()));
    EXPECT_EQ(log_as_text(), "");
    EXPECT_FALSE(job.job.still_traced(-1));
    EXPECT_FALSE(job.job.still_traced(program.pid()));
    clear_log();
    EXPECT_EQ(job.job.detach_thread(-1), 0);
    EXPECT_TRUE(program.runs_untraced());
    EXPECT_FALSE(job.job.still_traced(program.other_thread()));
    EXPECT_FALSE(detach_failed);
    EXPECT_EQ(log_as_text(), "");

    EXPECT_EQ(job.job.detach_thread(-1), -1);  // not traced, and there
    const string tid = std::to_string(program.other_thread());
    EXPECT_EQ(log_as_text(), "6 Dumper: Ptrace detach tid:" + tid + " failed: No such process\n");
    clear_log();
    EXPECT_EQ(job.job.detach_thread(1), 0);  // not there
    EXPECT_THAT(log_as_text(), testing::HasSubstr("5 Dumper: Process may exited, not fatal error, ignore\n"));
}

TEST(stop_wait, tells_of_a_thread_that_died_first)
{
    const target program({"threads", "1"});
    const pid_t tid = program.other_thread();
    dumper_test job(program.pid(), tid);
    ASSERT_EQ(job.job.attach_thread(tid), 0);
    kill(program.pid(), SIGKILL);
    bool detach_failed = false;
    EXPECT_EQ(job.wait_for_sigstop(&detach_failed, tid), -1);
    EXPECT_FALSE(detach_failed);
    const string number = std::to_string(tid);
    EXPECT_EQ(log_as_text(), "4 Dumper: Unexpected waitpid response: pid=" + number + ", status=00000009\n" +
                                 "4 Dumper: Waitpid exit: tid " + number + ", No child processes\n" +
                                 "4 Dumper: Tid exited before attach completed: tid " + number + "\n");
}

TEST(release, reaps_a_thread_that_was_killed_while_held)
{
    const target program({"threads", "1"});
    const pid_t tid = program.other_thread();
    dumper_test job(program.pid(), tid);
    ASSERT_EQ(job.job.attach_thread(tid), 0);
    bool detach_failed = false;
    ASSERT_EQ(job.wait_for_sigstop(&detach_failed, tid), SIGSTOP);
    kill(program.pid(), SIGKILL);
    ASSERT_TRUE(eventually([&] { return thread_state(program.pid(), tid) == 'Z'; }));
    EXPECT_EQ(job.job.detach_thread(tid), 0);
    EXPECT_EQ(thread_state(program.pid(), tid), '\0');
    EXPECT_THAT(log_as_text(), testing::HasSubstr("5 Dumper: Process may exited, not fatal error, ignore\n"));
}

// The signal that is pending when the thread wakes comes before the SIGSTOP of the attach, whose number is
// higher. By its thread alone ("-t" without "-p") the job's pid is that thread's number.
TEST(stop_wait, hands_a_foreign_signal_back_and_lets_the_target_run_on)
{
    for (const bool by_thread_alone : {false, true}) {
        const held_target sleeper({"vfork_parent", "thread"});
        clear_log();
        const pid_t pid = by_thread_alone ? sleeper.tid : sleeper.pid();
        dumper_test job(pid, sleeper.tid);
        ASSERT_EQ(job.job.attach_thread(-1), 0);
        ASSERT_EQ(tgkill(sleeper.pid(), sleeper.tid, SIGUSR1), 0);
        sleeper.wake();
        std::stringstream ss;
        EXPECT_EQ(job.job.dump_thread(sleeper.tid, true, &ss), 0);
        const string numbers = ", pid=" + std::to_string(pid) + ", tid=" + std::to_string(sleeper.tid) + "\n";
        EXPECT_EQ(log_as_text(), "6 Dumper: Wait for sigstop failed:10" + numbers +
                                     "4 Dumper: Unexcept signal:10..continue\n");
        EXPECT_EQ(ss.str().find("\nRegister:"), string::npos);
        EXPECT_EQ(ss.str().find("\nBacktrace:"), string::npos);
        EXPECT_NE(ss.str().find("\nKernel Trace:"), string::npos);
        EXPECT_EQ(sleeper.read_output(1), "u");
        EXPECT_TRUE(sleeper.runs_untraced());
    }
}

TEST(stop_wait, gives_up_after_one_to_two_seconds_and_a_late_stop_is_released)
{
    const held_target sleeper;
    dumper_test job(sleeper.pid(), -1);
    ASSERT_EQ(job.job.attach_thread(sleeper.tid), 0);
    bool detach_failed = false;
    timeval start;
    gettimeofday(&start, nullptr);
    EXPECT_EQ(job.wait_for_sigstop(&detach_failed, sleeper.tid), -1);
    timeval end;
    gettimeofday(&end, nullptr);
    EXPECT_TRUE(detach_failed);
    EXPECT_GE(elapsed_ms(start, end), 1000);
    EXPECT_LE(elapsed_ms(start, end), 10000);
    EXPECT_FALSE(job.release_thread(true, sleeper.tid));  // sleeps on: only the tool's end would help
    sleeper.wake();
    EXPECT_TRUE(eventually([&] { return job.release_thread(true, sleeper.tid); }));
    EXPECT_THAT(log_as_text(), testing::HasSubstr(" did not stop in time, released later\n"));
    EXPECT_TRUE(sleeper.runs_untraced());
}
