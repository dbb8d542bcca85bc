#include "support/tool.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "dumper_common.h"
#include "support/target.h"

using std::string;
using std::vector;

namespace
{
// Unnamed files take the output: no pipe can fill up and hold the tool.
int output_file()
{
    return open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
}

string take_text(int fd)
{
    string text;
    char buf[65536];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t got; (got = read(fd, buf, sizeof(buf))) > 0;)
        text.append(buf, static_cast<size_t>(got));
    close(fd);
    return text;
}

}  // namespace

tool_run run_tool(const vector<string>& args, const std::function<void()>& in_child, int limit_ms)
{
    vector<string> argv = {build_dir() + "/dump_server"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(argv, in_child, limit_ms);
}

tool_run run_program(const vector<string>& argv, const std::function<void()>& in_child, int limit_ms)
{
    return finish(start_program(argv, in_child), limit_ms);
}

started_tool start_program(const vector<string>& argv, const std::function<void()>& in_child)
{
    vector<string> copy = argv;
    vector<char*> args;
    for (string& arg : copy)
        args.push_back(arg.data());
    args.push_back(nullptr);

    started_tool started = {-1, output_file(), output_file(), {}};
    gettimeofday(&started.start, nullptr);
    started.pid = fork();
    if (started.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(started.out, STDOUT_FILENO);
        dup2(started.err, STDERR_FILENO);
        if (in_child)
            in_child();
        execvp(args[0], args.data());
        _exit(127);
    }
    return started;
}

tool_run finish(const started_tool& started, int limit_ms)
{
    tool_run run = {};
    if (!eventually([&] { return waitpid(started.pid, &run.status, WNOHANG) == started.pid; }, limit_ms)) {
        kill(started.pid, SIGKILL);
        waitpid(started.pid, nullptr, 0);
        run.status = -1;
    }
    timeval end;
    gettimeofday(&end, nullptr);
    run.ms = elapsed_ms(started.start, end);
    run.out = take_text(started.out);
    run.err = take_text(started.err);
    return run;
}

vector<string> log_entries(const string& err)
{
    vector<string> entries;
    std::stringstream lines(err);
    for (string line; getline(lines, line);) {
        line = std::regex_replace(line, std::regex("^([IWE] \\S+)\\[[0-9]+\\]: "), "$1: ");
        entries.push_back(std::regex_replace(line, std::regex("takes:[0-9]+\\.[0-9]{6} ms$"), "takes:# ms"));
    }
    return entries;
}

string file_text(const string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

string section(const string& report, const string& from, const string& until)
{
    const size_t begin = report.find(from);
    if (begin == string::npos)
        return "";
    return report.substr(begin, report.find(until, begin + from.size()) - begin);
}

size_t count_of(const string& text, const string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != string::npos; at = text.find(part, at + part.size()))
        count++;
    return count;
}
