// Readers of /proc and the primitives under them.
#include <gtest/gtest.h>
#include <string.h>
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
        string expected;
    } cases[] = {
        {"12.34 56.78\n", 1024, "12.34 56.78"},
        {"abcde", 64, "abcd"},
        {string(600, 's'), 512, string(511, 's')},
        {"x\n", 0, "untouched"},
        {"", 64, "untouched"},
    };
    for (const auto& c : cases) {
        char buf[1024] = "untouched";
        EXPECT_EQ(sys_stat_test::read_once(c.text, buf, c.len), c.expected != "untouched") << c.text;
        EXPECT_EQ(buf, c.expected);
    }
}

TEST(sys_stat, indents_every_piece_of_a_copied_file)
{
    const string piece(1023, 'm');
    for (const auto& [text, expected] : std::initializer_list<std::pair<string, string>>{
             {"", ""},
             {"one\n\n  three\n", "  one\n  \n    three\n"},
             {"no newline", "  no newline"},
             {piece + piece + "m\n", "  " + piece + "  " + piece + "  m\n"}}) {
        std::ofstream("/tmp/file") << text;
        stringstream out;
        EXPECT_TRUE(sys_stat_test::to_stream("/tmp/file", out));
        EXPECT_FALSE(sys_stat_test::to_stream("/tmp/absent", out));
        EXPECT_EQ(out.str(), expected);
    }
}
