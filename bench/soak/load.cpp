// Client dumps of a process whose threads come and go, and the phase in which everything happens at once to
// one server.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "soak.h"

using std::string;
using std::to_string;
using std::vector;

namespace
{
// Every staying thread once, with its stack, whatever became of the others.
bool is_whole_churn_report(const string& report)
{
    for (int id = 0; id < 10; id++)
        if (count_of(report, "thread: stay " + to_string(id) + "\n") != 1)
            return false;
    return count_of(report, "\nBacktrace:\n") >= 11;
}

// A lock that is had in the order of asking: a mutex may let one requester go on and on, while the others'
// connections fall idle for longer than the server allows.
class fair_lock
{
    std::atomic<unsigned> tickets{0};
    std::atomic<unsigned> served{0};

public:
    void lock()
    {
        const unsigned mine = tickets++;
        for (unsigned now_served; (now_served = served) != mine;)
            served.wait(now_served);
    }
    void unlock()
    {
        served++;
        served.notify_all();
    }
};

struct churning_target : target {
    fair_lock turn;  // two requests at a time would refuse each other

    churning_target() : target({build_dir() + "/bench/churn"}) {}
};

using condition = std::function<bool()>;

// One connection's share. A request for another target behind each tells by its acknowledgement that the
// report is closed.
void keep_asking(const condition& goes_on, churning_target& churn, std::atomic<double>& longest_ms)
{
    const connection link;
    const target marker({"threads", "0"});
    const string marker_dir = fresh_dir();
    while (goes_on()) {
        const string dir = fresh_dir();
        for (const string& path : reports_in(marker_dir))
            std::filesystem::remove(path);
        const std::lock_guard<fair_lock> guard(churn.turn);
        const timeval start = now();
        link.send_request(make_request(CMD_PROCESS_STAT, churn.pid(), churn.pid(), dir));
        link.send_request(make_request(CMD_THREAD_STAT, marker.pid(), marker.pid(), marker_dir));
        if (link.acknowledgement(nullptr, 60000) != 0)
            return fault("a status request is not acknowledged");
        if (link.acknowledgement(nullptr, 60000) != 0)
            return fault("a status request does not end");
        note_request(start, longest_ms);
        figures.server_dumps += 2;
        const vector<string> reports = reports_in(dir, to_string(churn.pid()) + "-");
        const string report = reports.size() == 1 ? file_text(reports[0]) : "";
        const bool whole = is_whole_churn_report(report);
        expect(whole, "a report of a churning target is not whole:\n" + report);
        figures.whole_reports += whole;
        std::filesystem::remove_all(dir);
    }
    link.finish();
    std::filesystem::remove_all(marker_dir);
}

void keep_crashing(const condition& goes_on, const target& idle)
{
    for (int i = 0; goes_on(); i++)
        crash_once(i, i % 4, i % 2 == 0 ? "main" : "thread", idle);
}

void kill_targets(const condition& goes_on)
{
    while (goes_on()) {
        const string dir = fresh_dir();
        target victim({"threads", "20", "20"});
        const pid_t pid = victim.pid();
        const connection link;
        link.send_request(
            make_request(random_below(5) == 0 ? CMD_CRASH_DUMP : CMD_PROCESS_STAT, pid, pid, dir));
        usleep(random_below(100000));
        kill(pid, SIGKILL);
        expect(victim.wait_for_end(60000) != -1, "the parent of a killed target waits for ever");
        figures.targets_killed++;
        link.end_requests();
        link.acknowledgement(nullptr, 60000);  // there is none when it was killed early
        expect(link.closed_by_server(60000), "a request for a killed target does not end");
        std::filesystem::remove_all(dir);
    }
}

void kill_requesters(const condition& goes_on)
{
    const target asked({"threads", "20", "20"});
    const string dir = fresh_dir();
    while (goes_on()) {
        const pid_t requester = fork();
        if (requester == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const connection link;
            link.send_request(make_request(CMD_PROCESS_STAT, asked.pid(), asked.pid(), dir));
            for (;;)
                pause();
        }
        usleep(random_below(100000));
        kill(requester, SIGKILL);
        waitpid(requester, nullptr, 0);
        figures.requesters_killed++;
        for (const string& path : reports_in(dir))
            std::filesystem::remove(path);
    }
    expect_released(asked, "its requester was killed");
    std::error_code still_written_to;
    std::filesystem::remove_all(dir, still_written_to);
}

}  // namespace

void client_dumps(int times)
{
    const target churn({build_dir() + "/bench/churn"});
    double longest_ms = 0;
    for (int i = 0; i < times; i++) {
        const tool_run run = run_tool({"-n", "0", "-p", to_string(churn.pid())});
        const bool whole = run.status == 0 && is_whole_churn_report(run.out);
        expect(whole, "a client's report is not whole:\n" + run.out + run.err);
        figures.client_dumps++;
        figures.whole_reports += whole;
        longest_ms = std::max(longest_ms, run.ms);
        expect_released(churn, "a client dump");
    }
    printf("client dumps: %d, longest %.0f ms\n", times, longest_ms);
}

void everything_at_once(const server& daemon, const target& idle)
{
    constexpr int requesters = 16;
    constexpr int silent_peers = 300;
    // After which a server with more than 256 connections closes some.
    constexpr double idle_limit_ms = 60000;
    churning_target churn[4];
    std::atomic<double> longest_ms{0};
    const long dumps_before = figures.server_dumps;
    const long crashes_before = figures.crashes;
    const long late_before = figures.late_crashes;
    const size_t mark = daemon.log().size();

    auto silent = std::make_unique<vector<connection>>(silent_peers);
    const auto closed = [&] {
        return std::ranges::count_if(*silent, [](const connection& one) { return one.closed_by_server(0); });
    };
    const timeval start = now();
    const condition goes_on = [&] { return ms_since(start) < idle_limit_ms + 8000; };
    vector<std::thread> actors;
    for (int i = 0; i < requesters; i++)
        actors.emplace_back([&, i] { keep_asking(goes_on, churn[i % 4], longest_ms); });
    for (int i = 0; i < 2; i++) {
        actors.emplace_back([&] { kill_targets(goes_on); });
        actors.emplace_back([&] { kill_requesters(goes_on); });
    }
    actors.emplace_back([&] { keep_crashing(goes_on, idle); });
    while (ms_since(start) < idle_limit_ms - 5000)
        sleep_one_ms();
    expect(closed() == 0, "connections are closed before their time");
    for (auto& actor : actors)
        actor.join();

    const long idle_closed = closed();
    figures.idle_closed += idle_closed;
    expect(idle_closed >= silent_peers - 256, to_string(idle_closed) + " idle connections are closed");
    const size_t sweeps = count_of(daemon.log_since(mark), " connections are open: closing ");
    expect(sweeps > 0 && sweeps < 20, to_string(sweeps) + " log entries about idle connections");
    silent.reset();
    for (const target& one : churn)
        expect_released(one, "status requests");
    expect_unharmed(daemon, idle, "everything at once");
    const long crashed = figures.crashes - crashes_before;
    const long late = figures.late_crashes - late_before;
    expect(late < crashed / 2,
           "most crashes have no report: " + to_string(late) + " of " + to_string(crashed));
    printf(
        "everything at once: %ld dumps over %d connections, longest request %.0f ms, crashes %ld, without a "
        "report %ld, silent connections closed %ld of %d\n",
        figures.server_dumps - dumps_before, requesters, longest_ms.load(), crashed, late, idle_closed,
        silent_peers);
}
