// Server mode over its socket: acknowledgements, the fate of connections, odd requests and peers, who may
// ask, where reports go, and that nothing of it stops a target or the server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "support/server.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::to_string;
using std::vector;

namespace
{
constexpr uid_t other_user = 65534;

class server_mode : public testing::Test
{
protected:
    server daemon;
    target idle{{"threads", "2"}};
    const string dir = fresh_dir();

    // Whatever a test did: the server serves, keeps nothing open, and its target runs.
    void TearDown() override
    {
        const string last = fresh_dir();
        EXPECT_EQ(ask(of(idle.pid(), CMD_PROCESS_STAT, last)), 0);
        EXPECT_EQ(reports_in(last).size(), 1u);
        EXPECT_TRUE(daemon.lives());
        EXPECT_TRUE(idle.runs_untraced());
        EXPECT_TRUE(daemon.is_idle());
        if (HasFailure())
            fprintf(stderr, "%s", daemon.log().c_str());
    }
    dumper_frame of(pid_t pid, uint16_t cmd, const string& path) const
    {
        return make_request(cmd, pid, pid, path);
    }
    dumper_frame of(const target& program, uint16_t cmd) const { return of(program.pid(), cmd, dir); }
    dumper_frame of_idle(uint16_t cmd, pid_t tid) const { return make_request(cmd, idle.pid(), tid, dir); }
};

// The user of the process at connect is what the server learns.
connection connect_as_other_user()
{
    struct user {
        user() { EXPECT_EQ(setegid(other_user) + seteuid(other_user), 0); }
        ~user() { EXPECT_EQ(seteuid(0) + setegid(0), 0); }
    } const meanwhile;
    return connection();
}

struct others_process : target {
    explicit others_process(const string& program = "threads", const string& argument = "1")
        : target({"as_user", to_string(other_user), build_dir() + "/tests/targets/" + program, argument})
    {
    }
};

struct stat file_status(const string& path)
{
    struct stat file = {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
    return file;
}

}  // namespace

TEST_F(server_mode, acknowledges_each_request_of_a_connection_then_reports)
{
    const connection link;
    const pid_t tid = idle.other_thread();
    const string process_heading = "=== === === === Dump process:" + to_string(idle.pid());
    const string thread_heading = "=== === === === Dump thread:" + to_string(tid);
    const dumper_frame requests[] = {of(idle, CMD_PROCESS_STAT), of_idle(CMD_THREAD_STAT, tid),
                                     of_idle(CMD_PROCESS_STAT, tid)};
    ASSERT_TRUE(link.send_bytes(requests, sizeof(requests)));  // one message: each is read by itself
    for (const int expected : {0x51FD, 0x51FC, 0x51FD}) {
        uint16_t code = 0;
        EXPECT_EQ(link.acknowledgement(&code), 0);
        EXPECT_EQ(code, expected);
    }
    EXPECT_TRUE(link.finish());

    string all;
    for (const string& path : reports_in(dir, to_string(idle.pid()) + "-dumpstat-")) {
        const string text = file_text(path);
        EXPECT_EQ(file_status(path).st_mode & 0777u, 0640u);
        EXPECT_TRUE(text.starts_with(process_heading) || text.starts_with(thread_heading)) << text;
        EXPECT_NE(text.find("\nMemory map:\n"), string::npos) << text;
        all += text;
    }
    EXPECT_EQ(count_of(all, process_heading), 2u) << all;
    for (const pid_t thread : thread_ids(idle.pid()))
        EXPECT_EQ(count_of(all, ", tid: " + to_string(thread) + ","), thread == tid ? 3u : 2u) << all;
    EXPECT_EQ(count_of(daemon.log_since(0), "I DumpServer: Handle_dump_req 0xae02 takes:"), 2u);
}

TEST_F(server_mode, answers_what_it_cannot_do_as_the_protocol_says)
{
    target gone({"threads", "0"});
    const pid_t gone_pid = gone.pid();
    kill(gone_pid, SIGKILL);
    gone.wait_for_end();

    const string no_process = "I DumpServer: Init process map failed:";
    constexpr int stays_open = 1;
    const struct {
        const char* what;
        dumper_frame request;
        int status;
        string logged;
    } cases[] = {
        {"no such process", of(gone_pid, CMD_PROCESS_STAT, dir), stays_open, no_process + "1\n"},
        {"pid 0", of(0, CMD_PROCESS_STAT, dir), stays_open, no_process + "1\n"},
        {"pid -5", of(-5, CMD_CRASH_DUMP, dir), stays_open, no_process + "1\n"},
        {"pid -1", of(-1, CMD_PROCESS_STAT, dir), no_answer,
         no_process + "-2\nE DumpServer: handle_dump_req failed, ret:-2\n"},
        {"thread of another process", of_idle(CMD_THREAD_STAT, getpid()), -3,
         "E Dumper: Tid " + to_string(getpid()) + " does not exist in pid " + to_string(idle.pid()) +
             ". ignoring request\nE DumpServer: ptrace attach failed\nI DumpServer: Handle_dump_req 0xae03 "
             "takes:"},
        {"thread -1 of a crash", of_idle(CMD_CRASH_DUMP, -1), -3, "E DumpServer: ptrace attach failed\n"},
        {"command 0", of(idle, 0), no_answer,
         "E DumpServer: No Such CMD\nE DumpServer: handle_dump_req failed, ret:-22\n"},
        {"an acknowledgement", of(idle, 0x51FD), no_answer, "E DumpServer: No Such CMD\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const size_t mark = daemon.log().size();
        const connection link;
        ASSERT_TRUE(link.send_request(c.request));
        if (c.status == stays_open) {
            EXPECT_EQ(link.request(of(idle, CMD_THREAD_STAT)), 0) << "the answer to the request after it";
            EXPECT_TRUE(link.finish());
        } else {
            EXPECT_EQ(link.acknowledgement(), c.status);
            EXPECT_TRUE(link.closed_by_server());
        }
        const string log = daemon.log_since(mark);
        EXPECT_NE(log.find(c.logged), string::npos) << log;
        EXPECT_EQ(log.find(" takes:") == string::npos, c.status == no_answer) << log;
    }
}

TEST_F(server_mode, takes_a_short_record_for_a_whole_one)
{
    dumper_frame request = of_idle(CMD_PROCESS_STAT, 0x01010101);
    memset(request.req_t.dump_path, '\0', sizeof(request.req_t.dump_path));
    size_t answered = 0;
    for (size_t length = 1; length < sizeof(request); length++) {
        const connection link;
        ASSERT_TRUE(link.send_bytes(&request, length));
        link.end_requests();
        const int status = link.acknowledgement();
        EXPECT_TRUE(link.closed_by_server());
        answered += status == 0;
        EXPECT_TRUE(status == 0 || (status == no_answer && length < 70)) << length << ": " << status;
    }
    EXPECT_GE(answered, 20u);  // from the last byte of the process number on
}

TEST_F(server_mode, releases_the_target_when_its_report_cannot_be_made)
{
    const string read_only = fresh_dir();
    ASSERT_EQ(mount("tmpfs", read_only.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    const string file = dir + "/file";
    std::ofstream(file) << "x";
    // The first has no NUL in all of its field; what follows it is the process number.
    for (const string& path : {string(64, 'x'), string("/tmp/missing"), read_only, file, string("relative")})
        for (const uint16_t cmd : {CMD_PROCESS_STAT, CMD_THREAD_STAT}) {
            const size_t mark = daemon.log().size();
            const connection link;
            EXPECT_EQ(link.request(of(idle.pid(), cmd, path)), 0);
            EXPECT_TRUE(link.closed_by_server());
            EXPECT_TRUE(idle.runs_untraced());
            const string log = daemon.log_since(mark);
            for (const string& entry :
                 {"E Dumper: Open dumpstate file '" + path + "/" + to_string(idle.pid()) + "-dumpstat-",
                  string("E Dumper: Dumper create file failed"),
                  string("E DumpServer: handle_dump_req failed, ret:-2\n")})
                EXPECT_NE(log.find(entry), string::npos) << log;
        }
    // Without a directory there is no report, and the process dump ends at its memory map.
    EXPECT_EQ(ask(of(idle.pid(), CMD_PROCESS_STAT, "")), 0);
    EXPECT_NE(daemon.log().find("handle_dump_req failed, ret:-1\n"), string::npos) << daemon.log();
    umount(read_only.c_str());
}

TEST_F(server_mode, writes_no_crash_report_for_a_process_that_does_not_crash)
{
    for (const auto& [signo, logged] : {std::pair{0, "Wait for sigstop timeout"},
                                        {SIGTERM, "Process stopped due to unexpected signal 15\n"}}) {
        target healthy({"odd", "healthy"});
        const connection link;
        EXPECT_EQ(link.request(of(healthy, CMD_CRASH_DUMP)), 0);
        tgkill(healthy.pid(), healthy.pid(), signo);  // to the thread that the server follows
        ASSERT_TRUE(daemon.logs(logged));
        EXPECT_TRUE(healthy.runs_untraced());
        kill(healthy.pid(), SIGKILL);  // what the server now waits for, at most 10 s
        EXPECT_TRUE(healthy.dies_by(SIGKILL));
        EXPECT_TRUE(link.finish());
    }
    EXPECT_TRUE(reports_in(dir).empty());
}

// Then its number is the lead's.
TEST_F(server_mode, releases_a_thread_that_replaces_its_program_while_it_is_followed)
{
    target program({"execs", "later"});
    pid_t tid = -1;
    ASSERT_TRUE(eventually([&] { return (tid = program.other_thread()) != -1; }));
    const connection link;
    EXPECT_EQ(link.request(make_request(CMD_CRASH_DUMP, program.pid(), tid, dir)), 0);
    std::ofstream("/tmp/exec");
    EXPECT_TRUE(daemon.logs("Waitpid exit: tid " + to_string(tid)));
    EXPECT_TRUE(program.runs_untraced());
    kill(program.pid(), SIGKILL);  // what the server now waits for
    EXPECT_TRUE(program.dies_by(SIGKILL));
    EXPECT_TRUE(link.finish());
    unlink("/tmp/exec");
}

TEST_F(server_mode, resumes_a_stopped_process_that_it_was_asked_about)
{
    kill(idle.pid(), SIGSTOP);
    ASSERT_TRUE(eventually([this] { return thread_state(idle.pid(), idle.pid()) == 'T'; }));
    EXPECT_EQ(ask(of(idle, CMD_PROCESS_STAT)), 0);
    EXPECT_EQ(count_of(daemon.log(), " still traced, resume run..."), 1u);
    EXPECT_TRUE(idle.runs_untraced());
}

TEST_F(server_mode, serves_others_whatever_a_peer_does)
{
    rlimit files;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, 2048);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    const std::vector<connection> silent(500);
    for (int i = 0; i < 20; i++)
        ASSERT_TRUE(connection().send_request(of(idle, CMD_PROCESS_STAT)));  // and leaves
    // A peer that never reads: more acknowledgements than its buffer takes.
    const connection deaf;
    for (int i = 0; i < 40; i++)
        ASSERT_TRUE(deaf.send_request(make_request(CMD_THREAD_STAT, idle.pid(), 1, "")));
    const target other({"threads", "0"});
    EXPECT_EQ(ask(of(other, CMD_PROCESS_STAT)), 0);
    EXPECT_EQ(reports_in(dir, to_string(other.pid())).size(), 1u);
    EXPECT_TRUE(std::ranges::none_of(silent, [](const connection& one) { return one.closed_by_server(0); }))
        << "they have been idle for a moment only";
}

TEST_F(server_mode, lets_other_users_ask_only_for_processes_of_their_own)
{
    const auto ask_as_other = [](const dumper_frame& request) {
        const connection link = connect_as_other_user();
        const int status = link.request(request);
        EXPECT_TRUE(link.finish());
        return status;
    };
    for (const uint16_t cmd : {CMD_PROCESS_STAT, CMD_THREAD_STAT, CMD_CRASH_DUMP}) {
        const size_t mark = daemon.log().size();
        EXPECT_EQ(ask_as_other(of(idle, cmd)), -1);
        const string log = daemon.log_since(mark);
        EXPECT_EQ(count_of(log, "\nW DumpServer: User 65534 may not ask"), 1u) << log;
        EXPECT_EQ(log.find("saving to"), string::npos) << log;
    }

    const others_process theirs;
    const string their_dir = fresh_dir();
    ASSERT_EQ(chown(their_dir.c_str(), other_user, other_user), 0);
    EXPECT_EQ(ask_as_other(of(theirs.pid(), CMD_PROCESS_STAT, their_dir)), 0);
    const string report = reports_in(their_dir).at(0);
    EXPECT_EQ(file_status(report).st_uid, other_user);
    EXPECT_EQ(file_status(report).st_gid, other_user);
    EXPECT_EQ(count_of(file_text(report), "\nBacktrace:\n"), thread_ids(theirs.pid()).size());

    // The server may write anywhere, the asker may not.
    EXPECT_EQ(ask_as_other(of(theirs, CMD_PROCESS_STAT)), 0);
    EXPECT_TRUE(reports_in(dir).empty());
    EXPECT_TRUE(theirs.runs_untraced());
    EXPECT_EQ(ask(of(theirs, CMD_PROCESS_STAT)), 0) << "root asks for anyone";
    EXPECT_EQ(reports_in(dir).size(), 1u);
}

// That is how /proc shows a process that its own user may not trace.
TEST_F(server_mode, refuses_a_process_that_became_roots_while_the_request_waited)
{
    const held_target held;
    const connection first;
    ASSERT_EQ(first.request(of(held, CMD_THREAD_STAT)), 0);
    const others_process theirs("odd", "two users");
    const connection link = connect_as_other_user();
    ASSERT_TRUE(link.send_request(of(theirs.pid(), CMD_CRASH_DUMP, "/tmp")));
    EXPECT_TRUE(eventually([this] {
        const vector<pid_t> tids = thread_ids(daemon.pid());
        const string task = "/proc/" + to_string(daemon.pid()) + "/task/" + to_string(tids.back());
        return tids.size() == 4 && file_text(task + "/syscall").starts_with(to_string(SYS_futex) + " ");
    })) << "the request does not wait";
    kill(theirs.pid(), SIGUSR1);
    EXPECT_EQ(theirs.read_output(1), "u");
    held.wake();
    EXPECT_EQ(link.acknowledgement(), -1);
    EXPECT_TRUE(link.closed_by_server());
    EXPECT_EQ(count_of(daemon.log_since(0), "W DumpServer: User 65534 may not ask"), 1u);
    EXPECT_TRUE(theirs.runs_untraced());
}

TEST_F(server_mode, shows_no_crash_of_a_process_that_became_roots_after_the_request)
{
    others_process theirs("odd", "two users");
    const connection link = connect_as_other_user();
    ASSERT_EQ(link.request(of(theirs.pid(), CMD_CRASH_DUMP, "/tmp")), 0);
    std::ofstream("/tmp/two users");
    EXPECT_TRUE(theirs.dies_by(SIGABRT));
    EXPECT_TRUE(link.finish());
    unlink("/tmp/two users");
    EXPECT_EQ(count_of(daemon.log_since(0), "W DumpServer: User 65534 may not ask"), 1u);
    EXPECT_TRUE(reports_in("/tmp", "crashdump").empty());
}

TEST_F(server_mode, ends_a_request_whose_target_is_killed)
{
    for (int round = 0; round < 12; round++) {
        target victim({"threads", "50", "20"});
        const connection link;
        EXPECT_EQ(link.request(of(victim, round % 4 == 3 ? CMD_CRASH_DUMP : CMD_PROCESS_STAT)), 0);
        usleep(static_cast<useconds_t>(round) * 2000);  // any moment will do
        kill(victim.pid(), SIGKILL);
        EXPECT_TRUE(victim.dies_by(SIGKILL)) << "its parent waits for ever";
        EXPECT_TRUE(link.finish());
    }
}

// A thread that waits for its vfork's child stops when the test says: so long a request goes on.
TEST_F(server_mode, runs_status_requests_side_by_side_and_a_crash_request_alone)
{
    const held_target held[2];
    const connection links[2];
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(links[i].request(of(held[i], CMD_THREAD_STAT)), 0) << "before the report, beside the other";
    const connection second;
    EXPECT_EQ(second.request(of(held[0], CMD_PROCESS_STAT)), -1) << "another request holds it";
    EXPECT_TRUE(second.closed_by_server());
    target crashing({build_dir() + "/examples/crash_sample", "wait"});
    const connection crash_link;
    ASSERT_TRUE(crash_link.send_request(of(crashing, CMD_CRASH_DUMP)));
    EXPECT_EQ(crash_link.acknowledgement(nullptr, 100), no_answer);
    const connection third;
    ASSERT_TRUE(third.send_request(of(idle, CMD_THREAD_STAT)));
    EXPECT_EQ(third.acknowledgement(nullptr, 100), no_answer) << "passes a crash request that waits";
    EXPECT_EQ(count_of(daemon.log(), "0xae03 takes:"), 0u);
    for (const auto& one : held)
        one.wake();
    EXPECT_EQ(crash_link.acknowledgement(), 0);
    EXPECT_EQ(count_of(daemon.log(), "Handle_dump_req 0xae03 takes:"), 2u);
    kill(crashing.pid(), SIGABRT);
    EXPECT_TRUE(crashing.dies_by(SIGABRT)) << "sent again after the report";
    EXPECT_EQ(third.acknowledgement(), 0);
    EXPECT_TRUE(third.finish());
    EXPECT_TRUE(held[0].runs_untraced() && held[1].runs_untraced());
}

// No report can be made, and the thread that the server has attached does not stop.
TEST(server_end, releases_a_thread_that_nothing_else_releases)
{
    for (const auto& [cmd, operation] :
         {std::pair{CMD_PROCESS_STAT, "dump_thread_stats"}, {CMD_CRASH_DUMP, "dump_process_crash"}}) {
        server daemon;
        const held_target held;
        const connection link;
        EXPECT_EQ(link.request(make_request(cmd, held.pid(), held.pid(), "/tmp/missing")), 0);
        EXPECT_TRUE(daemon.dies_by(SIGKILL));
        EXPECT_NE(daemon.log().find(string("Dump_server(") + operation + ":" + to_string(held.pid()) + "-" +
                                    to_string(held.pid()) + ") kill itself to free the zombie!\n"),
                  string::npos)
            << daemon.log();
        held.wake();
        EXPECT_TRUE(held.runs_untraced());
    }
}

TEST(server_start, ends_when_its_socket_cannot_be_made)
{
    unlink(dump_server_socket);  // of a test before
    ASSERT_EQ(mkdir(dump_server_socket, 0755), 0);
    const tool_run run = run_tool({"-s"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(log_entries(run.err),
              (vector<string>{"I DumpServer: Stack trace server start", "E DumpServer: Socket bind failed",
                              "E DumpServer: Socket listen failed"}));
    rmdir(dump_server_socket);
}

TEST(server_start, takes_the_socket_over_from_a_server_and_from_one_that_has_ended)
{
    const target idle({"threads", "0"});
    const dumper_frame request = make_request(CMD_THREAD_STAT, idle.pid(), idle.pid(), fresh_dir());
    const server first;
    const connection old_link;
    EXPECT_EQ(old_link.request(request), 0);
    ASSERT_TRUE(first.logs(" takes:"));
    {
        const server second;
        EXPECT_EQ(ask(request), 0);
        EXPECT_EQ(count_of(second.log(), " takes:"), 1u);
        EXPECT_EQ(old_link.request(request), 0) << "what is connected stays served";
        ASSERT_TRUE(first.logs(" takes:", 2));
    }
    EXPECT_EQ(connection().server_pid(), 0);
    EXPECT_TRUE(first.lives());
    const server third;
    EXPECT_EQ(ask(request), 0);
}

TEST_F(server_mode, is_asked_by_the_example)
{
    const auto run = [](vector<string> args) {
        args.insert(args.begin(), build_dir() + "/examples/request_status");
        return run_program(args);
    };
    const string pid = to_string(idle.pid());
    const tool_run whole = run({pid, dir});
    const string attached = "acknowledgement 0x51fd, status 0 (attached)\n";
    EXPECT_EQ(whole.out, attached + "report: " + reports_in(dir).at(0) + "\n");
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(count_of(file_text(reports_in(dir).at(0)), "\nKernel Trace:\n"), thread_ids(idle.pid()).size())
        << "complete when the program has ended";

    const tool_run none = run({pid, "/proc"});
    EXPECT_EQ(none.out, attached);
    EXPECT_EQ(WEXITSTATUS(none.status), 1);

    const tool_run foreign = run({pid, "1", dir});
    EXPECT_EQ(foreign.out, "acknowledgement 0x51fc, status -3 (no such thread)\n");
    EXPECT_EQ(WEXITSTATUS(foreign.status), 1);
}
