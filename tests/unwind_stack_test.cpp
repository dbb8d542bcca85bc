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

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <span>

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

const vector<string> plain_chain = {"wait_here", "inner", "f", "outer", "main"};

vector<frame> expect_chain(const tool_run& run, const vector<string>& chain = plain_chain)
{
    const vector<frame> frames = frames_of(run.out);
    EXPECT_TRUE(has_chain(functions_of(frames), chain)) << text_of(frames) << run.err;
    return frames;
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
        bytes = file_text(path);
        memcpy(&header, bytes.data(), sizeof(header));
    }
    ~copied_program() { fs::remove_all(folder); }

    std::span<Elf64_Phdr> segments()
    {
        return {reinterpret_cast<Elf64_Phdr*>(bytes.data() + header.e_phoff), header.e_phnum};
    }
    Elf64_Phdr& segment(uint32_t type) { return *std::ranges::find(segments(), type, &Elf64_Phdr::p_type); }

    fs::path folder;
    fs::path path;
    string bytes;
    Elf64_Ehdr header;
};

}  // namespace

TEST(stack, is_whole_and_named_however_its_program_is_linked)
{
    // "*" is the signal's return trampoline, named or not; "" code of no file.
    const struct {
        const char* kind;
        vector<string> programs;
        vector<string> chain;
    } cases[] = {
        {"plain",
         {"stacks", "stacks_lld", "stacks_static", "stacks_no_table", "stacks_debug_frame",
          "stacks_mini_debug", "stacks_signed"},
         plain_chain},
        {"anonymous", {"stacks", "stacks_signed"}, {"inner", "", "call_anonymous", "main"}},
        {"null", {"stacks", "stacks_signed"}, {"wait_here", "handle_signal", "*", "", "call_null", "main"}},
        {"signal", {"stacks", "stacks_signed"}, {"raise_signal", "main"}},
        {"leaf",
         {"stacks", "stacks_signed", "stacks_debug_frame"},
         {"wait_here", "handle_signal", "*", "store_at", "call_leaf", "main"}},
    };
    for (const auto& c : cases)
        for (const string& name : c.programs) {
            SCOPED_TRACE(name + " " + c.kind);
            const target child({name, c.kind});
            const vector<frame> frames = expect_chain(dump(child), c.chain);
            EXPECT_EQ(frames.back().function, "_start") << text_of(frames);
            EXPECT_EQ(std::ranges::count(frames, "??", &frame::module), std::ranges::count(c.chain, ""));
            EXPECT_TRUE(child.runs_untraced());
        }
}

TEST(stack, deeper_than_its_copy_shows_every_frame_that_fits_a_report)
{
    const target child({"stacks", "deep"});
    const vector<string> functions = functions_of(frames_of(dump(child).out));
    EXPECT_EQ(functions.size(), 1024U);
    EXPECT_GE(std::count(functions.begin(), functions.end(), "recurse"), 1020);
}

// Caught at work: which instruction it stands at is chance.
TEST(stack, leads_out_of_code_that_has_no_frame)
{
    const std::pair<string, vector<string>> cases[] = {{"spin", {"spin", "call_spin", "main"}},
                                                       {"vdso", {"*", "ask_the_time", "main"}}};
    for (const auto& [kind, chain] : cases) {
        const target child({"stacks", kind});
        EXPECT_TRUE(eventually([&] {
            const vector<frame> frames = frames_of(dump(child).out);
            return has_chain(functions_of(frames), chain) &&
                   (frames[0].function == chain[0] || frames[0].module == "[vdso]");
        })) << kind;
    }
}

TEST(stack, of_a_deleted_program_is_whole_whatever_has_taken_its_place)
{
    copied_program copy("stacks");
    const target child({copy.path, "plain"});
    fs::remove(copy.path);
    ASSERT_EQ(mkfifo(copy.path.c_str(), 0600), 0);
    expect_chain(dump(child));
}

// The target is in a mount namespace of its own, where a shell has made its files: the program is another
// one's here, and its names are in the debug file there.
TEST(stack, of_a_stripped_program_in_another_root_gets_its_names_there)
{
    {
        const target bare({"stacks_stripped", "plain"});
        const vector<frame> frames = frames_of(dump(bare).out);
        EXPECT_FALSE(has_chain(functions_of(frames), plain_chain)) << text_of(frames);
        EXPECT_GE(frames.size(), plain_chain.size() + 2) << text_of(frames);
    }
    const string place = "/tmp/place";
    fs::create_directory(place);
    const string folder = "/usr/lib/debug/.build-id/51";
    const string preparation =
        "mount -t tmpfs none " + place + " && cp " + program("stacks_stripped") + " " + place +
        " && mkdir -p /usr/lib/debug && mount -t tmpfs none /usr/lib/debug && mkdir -p " + folder +
        " && cp " + program("stacks_stripped.debug") + " " + folder +
        "/a7e0000000000000000000000000000000d06f.debug";
    const string command = preparation + " && exec " + place + "/stacks_stripped plain";
    const target child({"/bin/sh", "-c", "exec unshare -m /bin/sh -c '" + command + "'"});
    ASSERT_TRUE(fs::is_empty(place));
    expect_chain(dump(child));
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
    expect_chain(run_tool(args, refuse_process_vm_readv));
    expect_chain(run_tool(args, [mem = "/proc/" + args[1] + "/mem"] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("/dev/null", mem.c_str(), nullptr, MS_BIND, nullptr) != 0)
            _exit(126);
        refuse_process_vm_readv();
    }));
}

// Damage that aborts, loops or crashes an unwinder that believes it.
TEST(stack, of_a_damaged_program_is_whole_and_harms_nobody)
{
    const auto table = [](copied_program& copy) {
        return &copy.bytes[copy.segment(PT_GNU_EH_FRAME).p_offset];
    };
    const struct {
        const char* what;
        std::function<void(copied_program&)> damage;
    } cases[] = {
        {"table encoding", [&](copied_program& copy) { table(copy)[3] = 0x1b; }},
        {"table version", [&](copied_program& copy) { table(copy)[0] = 9; }},
        {"row count", [&](copied_program& copy) { memset(table(copy) + 8, 0xff, 4); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        copied_program copy("stacks");
        c.damage(copy);
        std::ofstream(copy.path, std::ios::binary) << copy.bytes;
        const target child({copy.path, "plain"});
        expect_chain(dump(child));
        EXPECT_TRUE(child.runs_untraced());
    }
}

TEST(stack, ends_where_its_frame_address_is_a_loop)
{
    const target child({"stacks", "loop"});
    const vector<string> chain = {"wait_here", "inner", "loop_in_expression"};
    EXPECT_EQ(expect_chain(dump(child), chain).back().function, chain.back());
    EXPECT_TRUE(child.runs_untraced());
}

// A running program's file cannot be cut, but one that its loader was told to run can.
TEST(stack, of_a_file_cut_short_keeps_its_frames)
{
    copied_program copy("stacks");
    const string loader = copy.bytes.data() + copy.segment(PT_INTERP).p_offset;
    const target child({loader, copy.path, "plain"});
    uint64_t loaded_end = 0;
    for (const Elf64_Phdr& segment : copy.segments())
        if (segment.p_type == PT_LOAD)
            loaded_end = std::max(loaded_end, segment.p_offset + segment.p_filesz);
    ASSERT_EQ(truncate(copy.path.c_str(), static_cast<off_t>(loaded_end)), 0);
    const tool_run run = dump(child);
    ASSERT_TRUE(WIFEXITED(run.status)) << run.err;
    const vector<frame> frames = frames_of(run.out);
    EXPECT_GE(frames.size(), plain_chain.size() + 2) << text_of(frames);
}
