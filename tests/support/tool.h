// Runs of the real executable, and of anything else, with what they print.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/target.h"

timeval now();

struct tool_run {
    int status;       // of waitpid; -1 when it had to be killed at the limit
    std::string out;  // standard output
    std::string err;  // standard error: the system log's entries, since the tests have no /dev/log
    double ms;
};

// A run that goes on while the test does something to it. argv[0] is its path; in_child runs in the child
// before the exec.
class running_program
{
    // Unnamed files take the output: no pipe can fill up and hold the program.
    int out;
    int err;
    timeval start;
    target program;

public:
    explicit running_program(const std::vector<std::string>& argv,
                             const std::function<void()>& in_child = {});
    pid_t pid() const { return program.pid(); }
    // Waits for its end, at most 20 s.
    tool_run finish();
};

tool_run run_program(const std::vector<std::string>& argv, const std::function<void()>& in_child = {});

// The same for <build>/dump_server with these arguments.
tool_run run_tool(const std::vector<std::string>& args, const std::function<void()>& in_child = {});

// The log entries in a run's standard error as "E Dumper: text", its times as "#".
std::vector<std::string> log_entries(const std::string& err);

// The part of a report from a heading up to the next text that starts like `until` (the end when absent).
std::string section(const std::string& report, const std::string& from, const std::string& until);

size_t count_of(const std::string& text, const std::string& part);
