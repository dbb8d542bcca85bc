// The command line: usage, options, and what bad input gets.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/report.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::vector;

namespace
{
const string usage =
    "Show process or thread callstack and status, or exec dump_server in server mode\n"
    "\t-s, Run dumper_server in server mode\n"
    "\t-F, Client mode, don't parse function name in calltrace for reduce dump time\n"
    "\t-p pid, Client mode, Show callstack and stat of all threads in the process\n"
    "\t-t tid, Client mode, Show callstack and stat for the specified thread\n"
    "\t-f file, Client mode, Save callstack and stat to specified file, or output to stdout\n"
    "\t-n nice, server/client runing nice level\n";

}  // namespace

TEST(client, prints_its_usage)
{
    const string tool = build_dir() + "/dump_server";
    for (const auto& [args, complaint] : vector<std::pair<vector<string>, vector<string>>>{
             {{}, {}},
             {{"-p", "1", "-h"}, {}},
             {{"-F", "-f", "/tmp/unused"}, {}},
             {{"-x"}, {tool + ": invalid option -- 'x'"}},
             {{"-p"}, {tool + ": option requires an argument -- 'p'"}},
             {{"-n", "-5"}, {"E DumpServer: Set nice to -5 failed"}}}) {
        const tool_run run = run_tool(args);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, usage);
        EXPECT_EQ(log_entries(run.err), complaint);
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/unused"));
}

TEST(client, tells_what_it_cannot_dump)
{
    const target program({"odd", "sleeper"});
    const string pid = std::to_string(program.pid());
    const pid_t zombie = fork();
    if (zombie == 0)
        _exit(0);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT), 0);
    const string start = "I DumpServer: Dump_process_stats pid=" + pid;
    const string end = "I DumpServer: Dumpstat dump_process_stats takes:# ms";
    const vector<string> no_file = {"E Dumper: Open dump file failed",
                                    start,
                                    "E Dumper: Dump memory map failed",
                                    "E Dumper: Dumper process:" + pid + " failed:-1",
                                    "E DumpServer: Dumpstat process stats failed",
                                    end};
    const auto expect = [&](const vector<string>& args, const vector<string>& log, const string& out = "") {
        const tool_run run = run_tool(args);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(log_entries(run.err), log);
        EXPECT_TRUE(program.runs_untraced());
    };
    for (const string& absent : {std::to_string(zombie), string("2"), string("abc"), string("-5"),
                                 string("99999999999"), string("99999999")})
        expect({absent == "99999999" ? "-t" : "-p", absent},
               {"E Dumper: process map not exist", "E DumpServer: Dumpstat init process map failed"});
    expect(
        {"-p", pid, "-t", "1"},
        {"I DumpServer: Dump_thread_stats pid=" + pid + ", tid=1",
         "E Dumper: Tid 1 does not exist in pid " + pid + ". ignoring request",
         "E Dumper: dump_thread tid:1 not exist", "E Dumper: Dumper thread:1 failed:-3",
         "E DumpServer: Dumpstat thread stats failed", "I DumpServer: Dumpstat dump_thread_stats takes:# ms"},
        "=== === === === Dump thread:1 stat === === === ===\n");
    expect({"-p", pid, "-f", "/tmp/absent/report"}, no_file);
    expect({"-p", pid, "-f", ""}, no_file);
    expect({"-t", pid, "-f", ""},
           {"E Dumper: Open dump file failed", "I DumpServer: Dump_thread_stats pid=" + pid + ", tid=" + pid,
            "E Dumper: Dump memory map failed:-1, pid=" + pid + ", tid=" + pid,
            "E DumpServer: Dumpstat thread stats failed",
            "I DumpServer: Dumpstat dump_thread_stats takes:# ms"});
    expect({"-p", pid, "-f", "/dev/full"},
           {start, end, "E Dumper: Report is incomplete, write failed: No space left on device"});
    waitpid(zombie, nullptr, 0);
}

TEST(client, without_privilege_shows_nothing_of_another_user)
{
    const target program({"odd", "sleeper"});
    std::filesystem::copy_file(build_dir() + "/dump_server", "/tmp/dump_server");
    const tool_run run = run_program({"/tmp/dump_server", "-p", std::to_string(program.pid())}, [] {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
            _exit(126);
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(log_entries(run.err), vector<string>{"E DumpServer: Dumpstat init process map failed"});
}

TEST(client, tells_once_that_its_output_cannot_be_written)
{
    const target program({"threads", "5"});
    int no_reader[2];
    ASSERT_EQ(pipe(no_reader), 0);
    close(no_reader[0]);
    for (const auto& [fd, why] : {std::pair{no_reader[1], "Broken pipe"}, {-1, "Bad file descriptor"}}) {
        const tool_run run = run_tool({"-p", std::to_string(program.pid())},
                                      [fd] { fd == -1 ? close(STDOUT_FILENO) : dup2(fd, STDOUT_FILENO); });
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(count_of(run.err, "E Dumper"), 1U) << run.err;
        EXPECT_EQ(log_entries(run.err).back(),
                  string("E Dumper: Report is incomplete, write failed: ") + why);
        EXPECT_TRUE(program.runs_untraced());
    }
    close(no_reader[1]);
}

TEST(client, does_not_mix_report_and_log_when_a_standard_stream_is_closed)
{
    const target program({"odd", "sleeper"});
    std::ofstream("/tmp/report") << string(1 << 20, 'x');  // longer than what replaces it
    for (const int closed : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const tool_run run =
            run_tool({"-p", std::to_string(program.pid()), "-f", "/tmp/report"}, [&] { close(closed); });
        EXPECT_EQ(run.status, 0);
        const process_report report = parse_process_report(file_text("/tmp/report"));
        EXPECT_TRUE(report.blocks.size() == 1 && report.blocks[0].whole) << file_text("/tmp/report");
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.empty(), closed == STDERR_FILENO);
    }
}
