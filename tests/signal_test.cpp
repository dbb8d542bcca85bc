// Signal names, the fatal-signal line, and what a server does with signals of its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "dumper_common.h"
#include "support/log_capture.h"
#include "support/server.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::to_string;

namespace
{
siginfo_t signal_info(int signo, int code, uintptr_t address)
{
    siginfo_t info = {};
    info.si_signo = signo;
    info.si_code = code;
    info.si_addr = reinterpret_cast<void*>(address);
    return info;
}

}  // namespace

TEST(signal_summary, is_one_line_that_names_the_thread)
{
    prctl(PR_SET_NAME, "fifteen_letters");
    const string process = file_text("/proc/self/comm").substr(0, 15);
    const string tail = "in tid " + to_string(gettid()) + " (fifteen_letters), pid " + to_string(getpid()) +
                        " (" + process + ")";
    for (const auto& [info, head] : std::initializer_list<std::pair<siginfo_t, string>>{
             {signal_info(SIGSEGV, SEGV_MAPERR, 0x10), "Fatal signal 11 (SIGSEGV), code 1, fault addr 0x10 "},
             {signal_info(SIGSEGV, SI_TKILL, 0x10), "Fatal signal 11 (SIGSEGV), code -6,  "},
             {signal_info(SIGABRT, 1, 0x10), "Fatal signal 6 (SIGABRT), code 1,  "},
             {signal_info(SIGSYS, 1, 0x10), "Fatal signal 31 (SIGSYS), code 1,  "},
             {signal_info(SIGSTOP, SI_USER, 0), "Fatal signal 19 (SIGSTOP), code 0,  "},
             {signal_info(SIGQUIT, SI_USER, 0), "Fatal signal 3 (?), code 0,  "}}) {
        clear_log();
        sys_stat::log_signal_summary(&info);
        EXPECT_EQ(log_as_text(), "6 <null>: " + head + tail + "\n");
    }
}

TEST(server_signals, logs_a_summary_and_its_frames_once_then_ends_as_anyone)
{
    const std::pair<int, const char*> signals[] = {
        {SIGQUIT, "3 (?)"}, {SIGSEGV, "11 (SIGSEGV)"}, {SIGSTKFLT, "16 (SIGSTKFLT)"}};
    for (const auto& [signo, name] : signals) {
        server daemon;
        const target idle({"threads", "1"});
        const size_t mark = daemon.log().size();
        const auto is_caught = [&daemon, bit = uint64_t{1} << (signo - 1)] {
            return (stoull(thread_status(daemon.pid(), daemon.pid(), "SigCgt"), nullptr, 16) & bit) != 0;
        };
        EXPECT_TRUE(is_caught());
        kill(daemon.pid(), signo);
        // Its last step. Sooner, another thread would take the second signal to the handler, too.
        ASSERT_TRUE(eventually([&] { return !is_caught(); })) << name;
        EXPECT_EQ(ask(make_request(CMD_PROCESS_STAT, idle.pid(), idle.pid(), "/tmp")), 0) << name;
        const string log = daemon.log_since(mark);
        const string number = to_string(daemon.pid());
        EXPECT_TRUE(log.starts_with("E dump_server: Fatal signal " + string(name) + ", code 0,  in tid " +
                                    number + " (dump_server), pid " + number +
                                    " (dump_server)\nE DumpServer: ==> [0] "))
            << log;
        kill(daemon.pid(), signo);
        EXPECT_TRUE(daemon.dies_by(signo)) << name;
    }
}

TEST(server_signals, nice_counts_only_before_server_mode)
{
    const std::pair<std::vector<string>, int> cases[] = {{{"-s", "-n", "5"}, 19},
                                                         {{"-n", "5", "-f", "x", "-s"}, 5}};
    for (const auto& [args, expected] : cases) {
        const server daemon(args);
        EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(daemon.pid())),
                  std::min(19, getpriority(PRIO_PROCESS, 0) + expected));
    }
}

// The window between attach and stop: the target waits uninterruptible, so its stop comes when the test says,
// or never, or as that of another signal, behind which the attach's SIGSTOP is still on its way.
TEST(server_signals, ends_by_sigterm_only_when_its_target_is_not_left_stopped)
{
    for (const string stop : {"of the attach", "of another signal", "never"}) {
        server daemon;
        const held_target held;
        const connection link;
        ASSERT_EQ(link.request(make_request(CMD_PROCESS_STAT, held.pid(), held.pid(), fresh_dir())), 0);
        kill(daemon.pid(), SIGTERM);
        EXPECT_EQ(daemon.wait_for_end(100), -1) << stop;
        if (stop == "of another signal")
            tgkill(held.pid(), held.tid, SIGUSR1);
        if (stop != "never")
            held.wake();
        EXPECT_TRUE(daemon.dies_by(SIGTERM)) << stop;
        held.wake();
        const string handled = stop == "of another signal" ? "u" : "";
        EXPECT_EQ(held.read_output(handled.size()), handled);
        EXPECT_TRUE(held.runs_untraced()) << stop;
    }
}
