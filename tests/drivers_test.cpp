// Whole dumps of real targets by the real executable: the report's layout, every thread once, and targets
// that change or are held meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "dumper.h"
#include "support/log_capture.h"
#include "support/mounted_file.h"
#include "support/report.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::vector;

namespace
{
string number(pid_t pid)
{
    return std::to_string(pid);
}

// Dumps a target that is at rest, and checks that every thread is there once, whole and under its name.
// log: what is logged between the first and the last entry.
process_report dump_at_rest(const target& program, const vector<string>& log = {})
{
    const pid_t pid = program.pid();
    const tool_run run = run_tool({"-p", number(pid)});
    EXPECT_EQ(run.status, 0);
    vector<string> expected_log = {"I DumpServer: Dump_process_stats pid=" + number(pid)};
    expected_log.insert(expected_log.end(), log.begin(), log.end());
    expected_log.emplace_back("I DumpServer: Dumpstat dump_process_stats takes:# ms");
    EXPECT_EQ(log_entries(run.err), expected_log);
    process_report report = parse_process_report(run.out);
    vector<pid_t> seen;
    for (const thread_block& block : report.blocks) {
        EXPECT_TRUE(block.whole) << block.tid;
        EXPECT_EQ(block.pid, pid);
        EXPECT_EQ(block.names, "process: " + thread_status(pid, pid, "Name") +
                                   ", thread: " + thread_status(pid, block.tid, "Name"));
        seen.push_back(block.tid);
    }
    EXPECT_THAT(seen, testing::UnorderedElementsAreArray(thread_ids(pid)));
    EXPECT_TRUE(seen.empty() || seen[0] == pid);
    return report;
}

}  // namespace

TEST(process_dump, goes_thread_by_thread_up_to_three_and_with_workers_beyond)
{
    for (const size_t count : {0U, 3U, 4U, 10U, 200U}) {
        const target program({"threads", std::to_string(count)});
        const bool workers = count > 3;
        vector<string> log;
        if (workers)
            log.push_back("I Dumper: Multi thread trace mode(4 threads), " + std::to_string(count) +
                          " threads will be dumped");
        const process_report report = dump_at_rest(program, log);
        EXPECT_EQ(report.dash_lines, workers ? 1U : 1U + count);
        EXPECT_EQ(report.equals_lines, workers ? count : 0U);
        EXPECT_TRUE(program.runs_untraced());
    }
}

TEST(process_dump, has_its_sections_in_order)
{
    const target program({"threads", "1"});
    const string pid = number(program.pid());
    const mounted_file uptime("/proc/uptime", "12.34 56.78\n");
    const string head = dump_at_rest(program).head;
    string version = file_text("/etc/version");
    version.resize(version.size() - !version.empty());
    const string opening =
        "=== === === === Dump process:" + pid +
        " stat === === === ===\nUptime: 12.34 56.78\nTimestamp: #\nSys version: " + version +
        "\nKernel version: " + file_text("/proc/version") + "\nMemoryinfo:\n  MemTotal:";
    const std::regex time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{9})");
    EXPECT_TRUE(std::regex_replace(head, time, "#").starts_with(opening)) << head << "instead of\n"
                                                                          << opening;
    EXPECT_LT(head.find("\nSys Stat:\n  cpu"), head.find("\nMemory map:\n")) << head;
    string map = "\nMemory map:\n";
    std::stringstream lines(file_text("/proc/" + pid + "/maps"));
    for (string line; getline(lines, line);)
        map += "  " + line + "\n";
    EXPECT_EQ(section(head, "\nMemory map:\n", "\nOpen files:\n"), map);
    const string output = std::filesystem::read_symlink("/proc/" + pid + "/fd/1");
    EXPECT_THAT(head, testing::HasSubstr("\n    fd 1: " + output + "\n"));

    const string tid = number(program.other_thread());
    const tool_run thread = run_tool({"-t", tid, "-p", pid});
    const string heading = "=== === === === Dump thread:" + tid + " stat === === === ===\nCmdline: ";
    EXPECT_TRUE(thread.out.starts_with(heading)) << thread.out;
    const thread_block block = parse_block(section(thread.out, "Cmdline: ", "\nMemory map:\n"));
    EXPECT_TRUE(block.whole && number(block.tid) == tid && number(block.pid) == pid) << thread.out;
    EXPECT_TRUE(thread.out.ends_with(map)) << thread.out;
    EXPECT_TRUE(run_tool({"-t", tid}).out.starts_with(heading)) << "a thread's number stands for its process";
    EXPECT_THAT(log_entries(thread.err),
                testing::ElementsAre("I DumpServer: Dump_thread_stats pid=" + pid + ", tid=" + tid,
                                     "I DumpServer: Dumpstat dump_thread_stats takes:# ms"));
}

TEST(process_dump, stops_at_a_lead_thread_that_fails)
{
    const target program({"threads", "4"});
    const string pid = number(program.pid());
    const string line = pid + " (threads) S 1 2\n";
    const mounted_file stat(task_file(program.pid(), program.pid(), "stat"), line);
    const tool_run run = run_tool({"-p", pid});
    EXPECT_TRUE(run.out.ends_with("\nThread stat:" + line)) << run.out;
    const string on = ", pid=" + pid + ", tid=" + pid;
    EXPECT_THAT(
        log_entries(run.err),
        testing::ElementsAre(
            "I DumpServer: Dump_process_stats pid=" + pid, "E Dumper: Stat line has 3 fields only" + on,
            "E Dumper: Dump_thread_info failed:-3" + on, "E Dumper: Dumper thread:-1 failed:-3",
            "E Dumper: Dumper process:" + pid + " failed:-3", "E DumpServer: Dumpstat process stats failed",
            "I DumpServer: Dumpstat dump_process_stats takes:# ms"));
}

TEST(process_dump, leaves_a_stopped_target_stopped)
{
    for (const int signo : {SIGSTOP, SIGTSTP}) {
        const target program({"odd", "sleeper"});
        kill(program.pid(), signo);
        for (int i = 0; i < 4; i++) {
            EXPECT_TRUE(eventually([pid = program.pid()] {
                return thread_state(pid, pid) == 'T' && thread_status(pid, pid, "TracerPid") == "0";
            })) << signo;
            dump_at_rest(program);
        }
        kill(program.pid(), SIGCONT);
        EXPECT_TRUE(program.runs_untraced()) << signo;
    }
}

// execve under ptrace raises SIGTRAP, and a thread that calls it takes the lead's number.
TEST(process_dump, lets_a_target_run_on_whose_threads_come_and_go_or_replace_it)
{
    using command = vector<string>;
    for (const command& argv :
         {command{"odd", "--churn"}, command{"execs", "lead"}, command{"execs", "thread"}}) {
        const target program(argv);
        for (int i = 0; i < 15; i++) {
            const tool_run run = run_tool({"-p", number(program.pid())});
            EXPECT_EQ(run.status, 0) << run.err;
            EXPECT_TRUE(argv[0] == "execs" || parse_process_report(run.out).blocks.at(0).whole) << run.out;
            ASSERT_TRUE(program.lives()) << argv[1] << " killed by dump " << i;
        }
        EXPECT_TRUE(program.runs_untraced()) << argv[1];
    }
}

TEST(process_dump, that_is_interrupted_leaves_its_target_running)
{
    const target program({"threads", "50"});
    int interrupted = 0;
    for (const int signo : {SIGTERM, SIGINT, SIGHUP})
        for (useconds_t us = 2000; us < 150000; us *= 2) {
            target tool({build_dir() + "/dump_server", "-p", number(program.pid()), "-f", "/tmp/report"},
                        false);
            usleep(us / 2 + static_cast<useconds_t>(rand()) % (us / 2));
            kill(tool.pid(), signo);
            const int status = tool.wait_for_end();
            EXPECT_TRUE(status == 0 || status == signo) << status;
            interrupted += status == signo;
            ASSERT_TRUE(program.runs_untraced()) << us;
        }
    EXPECT_GT(interrupted, 0);
}

// The stop never comes while the lead thread waits for its vfork child: only the tool's end releases it.
TEST(process_dump, of_a_thread_that_never_stops_ends_the_tool_and_not_the_target)
{
    held_target program;
    const string pid = number(program.pid());
    const tool_run run = run_tool({"-p", pid});
    EXPECT_EQ(run.status, SIGKILL);
    EXPECT_GE(run.ms, 1000);
    const string on = ", pid=" + pid + ", tid=" + pid;
    EXPECT_THAT(
        log_entries(run.err),
        testing::ElementsAre(
            "I DumpServer: Dump_process_stats pid=" + pid, "E Dumper: Wait for sigstop timeout " + pid,
            "E Dumper: Detach failed: tid " + pid + ", No such process",
            "E Dumper: Wait for sigstop failed:-1" + on,
            "E Dumper: Detach failed:0" + on + ", dump_server kill itself to free the zombie!"));
    EXPECT_THAT(run.out, testing::HasSubstr("\nCore="));  // what was read before is there
    EXPECT_EQ(thread_status(program.pid(), program.pid(), "TracerPid"), "0");
    program.wake();
    EXPECT_TRUE(eventually([&] { return thread_state(program.pid(), program.pid()) == 'S'; }));
    EXPECT_TRUE(program.runs_untraced());
    kill(program.pid(), SIGTERM);
    EXPECT_EQ(program.wait_for_end(), 0);
}
