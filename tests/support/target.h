// A program of tests/targets/ (or any other) run as the target of a dump; killed and reaped with the object.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// The directory that holds the built tool: <build>, found from the test binary's own path.
std::string build_dir();

// The state letter of a thread, e.g. 'S'; 0 when it is gone.
char thread_state(pid_t pid, pid_t tid);

// A line's value in /proc/<pid>/task/<tid>/status, e.g. "TracerPid"; empty when gone.
std::string thread_status(pid_t pid, pid_t tid, const std::string& key);

std::vector<pid_t> thread_ids(pid_t pid);

std::string file_text(const std::string& path);

void sleep_one_ms();

// Polls until condition() holds; false after limit_ms.
template <typename condition_type>
bool eventually(condition_type condition, int limit_ms = 10000)
{
    for (int ms = 0; ms < limit_ms; ms++) {
        if (condition())
            return true;
        sleep_one_ms();
    }
    return condition();
}

class target
{
    pid_t child = -1;
    int output = -1;

public:
    // argv[0] is a path, or the name of a program in <build>/tests/targets. With wait_for_byte the
    // constructor returns when the target has written its first byte to standard output, which is then said
    // to be ready. in_child runs before the exec.
    explicit target(std::vector<std::string> argv, bool wait_for_byte = true,
                    const std::function<void()>& in_child = {});
    ~target();
    target(const target&) = delete;
    target& operator=(const target&) = delete;

    pid_t pid() const { return child; }
    pid_t other_thread() const;
    // Reads until this many bytes have come, or the end, or 10 s have passed.
    std::string read_output(size_t bytes) const;
    bool lives() const;
    // Waits for its end at most limit_ms: the status of waitpid, or -1.
    int wait_for_end(int limit_ms = 10000);
    // Whether it ends, and by this signal.
    bool dies_by(int signo);
    // No thread is stopped and none has a tracer, at once or soon (a detach takes effect a moment later).
    bool runs_untraced() const;
};

// A target with a thread that cannot be stopped until the test wakes it: vfork_parent, which see.
struct held_target : target {
    pid_t tid;

    explicit held_target(std::vector<std::string> argv = {"vfork_parent"});
    void wake() const { kill(vfork_child, SIGKILL); }

private:
    pid_t vfork_child;
};
