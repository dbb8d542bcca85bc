// Crash reports end to end: a program that crashes with the example library in it, the server's report, and
// the way the program dies.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "support/server.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::to_string;
using std::vector;

namespace
{
const string banner = "****************** Process crash dump stat ******************\n";

// The sample with the library, its reports in dir.
struct crashing : target {
    crashing(const string& dir, vector<string> args)
        : target((args.insert(args.begin(), build_dir() + "/examples/crash_sample"), args), true, [&dir] {
              setenv("LD_PRELOAD", (build_dir() + "/examples/libcrash_reporter.so").c_str(), 1);
              setenv("CRASH_REPORT_DIR", dir.c_str(), 1);
          })
    {
    }
};

// The thread numbers of the blocks of a report, in their order.
vector<pid_t> threads_of(const string& report)
{
    vector<pid_t> tids;
    for (size_t at = 0; (at = report.find(", tid: ", at)) != string::npos; at++)
        tids.push_back(atoi(report.c_str() + at + 7));
    return tids;
}

// The one report in dir.
string only_report(const string& dir)
{
    const vector<string> paths = reports_in(dir);
    EXPECT_EQ(paths.size(), 1u);
    return paths.empty() ? "" : file_text(paths[0]);
}

struct crash_case {
    const char* kind;
    int signo;
    const char* signal_line;  // up to the address
    const char* function;
};
constexpr crash_case crash_cases[] = {
    {"segv", SIGSEGV, "Fatal signal 11 (SIGSEGV), code 1, fault addr 0x10\n", "write_through_bad_pointer"},
    {"bus", SIGBUS, "Fatal signal 7 (SIGBUS), code 2, fault addr 0x", "read_past_end_of_file"},
    {"ill", SIGILL, "Fatal signal 4 (SIGILL), code ", "execute_illegal_instruction"},
    {"fpe", SIGFPE, "Fatal signal 8 (SIGFPE), code ", "divide_by_zero"},
    {"abrt", SIGABRT, "Fatal signal 6 (SIGABRT), code -6, \n", "give_up"},
    {"trap", SIGTRAP, "Fatal signal 5 (SIGTRAP), code ", "run_into_breakpoint"},
    {"overflow", SIGSEGV, "Fatal signal 11 (SIGSEGV), code ", "recurse_for_ever"},
};

}  // namespace

TEST(crash_report, tells_of_every_kind_of_crash_and_lets_the_program_die_of_it)
{
    const server daemon;
    int round = 0;
    for (const crash_case& c : crash_cases)
        for (const string where : {"main", "thread"}) {
            const size_t further = std::array{0, 2, 8}[round++ % 3];
            SCOPED_TRACE(c.kind + (" " + to_string(further)) + " " + where);
            const string dir = fresh_dir();
            crashing program(dir, {c.kind, to_string(further), where});
            const pid_t pid = program.pid();
            EXPECT_TRUE(program.dies_by(c.signo));

            ASSERT_TRUE(daemon.is_idle());  // only then is the report closed
            const string report = only_report(dir);
            const size_t heading = report.find("\n=== === === === Dump process:" + to_string(pid) + " stat");
            ASSERT_NE(heading, string::npos) << report << daemon.log();
            const string crash_part = report.substr(0, heading);
            EXPECT_TRUE(crash_part.starts_with(banner)) << report;
            EXPECT_EQ(count_of(crash_part, string("\n") + c.signal_line), 1u) << crash_part;
            EXPECT_EQ(count_of(crash_part, "Fatal signal"), 1u) << crash_part;
            EXPECT_NE(section(crash_part, "\nBacktrace:\n", "\n\n").find(c.function), string::npos)
                << crash_part;

            const pid_t crashed = threads_of(crash_part).at(0);
            EXPECT_EQ(crashed == pid, where == "main");
            const vector<pid_t> others = threads_of(report.substr(heading));
            EXPECT_EQ(others.size(), further + 1) << report;
            EXPECT_EQ(std::set<pid_t>(others.begin(), others.end()).size(), others.size()) << report;
            EXPECT_EQ(std::count(others.begin(), others.end(), crashed), crashed == pid) << report;
            EXPECT_EQ(count_of(report, "\nBacktrace:\n"), others.size() + 1) << report;
        }
    EXPECT_TRUE(daemon.lives());
}

TEST(crash_report, appears_line_by_line_in_the_log_up_to_the_process_heading)
{
    const server daemon;
    const string dir = fresh_dir();
    const size_t mark = daemon.log().size();
    crashing program(dir, {"segv", "1", "thread"});
    const pid_t pid = program.pid();
    EXPECT_TRUE(program.dies_by(SIGSEGV));
    ASSERT_TRUE(daemon.is_idle());
    const string log = daemon.log_since(mark);
    const string path = reports_in(dir, "crashdump-" + to_string(pid) + "-").at(0);
    const string report = file_text(path);

    // One entry for each line written, in one piece, but for the raw stat line, and nothing behind the
    // heading.
    const string heading = "\n=== === === === Dump process:" + to_string(pid) + " stat === === === ===\n";
    string expected = "I DumpServer: Dumper socket accepted\nI Dumper: Crash dump saving to " + path + "\n";
    std::istringstream lines(report.substr(0, report.find(heading)));
    for (string line; getline(lines, line);) {
        const bool second_line_of_entry =
            line.starts_with("pid: ") || line == "Register:" || line == "Backtrace:";
        if (!line.starts_with("Thread stat:"))
            expected += (second_line_of_entry ? "" : "I Dumper: ") + line + "\n";
    }
    expected += "I Dumper: " + heading + "I DumpServer: Handle_dump_req 0xae01 takes:";
    EXPECT_TRUE(log.starts_with(expected)) << "expected:\n" << expected << "log:\n" << log;
    EXPECT_EQ(count_of(log.substr(expected.size()), "\n"), 1u) << log;
    const string name = path.substr(path.rfind('/'));
    EXPECT_EQ(name.size(), string("/crashdump-_20260307090503").size() + 1 + to_string(pid).size() * 2)
        << name;
}

TEST(crash_report, is_one_when_threads_crash_together)
{
    const server daemon;
    for (int round = 0; round < 3; round++) {
        const string dir = fresh_dir();
        crashing program(dir, {"together", "8"});
        EXPECT_TRUE(program.dies_by(SIGSEGV));
        ASSERT_TRUE(daemon.is_idle());
        const string report = only_report(dir);
        EXPECT_TRUE(report.starts_with(banner));
        const vector<pid_t> tids = threads_of(report);
        EXPECT_EQ(std::set<pid_t>(tids.begin(), tids.end()).size(), 9u) << report;
    }
}

TEST(crash_report, is_never_written_through_a_link_or_over_a_file)
{
    const server daemon;
    target victim({build_dir() + "/examples/crash_sample", "wait"});
    const string dir = fresh_dir();
    const string precious = dir + "/precious";
    std::ofstream(precious) << "precious";
    // The name holds the second of its making: planted for the next minute.
    const time_t now = time(nullptr);
    for (time_t second = now; second < now + 60; second++) {
        char stamp[16];
        tm local;
        strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", localtime_r(&second, &local));
        const string name =
            dir + "/crashdump-" + to_string(victim.pid()) + "-" + to_string(victim.pid()) + "_" + stamp;
        ASSERT_EQ((second % 2 != 0 ? symlink : link)(precious.c_str(), name.c_str()), 0);
    }
    const connection link;
    ASSERT_EQ(link.request(make_request(CMD_CRASH_DUMP, victim.pid(), victim.pid(), dir)), 0);
    kill(victim.pid(), SIGABRT);
    EXPECT_TRUE(victim.dies_by(SIGABRT));
    EXPECT_TRUE(link.closed_by_server());
    EXPECT_EQ(file_text(precious), "precious");
    const string log = daemon.log_since(0);
    for (const char* entry : {"E Dumper: Open dump file '", "E Dumper: Create crash file failed:-2\n",
                              "E Dumper: Crash_dump failed:-2\n",
                              "I Dumper: Crash dump not support multiple threads crashed simultaneously",
                              "E DumpServer: handle_dump_req failed, ret:-2\n"})
        EXPECT_EQ(count_of(log, entry), 1u) << log;
}

TEST(crash_report, leaves_a_frozen_process_running_when_the_server_is_ended)
{
    for (const char* moment : {"Crash dump saving to", "Dump process:"}) {
        server daemon;
        crashing program(fresh_dir(), {"abrt", "200"});
        ASSERT_TRUE(daemon.logs(moment));
        kill(daemon.pid(), SIGTERM);
        EXPECT_TRUE(daemon.dies_by(SIGTERM));
        EXPECT_TRUE(program.dies_by(SIGABRT));
    }
}

TEST(crash_reporter, costs_nothing_without_a_server_and_five_seconds_with_a_silent_one)
{
    const string dir = fresh_dir();
    const auto crash_ms = [&dir](const crash_case& c) {
        const timeval start = now();
        crashing program(dir, {c.kind, "2", "thread"});
        EXPECT_TRUE(program.dies_by(c.signo)) << c.kind;
        return elapsed_ms(start, now());
    };
    for (const crash_case& c : crash_cases)
        crash_ms(c);
    const server silent;
    kill(silent.pid(), SIGSTOP);
    EXPECT_GT(crash_ms(crash_cases[0]), 4900) << "never answered";
    EXPECT_TRUE(reports_in(dir).empty());
    kill(silent.pid(), SIGCONT);
}

TEST(crash_reporter, leaves_ignored_signals_alone_and_follows_others_that_are_sent)
{
    const server daemon;
    signal(SIGTRAP, SIG_IGN);
    const string dir = fresh_dir();
    crashing program(dir, {"wait"});
    signal(SIGTRAP, SIG_DFL);
    EXPECT_EQ(program.read_output(5), "eady\n");
    kill(program.pid(), SIGTRAP);
    kill(program.pid(), SIGABRT);
    EXPECT_TRUE(program.dies_by(SIGABRT));
    ASSERT_TRUE(daemon.is_idle());
    const string report = only_report(dir);
    EXPECT_EQ(count_of(report, "\nFatal signal 6 (SIGABRT), code 0, \n"), 1u) << report;
    EXPECT_NE(report.find(" (main + 0x"), string::npos) << report;
}
