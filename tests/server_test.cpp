// Server mode over its socket: acknowledgements, the fate of connections, odd requests and peers, who may
// ask, where reports go, and that nothing of it stops a target or the server.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

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
    server daemon{{"-s"}, [] { umask(0); }};
    target idle{{"threads", "2"}};
    const string dir = fresh_dir();

    // Whatever a test did: the server serves, keeps nothing open, and its target runs.
    void TearDown() override
    {
        const string last = fresh_dir();
        EXPECT_EQ(ask(make_request(CMD_PROCESS_STAT, idle.pid(), idle.pid(), last)), 0);
        EXPECT_EQ(reports_in(last).size(), 1u);
        EXPECT_TRUE(daemon.lives());
        EXPECT_TRUE(idle.runs_untraced());
        EXPECT_TRUE(daemon.is_idle());
        if (HasFailure())
            fprintf(stderr, "%s", daemon.log().c_str());
    }
    dumper_frame of_idle(uint16_t cmd, pid_t tid = 0) const
    {
        return make_request(cmd, idle.pid(), tid != 0 ? tid : idle.pid(), dir);
    }
    pid_t other_thread() const
    {
        for (const pid_t tid : thread_ids(idle.pid()))
            if (tid != idle.pid())
                return tid;
        return -1;
    }
};

// The process's effective user while in scope: what a connect made meanwhile tells the server.
class as_other_user
{
public:
    as_other_user() { EXPECT_EQ(setegid(other_user) + seteuid(other_user), 0); }
    ~as_other_user() { EXPECT_EQ(seteuid(0) + setegid(0), 0); }
    as_other_user(const as_other_user&) = delete;
    as_other_user& operator=(const as_other_user&) = delete;
};

bool in_system_call(pid_t pid, pid_t tid, long number)
{
    const string path = "/proc/" + to_string(pid) + "/task/" + to_string(tid) + "/syscall";
    return file_text(path).starts_with(to_string(number) + " ");
}

// A process of this number, which must be free: clone(2), set_tid. It runs the "threads" target.
pid_t start_as_number(pid_t number)
{
    const string path = build_dir() + "/tests/targets/threads";
    clone_args args = {};
    args.exit_signal = SIGCHLD;
    args.set_tid = reinterpret_cast<uint64_t>(&number);
    args.set_tid_size = 1;
    const auto child = static_cast<pid_t>(syscall(SYS_clone3, &args, sizeof(args)));
    if (child == 0) {
        close(STDOUT_FILENO);
        execl(path.c_str(), path.c_str(), "1", nullptr);
        _exit(127);
    }
    return child;
}

}  // namespace

TEST_F(server_mode, acknowledges_each_request_of_a_connection_then_reports)
{
    const connection link;
    const pid_t tid = other_thread();
    const struct {
        dumper_frame request;
        uint16_t code;
        string heading;
    } requests[] = {
        {of_idle(CMD_PROCESS_STAT), 0x51FD, "=== === === === Dump process:" + to_string(idle.pid())},
        {of_idle(CMD_THREAD_STAT, tid), 0x51FC, "=== === === === Dump thread:" + to_string(tid)},
        {of_idle(CMD_PROCESS_STAT, tid), 0x51FD, "=== === === === Dump process:" + to_string(idle.pid())},
    };
    for (const auto& r : requests)
        ASSERT_TRUE(link.send_request(r.request));
    for (const auto& r : requests) {
        uint16_t code = 0;
        EXPECT_EQ(link.acknowledgement(&code), 0);
        EXPECT_EQ(code, r.code);
    }
    link.end_requests();
    EXPECT_TRUE(link.closed_by_server());

    const vector<string> reports = reports_in(dir, to_string(idle.pid()) + "-dumpstat-");
    ASSERT_EQ(reports.size(), 3u);
    size_t whole_processes = 0;
    for (const string& path : reports) {
        const string text = file_text(path);
        struct stat file;
        ASSERT_EQ(stat(path.c_str(), &file), 0);
        EXPECT_EQ(file.st_mode & 0777u, 0640u);
        if (text.starts_with(requests[1].heading)) {
            EXPECT_EQ(count_of(text, "\nKernel Trace:\n"), 1u) << text;
            EXPECT_NE(text.find("\nMemory map:\n"), string::npos) << text;
            continue;
        }
        whole_processes++;
        EXPECT_TRUE(text.starts_with(requests[0].heading)) << text;
        for (const pid_t thread : thread_ids(idle.pid()))
            EXPECT_EQ(count_of(text, ", tid: " + to_string(thread) + ","), 1u) << text;
    }
    EXPECT_EQ(whole_processes, 2u);
    EXPECT_EQ(count_of(daemon.log(),
                       "I DumpServer[" + to_string(daemon.pid()) + "]: Handle_dump_req 0xae02 takes:"),
              2u);
}

TEST_F(server_mode, answers_what_it_cannot_do_as_the_protocol_says)
{
    target gone({"threads", "0"});
    const pid_t gone_pid = gone.pid();
    kill(gone_pid, SIGKILL);
    gone.wait_for_end();

    const struct {
        const char* what;
        dumper_frame request;
        int status;
        bool stays_open;
        string logged;
    } cases[] = {
        {"no such process", make_request(CMD_PROCESS_STAT, gone_pid, gone_pid, dir), no_answer, true,
         "I DumpServer: Init process map failed:1\n"},
        {"pid 0", make_request(CMD_PROCESS_STAT, 0, 0, dir), no_answer, true,
         "I DumpServer: Init process map failed:1\n"},
        {"pid -5", make_request(CMD_CRASH_DUMP, -5, -5, dir), no_answer, true,
         "I DumpServer: Init process map failed:1\n"},
        {"pid -1", make_request(CMD_PROCESS_STAT, -1, -1, dir), no_answer, false,
         "I DumpServer: Init process map failed:-2\nE DumpServer: handle_dump_req failed, ret:-2\n"},
        {"thread of another process", of_idle(CMD_THREAD_STAT, getpid()), -3, false,
         "E Dumper: Tid " + to_string(getpid()) + " does not exist in pid " + to_string(idle.pid()) +
             ". ignoring request\nE DumpServer: ptrace attach failed\nI DumpServer: Handle_dump_req 0xae03 "
             "takes:"},
        {"thread -1 of a crash", of_idle(CMD_CRASH_DUMP, -1), -3, false,
         "E DumpServer: ptrace attach failed\n"},
        {"command 0", of_idle(0), no_answer, false,
         "E DumpServer: No Such CMD\nE DumpServer: handle_dump_req failed, ret:-22\n"},
        {"an acknowledgement", of_idle(0x51FD), no_answer, false, "E DumpServer: No Such CMD\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const size_t mark = daemon.log().size();
        const connection link;
        ASSERT_TRUE(link.send_request(c.request));
        if (c.stays_open) {
            ASSERT_TRUE(link.send_request(of_idle(CMD_THREAD_STAT)));
            link.end_requests();
            EXPECT_EQ(link.acknowledgement(), 0) << "the answer to the request after it";
            EXPECT_TRUE(link.closed_by_server());
        } else {
            EXPECT_EQ(link.acknowledgement(), c.status);
            EXPECT_TRUE(link.closed_by_server());
        }
        const string log = daemon.log_since(mark);
        EXPECT_NE(log.find(c.logged), string::npos) << log;
        EXPECT_TRUE(c.status != no_answer || c.stays_open || log.find(" takes:") == string::npos) << log;
    }
}

TEST_F(server_mode, takes_a_short_record_for_a_whole_one_and_reads_no_further)
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

    const dumper_frame twice[2] = {of_idle(CMD_THREAD_STAT), of_idle(CMD_PROCESS_STAT)};
    const connection link;
    ASSERT_TRUE(link.send_bytes(twice, 180));
    uint16_t codes[2] = {};
    EXPECT_EQ(link.acknowledgement(&codes[0]), 0);
    EXPECT_EQ(link.acknowledgement(&codes[1]), 0);
    EXPECT_EQ(codes[0] << 16 | codes[1], 0x51FC51FD);
    link.end_requests();
    EXPECT_TRUE(link.closed_by_server());
}

TEST_F(server_mode, survives_random_bytes)
{
    std::mt19937 random(20260322);
    for (int round = 0; round < 300; round++) {
        unsigned char bytes[270];
        for (unsigned char& byte : bytes)
            byte = static_cast<unsigned char>(random());
        const uint16_t commands[] = {CMD_CRASH_DUMP, CMD_PROCESS_STAT, CMD_THREAD_STAT};
        if (round % 4 != 0)
            memcpy(bytes, &commands[round % 3], 2);
        const pid_t pid = idle.pid();
        if (round % 2 != 0)
            memcpy(bytes + 66, &pid, sizeof(pid));  // a thread of it that cannot be, a path that cannot be
        const connection link;
        EXPECT_TRUE(link.send_bytes(bytes, 90 + random() % 180));
        link.end_requests();
        link.acknowledgement();
    }
}

TEST_F(server_mode, releases_the_target_when_its_report_cannot_be_made)
{
    const string read_only = fresh_dir();
    ASSERT_EQ(mount("tmpfs", read_only.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    const string file = dir + "/file";
    std::ofstream(file) << "x";
    for (const string& path :
         {string(64, 'x'), string("/tmp/missing"), read_only, file, string("relative")}) {
        for (const uint16_t cmd : {CMD_PROCESS_STAT, CMD_THREAD_STAT}) {
            SCOPED_TRACE(path);
            const size_t mark = daemon.log().size();
            dumper_frame request = make_request(cmd, idle.pid(), idle.pid(), path);
            if (path[0] == 'x')
                request.req_t.pid |= 0;  // no NUL in all of the field; what follows it is the process number
            const connection link;
            ASSERT_TRUE(link.send_request(request));
            EXPECT_EQ(link.acknowledgement(), 0);
            EXPECT_TRUE(link.closed_by_server());
            EXPECT_TRUE(idle.runs_untraced());
            const string log = daemon.log_since(mark);
            EXPECT_NE(log.find("E Dumper: Open dumpstate file '" + path + "/" + to_string(idle.pid()) +
                               "-dumpstat-"),
                      string::npos)
                << log;
            EXPECT_NE(log.find("E Dumper: Dumper create file failed"), string::npos) << log;
            EXPECT_NE(log.find("E DumpServer: handle_dump_req failed, ret:-2\n"), string::npos) << log;
        }
    }
    // Without a directory there is no report, and the process dump ends at its memory map.
    const size_t mark = daemon.log().size();
    EXPECT_EQ(ask(make_request(CMD_PROCESS_STAT, idle.pid(), idle.pid(), "")), 0);
    EXPECT_TRUE(idle.runs_untraced());
    EXPECT_NE(daemon.log_since(mark).find("handle_dump_req failed, ret:-1\n"), string::npos) << daemon.log();
    umount(read_only.c_str());
}

TEST_F(server_mode, writes_no_crash_report_for_a_healthy_process)
{
    target healthy({"threads", "3"});
    const connection link;
    ASSERT_TRUE(link.send_request(make_request(CMD_CRASH_DUMP, healthy.pid(), healthy.pid(), dir)));
    EXPECT_EQ(link.acknowledgement(), 0);
    ASSERT_TRUE(daemon.logs("Wait for sigstop timeout"));
    EXPECT_TRUE(healthy.runs_untraced());
    kill(healthy.pid(), SIGKILL);  // what the server now waits for, at most 10 s
    healthy.wait_for_end();
    link.end_requests();
    EXPECT_TRUE(link.closed_by_server());
    EXPECT_TRUE(reports_in(dir).empty());
}

TEST_F(server_mode, serves_others_whatever_a_peer_does)
{
    rlimit files;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, 2048);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
    vector<std::unique_ptr<connection>> silent;
    for (int i = 0; i < 500; i++)
        silent.push_back(std::make_unique<connection>());
    for (int i = 0; i < 20; i++) {
        connection leaver;
        ASSERT_TRUE(leaver.send_request(of_idle(CMD_PROCESS_STAT)));
        leaver.close_now();
    }
    // A peer that never reads: more acknowledgements than its buffer takes.
    const connection deaf;
    for (int i = 0; i < 40; i++)
        ASSERT_TRUE(deaf.send_request(make_request(CMD_THREAD_STAT, idle.pid(), 1, "")));
    target other({"threads", "0"});
    EXPECT_EQ(ask(make_request(CMD_PROCESS_STAT, other.pid(), other.pid(), dir)), 0);
    EXPECT_EQ(reports_in(dir, to_string(other.pid())).size(), 1u);
    deaf.end_requests();
    EXPECT_TRUE(eventually([this] { return idle.runs_untraced(); }));
    silent.clear();
}

TEST_F(server_mode, lets_other_users_ask_only_for_processes_of_their_own)
{
    target theirs({"as_user", to_string(other_user), build_dir() + "/tests/targets/threads", "1"});
    const string their_dir = fresh_dir(0755);
    ASSERT_EQ(chown(their_dir.c_str(), other_user, other_user), 0);
    const auto ask_as_other = [](const dumper_frame& request) {
        std::unique_ptr<connection> link;
        {
            const as_other_user user;
            link = std::make_unique<connection>();
        }
        EXPECT_TRUE(link->send_request(request));
        const int status = link->acknowledgement();
        link->end_requests();
        EXPECT_TRUE(link->closed_by_server());
        return status;
    };
    for (const uint16_t cmd : {CMD_PROCESS_STAT, CMD_THREAD_STAT, CMD_CRASH_DUMP}) {
        const size_t mark = daemon.log().size();
        EXPECT_EQ(ask_as_other(of_idle(cmd)), -1);
        const string log = daemon.log_since(mark);
        EXPECT_EQ(count_of(log, "\nW DumpServer: User 65534 may not ask"), 1u) << log;
        EXPECT_EQ(log.find("saving to"), string::npos) << log;
    }
    EXPECT_TRUE(reports_in(dir).empty());

    EXPECT_EQ(ask_as_other(make_request(CMD_PROCESS_STAT, theirs.pid(), theirs.pid(), their_dir)), 0);
    const vector<string> reports = reports_in(their_dir);
    ASSERT_EQ(reports.size(), 1u);
    struct stat file;
    ASSERT_EQ(stat(reports[0].c_str(), &file), 0);
    EXPECT_EQ(file.st_uid, other_user);
    EXPECT_EQ(file.st_gid, other_user);
    EXPECT_EQ(count_of(file_text(reports[0]), "\nBacktrace:\n"), thread_ids(theirs.pid()).size());

    // The server may write anywhere, the asker may not.
    EXPECT_EQ(ask_as_other(make_request(CMD_PROCESS_STAT, theirs.pid(), theirs.pid(), dir)), 0);
    EXPECT_TRUE(reports_in(dir).empty());
    EXPECT_TRUE(theirs.runs_untraced());
    EXPECT_EQ(ask(make_request(CMD_PROCESS_STAT, theirs.pid(), theirs.pid(), dir)), 0)
        << "root asks for anyone";
    EXPECT_EQ(reports_in(dir).size(), 1u);
}

TEST_F(server_mode, refuses_a_process_that_took_the_number_of_the_askers_own)
{
    target held({"in_vfork"});
    const pid_t vfork_child = atoi(read_line(held).c_str());
    const connection first;
    ASSERT_TRUE(first.send_request(make_request(CMD_THREAD_STAT, held.pid(), held.pid(), dir)));
    ASSERT_EQ(first.acknowledgement(), 0);

    // The other user's crash request waits for the first one; meanwhile the process is replaced by one of
    // root.
    target theirs({"as_user", to_string(other_user), build_dir() + "/tests/targets/threads", "1"});
    const pid_t number = theirs.pid();
    std::unique_ptr<connection> link;
    {
        const as_other_user user;
        link = std::make_unique<connection>();
    }
    ASSERT_TRUE(link->send_request(make_request(CMD_CRASH_DUMP, number, number, "/tmp")));
    EXPECT_TRUE(eventually([this] {
        const vector<pid_t> tids = thread_ids(daemon.pid());
        return tids.size() == 4 && in_system_call(daemon.pid(), tids.back(), SYS_futex);
    })) << "the request does not wait";
    kill(number, SIGKILL);
    theirs.wait_for_end();
    ASSERT_EQ(start_as_number(number), number);
    EXPECT_TRUE(
        eventually([number] { return file_text("/proc/" + to_string(number) + "/comm") == "threads\n"; }));
    kill(vfork_child, SIGUSR1);
    EXPECT_EQ(link->acknowledgement(), -1);
    EXPECT_TRUE(link->closed_by_server());
    EXPECT_EQ(count_of(daemon.log(), "W DumpServer[" + to_string(daemon.pid()) + "]: User 65534 may not ask"),
              1u);
    EXPECT_EQ(thread_status(number, number, "TracerPid"), "0");
    EXPECT_NE(thread_state(number, number), 'T');
    kill(number, SIGKILL);
    waitpid(number, nullptr, 0);
}

TEST_F(server_mode, ends_a_request_whose_target_is_killed)
{
    for (int round = 0; round < 12; round++) {
        target victim({"threads", "8", "20"});
        const connection link;
        const bool crash = round % 4 == 3;
        ASSERT_TRUE(link.send_request(
            make_request(crash ? CMD_CRASH_DUMP : CMD_PROCESS_STAT, victim.pid(), victim.pid(), dir)));
        EXPECT_EQ(link.acknowledgement(), 0);
        usleep(static_cast<useconds_t>(round) * 2000);  // any moment will do
        kill(victim.pid(), SIGKILL);
        EXPECT_TRUE(WIFSIGNALED(victim.wait_for_end())) << "its parent waits for ever";
        link.end_requests();
        EXPECT_TRUE(link.closed_by_server());
    }
}

// The stop of a thread that waits for its vfork's child comes when the test says: so long a request goes on.
TEST_F(server_mode, runs_status_requests_side_by_side_and_a_crash_request_alone)
{
    target held[2] = {target({"in_vfork"}), target({"in_vfork"})};
    const pid_t children[2] = {atoi(read_line(held[0]).c_str()), atoi(read_line(held[1]).c_str())};
    const connection links[2];
    for (int i = 0; i < 2; i++) {
        ASSERT_TRUE(links[i].send_request(make_request(CMD_THREAD_STAT, held[i].pid(), held[i].pid(), dir)));
        ASSERT_EQ(links[i].acknowledgement(), 0) << "acknowledged before the report, beside the other";
    }
    EXPECT_EQ(count_of(daemon.log(), "takes:"), 0u);
    target crashing({build_dir() + "/examples/crash_sample", "wait"});
    const connection crash_link;
    ASSERT_TRUE(crash_link.send_request(make_request(CMD_CRASH_DUMP, crashing.pid(), crashing.pid(), dir)));
    EXPECT_EQ(crash_link.acknowledgement(nullptr, 100), no_answer);
    EXPECT_EQ(count_of(daemon.log(), "takes:"), 0u);
    for (const pid_t child : children)
        kill(child, SIGUSR1);
    EXPECT_EQ(crash_link.acknowledgement(), 0);
    EXPECT_EQ(count_of(daemon.log(), "Handle_dump_req 0xae03 takes:"), 2u);
    kill(crashing.pid(), SIGABRT);
    const int status = crashing.wait_for_end();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "sent again after the report";
}

TEST_F(server_mode, refuses_a_target_that_another_request_holds)
{
    target held({"in_vfork"});
    const pid_t child = atoi(read_line(held).c_str());
    const connection first;
    ASSERT_TRUE(first.send_request(make_request(CMD_THREAD_STAT, held.pid(), held.pid(), dir)));
    ASSERT_EQ(first.acknowledgement(), 0);
    const connection second;
    ASSERT_TRUE(second.send_request(make_request(CMD_PROCESS_STAT, held.pid(), held.pid(), dir)));
    EXPECT_EQ(second.acknowledgement(), -1);
    EXPECT_TRUE(second.closed_by_server());
    kill(child, SIGUSR1);
    first.end_requests();
    EXPECT_TRUE(first.closed_by_server());
    EXPECT_TRUE(held.runs_untraced());
}

TEST(server_start, takes_the_socket_over_from_a_server_and_from_one_that_has_ended)
{
    target idle({"threads", "0"});
    const dumper_frame request = make_request(CMD_THREAD_STAT, idle.pid(), idle.pid(), fresh_dir());
    server first;
    const connection old_link;
    ASSERT_TRUE(old_link.send_request(request));
    EXPECT_EQ(old_link.acknowledgement(), 0);
    ASSERT_TRUE(first.logs(" takes:"));
    {
        const server second;
        EXPECT_EQ(ask(request), 0);
        EXPECT_EQ(count_of(second.log(), " takes:"), 1u);
        EXPECT_TRUE(old_link.send_request(request));
        EXPECT_EQ(old_link.acknowledgement(), 0) << "what is connected stays served";
        ASSERT_TRUE(first.logs(" takes:", 2));
    }
    EXPECT_FALSE(connection().is_open());
    EXPECT_TRUE(first.lives());
    const server third;
    EXPECT_EQ(ask(request), 0);
}

TEST_F(server_mode, is_asked_by_the_example)
{
    const string program = build_dir() + "/examples/request_status";
    const tool_run whole = run_program({program, to_string(idle.pid()), dir});
    EXPECT_EQ(whole.out, "acknowledgement 0x51fd, status 0 (attached)\nreport: " + dir + "/" +
                             to_string(idle.pid()) + "-dumpstat-*.log\n");
    EXPECT_EQ(whole.status, 0);
    const vector<string> reports = reports_in(dir);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(count_of(file_text(reports[0]), "\nKernel Trace:\n"), thread_ids(idle.pid()).size())
        << "complete when the program has ended";

    EXPECT_EQ(run_program({program, to_string(idle.pid()), to_string(other_thread()), dir}).status, 0);
    const tool_run foreign = run_program({program, to_string(idle.pid()), "1", dir});
    EXPECT_EQ(foreign.out, "acknowledgement 0x51fc, status -3 (no such thread)\n");
    EXPECT_EQ(WEXITSTATUS(foreign.status), 1);
    EXPECT_NE(run_program({program, "0", dir}).err.find("closed without an answer"), string::npos);
    EXPECT_EQ(WEXITSTATUS(run_program({program, to_string(idle.pid()), "/tmp/" + string(70, 'x')}).status),
              2);
}
