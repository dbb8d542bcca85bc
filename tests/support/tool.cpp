#include "support/tool.h"

#include <fcntl.h>
#include <unistd.h>

#include <regex>
#include <sstream>

#include "dumper_common.h"

using std::string;
using std::vector;

namespace
{
int output_file()
{
    return open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
}

string take_text(int fd)
{
    string text = file_text("/proc/self/fd/" + std::to_string(fd));
    close(fd);
    return text;
}

}  // namespace

timeval now()
{
    timeval time;
    gettimeofday(&time, nullptr);
    return time;
}

running_program::running_program(const vector<string>& argv, const std::function<void()>& in_child)
    : out(output_file()), err(output_file()), start(now()), program(argv, false, [&] {
          dup2(out, STDOUT_FILENO);
          dup2(err, STDERR_FILENO);
          if (in_child)
              in_child();
      })
{
}

tool_run running_program::finish()
{
    const int status = program.wait_for_end(20000);
    return {status, take_text(out), take_text(err), elapsed_ms(start, now())};
}

tool_run run_program(const vector<string>& argv, const std::function<void()>& in_child)
{
    return running_program(argv, in_child).finish();
}

tool_run run_tool(const vector<string>& args, const std::function<void()>& in_child)
{
    vector<string> argv = {build_dir() + "/dump_server"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(argv, in_child);
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
