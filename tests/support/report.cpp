#include "support/report.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>

#include "support/tool.h"

using std::string;
using std::vector;

namespace
{
// Walks over a text line by line.
class line_reader
{
    std::stringstream lines;
    string line;
    bool more;

public:
    explicit line_reader(const string& text) : lines(text) { more = static_cast<bool>(getline(lines, line)); }
    bool at_end() const { return !more; }
    // The line when it begins like that, and then on to the next; else an empty text.
    string take(const string& begin)
    {
        if (!more || !line.starts_with(begin))
            return "";
        string taken = line;
        more = static_cast<bool>(getline(lines, line));
        return taken;
    }
    bool heading(const string& text)
    {
        if (!more || !line.empty())
            return false;
        more = static_cast<bool>(getline(lines, line));
        return take(text) == text;
    }
};

}  // namespace

thread_block parse_block(const string& text)
{
    thread_block block;
    block.text = text;
    line_reader lines(text);
    const bool named = !lines.take("Cmdline: ").empty();
    const string numbers = lines.take("pid: ");
    if (!named || sscanf(numbers.c_str(), "pid: %d, tid: %d, ", &block.pid, &block.tid) != 2)
        return block;
    block.names = numbers.substr(std::min(numbers.find("process: "), numbers.size()));
    if (lines.take("Thread stat:" + std::to_string(block.tid) + " (").empty())
        return block;
    block.statistics = lines.take("Core=");
    bool good = !block.statistics.empty() && lines.heading("Register:");
    for (string line; !(line = lines.take("    ")).empty();)
        block.registers += line + '\n';
    good = good && !block.registers.empty() && lines.heading("Backtrace:");
    for (string frame; !(frame = lines.take("#")).empty();)
        block.frames.push_back(frame);
    good = good && !block.frames.empty() && lines.heading("Kernel Trace:");
    for (string line; !(line = lines.take("  ")).empty();)
        block.kernel_trace.push_back(line);
    block.whole = good && lines.at_end() && text.ends_with('\n');
    return block;
}

vector<frame> frames_of(const string& report)
{
    static const std::regex line(
        R"(#[ 0-9]\d* pc 0x([0-9a-f]+) +(\S*(?: \(deleted\))?)(?: \((.*) \+ 0x[0-9a-f]+\))?\n)");
    const string text = section(report, "\nBacktrace:\n", "\nKernel Trace:");
    vector<frame> frames;
    for (auto at = std::sregex_iterator(text.begin(), text.end(), line); at != std::sregex_iterator(); ++at)
        frames.push_back({(*at)[1], (*at)[2], (*at)[3]});
    return frames;
}

vector<string> functions_of(const vector<frame>& frames)
{
    vector<string> functions;
    for (const frame& f : frames)
        functions.push_back(f.function);
    return functions;
}

bool has_chain(const vector<string>& functions, const vector<string>& chain)
{
    const auto matches = [](const string& name, const string& wanted) {
        return wanted == "*" || name == wanted;
    };
    return std::search(functions.begin(), functions.end(), chain.begin(), chain.end(), matches) !=
           functions.end();
}

string text_of(const vector<frame>& frames)
{
    string text;
    for (const frame& f : frames)
        text += f.pc + " " + f.module + " " + f.function + "\n";
    return text;
}

process_report parse_process_report(const string& text)
{
    const string dashes = "\n--- --- --- --- --- --- --- --- --- --- --- --- --- --- --- ---\n";
    const string equals = "\n=== === === === === === === === === === === === === === === ===\n";
    process_report report;
    size_t begin = 0;
    for (bool first = true; begin != string::npos; first = false) {
        const size_t end = std::min(text.find(dashes, begin), text.find(equals, begin));
        const string part = text.substr(begin, end == string::npos ? end : end - begin);
        if (first)
            report.head = part;
        else
            report.blocks.push_back(parse_block(part));
        if (end == string::npos)
            break;
        (text[end + 1] == '-' ? report.dash_lines : report.equals_lines)++;
        begin = end + dashes.size();
    }
    return report;
}
