// The system log layer against a socket at /dev/log, which the tests' own /dev does not have by itself.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <regex>

#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::vector;

namespace
{
// A socket bound at /dev/log for the time of the object.
struct log_socket {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);

    log_socket()
    {
        sockaddr_un address = {AF_UNIX, "/dev/log"};
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    ~log_socket()
    {
        close(fd);
        unlink("/dev/log");
    }
    // The datagrams that are there, each process number as #.
    vector<string> received() const
    {
        vector<string> all;
        char buf[8192];
        for (ssize_t got; (got = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0;)
            all.push_back(std::regex_replace(string(buf, static_cast<size_t>(got)),
                                             std::regex("\\[\\d+\\]: "), "[#]: "));
        return all;
    }
};

tool_run make_entries(const vector<string>& args = {}, const std::function<void()>& in_child = {})
{
    vector<string> argv = {build_dir() + "/tests/targets/log_entries"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(argv, in_child);
}

}  // namespace

TEST(system_log, sends_one_datagram_an_entry)
{
    const log_socket log;
    const tool_run run = make_entries();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_THAT(log.received(),
                testing::ElementsAre("<30>Dumper[#]: all well", "<28>Dumper[#]: first\nsecond",
                                     "<27>log_entries[#]: no newline",
                                     testing::StartsWith("<30>Long[#]: " + string(4000, 'l'))));
}

TEST(system_log, goes_to_standard_error_when_there_is_no_socket)
{
    const tool_run run = make_entries();
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(
        log_entries(run.err),
        testing::ElementsAre("I Dumper: all well", "W Dumper: first", "second", "E log_entries: no newline",
                             testing::StartsWith("I Long: " + string(4000, 'l'))));
}

TEST(system_log, never_waits_for_a_reader_of_standard_error)
{
    for (int round = 0; round < 20; round++) {
        int ends[2];
        ASSERT_EQ(round % 2 == 0 ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        // Long entries: each would fill what was free when another one looked.
        const tool_run run = make_entries({"100", "3900"}, [&] { dup2(ends[1], STDERR_FILENO); });
        EXPECT_EQ(run.status, 0);
        close(ends[0]);
        close(ends[1]);
        if (run.status != 0)
            break;
    }
}

TEST(system_log, says_how_many_entries_nobody_took)
{
    constexpr size_t made = 10000;  // more than a socket and a pipe hold
    const log_socket log;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    running_program writer({build_dir() + "/tests/targets/log_entries", std::to_string(made), "stop"},
                           [&] { dup2(ends[1], STDERR_FILENO); });
    ASSERT_TRUE(eventually([&] { return thread_state(writer.pid(), writer.pid()) == 'T'; }));
    size_t taken = log.received().size();
    string text;
    char buf[4096];
    for (ssize_t got; (got = read(ends[0], buf, sizeof(buf))) > 0;)
        text.append(buf, static_cast<size_t>(got));
    taken += log_entries(text).size();

    kill(writer.pid(), SIGCONT);
    EXPECT_EQ(writer.finish().status, 0);
    EXPECT_THAT(log.received(), testing::ElementsAre("<30>Many[#]: last entry",
                                                     "<28>DumpServer[#]: " + std::to_string(made - taken) +
                                                         " log entries before this one are lost"));
    close(ends[0]);
    close(ends[1]);
}

TEST(system_log, shows_warnings_and_errors_on_a_terminal_too)
{
    int master;
    int terminal;
    ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0) << strerror(errno);
    auto shown = [&](size_t lines) {
        string text;
        char byte;
        pollfd readable = {master, POLLIN, 0};
        while (count_of(text, "\n") < lines && poll(&readable, 1, 10000) == 1 && read(master, &byte, 1) == 1)
            text += byte;
        return log_entries(std::regex_replace(text, std::regex("\r"), ""));
    };
    {
        const log_socket log;
        make_entries({}, [&] { dup2(terminal, STDERR_FILENO); });
        EXPECT_EQ(log.received().size(), 4U);
        EXPECT_THAT(shown(3), testing::ElementsAre("W Dumper: first", "second", "E log_entries: no newline"));
    }
    make_entries({"2"}, [&] { dup2(terminal, STDERR_FILENO); });
    EXPECT_THAT(shown(2), testing::ElementsAre("I Many: entry 0", "I Many: entry 1"));
    close(master);
    close(terminal);
}
