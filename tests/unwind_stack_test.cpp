// Whole call stacks of real programs, as the tool reports them: linked, stripped, moved and damaged in the
// ways that hide call-frame tables and names.
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "support/report.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::vector;
namespace fs = std::filesystem;

namespace
{
string program(const string& name)
{
    return build_dir() + "/tests/targets/" + name;
}

tool_run dump(const target& of)
{
    return run_tool({"-p", std::to_string(of.pid())});
}

// A copy of a target program in a folder of its own, for a test to damage.
class copied_program
{
public:
    explicit copied_program(const string& name)
    {
        char dir[] = "/tmp/stacks_XXXXXX";
        folder = mkdtemp(dir);
        path = folder / name;
        fs::copy_file(program(name), path);
        std::ifstream file(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
        memcpy(&header, bytes.data(), sizeof(header));
    }
    ~copied_program() { fs::remove_all(folder); }

    Elf64_Phdr* segment(uint32_t type)
    {
        auto* segments = reinterpret_cast<Elf64_Phdr*>(bytes.data() + header.e_phoff);
        return std::find_if(segments, segments + header.e_phnum,
                            [type](auto& s) { return s.p_type == type; });
    }
    Elf64_Shdr* section_of(uint32_t type)
    {
        auto* sections = reinterpret_cast<Elf64_Shdr*>(bytes.data() + header.e_shoff);
        return std::find_if(sections, sections + header.e_shnum,
                            [type](auto& s) { return s.sh_type == type; });
    }
    void write_back()
    {
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    fs::path folder;
    fs::path path;
    vector<char> bytes;
    Elf64_Ehdr header;
};

const vector<string> plain_chain = {"wait_here", "inner", "f", "outer", "main"};
// The one between is the signal's return trampoline, named or not.
const vector<string> null_chain = {"wait_here", "handle_signal", "*", "", "call_null", "main"};
const vector<string> leaf_chain = {"wait_here", "handle_signal", "*", "store_at", "call_leaf", "main"};

}  // namespace

struct stack_case {
    const char* program;
    const char* kind;
    vector<string> chain;
};

void PrintTo(const stack_case& c, std::ostream* to)
{
    *to << c.program << " " << c.kind;
}

class stack_of : public testing::TestWithParam<stack_case>
{
};

TEST_P(stack_of, is_whole_and_named)
{
    const stack_case& wanted = GetParam();
    const target child({wanted.program, wanted.kind});
    const tool_run run = dump(child);
    const vector<frame> frames = frames_of(run.out);
    EXPECT_TRUE(has_chain(functions_of(frames), wanted.chain)) << text_of(frames) << run.err;
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(frames.back().function, "_start") << text_of(frames);
    EXPECT_TRUE(child.runs_untraced());
}

INSTANTIATE_TEST_SUITE_P(
    programs, stack_of,
    testing::Values(stack_case{"stacks", "plain", plain_chain},
                    stack_case{"stacks_lld", "plain", plain_chain},
                    stack_case{"stacks_static", "plain", plain_chain},
                    stack_case{"stacks_no_table", "plain", plain_chain},
                    stack_case{"stacks_debug_frame", "plain", plain_chain},
                    stack_case{"stacks_mini_debug", "plain", plain_chain},
                    stack_case{"stacks_signed", "plain", plain_chain},
                    stack_case{"stacks", "anonymous", {"inner", "", "call_anonymous", "main"}},
                    stack_case{"stacks_signed", "anonymous", {"inner", "", "call_anonymous", "main"}},
                    stack_case{"stacks", "null", null_chain}, stack_case{"stacks_signed", "null", null_chain},
                    stack_case{"stacks", "signal", {"raise_signal", "main"}},
                    stack_case{"stacks_signed", "signal", {"raise_signal", "main"}},
                    stack_case{"stacks", "leaf", leaf_chain}, stack_case{"stacks_signed", "leaf", leaf_chain},
                    stack_case{"stacks_debug_frame", "leaf", leaf_chain}),
    [](const auto& test) { return string(test.param.program) + "_" + test.param.kind; });

TEST(stack, crosses_from_the_signal_stack_through_a_call_of_null)
{
    const target child({"stacks", "null"});
    const vector<frame> frames = frames_of(dump(child).out);
    const vector<string> functions = functions_of(frames);
    const auto handler = std::find(functions.begin(), functions.end(), "handle_signal");
    const auto caller = std::find(functions.begin(), functions.end(), "call_null");
    ASSERT_LT(handler, caller) << text_of(frames);
    ASSERT_NE(caller, functions.end()) << text_of(frames);
    EXPECT_EQ(frames[static_cast<size_t>(caller - functions.begin()) - 1].pc, "0");
}

TEST(stack, deeper_than_its_copy_shows_every_frame_that_fits_a_report)
{
    const target child({"stacks", "deep"});
    const vector<string> functions = functions_of(frames_of(dump(child).out));
    EXPECT_EQ(functions.size(), 1024U);
    EXPECT_GE(std::count(functions.begin(), functions.end(), "recurse"), 1020);
}

TEST(stack, leads_out_of_a_leaf_without_a_frame)
{
    const target child({"stacks", "spin"});
    EXPECT_TRUE(eventually([&] {
        const vector<string> functions = functions_of(frames_of(dump(child).out));
        return !functions.empty() && functions[0] == "spin" &&
               has_chain(functions, {"spin", "call_spin", "main"});
    }));
}

TEST(stack, leads_out_of_the_vdso)
{
    const target child({"stacks", "vdso"});
    bool seen_inside = false;
    for (int i = 0; i < 50 && !seen_inside; i++) {
        const vector<frame> frames = frames_of(dump(child).out);
        EXPECT_TRUE(has_chain(functions_of(frames), {"ask_the_time", "main"})) << text_of(frames);
        seen_inside = frames[0].module == "[vdso]";
    }
    EXPECT_TRUE(seen_inside);
}

TEST(stack, of_a_deleted_program_is_whole_whatever_has_taken_its_place)
{
    copied_program copy("stacks");
    const target child({copy.path, "plain"});
    fs::remove(copy.path);
    ASSERT_EQ(mkfifo(copy.path.c_str(), 0600), 0);
    const vector<frame> frames = frames_of(dump(child).out);
    EXPECT_TRUE(has_chain(functions_of(frames), plain_chain)) << text_of(frames);
}

// A target in a mount namespace of its own, where a shell has prepared its files.
vector<string> in_own_namespace(const string& preparation, const string& command)
{
    return {"/bin/sh", "-c", "exec unshare -m /bin/sh -c '" + preparation + " && exec " + command + "'"};
}

TEST(stack, of_a_program_in_another_mount_namespace_is_whole)
{
    copied_program copy("stacks");
    const string place = copy.folder / "hidden";
    fs::create_directory(place);
    const target child(in_own_namespace(
        "mount -t tmpfs none " + place + " && cp " + string(copy.path) + " " + place + "/stacks",
        place + "/stacks plain"));
    ASSERT_FALSE(fs::exists(place + "/stacks"));
    const vector<frame> frames = frames_of(dump(child).out);
    EXPECT_TRUE(has_chain(functions_of(frames), plain_chain)) << text_of(frames);
}

TEST(stack, of_a_stripped_program_gets_its_names_from_the_debug_file_in_its_own_root)
{
    {
        const target bare({"stacks_stripped", "plain"});
        const vector<frame> frames = frames_of(dump(bare).out);
        EXPECT_FALSE(has_chain(functions_of(frames), plain_chain)) << text_of(frames);
        EXPECT_GE(frames.size(), plain_chain.size() + 2) << text_of(frames);
    }
    const string folder = "/usr/lib/debug/.build-id/51";
    const target child(in_own_namespace(
        "mkdir -p /usr/lib/debug && mount -t tmpfs none /usr/lib/debug && mkdir -p " + folder + " && cp " +
            program("stacks_stripped.debug") + " " + folder + "/a7e0000000000000000000000000000000d06f.debug",
        program("stacks_stripped") + " plain"));
    const vector<frame> frames = frames_of(dump(child).out);
    EXPECT_TRUE(has_chain(functions_of(frames), plain_chain)) << text_of(frames);
}

TEST(stack, short_form_names_nothing)
{
    const target child({"stacks", "plain"});
    const vector<frame> frames = frames_of(run_tool({"-F", "-p", std::to_string(child.pid())}).out);
    EXPECT_GE(frames.size(), plain_chain.size() + 2);
    EXPECT_THAT(functions_of(frames), testing::Each(""));
}

// Answers process_vm_readv with EPERM, as a container's filter does.
void refuse_process_vm_readv()
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_process_vm_readv, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(filter), filter};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(126);
}

TEST(stack, is_whole_by_whatever_way_memory_can_be_read)
{
    const target child({"stacks", "plain"});
    const vector<string> args = {"-p", std::to_string(child.pid())};
    const string mem = "/proc/" + args[1] + "/mem";
    const vector<frame> by_file = frames_of(run_tool(args, refuse_process_vm_readv).out);
    EXPECT_TRUE(has_chain(functions_of(by_file), plain_chain)) << text_of(by_file);
    const tool_run by_ptrace = run_tool(args, [&mem] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("/dev/null", mem.c_str(), nullptr, MS_BIND, nullptr) != 0)
            _exit(126);
        refuse_process_vm_readv();
    });
    const vector<frame> peeked = frames_of(by_ptrace.out);
    EXPECT_TRUE(has_chain(functions_of(peeked), plain_chain)) << text_of(peeked) << by_ptrace.err;
}

// Damage that aborts, loops or crashes an unwinder that believes it.
struct damage_case {
    const char* name;
    void (*damage)(copied_program&);
    bool named;  // whether the names survive it
};

void PrintTo(const damage_case& c, std::ostream* to)
{
    *to << c.name;
}

class damaged_stack : public testing::TestWithParam<damage_case>
{
};

TEST_P(damaged_stack, is_whole_and_harms_nobody)
{
    copied_program copy("stacks");
    GetParam().damage(copy);
    copy.write_back();
    const target child({copy.path, "plain"});
    const tool_run run = dump(child);
    ASSERT_TRUE(WIFEXITED(run.status)) << run.err;
    const vector<frame> frames = frames_of(run.out);
    EXPECT_EQ(has_chain(functions_of(frames), plain_chain), GetParam().named) << text_of(frames);
    EXPECT_GE(frames.size(), plain_chain.size() + 2) << text_of(frames);
    EXPECT_TRUE(child.runs_untraced());
}

INSTANTIATE_TEST_SUITE_P(
    by, damaged_stack,
    testing::Values(
        damage_case{
            "table_encoding",
            [](copied_program& copy) { copy.bytes[copy.segment(PT_GNU_EH_FRAME)->p_offset + 3] = 0x1b; },
            true},
        damage_case{"table_version",
                    [](copied_program& copy) { copy.bytes[copy.segment(PT_GNU_EH_FRAME)->p_offset] = 9; },
                    true},
        damage_case{"row_count",
                    [](copied_program& copy) {
                        memset(copy.bytes.data() + copy.segment(PT_GNU_EH_FRAME)->p_offset + 8, 0xff, 4);
                    },
                    true},
        damage_case{"symbol_name_offsets",
                    [](copied_program& copy) {
                        const Elf64_Shdr* table = copy.section_of(SHT_SYMTAB);
                        auto* symbols = reinterpret_cast<Elf64_Sym*>(copy.bytes.data() + table->sh_offset);
                        for (size_t i = 0; i < table->sh_size / sizeof(Elf64_Sym); i++)
                            symbols[i].st_name = 0x7fffffff;
                    },
                    false},
        damage_case{"symbol_table_size",
                    [](copied_program& copy) { copy.section_of(SHT_SYMTAB)->sh_size = ~uint64_t{0}; },
                    false}),
    [](const auto& test) { return string(test.param.name); });

TEST(stack, ends_where_its_frame_address_is_a_loop)
{
    const target child({"stacks", "loop"});
    const tool_run run = dump(child);
    const vector<string> functions = functions_of(frames_of(run.out));
    EXPECT_TRUE(has_chain(functions, {"wait_here", "inner", "loop_in_expression"}));
    EXPECT_EQ(functions.back(), "loop_in_expression");
    EXPECT_TRUE(child.runs_untraced());
}

// A running program's file cannot be cut, but one that its loader was told to run can.
TEST(stack, of_a_file_cut_short_keeps_its_frames)
{
    copied_program copy("stacks");
    const string loader = copy.bytes.data() + copy.segment(PT_INTERP)->p_offset;
    const target child({loader, copy.path, "plain"});
    uint64_t loaded_end = 0;
    auto* segments = reinterpret_cast<Elf64_Phdr*>(copy.bytes.data() + copy.header.e_phoff);
    for (size_t i = 0; i < copy.header.e_phnum; i++)
        if (segments[i].p_type == PT_LOAD)
            loaded_end = std::max(loaded_end, segments[i].p_offset + segments[i].p_filesz);
    ASSERT_EQ(truncate(copy.path.c_str(), static_cast<off_t>(loaded_end)), 0);
    const tool_run run = dump(child);
    ASSERT_TRUE(WIFEXITED(run.status)) << run.err;
    const vector<frame> frames = frames_of(run.out);
    EXPECT_GE(frames.size(), plain_chain.size() + 2) << text_of(frames);
}
