// Crashes of every kind, one after another, and processes that survive their crash report.
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "soak.h"

using std::string;
using std::to_string;
using std::vector;

namespace
{
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

void check_crash_report(const string& report, const crash_kind& kind, size_t threads, const string& name)
{
    const string crash_part = report.substr(0, report.find("\n=== === === === Dump process:"));
    const bool whole = report.starts_with("****************** Process crash dump stat") &&
                       count_of(crash_part, "\nFatal signal " + to_string(kind.signo) + " (") == 1 &&
                       crash_part.find(kind.function) != string::npos &&
                       count_of(report, "\nBacktrace:\n") == threads + 1;
    expect(whole, name + ": this report is not whole:\n" + report);
    figures.whole_reports += whole;
}

}  // namespace

bool crash_once(int number, int further, const string& where, const target& marker)
{
    const crash_kind& kind = crash_kinds[static_cast<size_t>(number) % std::size(crash_kinds)];
    const string name = string(kind.name) + " " + to_string(further) + " " + where;
    const string dir = fresh_dir();
    target program({build_dir() + "/examples/crash_sample", kind.name, to_string(further), where}, true, [&] {
        setenv("LD_PRELOAD", (build_dir() + "/examples/libcrash_reporter.so").c_str(), 1);
        setenv("CRASH_REPORT_DIR", dir.c_str(), 1);
    });
    const int status = program.wait_for_end(60000);
    expect(status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == kind.signo,
           name + ": ended with status " + to_string(status));
    figures.crashes++;
    // A crash request runs alone: what is answered after it finds its report closed.
    expect(ask(make_request(CMD_THREAD_STAT, marker.pid(), marker.pid(), dir)) == 0,
           name + ": the server does not serve afterwards");
    figures.server_dumps++;

    const vector<string> paths = reports_in(dir, "crashdump-");
    const size_t others = static_cast<size_t>(further) + (where == "thread");
    if (paths.size() == 1)
        check_crash_report(file_text(paths[0]), kind, where == "main" ? others + 1 : others, name);
    else
        expect(paths.empty(), name + ": " + to_string(paths.size()) + " reports");
    figures.late_crashes += paths.empty();
    std::filesystem::remove_all(dir);
    return !paths.empty();
}

void crashes(const server& daemon, const target& idle)
{
    constexpr int times = 25;
    vector<double> ms;
    for (size_t kind = 0; kind < std::size(crash_kinds); kind++)
        for (const string where : {"main", "thread"})
            for (const int further : {0, 2, 8})
                for (int i = 0; i < times; i++) {
                    const size_t mark = daemon.log().size();
                    const timeval start = now();
                    const bool reported = crash_once(static_cast<int>(kind), further, where, idle);
                    ms.push_back(ms_since(start));
                    expect(reported || daemon.log().find("Init process map failed:1\n", mark) != string::npos,
                           "a crash has no report");
                }
    std::sort(ms.begin(), ms.end());
    printf("crashes one by one: %zu, from start to end median %.0f ms, longest %.0f ms\n", ms.size(),
           ms[ms.size() / 2], ms.back());
    expect_unharmed(daemon, idle, "crashes");
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
            while (!link.closed_by_server(1) && ms_since(start) < 15000)
                tgkill(survivor.pid(), survivor.pid(), signo);
        kill(survivor.pid(), SIGCONT);
        expect(link.closed_by_server(30000), "a survivor locks the server");
        printf("survivor of signal %d: %.1f s\n", signo, ms_since(start) / 1000);
        expect(daemon.logs("Process " + to_string(survivor.pid()) + " lives on"),
               "no entry about a survivor");
        expect_released(survivor, "a crash request that it survives");
    }
    expect_unharmed(daemon, idle, "survivors");
}
