// The list of executable mappings and the printed map, on crafted maps files.
#include <gtest/gtest.h>

#include "map_info.h"
#include "support/log_capture.h"
#include "support/mounted_file.h"
#include "support/target.h"
#include "support/tool.h"
#include "system_log.h"

using std::string;
using std::vector;

// Reaches the list.
struct map_info_test {
    static vector<string> names(const process_map_info& maps)
    {
        vector<string> all;
        for (const map_info* mi = maps.header; mi != nullptr; mi = mi->next)
            all.emplace_back(mi->name);
        return all;
    }
};

class maps : public testing::Test
{
protected:
    const target sleeper{{"odd", "sleeper"}};
    const string file = "/proc/" + std::to_string(sleeper.pid()) + "/maps";

    static string printed(process_map_info& list, int expected = 0)
    {
        FILE* out = fopen("/tmp/printed", "w");
        EXPECT_EQ(list.process_map_to_file(out), expected);
        fclose(out);
        return file_text("/tmp/printed");
    }
};

TEST_F(maps, keep_named_executable_lines_only)
{
    const string long_name = "/" + string(3000, 'l');
    // The line, and the name it is listed under: none when it is left out.
    const vector<std::pair<string, string>> cases = {
        {"1000-2000 r-xp 00001000 fd:00 131        /usr/lib/libc.so.6\n", "/usr/lib/libc.so.6"},
        {"1000-2000 r-xp 00000000 00:00 0          [vdso]\n", "[vdso]"},
        {"1000-2000 r-xp 00000000 00:00 0 \n", ""},
        {"1000-2000 rwxp 00000000 fd:00 7 /tmp/patched\n", ""},
        {"1000-2000 --xp 00000000 ff:00 7 [vsyscall]\n", ""},
        {"1000-2000 r-xs 00000000 fd:00 7 /tmp/a file  with blanks \n", "/tmp/a file  with blanks "},
        {"1000-2000 r-xp 00000000 fd:00 7 /tmp/gone (deleted)\n", "/tmp/gone (deleted)"},
        {"1000-2000 r-xp 00000000 fd:00 7 /tmp/new\\012line\n", "/tmp/new\\012line"},
        {"1000-2000 r-xp\n", ""},
        {"not a maps line r-xp\n", ""},
        {"", ""},
        {"1000-2000 r-xp 00000000 fd:00 7 " + long_name + "\n", long_name.substr(0, 1023 - 32)},
    };
    for (const auto& [line, name] : cases) {
        const mounted_file crafted(file, line);
        process_map_info list(sleeper.pid());
        EXPECT_EQ(list.process_create_map_info_list(), 0);
        EXPECT_EQ(map_info_test::names(list), name.empty() ? vector<string>{} : vector{name}) << line;
        list.process_destroy_map_info_list();
        EXPECT_TRUE(map_info_test::names(list).empty());
    }
}

TEST_F(maps, find_the_mapping_of_an_address)
{
    const mounted_file crafted(file,
                               "55550000-55560000 r-xp 00001000 fd:00 131 /usr/bin/tool\n"
                               "55560000-55570000 r-x 00001000 fd:00 131 /usr/bin/short\n"
                               "55570000-55580000 rw-p 00001000 fd:00 131 /usr/bin/tool\n"
                               "ffffffffff600000-ffffffffff601000 r-xp 00000000 00:00 0 [last]\n");
    process_map_info list(sleeper.pid());
    ASSERT_EQ(list.process_create_map_info_list(), 0);
    EXPECT_EQ(map_info_test::names(list), (vector<string>{"[last]", "/usr/bin/short", "/usr/bin/tool"}));
    const std::pair<uintptr_t, const char*> cases[] = {
        {0x5554ffff, nullptr},          {0x55550000, "/usr/bin/tool"}, {0x5555ffff, "/usr/bin/tool"},
        {0x55560000, "/usr/bin/short"}, {0x55570000, nullptr},         {0x5557ffff, nullptr},
        {0xffffffffff600fff, "[last]"}, {0xffffffffff601000, nullptr},
    };
    for (const auto& [address, name] : cases) {
        const map_info* mi = list.process_find_map_info(address);
        EXPECT_STREQ(mi != nullptr ? mi->name : nullptr, name) << std::hex << address;
    }
    list.process_destroy_map_info_list();
}

TEST_F(maps, longer_than_the_line_buffer_are_printed_in_pieces)
{
    const string line = "1000-2000 r--p 0 0:0 7 /" + string(1500, 'n') + "\n";
    const mounted_file crafted(file, line);
    process_map_info list(sleeper.pid());
    EXPECT_EQ(printed(list), "\nMemory map:\n  " + line.substr(0, 1023) + "  " + line.substr(1023));
}

TEST_F(maps, without_a_file_are_none_and_print_nothing)
{
    process_map_info list(0);
    EXPECT_EQ(list.process_create_map_info_list(), -2);
    EXPECT_EQ(list.process_find_map_info(0x1000), nullptr);
    EXPECT_EQ(printed(list, -2), "");
    process_map_info own(getpid());
    EXPECT_EQ(own.process_map_to_file(nullptr), -2);
    const string entry = "4 <null>: process_map_to_file: fmap or target is null\n";
    EXPECT_EQ(log_as_text(), entry + entry);
}
