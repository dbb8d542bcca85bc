// Phases in which the server lacks something: a reader of its log entries, room for reports, descriptors.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "soak.h"

using std::string;
using std::to_string;
using std::vector;

namespace
{
// Stands for the log daemon (/dev/log) and for what reads the server's standard error. Both readers can
// stall.
class log_readers
{
    int log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int ends[2] = {-1, -1};
    std::atomic<bool> ending{false};
    std::string entries;  // of both, a line each
    std::thread reader;

    bool take(int fd, const std::atomic<bool>& stalled)
    {
        char buf[8192];
        if (stalled)
            return false;
        const ssize_t got = read(fd, buf, sizeof(buf));
        if (got <= 0)
            return false;
        entries.append(buf, static_cast<size_t>(got));
        if (fd == log_socket)
            entries += '\n';
        return true;
    }

public:
    std::atomic<bool> socket_stalls{false};
    std::atomic<bool> stderr_stalls{false};

    log_readers()
    {
        sockaddr_un address = {AF_UNIX, "/dev/log"};
        expect(bind(log_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
                   pipe2(ends, O_CLOEXEC) == 0,
               string("no log socket: ") + strerror(errno));
        fcntl(log_socket, F_SETFL, O_NONBLOCK);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        reader = std::thread([this] {
            for (bool more = true; more || !ending;) {
                more = take(log_socket, socket_stalls);
                more = take(ends[0], stderr_stalls) || more;
                if (!more)
                    sleep_one_ms();
            }
        });
    }
    ~log_readers()
    {
        close(log_socket);
        close(ends[0]);
        close(ends[1]);
        unlink("/dev/log");
    }
    int server_stderr() const { return ends[1]; }
    // Nobody writes any more: everything that has arrived.
    string all()
    {
        ending = true;
        reader.join();
        return entries;
    }
};

struct stall_result {
    long asked;      // requests, each of which makes one entry with its time
    long taken;      // of those entries arrived
    long said_lost;  // entries of any kind that the server says it could not get rid of
    double longest_ms;
};

stall_result ask_while_log_stalls(bool stderr_too)
{
    const socket_set_aside another_server;
    log_readers log;
    const target daemon({build_dir() + "/dump_server", "-s"}, false,
                        [&] { dup2(log.server_stderr(), STDERR_FILENO); });
    eventually([&] { return connection().server_pid() == daemon.pid(); });

    std::atomic<long> asked{0};
    std::atomic<bool> ending{false};
    std::atomic<double> longest_ms{0};
    vector<std::thread> requesters;
    for (int i = 0; i < 8; i++)
        requesters.emplace_back([&] {
            const target asked_for({"threads", "4"});
            const string dir = fresh_dir();
            while (!ending) {
                const timeval start = now();
                expect(ask_for_whole_report(asked_for, dir), "a report is not whole while the log stalls");
                note_request(start, longest_ms);
                asked++;
            }
            expect_released(asked_for, "requests with a stalled log");
            std::filesystem::remove_all(dir);
        });
    usleep(500000);
    log.socket_stalls = true;
    log.stderr_stalls = stderr_too;
    usleep(3000000);
    log.socket_stalls = log.stderr_stalls = false;
    usleep(500000);
    ending = true;
    for (auto& requester : requesters)
        requester.join();
    eventually([&] { return thread_ids(daemon.pid()).size() == 2; });
    expect_alive(daemon, "the stall of its log");

    const string text = log.all();
    stall_result result = {asked, static_cast<long>(count_of(text, " takes:")), 0, longest_ms};
    std::stringstream lines(text);
    for (string line; getline(lines, line);)
        if (line.ends_with(" log entries before this one are lost"))
            result.said_lost += atol(line.c_str() + line.find("]: ") + 3);
    return result;
}

long cpu_ticks(pid_t pid)
{
    const string stat = file_text("/proc/" + to_string(pid) + "/stat");
    long user = 0;
    long system = 0;
    sscanf(stat.c_str() + stat.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %ld %ld", &user,
           &system);
    return user + system;
}

// Tries to connect without waiting for a server that does not accept: the descriptor, or -1.
int try_to_connect()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {AF_UNIX, {}};
    strcpy(address.sun_path, dump_server_socket);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
        return fd;
    close(fd);
    return -1;
}

}  // namespace

// A held thread must not wait for the log: its reader may be the one that is held.
void stalled_log()
{
    constexpr double stalled_ms = 2000;  // of 3 s without a reader; a request with one takes a few hundred
    const stall_result socket = ask_while_log_stalls(false);
    expect(socket.taken == socket.asked, "entries are lost though standard error takes them");
    expect(socket.longest_ms < stalled_ms, "a request waits for the log socket");
    const stall_result both = ask_while_log_stalls(true);
    expect(both.said_lost > 0, "no entry was lost: the log did not stall");
    expect(both.asked - both.taken <= both.said_lost, "more entries are lost than the server says");
    expect(both.longest_ms < stalled_ms, "a request waits for standard error");
    figures.entries_lost += both.said_lost;
    printf(
        "stalled log: socket alone: %ld requests, longest %.0f ms, %ld lost; standard error too: %ld "
        "requests, "
        "longest %.0f ms, entries lost %ld\n",
        socket.asked, socket.longest_ms, socket.asked - socket.taken, both.asked, both.longest_ms,
        both.said_lost);
}

void full_disk(const server& daemon, const target& idle)
{
    const string dir = fresh_dir();
    expect(mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256k") == 0, "no small file system");
    const target asked({"threads", "20", "20"});
    const dumper_frame request = make_request(CMD_PROCESS_STAT, asked.pid(), asked.pid(), dir);
    const size_t threads = thread_ids(asked.pid()).size();
    int whole = 0;
    int cut = 0;
    for (int i = 0; i < 40; i++) {
        const size_t mark = daemon.log().size();
        const size_t before = reports_in(dir).size();
        expect(ask(request) == 0, "a request with a full disk is not acknowledged");
        expect(daemon.is_idle(), "the server is not done");
        const size_t errors =
            count_of(daemon.log_since(mark),
                     "E Dumper: Report is incomplete, write failed: No space left on device\n");
        size_t whole_now = 0;
        for (const string& path : reports_in(dir))
            whole_now += count_of(file_text(path), "\nBacktrace:\n") == threads;
        const bool is_whole = whole_now > static_cast<size_t>(whole);
        expect(
            reports_in(dir).size() == before + 1 && errors == (is_whole ? 0 : 1),
            "a report on a full disk: whole " + to_string(is_whole) + ", errors logged " + to_string(errors));
        whole += is_whole;
        cut += !is_whole;
        expect_released(asked, "a full disk");
    }
    expect(whole > 0 && cut > 0, "the disk was never full, or always");
    for (const string& path : reports_in(dir))
        std::filesystem::remove(path);
    expect(ask_for_whole_report(asked, dir), "no whole report when there is room again");
    umount(dir.c_str());
    std::filesystem::remove_all(dir);
    expect_unharmed(daemon, idle, "a full disk");
    printf("full disk: %d reports whole, %d cut short, each with its log entry\n", whole, cut);
}

void few_descriptors()
{
    constexpr rlim_t few = 64;
    constexpr size_t peers = 100;
    constexpr double lasting_ms = 4000;
    const socket_set_aside another_server;
    const server daemon;
    const target asked({"threads", "4"});
    const string dir = fresh_dir();
    const string dir_afterwards = fresh_dir();
    const rlimit limit = {few, few};
    prlimit(daemon.pid(), RLIMIT_NOFILE, &limit, nullptr);

    vector<int> connected;
    const long ticks_before = cpu_ticks(daemon.pid());
    const dumper_frame request = make_request(CMD_PROCESS_STAT, asked.pid(), asked.pid(), dir);
    const timeval start = now();
    while (ms_since(start) < lasting_ms) {
        const int fd = connected.size() < peers ? try_to_connect() : -1;
        if (fd >= 0)
            connected.push_back(fd);
        else
            usleep(50000);
        // Some of them ask, and get what can be had without a descriptor.
        if (fd >= 0 && connected.size() % 10 == 0)
            (void)!send(fd, &request, sizeof(request), MSG_NOSIGNAL);
    }
    const double cpu_percent = static_cast<double>(cpu_ticks(daemon.pid()) - ticks_before) * 100 /
                               (static_cast<double>(sysconf(_SC_CLK_TCK)) * lasting_ms / 1000);
    expect_alive(daemon, "a lack of descriptors");
    expect(daemon.logs("Socket accept failed"), "the server had descriptors enough");
    expect(cpu_percent < 20,
           "the server is busy with nothing to do: " + to_string(cpu_percent) + " % of a processor");
    for (const int fd : connected)
        close(fd);
    expect_released(asked, "a lack of descriptors");
    expect(daemon.is_idle(), "descriptors are left");
    // A target of its own: the server may only now get to see a request of one whom it could not accept
    // before.
    const target afterwards({"threads", "4"});
    expect(ask_for_whole_report(afterwards, dir_afterwards),
           "no whole report when there are descriptors again");
    std::filesystem::remove_all(dir);
    std::filesystem::remove_all(dir_afterwards);
    printf("descriptors: %zu connections to a server with %d, which used %.1f %% of a processor meanwhile\n",
           connected.size(), static_cast<int>(few), cpu_percent);
}
