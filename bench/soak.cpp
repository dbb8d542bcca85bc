// The long loops of server mode, with figures: crashes of every kind, a thousand status requests, targets and
// requesters killed at any moment, processes that survive their crash report. Called by ./dev soak.
// usage: soak [MINUTES]   at least one round of everything, further rounds until the time has passed
// Exit status 1 when anything went wrong; each fault is a line on standard error.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>

#include "support/server.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::to_string;
using std::vector;

namespace
{
std::atomic<int> faults{0};
std::mt19937 dice(1);

void fault(const string& what)
{
    faults++;
    fprintf(stderr, "FAULT: %s\n", what.c_str());
}

void expect(bool holds, const string& what)
{
    if (!holds)
        fault(what);
}

timeval now()
{
    timeval time;
    gettimeofday(&time, nullptr);
    return time;
}

string median_and_longest(vector<double>& ms)
{
    std::sort(ms.begin(), ms.end());
    char text[64];
    snprintf(text, sizeof(text), "median %.0f ms, longest %.0f ms", ms[ms.size() / 2], ms.back());
    return text;
}

long resident_kb(const server& daemon)
{
    return atol(thread_status(daemon.pid(), daemon.pid(), "VmRSS").c_str());
}

void expect_unharmed(const server& daemon, const target& idle, const string& after)
{
    expect(daemon.lives(), "the server ended after " + after);
    expect(idle.runs_untraced(), "a target is held after " + after);
    expect(ask(make_request(CMD_THREAD_STAT, idle.pid(), idle.pid(), fresh_dir())) == 0,
           "the server does not serve after " + after);
    expect(daemon.is_idle(), "threads or descriptors are left after " + after);
}

struct crash_kind {
    const char* name;
    int signo;
    const char* function;
};
constexpr crash_kind crash_kinds[] = {
    {"segv", SIGSEGV, "write_through_bad_pointer"},
    {"bus", SIGBUS, "read_past_end_of_file"},
    {"ill", SIGILL, "execute_illegal_instruction"},
    {"fpe", SIGFPE, "divide_by_zero"},
    {"abrt", SIGABRT, "give_up"},
    {"trap", SIGTRAP, "run_into_breakpoint"},
    {"overflow", SIGSEGV, "recurse_for_ever"},
};

// Programs that had died before a busy machine let the server look at them: the library waits one second
// only.
int came_too_late = 0;

void check_crash_report(const string& dir, const crash_kind& kind, size_t threads, const string& name,
                        const string& log)
{
    const vector<string> paths = reports_in(dir, "crashdump-");
    if (paths.empty() && log.find("Init process map failed:1\n") != string::npos) {
        came_too_late++;
        return;
    }
    if (paths.size() != 1)
        return fault(name + ": " + to_string(paths.size()) + " reports");
    const string report = file_text(paths[0]);
    const string crash_part = report.substr(0, report.find("\n=== === === === Dump process:"));
    expect(report.starts_with("****************** Process crash dump stat"), name + ": no banner at the top");
    expect(count_of(crash_part, "\nFatal signal " + to_string(kind.signo) + " (") == 1,
           name + ": signal line");
    expect(crash_part.find(kind.function) != string::npos, name + ": faulting function not in the backtrace");
    expect(count_of(report, "\nBacktrace:\n") == threads + 1, name + ": threads are missing or double");
    std::filesystem::remove_all(dir);
}

void crashes(const server& daemon)
{
    constexpr int times = 25;
    vector<double> ms;
    setenv("LD_PRELOAD", (build_dir() + "/examples/libcrash_reporter.so").c_str(), 1);
    for (const crash_kind& kind : crash_kinds)
        for (const string where : {"main", "thread"})
            for (const int further : {0, 2, 8})
                for (int i = 0; i < times; i++) {
                    const string name = string(kind.name) + " " + to_string(further) + " " + where;
                    const string dir = fresh_dir();
                    setenv("CRASH_REPORT_DIR", dir.c_str(), 1);
                    const size_t mark = daemon.log().size();
                    const timeval start = now();
                    target program(
                        {build_dir() + "/examples/crash_sample", kind.name, to_string(further), where});
                    const int status = program.wait_for_end(20000);
                    ms.push_back(elapsed_ms(start, now()));
                    expect(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == kind.signo,
                           name + ": ended with status " + to_string(status));
                    expect(daemon.is_idle(), name + ": the server is not done");
                    const size_t others = static_cast<size_t>(further) + (where == "thread");
                    check_crash_report(dir, kind, where == "main" ? others + 1 : others, name,
                                       daemon.log_since(mark));
                }
    unsetenv("LD_PRELOAD");
    unsetenv("CRASH_REPORT_DIR");
    printf("crashes: %zu, from start to death %s; without a report, as the server came too late: %d\n",
           ms.size(), median_and_longest(ms).c_str(), came_too_late);
}

// One connection's share. A request for another target behind each tells by its acknowledgement that the
// report is closed. One request at a time for each churning target: two would refuse each other.
void ask_many(int requests, const target& churn, std::mutex& churn_mutex, const string& marker_dir,
              vector<double>& ms)
{
    const connection link;
    const target marker({"threads", "0"});
    for (int i = 0; i < requests; i++) {
        const string dir = fresh_dir();
        const std::lock_guard<std::mutex> turn(churn_mutex);
        const timeval start = now();
        link.send_request(make_request(CMD_PROCESS_STAT, churn.pid(), churn.pid(), dir));
        link.send_request(make_request(CMD_THREAD_STAT, marker.pid(), marker.pid(), marker_dir));
        expect(link.acknowledgement() == 0, "a status request is not acknowledged");
        expect(link.acknowledgement(nullptr, 60000) == 0, "a status request does not end");
        ms.push_back(elapsed_ms(start, now()));
        const vector<string> reports = reports_in(dir);
        const string report = reports.size() == 1 ? file_text(reports[0]) : "";
        for (int id = 0; id < 10; id++)
            expect(count_of(report, "thread: stay " + to_string(id) + "\n") == 1,
                   "a thread is not in a report once");
        expect(count_of(report, "\nBacktrace:\n") >= 11, "stacks are missing in a report");
        std::filesystem::remove_all(dir);
    }
}

void status_requests(const server& daemon)
{
    constexpr int connections = 16;
    constexpr int targets = 4;
    const string marker_dir = fresh_dir();
    const string program = build_dir() + "/bench/churn";
    const target churn[targets] = {target({program}), target({program}), target({program}),
                                   target({program})};
    std::mutex turns[targets];
    const auto ask_from_all = [&](int requests) {
        vector<vector<double>> ms(connections);
        vector<std::thread> clients;
        for (int i = 0; i < connections; i++)
            clients.emplace_back([&, i] {
                ask_many((requests + i) / connections, churn[i % targets], turns[i % targets], marker_dir,
                         ms[static_cast<size_t>(i)]);
            });
        for (auto& client : clients)
            client.join();
        vector<double> all;
        for (const auto& own : ms)
            all.insert(all.end(), own.begin(), own.end());
        expect(daemon.is_idle(), "threads or descriptors are left after status requests");
        return all;
    };
    ask_from_all(100);
    const long before_kb = resident_kb(daemon);
    vector<double> ms = ask_from_all(1000);
    const long after_kb = resident_kb(daemon);
    for (const target& one : churn)
        expect(one.runs_untraced(), "a churning target is held");
    expect(after_kb < before_kb + 4096,
           "the server grew from " + to_string(before_kb) + " to " + to_string(after_kb));
    printf("status requests: %zu over %d connections, %s; server memory %ld kB after 100, %ld kB after %zu\n",
           ms.size(), connections, median_and_longest(ms).c_str(), before_kb, after_kb, ms.size() + 100);
    std::filesystem::remove_all(marker_dir);
}

void killed_targets(const server& daemon, const target& idle)
{
    constexpr int times = 200;
    int mid_request = 0;
    for (int i = 0; i < times; i++) {
        const string dir = fresh_dir();
        target victim({"threads", "20", "20"});
        const pid_t pid = victim.pid();
        const connection link;
        const size_t mark = daemon.log().size();
        link.send_request(make_request(i % 5 == 0 ? CMD_CRASH_DUMP : CMD_PROCESS_STAT, pid, pid, dir));
        usleep(static_cast<useconds_t>(dice() % 40000));
        const bool running = daemon.log().find("takes:", mark) == string::npos;
        kill(pid, SIGKILL);
        mid_request += running;
        expect(victim.wait_for_end() != -1, "the parent of a killed target waits for ever");
        link.end_requests();
        link.acknowledgement();  // there is none when it was killed early
        expect(link.closed_by_server(30000), "a request for a killed target does not end");
        std::filesystem::remove_all(dir);
    }
    expect_unharmed(daemon, idle, "kills of targets");
    printf("targets killed: %d, %d of them in mid-request\n", times, mid_request);
}

void killed_requesters(const server& daemon, const target& idle)
{
    constexpr int times = 40;
    const target asked({"threads", "20", "20"});
    for (int i = 0; i < times; i++) {
        const pid_t requester = fork();
        if (requester == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const connection link;
            link.send_request(make_request(CMD_PROCESS_STAT, asked.pid(), asked.pid(), "/tmp"));
            for (;;)
                pause();
        }
        usleep(static_cast<useconds_t>(dice() % 20000));
        kill(requester, SIGKILL);
        waitpid(requester, nullptr, 0);
        expect(daemon.is_idle() && asked.runs_untraced(), "a target is held after its requester was killed");
    }
    expect_unharmed(daemon, idle, "kills of requesters");
    printf("requesters killed: %d\n", times);
}

// The server's waits are bounded: for the end of a healthy process and of one that swallows its signal, and
// for the crash of one that is stopped again and again.
void survivors(const server& daemon, const target& idle)
{
    for (const int signo : {0, SIGSEGV, SIGSTOP}) {
        const target survivor({"threads", "3"});
        const connection link;
        link.send_request(make_request(CMD_CRASH_DUMP, survivor.pid(), survivor.pid(), "/tmp"));
        expect(link.acknowledgement() == 0, "a survivor is not acknowledged");
        const timeval start = now();
        link.end_requests();
        if (signo != 0)
            tgkill(survivor.pid(), survivor.pid(), signo);  // a thread that is not traced would die of it
        if (signo == SIGSTOP)
            while (!link.closed_by_server(1) && elapsed_ms(start, now()) < 15000)
                tgkill(survivor.pid(), survivor.pid(), signo);
        kill(survivor.pid(), SIGCONT);
        expect(link.closed_by_server(30000), "a survivor locks the server");
        printf("survivor of signal %d: %.1f s\n", signo, elapsed_ms(start, now()) / 1000);
        expect(daemon.logs("Process " + to_string(survivor.pid()) + " lives on"),
               "no entry about a survivor");
        expect(survivor.runs_untraced(), "a survivor is held");
    }
    expect_unharmed(daemon, idle, "survivors");
}

}  // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const double limit_ms = argc > 1 ? atof(argv[1]) * 60000 : 0;
    const timeval start = now();
    int rounds = 0;
    do {
        const server daemon;
        const target idle({"threads", "2"});
        crashes(daemon);
        status_requests(daemon);
        killed_targets(daemon, idle);
        killed_requesters(daemon, idle);
        survivors(daemon, idle);
        rounds++;
    } while (elapsed_ms(start, now()) < limit_ms);
    printf("rounds: %d, %.1f minutes, faults: %d\n", rounds, elapsed_ms(start, now()) / 60000, faults.load());
    return faults == 0 ? 0 : 1;
}
