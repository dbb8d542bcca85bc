// Called by ./dev soak, as root and with a /tmp and a /dev of its own.
//
// usage: soak [MINUTES] [--dumps NUMBER]
//
// So many client dumps, then one round of every phase of server mode, and further rounds until the time has
// passed; one server lives through all of them. Exit status 1 when anything went wrong.
#include "soak.h"

#include <ctype.h>
#include <string.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

using std::string;
using std::to_string;

soak_figures figures;

void fault(const string& what)
{
    figures.faults++;
    fprintf(stderr, "FAULT: %s\n", what.c_str());
}

void expect(bool holds, const string& what)
{
    if (!holds)
        fault(what);
}

void expect_released(const target& program, const string& after)
{
    if (program.runs_untraced())
        return;
    figures.left_stopped++;
    fault("a target is held after " + after);
}

void expect_alive(const target& daemon, const string& after)
{
    if (daemon.lives())
        return;
    figures.server_deaths++;
    fault("the server ended in " + after);
}

void expect_unharmed(const server& daemon, const target& idle, const string& after)
{
    expect_alive(daemon, after);
    expect_released(idle, after);
    expect(ask(make_request(CMD_THREAD_STAT, idle.pid(), idle.pid(), "/tmp")) == 0,
           "the server does not serve after " + after);
    expect(daemon.is_idle(), "threads or descriptors are left after " + after);
}

double ms_since(const timeval& start)
{
    return elapsed_ms(start, now());
}

bool ask_for_whole_report(const target& program, const string& dir)
{
    const int status = ask(make_request(CMD_PROCESS_STAT, program.pid(), program.pid(), dir));
    expect(status == 0, "status " + to_string(status) + " of a request that should do");
    figures.server_dumps++;
    const auto paths = reports_in(dir, to_string(program.pid()) + "-dumpstat-");
    const bool whole = paths.size() == 1 &&
                       count_of(file_text(paths[0]), "\nBacktrace:\n") == thread_ids(program.pid()).size();
    for (const string& path : paths)
        std::filesystem::remove(path);
    figures.whole_reports += whole;
    return whole;
}

void note_request(const timeval& start, std::atomic<double>& longest_ms)
{
    const double ms = ms_since(start);
    for (std::atomic<double>* longest : {&longest_ms, &figures.longest_request_ms})
        for (double before = *longest; ms > before && !longest->compare_exchange_weak(before, ms);)
            ;
}

unsigned random_below(unsigned limit)
{
    static std::atomic<unsigned> seed{1};
    thread_local std::mt19937 dice(seed++);
    return static_cast<unsigned>(dice() % limit);
}

socket_set_aside::socket_set_aside()
{
    std::filesystem::rename(dump_server_socket, "/tmp/first.ipc");
}

socket_set_aside::~socket_set_aside()
{
    std::filesystem::rename("/tmp/first.ipc", dump_server_socket);
}

namespace
{
struct server_size {
    long resident_kb;
    long descriptors;

    explicit server_size(const server& daemon)
        : resident_kb(atol(thread_status(daemon.pid(), daemon.pid(), "VmRSS").c_str())),
          descriptors(static_cast<long>(daemon.open_descriptors()))
    {
    }
};

void print_row(const char* name, long value)
{
    printf("%-52s %8ld\n", name, value);
}

void print_table()
{
    print_row("client dumps", figures.client_dumps);
    print_row("server dumps", figures.server_dumps);
    print_row("crashes", figures.crashes);
    print_row("reports whole", figures.whole_reports);
    print_row("crashes without a report: the server came too late", figures.late_crashes);
    print_row("targets killed", figures.targets_killed);
    print_row("requesters killed", figures.requesters_killed);
    print_row("idle connections closed", figures.idle_closed);
    print_row("log entries lost, both readers stalled", figures.entries_lost);
    print_row("longest request, ms", static_cast<long>(figures.longest_request_ms));
    print_row("targets left stopped (0)", figures.left_stopped);
    print_row("server deaths (0)", figures.server_deaths);
    print_row("faults (0)", figures.faults);
}

int usage()
{
    fprintf(stderr, "usage: soak [MINUTES] [--dumps NUMBER]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    double limit_ms = 0;
    int dumps = 200;
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--dumps") == 0 && i + 1 < argc)
            dumps = atoi(argv[++i]);
        else if (isdigit(argv[i][0]))
            limit_ms = atof(argv[i]) * 60000;
        else
            return usage();

    const timeval start = now();
    client_dumps(dumps);
    const server daemon;
    const target idle({"threads", "2"});
    const server_size at_start(daemon);
    server_size after_first = at_start;
    int rounds = 0;
    do {
        daemon.clear_log();
        crashes(daemon, idle);
        everything_at_once(daemon, idle);
        full_disk(daemon, idle);
        stalled_log();
        few_descriptors();
        survivors(daemon, idle);
        if (rounds++ == 0)
            after_first = server_size(daemon);
    } while (daemon.lives() && ms_since(start) < limit_ms);

    const server_size at_end(daemon);
    expect(at_end.resident_kb < after_first.resident_kb + 4096, "the server has grown since its first round");
    print_row("rounds", rounds);
    printf("%-52s %8.1f\n", "minutes", ms_since(start) / 60000);
    print_row("server memory at the start, kB", at_start.resident_kb);
    print_row("  after the first round", after_first.resident_kb);
    print_row("  at the end", at_end.resident_kb);
    print_row("server descriptors at the start", at_start.descriptors);
    print_row("  at the end", at_end.descriptors);
    print_table();
    return figures.faults == 0 ? 0 : 1;
}
