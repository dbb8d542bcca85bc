// Whole dumps of real targets by the real executable: the report's layout, every thread once, and targets
// that change or are held meanwhile.
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <set>

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
// A sample of that many further threads, when none but these is left.
struct settled_threads : target {
    explicit settled_threads(int count) : target({"threads", std::to_string(count)})
    {
        EXPECT_TRUE(eventually([&] { return thread_ids(pid()).size() == static_cast<size_t>(count) + 1; }));
    }
};

string number(pid_t pid)
{
    return std::to_string(pid);
}

process_report dump(const target& program, tool_run& run)
{
    run = run_tool({"-p", number(program.pid())});
    EXPECT_EQ(run.status, 0);
    return parse_process_report(run.out);
}

void expect_every_thread_once(const target& program, const process_report& report)
{
    std::multiset<pid_t> seen;
    for (const thread_block& block : report.blocks) {
        EXPECT_TRUE(block.whole) << block.tid;
        EXPECT_EQ(block.pid, program.pid());
        EXPECT_EQ(block.names, "process: " + thread_status(program.pid(), program.pid(), "Name") +
                                   ", thread: " + thread_status(program.pid(), block.tid, "Name"));
        seen.insert(block.tid);
    }
    const vector<pid_t> ids = thread_ids(program.pid());
    EXPECT_EQ(seen, std::multiset<pid_t>(ids.begin(), ids.end()));
    EXPECT_EQ(report.blocks.empty() ? -1 : report.blocks[0].tid, program.pid());
}

// "Dump_process_stats pid=…", what is in between, and the time.
vector<string> process_log(const target& program, const vector<string>& between)
{
    vector<string> entries = {"I DumpServer: Dump_process_stats pid=" + number(program.pid())};
    entries.insert(entries.end(), between.begin(), between.end());
    entries.push_back("I DumpServer: Dumpstat dump_process_stats takes:# ms");
    return entries;
}

size_t open_descriptors()
{
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr)
        count++;
    closedir(dir);
    return count;
}

}  // namespace

TEST(process_dump, goes_thread_by_thread_up_to_three_and_with_workers_beyond)
{
    for (const int count : {0, 3, 4, 10, 200}) {
        const settled_threads program(count);
        tool_run run;
        const process_report report = dump(program, run);
        expect_every_thread_once(program, report);
        const bool workers = count > 3;
        EXPECT_EQ(report.dash_lines, workers ? 1U : 1U + static_cast<size_t>(count));
        EXPECT_EQ(report.equals_lines, workers ? static_cast<size_t>(count) : 0U);
        const string multi = "I Dumper: Multi thread trace mode(4 threads), " + std::to_string(count) +
                             " threads will be dumped";
        EXPECT_EQ(log_entries(run.err), process_log(program, workers ? vector{multi} : vector<string>{}));
        EXPECT_TRUE(program.runs_untraced());
    }
}

TEST(process_dump, has_its_sections_in_order)
{
    const settled_threads program(1);
    tool_run run;
    const string head = dump(program, run).head;
    EXPECT_TRUE(head.starts_with("=== === === === Dump process:" + number(program.pid()) +
                                 " stat === === === ===\nUptime: "))
        << head;
    size_t at = 0;
    for (const char* part :
         {"\nUptime: ", "\nTimestamp: ", "\nSys version: ", "\nKernel version: ", "\n\nMemoryinfo:\n  ",
          "\nSys Stat:\n  ", "\nMemory map:\n  ", "\nOpen files:\n    fd "}) {
        const size_t found = head.find(part);
        EXPECT_TRUE(found != string::npos && found >= at) << part;
        at = found;
    }
    string map = "\nMemory map:\n";
    std::stringstream lines(file_text("/proc/" + number(program.pid()) + "/maps"));
    for (string line; getline(lines, line);)
        map += "  " + line + "\n";
    EXPECT_EQ(section(head, "\nMemory map:\n", "\nOpen files:\n"), map);
    char link[256] = "";
    (void)!readlink(("/proc/" + number(program.pid()) + "/fd/1").c_str(), link, sizeof(link) - 1);
    EXPECT_THAT(head, testing::HasSubstr(string("\n    fd 1: ") + link + "\n"));

    const pid_t tid = thread_ids(program.pid()).back();
    const tool_run thread = run_tool({"-t", number(tid), "-p", number(program.pid())});
    const string opening = "=== === === === Dump thread:" + number(tid) + " stat === === === ===\n";
    EXPECT_TRUE(thread.out.starts_with(opening)) << thread.out;
    const thread_block block = parse_block(section(thread.out, "Cmdline: ", "\nMemory map:\n"));
    EXPECT_TRUE(block.whole && block.tid == tid && block.pid == program.pid()) << thread.out;
    EXPECT_TRUE(thread.out.ends_with(map)) << thread.out;
    EXPECT_EQ(thread.out.find("Cmdline: "), opening.size());
    EXPECT_EQ(log_entries(thread.err),
              (vector{"I DumpServer: Dump_thread_stats pid=" + number(program.pid()) + ", tid=" + number(tid),
                      string("I DumpServer: Dumpstat dump_thread_stats takes:# ms")}));
}

TEST(process_dump, shows_hostile_process_names_as_they_are)
{
    for (const string name : {"a) Z (b", "two  words", "new\nline", "%s%n", "R) T 1 2"}) {
        const target program({"odd", name});
        const tool_run run = run_tool({"-p", number(program.pid())});
        EXPECT_THAT(run.out,
                    testing::HasSubstr(", process: " + name + ", thread: " + name +
                                       "\nThread stat:" + number(program.pid()) + " (" + name + ") S "));
        EXPECT_TRUE(run.out.find("\nBacktrace:\n# 0 pc") != string::npos || name.find(')') != string::npos)
            << run.out;
        EXPECT_TRUE(program.runs_untraced());
    }
}

TEST(process_dump, stops_at_a_lead_thread_that_fails)
{
    const settled_threads program(4);
    const pid_t pid = program.pid();
    const mounted_file stat(task_file(pid, pid, "stat"), number(pid) + " (threads) S 1 2\n");
    tool_run run;
    dump(program, run);
    EXPECT_TRUE(run.out.ends_with("\nThread stat:" + number(pid) + " (threads) S 1 2\n")) << run.out;
    EXPECT_EQ(
        log_entries(run.err),
        process_log(
            program,
            {"E Dumper: Stat line has 3 fields only, pid=" + number(pid) + ", tid=" + number(pid),
             "E Dumper: Dump_thread_info failed:-3, pid=" + number(pid) + ", tid=" + number(pid),
             "E Dumper: Dumper thread:-1 failed:-3", "E Dumper: Dumper process:" + number(pid) + " failed:-3",
             "E DumpServer: Dumpstat process stats failed"}));
}

TEST(process_dump, leaves_a_stopped_target_stopped)
{
    for (const int signo : {SIGSTOP, SIGTSTP}) {
        const target program({"odd", "sleeper"});
        kill(program.pid(), signo);
        auto stopped = [&] {
            return thread_state(program.pid(), program.pid()) == 'T' &&
                   thread_status(program.pid(), program.pid(), "TracerPid") == "0";
        };
        ASSERT_TRUE(eventually(stopped));
        for (int i = 0; i < 3; i++) {
            tool_run run;
            expect_every_thread_once(program, dump(program, run));
            EXPECT_EQ(log_entries(run.err), process_log(program, {})) << signo;
            EXPECT_TRUE(eventually(stopped, 1000)) << signo;
        }
        kill(program.pid(), SIGCONT);
        EXPECT_TRUE(program.runs_untraced()) << signo;
    }
}

TEST(process_dump, leaves_no_descriptor_open)
{
    const settled_threads program(5);
    auto dump_once = [&] {
        dumper job(program.pid(), -1, "/tmp/report");
        job.set_mode(SILENT | FUNC_PARSE);
        EXPECT_EQ(job.init_process_map(), 0);
        EXPECT_EQ(job.dump_process_stats(false), 0) << log_as_text();
    };
    dump_once();
    const size_t before = open_descriptors();
    dump_once();
    EXPECT_EQ(open_descriptors(), before);
    expect_every_thread_once(program, parse_process_report(file_text("/tmp/report")));
}

TEST(process_dump, of_threads_that_come_and_go_leaves_them_running)
{
    const target program({"odd", "--churn"});
    for (int i = 0; i < 30; i++) {
        tool_run run;
        const process_report report = dump(program, run);
        EXPECT_TRUE(!report.blocks.empty() && report.blocks[0].whole) << run.out;
        EXPECT_TRUE(log_entries(run.err).back().ends_with("takes:# ms")) << run.err;
        ASSERT_TRUE(program.runs_untraced()) << i;
    }
}

// execve under ptrace raises SIGTRAP, and a thread that calls it takes the lead's number.
TEST(process_dump, survives_a_target_that_replaces_itself_all_the_time)
{
    for (const char* mode : {"lead", "thread"}) {
        target program({"execs", mode});
        for (int i = 0; i < 30; i++) {
            const tool_run run = run_tool({"-p", number(program.pid())});
            EXPECT_EQ(run.status, 0) << run.err;
            ASSERT_EQ(waitpid(program.pid(), nullptr, WNOHANG), 0) << mode << " killed by dump " << i;
        }
        EXPECT_TRUE(program.runs_untraced()) << mode;
    }
}

TEST(process_dump, ends_when_its_target_is_killed)
{
    std::mt19937 random(1);
    for (int i = 0; i < 10; i++) {
        settled_threads program(50);
        const started_tool tool = start_program({build_dir() + "/dump_server", "-p", number(program.pid())});
        usleep(static_cast<useconds_t>(random() % 60000));  // any moment of a dump
        kill(program.pid(), SIGKILL);
        EXPECT_EQ(program.wait_for_end(5000), SIGKILL) << "not reaped";
        const tool_run run = finish(tool);
        EXPECT_EQ(run.status, 0) << run.err;
    }
}

TEST(process_dump, that_is_interrupted_leaves_its_target_running)
{
    const settled_threads program(50);
    std::mt19937 random(2);
    tool_run whole;
    dump(program, whole);
    int in_mid_dump = 0;
    for (int i = 0; i < 12; i++) {
        const int signo = i % 3 == 0 ? SIGTERM : i % 3 == 1 ? SIGINT : SIGHUP;
        const started_tool tool = start_program({build_dir() + "/dump_server", "-p", number(program.pid())});
        usleep(static_cast<useconds_t>(random() % static_cast<unsigned>(whole.ms * 1000)));
        kill(tool.pid, signo);
        const tool_run run = finish(tool);
        EXPECT_TRUE(run.status == 0 || run.status == signo) << run.status;
        in_mid_dump += run.status == signo;
        ASSERT_TRUE(program.runs_untraced()) << i;
    }
    EXPECT_GT(in_mid_dump, 0);
}

// The stop never comes while the lead thread waits for its vfork child: only the tool's end releases it.
TEST(process_dump, of_a_thread_that_never_stops_ends_the_tool_and_not_the_target)
{
    target program({"vfork_parent"}, false);
    const string numbers = program.read_output(20);
    const string pid = number(program.pid());
    ASSERT_TRUE(eventually([&] { return thread_state(program.pid(), program.pid()) == 'D'; }));
    const tool_run run = run_tool({"-p", pid});
    EXPECT_EQ(run.status, SIGKILL);
    EXPECT_GE(run.ms, 1000);
    EXPECT_LE(run.ms, 5000);
    const string on = ", pid=" + pid + ", tid=" + pid;
    EXPECT_EQ(log_entries(run.err),
              (vector<string>{
                  "I DumpServer: Dump_process_stats pid=" + pid, "E Dumper: Wait for sigstop timeout " + pid,
                  "E Dumper: Detach failed: tid " + pid + ", No such process",
                  "E Dumper: Wait for sigstop failed:-1" + on,
                  "E Dumper: Detach failed:0" + on + ", dump_server kill itself to free the zombie!"}));
    EXPECT_THAT(run.out, testing::HasSubstr("\nCore="));  // what was read before is there
    EXPECT_EQ(thread_status(program.pid(), program.pid(), "TracerPid"), "0");
    kill(atoi(numbers.substr(10).c_str()), SIGKILL);
    EXPECT_TRUE(eventually([&] { return thread_state(program.pid(), program.pid()) == 'S'; }));
    EXPECT_TRUE(program.runs_untraced());
    kill(program.pid(), SIGTERM);
    EXPECT_EQ(program.wait_for_end(), 0);
}
