// Readers of /proc and the primitives under them.
#include <gtest/gtest.h>

#include <fstream>

#include "dumper_common.h"

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
