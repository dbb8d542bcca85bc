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
    static const map_info* first(const process_map_info& maps) { return maps.header; }
};

class maps : public testing::Test
{
protected:
    const target sleeper{{"odd", "sleeper"}};
    const string file = "/proc/" + std::to_string(sleeper.pid()) + "/maps";

    static string printed(process_map_info& list)
    {
        FILE* out = fopen("/tmp/printed", "w");
        EXPECT_EQ(list.process_map_to_file(out), 0);
        fclose(out);
        return file_text("/tmp/printed");
    }
};

TEST_F(maps, keep_named_executable_lines_only)
{
    const string long_name = "/" + string(3000, 'l');
    const struct {
        string line;
        string name;  // empty: left out
    } cases[] = {
        {"1000-2000 r-xp 00001000 fd:00 131        /usr/lib/libc.so.6\n", "/usr/lib/libc.so.6"},
        {"1000-2000 r-xp 00000000 00:00 0          [vdso]\n", "[vdso]"},
        {"1000-2000 r-xp 00000000 00:00 0 \n", ""},
        {"1000-2000 r-xp 00000000 00:00 0", ""},
        {"1000-2000 rwxp 00000000 fd:00 7 /tmp/patched\n", ""},
        {"1000-2000 r--p 00000000 fd:00 7 /usr/lib/libc.so.6\n", ""},
        {"1000-2000 --xp 00000000 ff:00 7 [vsyscall]\n", ""},
        {"1000-2000 r-xs 00000000 fd:00 7 /tmp/a file  with blanks \n", "/tmp/a file  with blanks "},
        {"1000-2000 r-xp 00000000 fd:00 7 /tmp/gone (deleted)\n", "/tmp/gone (deleted)"},
        {"1000-2000 r-xp 00000000 fd:00 7 /tmp/new\\012line\n", "/tmp/new\\012line"},
        {"1000-2000 r-xp\n", ""},
        {"1000-2000 r-xp 00000000 fd:00\n", ""},
        {"1000-2000 \n", ""},
        {"not a maps line r-xp\n", ""},
        {"", ""},
        {"1000-2000 r-xp 00000000 fd:00 7 " + long_name + "\n", long_name.substr(0, 1023 - 32)},
    };
    for (const auto& c : cases) {
        const mounted_file crafted(file, c.line);
        process_map_info list(sleeper.pid());
        EXPECT_EQ(list.process_create_map_info_list(), 0);
        EXPECT_EQ(map_info_test::names(list), c.name.empty() ? vector<string>{} : vector<string>{c.name})
            << c.line;
        list.process_destroy_map_info_list();
        EXPECT_EQ(map_info_test::first(list), nullptr);
    }
}

TEST_F(maps, find_the_mapping_of_an_address_and_print_every_line_afresh)
{
    const string name = "/" + string(1500, 'n');
    const string text =
        "55550000-55560000 r-xp 00001000 fd:00 131 /usr/bin/tool\n"
        "55560000-55570000 r-x 00001000 fd:00 131 /usr/bin/short\n"
        "55570000-55580000 rw-p 00001000 fd:00 131 /usr/bin/tool\n"
        "ffffffffff600000-ffffffffff601000 r-xp 00000000 00:00 0 [last]\n";
    process_map_info list(sleeper.pid());
    {
        const mounted_file crafted(file, text);
        process_map_info crafted_list(sleeper.pid());
        ASSERT_EQ(crafted_list.process_create_map_info_list(), 0);
        EXPECT_EQ(map_info_test::names(crafted_list),
                  (vector<string>{"[last]", "/usr/bin/short", "/usr/bin/tool"}));
        const struct {
            uintptr_t address;
            const char* name;
        } cases[] = {
            {0x5554ffff, nullptr},          {0x55550000, "/usr/bin/tool"}, {0x5555ffff, "/usr/bin/tool"},
            {0x55560000, "/usr/bin/short"}, {0x55570000, nullptr},         {0x5557ffff, nullptr},
            {0xffffffffff600fff, "[last]"}, {0xffffffffff601000, nullptr},
        };
        for (const auto& c : cases) {
            const map_info* mi = crafted_list.process_find_map_info(c.address);
            EXPECT_STREQ(mi != nullptr ? mi->name : nullptr, c.name) << std::hex << c.address;
        }
        const map_info* whole = crafted_list.process_find_map_info(0x55550000);
        EXPECT_TRUE(whole->is_readable && !whole->is_writable && whole->is_executable);
        const map_info* cut = crafted_list.process_find_map_info(0x55560000);
        EXPECT_FALSE(cut->is_readable || cut->is_writable || cut->is_executable);
        crafted_list.process_destroy_map_info_list();

        std::stringstream lines(text);
        string expected = "\nMemory map:\n";
        for (string line; getline(lines, line);)
            expected += "  " + line + "\n";
        EXPECT_EQ(printed(crafted_list), expected);
        EXPECT_EQ(printed(crafted_list), expected);
    }
    const mounted_file crafted(file, "1000-2000 r--p 0 0:0 7 " + name + "\n");
    process_map_info long_line(sleeper.pid());
    const string in_pieces = printed(long_line);
    EXPECT_EQ(in_pieces.size(), 13 + 4 + 23 + name.size() + 1);
    EXPECT_EQ(in_pieces.substr(13 + 2 + 1023, 3), "  n");
    EXPECT_NE(printed(list), in_pieces);  // opened before, so the kernel's own
}

TEST(map_list, without_a_maps_file_is_empty_and_prints_nothing)
{
    process_map_info list(0);
    EXPECT_EQ(list.process_create_map_info_list(), -2);
    EXPECT_EQ(list.process_find_map_info(0x1000), nullptr);
    FILE* out = fopen("/tmp/printed", "w");
    EXPECT_EQ(list.process_map_to_file(out), -2);
    EXPECT_EQ(ftell(out), 0);
    fclose(out);
    process_map_info own(getpid());
    EXPECT_EQ(own.process_map_to_file(nullptr), -2);
    ASSERT_EQ(logged().size(), 2U);
    for (const log_entry& entry : logged()) {
        EXPECT_EQ(entry.prio, ANDROID_LOG_INFO);
        EXPECT_EQ(entry.tag, "<null>");
        EXPECT_EQ(entry.text, "process_map_to_file: fmap or target is null");
    }
}
