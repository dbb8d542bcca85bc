#include "support/target.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

using std::string;
using std::vector;

string build_dir()
{
    static const string found = [] {
        char path[PATH_MAX] = "";
        const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
        string dir(path, length > 0 ? static_cast<size_t>(length) : 0);
        for (int up = 0; up < 2; up++)
            dir.erase(dir.rfind('/'));
        return dir;
    }();
    return found;
}

char thread_state(pid_t pid, pid_t tid)
{
    return thread_status(pid, tid, "State")[0];
}

string thread_status(pid_t pid, pid_t tid, const string& key)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/status");
    string line;
    while (getline(file, line))
        if (line.starts_with(key + ":"))
            return line.substr(line.find_first_not_of(" \t", key.size() + 1));
    return "";
}

vector<pid_t> thread_ids(pid_t pid)
{
    vector<pid_t> ids;
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr)
        return ids;
    while (const dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ids.push_back(atoi(entry->d_name));
    closedir(dir);
    return ids;
}

string file_text(const string& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

namespace
{
// A target that writes its byte in a thread of its own, so that all others wait already, calls it "herald".
bool has_herald(pid_t pid)
{
    return std::ranges::any_of(thread_ids(pid),
                               [pid](pid_t tid) { return thread_status(pid, tid, "Name") == "herald"; });
}

}  // namespace

void sleep_one_ms()
{
    usleep(1000);
}

target::target(vector<string> argv, bool wait_for_byte, const std::function<void()>& in_child)
{
    if (argv[0].find('/') == string::npos)
        argv[0] = build_dir() + "/tests/targets/" + argv[0];
    vector<char*> args;
    for (string& arg : argv)
        args.push_back(arg.data());
    args.push_back(nullptr);

    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        abort();
    child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ends[1], STDOUT_FILENO);
        if (in_child)
            in_child();
        execv(args[0], args.data());
        _exit(127);
    }
    close(ends[1]);
    output = ends[0];
    if (wait_for_byte && read_output(1).empty())
        fprintf(stderr, "target %s did not get ready\n", argv[0].c_str());
    if (wait_for_byte)
        eventually([this] { return !has_herald(child); });
}

target::~target()
{
    close(output);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

pid_t target::other_thread() const
{
    for (const pid_t tid : thread_ids(child))
        if (tid != child)
            return tid;
    return -1;
}

string target::read_output(size_t bytes) const
{
    string text;
    pollfd readable = {output, POLLIN, 0};
    char byte;
    while (text.size() < bytes && poll(&readable, 1, 10000) == 1 && read(output, &byte, 1) == 1)
        text += byte;
    return text;
}

bool target::lives() const
{
    return child > 0 && waitpid(child, nullptr, WNOHANG) == 0;
}

int target::wait_for_end(int limit_ms)
{
    int status = -1;
    if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, limit_ms))
        return -1;
    child = -1;
    return status;
}

bool target::dies_by(int signo)
{
    const int status = wait_for_end();
    const bool died = status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == signo;
    if (!died)
        fprintf(stderr, "it should have died by signal %d: wait status %d\n", signo, status);
    return died;
}

bool target::runs_untraced() const
{
    return eventually([this] {
        for (const pid_t tid : thread_ids(child)) {
            const char state = thread_state(child, tid);
            const string tracer = thread_status(child, tid, "TracerPid");
            if (state == 't' || state == 'T' || (!tracer.empty() && tracer != "0"))
                return false;
        }
        return true;
    });
}

held_target::held_target(vector<string> argv) : target(std::move(argv), false)
{
    const string numbers = read_output(20);
    tid = atoi(numbers.substr(0, 10).c_str());
    vfork_child = atoi(numbers.substr(10).c_str());
    if (!eventually([this] { return thread_state(pid(), tid) == 'D'; }))
        fprintf(stderr, "no held target: '%s'\n", numbers.c_str());
}
