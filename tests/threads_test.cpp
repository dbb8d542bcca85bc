// The whole report of a program with threads, thread by thread, held against what the kernel says of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>

#include "support/machine.h"
#include "support/report.h"
#include "support/target.h"
#include "support/tool.h"
#include "unwind/target_maps.h"

using std::string;
using std::vector;

namespace
{
constexpr size_t workers = 5;
constexpr size_t frames_each = 7;

uint64_t register_value(const thread_block& block, const char* name)
{
    const std::regex form(" " + string(name) + " +0x([0-9a-f]{16})\\b");
    std::smatch found;
    EXPECT_TRUE(std::regex_search(block.registers, found, form)) << name << " in\n" << block.registers;
    return found.empty() ? 0 : std::stoull(found[1], nullptr, 16);
}

// Where the kernel says that a thread in a system call is.
struct kernel_view {
    uint64_t stack_pointer = 0;
    uint64_t pc = 0;
};

kernel_view ask_kernel(pid_t pid, pid_t tid)
{
    const string line =
        file_text("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/syscall");
    const size_t pc_at = line.rfind(" 0x");
    const size_t pointer_at = line.rfind(" 0x", pc_at - 1);
    EXPECT_NE(pointer_at, string::npos) << line;
    return {std::stoull(line.substr(pointer_at + 1), nullptr, 16),
            std::stoull(line.substr(pc_at + 1), nullptr, 16)};
}

mapping_list mappings_of(pid_t pid)
{
    mapping_list list;
    std::stringstream lines(file_text("/proc/" + std::to_string(pid) + "/maps"));
    mapping next;
    for (string line; getline(lines, line);)
        if (parse_mapping(line.c_str(), next))
            list.push_back(next);
    return list;
}

void expect_form(const vector<string>& frames, bool named)
{
    const string name = named ? R"(|  (\?\?|[/\[]\S*) \(.+ \+ 0x[0-9a-f]+\))" : "";
    const std::regex form(R"(#( \d|\d\d) pc 0x[1-9a-f][0-9a-f]*( (\?\?|[/\[]\S*))" + name + ")");
    for (size_t i = 0; i < frames.size(); i++)
        EXPECT_TRUE(std::regex_match(frames[i], form) && stoul(frames[i].substr(1)) == i) << frames[i];
}

void expect_true_report(const string& name)
{
    SCOPED_TRACE(name);
    const target program({name, std::to_string(workers), std::to_string(frames_each)});
    const pid_t pid = program.pid();
    const tool_run run = run_tool({"-p", std::to_string(pid)});
    const process_report report = parse_process_report(run.out);
    ASSERT_EQ(report.blocks.size(), workers + 1) << run.out << run.err;

    const mapping_list mappings = mappings_of(pid);
    std::set<uint64_t> stacks;
    size_t traces = 0;  // read after the release: a thread that has not got back to its wait yet has none
    std::map<pid_t, vector<string>> pcs;
    for (const thread_block& block : report.blocks) {
        SCOPED_TRACE(block.text);
        EXPECT_TRUE(block.whole);
        expect_form(block.frames, true);
        const vector<frame> frames = frames_of(block.text);
        ASSERT_FALSE(frames.empty());
        for (const frame& f : frames) {
            const mapping* code = find_mapping(mappings, std::stoull(f.pc, nullptr, 16));
            EXPECT_TRUE(code != nullptr && code->executable && code->path == f.module) << f.pc;
            pcs[block.tid].push_back(f.pc);
        }

        const kernel_view kernel = ask_kernel(pid, block.tid);
        const uint64_t pc = register_value(block, machine_names::pc);
        const uint64_t stack_pointer = register_value(block, machine_names::stack_pointer);
        EXPECT_EQ(pc, std::stoull(frames[0].pc, nullptr, 16));
        EXPECT_EQ(stack_pointer, kernel.stack_pointer);
        // Held, it is about to make its system call again; running, it is behind the instruction.
        EXPECT_TRUE(pc == kernel.pc || pc + machine_names::system_call_bytes == kernel.pc)
            << std::hex << pc << " " << kernel.pc;
        const mapping* stack = find_mapping(mappings, stack_pointer);
        ASSERT_NE(stack, nullptr);
        EXPECT_TRUE(stack->readable && stack->writable);
        EXPECT_EQ(stack->path == "[stack]", block.tid == pid) << stack->path;
        EXPECT_TRUE(stacks.insert(stack->start).second) << "two threads on one stack";

        const vector<string> functions = functions_of(frames);
        vector<string> chain = {"wait_for_ever"};
        chain.insert(chain.end(), frames_each, "sample::worker::descend(int)");
        chain.push_back(block.tid == pid ? "main" : "sample::worker::run()");
        EXPECT_TRUE(has_chain(functions, chain)) << text_of(frames);
        EXPECT_EQ(std::count(functions.begin(), functions.end(), "sample::worker::descend(int)"),
                  frames_each);
        for (const string& once : {chain.front(), chain.back()})
            EXPECT_EQ(std::count(functions.begin(), functions.end(), once), 1) << once;
        if (block.tid == pid) {
            EXPECT_EQ(functions.back(), "_start");
        } else {
            EXPECT_THAT(frames.back().module, testing::HasSubstr("/libc.so"));
            EXPECT_THAT(functions, testing::Contains(testing::HasSubstr("_M_run()")));
        }

        traces += !block.kernel_trace.empty();
        for (const string& line : block.kernel_trace)
            EXPECT_TRUE(line.starts_with("  [<0>] ")) << line;
    }

    EXPECT_GT(traces, 0U);

    // Without names: the same frames.
    const process_report plain = parse_process_report(run_tool({"-F", "-p", std::to_string(pid)}).out);
    EXPECT_EQ(plain.blocks.size(), workers + 1);
    for (const thread_block& block : plain.blocks) {
        const vector<frame> frames = frames_of(block.text);
        expect_form(block.frames, false);
        vector<string> plain_pcs;
        for (const frame& f : frames)
            plain_pcs.push_back(f.pc);
        EXPECT_EQ(plain_pcs, pcs[block.tid]);
    }
    EXPECT_TRUE(program.runs_untraced());
}

}  // namespace

TEST(report, shows_each_thread_where_it_is)
{
    expect_true_report("threads");
    expect_true_report("threads_signed");
}
