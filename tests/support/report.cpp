#include "support/report.h"

#include <algorithm>
#include <cstdio>
#include <regex>
#include <sstream>

#include "support/tool.h"

using std::string;
using std::vector;

thread_block parse_block(const string& text)
{
    std::string_view rest = text;
    // The lines that follow and begin like that. A heading is one with the empty line before it.
    const auto take = [&rest](std::string_view begin) {
        std::vector<string> lines;
        while (rest.starts_with(begin)) {
            const size_t end = std::min(rest.find('\n', begin.size() - 1), rest.size() - 1);
            lines.emplace_back(rest.substr(0, end));
            rest.remove_prefix(end + 1);
        }
        return lines;
    };
    thread_block block;
    block.text = text;
    const auto has_one = [&take](std::string_view begin) { return take(begin).size() == 1; };
    bool whole = has_one("Cmdline: ");
    const auto numbers = take("pid: ");
    if (numbers.size() != 1 || sscanf(numbers[0].c_str(), "pid: %d, tid: %d, ", &block.pid, &block.tid) != 2)
        return block;
    block.names = numbers[0].substr(std::min(numbers[0].find("process: "), numbers[0].size()));
    whole &= has_one("Thread stat:" + std::to_string(block.tid) + " (") && has_one("Core=") &&
             has_one("\nRegister:\n");
    for (const string& line : take("    "))
        block.registers += line + '\n';
    whole &= !block.registers.empty() && has_one("\nBacktrace:\n");
    block.frames = take("#");
    whole &= !block.frames.empty() && has_one("\nKernel Trace:\n");
    block.kernel_trace = take("  ");
    block.whole = whole && rest.empty() && text.ends_with('\n');
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
