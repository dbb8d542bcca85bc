// Runs of the real executable, and of anything else, with what they print.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

struct tool_run {
    int status;       // of waitpid; -1 when it had to be killed at the limit
    std::string out;  // standard output
    std::string err;  // standard error: the system log's entries, since the tests have no /dev/log
    double ms;
};

// Runs <build>/dump_server with these arguments. in_child runs in the child before the exec.
tool_run run_tool(const std::vector<std::string>& args, const std::function<void()>& in_child = {},
                  int limit_ms = 20000);

// The same for any program; argv[0] is its path.
tool_run run_program(const std::vector<std::string>& argv, const std::function<void()>& in_child = {},
                     int limit_ms = 20000);

// A run that goes on while the test does something to it: finish() waits for its end.
struct started_tool {
    pid_t pid;
    int out;
    int err;
    timeval start;
};
started_tool start_program(const std::vector<std::string>& argv, const std::function<void()>& in_child = {});
tool_run finish(const started_tool& started, int limit_ms = 20000);

// The log entries in a run's standard error as "E Dumper: text", its times as "#".
std::vector<std::string> log_entries(const std::string& err);

std::string file_text(const std::string& path);

// The part of a report from a heading up to the next text that starts like `until` (the end when absent).
std::string section(const std::string& report, const std::string& from, const std::string& until);

size_t count_of(const std::string& text, const std::string& part);
