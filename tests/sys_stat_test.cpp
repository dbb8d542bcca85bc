// Readers of /proc and the primitives under them.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <fstream>

#include "dumper_common.h"
#include "support/mounted_file.h"
#include "support/target.h"
#include "support/tool.h"

using std::string;
using std::stringstream;

// Reaches the private primitives.
struct sys_stat_test {
    static bool read_once(const string& text, char* buf, size_t len)
    {
        std::ofstream("/tmp/file") << text;
        return sys_stat::read_sys_once("/tmp/file", buf, len);
    }
    static bool to_stream(const string& path, stringstream& out)
    {
        return sys_stat::sys_info_to_stream(out, path);
    }
};

TEST(sys_stat, reads_a_file_once_and_ends_it_in_place_of_its_last_byte)
{
    const struct {
        string text;
        size_t len;
        bool done;
        string expected;
    } cases[] = {
        {"12.34 56.78\n", 1024, true, "12.34 56.78"},
        {"abcde", 64, true, "abcd"},
        {string(600, 's'), 512, true, string(511, 's')},
        {"x\n", 0, false, "untouched"},
        {"", 64, false, "untouched"},
    };
    for (const auto& c : cases) {
        char buf[1024] = "untouched";
        EXPECT_EQ(sys_stat_test::read_once(c.text, buf, c.len), c.done) << c.text;
        EXPECT_EQ(string(buf), c.expected);
    }
}

TEST(sys_stat, indents_every_piece_of_a_copied_file)
{
    const string text(3000, 'm');
    const struct {
        string text;
        string expected;
    } cases[] = {
        {"", ""},
        {"one\n\n  three\n", "  one\n  \n    three\n"},
        {"no newline", "  no newline"},
        {text + "\n",
         "  " + text.substr(0, 1023) + "  " + text.substr(0, 1023) + "  " + text.substr(2046) + "\n"},
    };
    for (const auto& c : cases) {
        std::ofstream("/tmp/file") << c.text;
        stringstream out;
        EXPECT_TRUE(sys_stat_test::to_stream("/tmp/file", out));
        EXPECT_EQ(out.str(), c.expected);
    }
    stringstream out("kept", std::ios::out | std::ios::ate);
    EXPECT_FALSE(sys_stat_test::to_stream("/tmp/absent", out));
    EXPECT_EQ(out.str(), "kept");
}

TEST(sys_stat, names_the_thread_that_its_numbers_say)
{
    char own_name[17];
    pthread_getname_np(pthread_self(), own_name, sizeof(own_name));
    const struct {
        pid_t pid;
        int tid;
        size_t len;
        bool done;
        string expected;
    } cases[] = {
        {-1, -1, 17, true, own_name},
        {-1, -1, 5, true, string(own_name).substr(0, 4)},
        {-1, 5, 17, false, "untouched"},
        {0, 5, 17, false, "untouched"},
        {getpid(), getpid(), 17, true, own_name},
        {getpid(), -1, 17, false, "untouched"},
    };
    for (const auto& c : cases) {
        char buf[32] = "untouched";
        EXPECT_EQ(sys_stat::get_thread_name(buf, c.len, c.pid, c.tid), c.done) << c.pid << " " << c.tid;
        EXPECT_EQ(string(buf), c.expected) << c.pid << " " << c.tid;
    }
}

TEST(sys_stat, reads_the_files_of_a_process_or_of_itself)
{
    const target sleeper({"odd", "quiet one"});
    const pid_t pid = sleeper.pid();
    char buf[512] = "untouched";
    EXPECT_TRUE(sys_stat::get_process_name(buf, 65, pid));
    EXPECT_STREQ(buf, "quiet one");
    EXPECT_TRUE(sys_stat::get_process_name(buf, 65, -1));
    EXPECT_EQ(buf + string("\n"), file_text("/proc/self/comm"));
    EXPECT_TRUE(sys_stat::get_process_cmdline(buf, sizeof(buf), pid));
    EXPECT_EQ(buf, build_dir() + "/tests/targets/odd");
    EXPECT_TRUE(sys_stat::get_process_stat(buf, sizeof(buf), pid, static_cast<uint32_t>(pid)));
    EXPECT_TRUE(string(buf).starts_with(std::to_string(pid) + " (quiet one) ")) << buf;
    EXPECT_TRUE(sys_stat::get_thread_schedstat(buf, sizeof(buf), pid, static_cast<uint32_t>(pid)));
    EXPECT_TRUE(sys_stat::get_kernel_version(buf, sizeof(buf)));
    EXPECT_EQ(buf + string("\n"), file_text("/proc/version"));

    strcpy(buf, "untouched");
    EXPECT_FALSE(sys_stat::get_process_name(buf, 65, 0));
    EXPECT_FALSE(sys_stat::get_process_cmdline(buf, 65, 2));  // a kernel thread has none
    EXPECT_FALSE(sys_stat::get_process_stat(buf, 65, pid, static_cast<uint32_t>(-1)));
    EXPECT_FALSE(sys_stat::get_thread_schedstat(buf, 65, pid, 1));
    EXPECT_STREQ(buf, "untouched");
}

TEST(sys_stat, copies_the_kernel_stack_as_it_is)
{
    const target sleeper({"odd", "sleeper"});
    const pid_t pid = sleeper.pid();
    stringstream out;
    {
        const mounted_file stack(task_file(pid, pid, "stack"), "[<0>] one+0x1/0x2\n[<0>] two\n[<0>] three\n");
        EXPECT_TRUE(sys_stat::get_kernel_calltrace_to_stream(&out, pid, pid));
        EXPECT_EQ(out.str(), "  [<0>] one+0x1/0x2\n  [<0>] two\n  [<0>] three\n");
    }
    for (const auto& [p, t] : {std::pair{-5, pid}, {pid, -5}, {pid, 1}})
        EXPECT_FALSE(sys_stat::get_kernel_calltrace_to_stream(&out, p, t));
    EXPECT_EQ(count_of(out.str(), "\n"), 3U);
}
