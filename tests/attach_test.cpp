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

TEST(attach, holds_the_thread_from_its_stop_to_its_release)
{
    const target program({"threads", "1"});
    const pid_t tid = program.other_thread();
    const string number = std::to_string(tid);
    dumper_test job(program.pid(), tid);
    ASSERT_EQ(job.job.attach_thread(-1), 0);
    EXPECT_EQ(job.wait_for_sigstop(), SIGSTOP);
    EXPECT_TRUE(job.job.still_traced(tid));
    EXPECT_EQ(log_as_text(), "");
    EXPECT_FALSE(job.job.still_traced(program.pid()));
    EXPECT_FALSE(job.job.still_traced(-1));
    clear_log();
    EXPECT_EQ(job.job.attach_thread(-1), -1);  // a second tracer
    EXPECT_EQ(log_as_text(), "6 Dumper: Ptrace attach tid:" + number + " failed: Operation not permitted\n");
    clear_log();
    EXPECT_EQ(job.job.detach_thread(-1), 0);
    EXPECT_TRUE(program.runs_untraced());
    EXPECT_FALSE(job.detach_failed);
    EXPECT_EQ(log_as_text(), "");
    EXPECT_EQ(job.job.detach_thread(-1), -1);  // not traced, and there
    EXPECT_EQ(log_as_text(), "6 Dumper: Ptrace detach tid:" + number + " failed: No such process\n");
}

TEST(attach, ends_when_the_thread_dies_before_or_after_its_stop)
{
    for (const bool stopped : {false, true}) {
        const target program({"threads", "1"});
        const pid_t tid = program.other_thread();
        const string number = std::to_string(tid);
        string log = "4 Dumper: Unexpected waitpid response: pid=" + number + ", status=00000009\n" +
                     "4 Dumper: Waitpid exit: tid " + number + ", No child processes\n" +
                     "4 Dumper: Tid exited before attach completed: tid " + number + "\n";
        clear_log();
        dumper_test job(program.pid(), tid);
        ASSERT_EQ(job.job.attach_thread(tid), 0);
        if (stopped) {
            ASSERT_EQ(job.wait_for_sigstop(), SIGSTOP);
        }
        kill(program.pid(), SIGKILL);
        if (stopped) {
            ASSERT_TRUE(eventually([&] { return thread_state(program.pid(), tid) == 'Z'; }));
            EXPECT_EQ(job.job.detach_thread(tid), 0);
            log = "6 Dumper: Ptrace detach tid:" + number + " failed: No such process\n" +
                  "5 Dumper: Process may exited, not fatal error, ignore\n";
        } else {
            EXPECT_EQ(job.wait_for_sigstop(), -1);
            EXPECT_FALSE(job.detach_failed);
        }
        EXPECT_EQ(thread_state(program.pid(), tid), '\0') << "not reaped";
        EXPECT_EQ(log_as_text(), log);
    }
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
    dumper_test job(sleeper.pid(), sleeper.tid);
    ASSERT_EQ(job.job.attach_thread(-1), 0);
    const timeval start = now();
    EXPECT_EQ(job.wait_for_sigstop(), -1);
    const timeval end = now();
    EXPECT_TRUE(job.detach_failed);
    EXPECT_GE(elapsed_ms(start, end), 1000);
    EXPECT_LE(elapsed_ms(start, end), 10000);
    EXPECT_FALSE(job.release_thread());  // sleeps on: only the tool's end would help
    sleeper.wake();
    EXPECT_TRUE(eventually([&] { return job.release_thread(); }));
    EXPECT_THAT(log_as_text(), testing::HasSubstr(" did not stop in time, released later\n"));
    EXPECT_TRUE(sleeper.runs_untraced());
}
