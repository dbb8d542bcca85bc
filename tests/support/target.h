// A program of tests/targets/ (or any other) run as the target of a dump; killed and reaped with the object.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// The directory that holds the built tool: <build>, found from the test binary's own path.
std::string build_dir();

// The state letter of a thread, e.g. 'S'; 0 when it is gone.
char thread_state(pid_t pid, pid_t tid);

// A line's value in /proc/<pid>/task/<tid>/status, e.g. "TracerPid"; empty when gone.
std::string thread_status(pid_t pid, pid_t tid, const std::string& key);

std::vector<pid_t> thread_ids(pid_t pid);

// Polls until condition() holds; false after limit_ms.
template <typename condition_type>
bool eventually(condition_type condition, int limit_ms = 10000);

class target
{
    pid_t child = -1;
    int output = -1;

public:
    // argv[0] is a path, or the name of a program in <build>/tests/targets. With wait_for_byte the
    // constructor returns when the target has written its first byte to standard output, which is then said
    // to be ready.
    explicit target(std::vector<std::string> argv, bool wait_for_byte = true);
    ~target();
    target(const target&) = delete;
    target& operator=(const target&) = delete;

    pid_t pid() const { return child; }
    // Reads until this many bytes have come, or the end, or 10 s have passed.
    std::string read_output(size_t bytes);
    // Waits for its end at most limit_ms: the status of waitpid, or -1.
    int wait_for_end(int limit_ms = 10000);
    // No thread is stopped and none has a tracer, at once or within a second (a detach takes effect a moment
    // later).
    bool runs_untraced() const;
};

bool sleep_one_ms();

template <typename condition_type>
bool eventually(condition_type condition, int limit_ms)
{
    for (int ms = 0; ms < limit_ms; ms++) {
        if (condition())
            return true;
        sleep_one_ms();
    }
    return condition();
}
