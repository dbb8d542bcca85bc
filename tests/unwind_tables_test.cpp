// The parsers under the unwinder, fed by hand: symbol tables, call-frame entries.
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>

#include "unwind/byte_reader.h"
#include "unwind/call_frame_info.h"
#include "unwind/demangle.h"
#include "unwind/elf_file.h"
#include "unwind/machine.h"
#include "unwind/symbol_table.h"

using std::string;
using std::vector;

namespace
{
struct test_symbol {
    string name;
    uint64_t value;
    uint64_t size;
    uint8_t info = ELF64_ST_INFO(STB_GLOBAL, STT_FUNC);
    uint16_t section = 1;
};

// An ELF image with two code sections, [0x1000, 0x2000) and [0x2000, 0x3000), and a symbol table.
vector<char> image_with(const vector<test_symbol>& symbols)
{
    string strings(1, '\0');
    vector<Elf64_Sym> table(1);
    for (const test_symbol& symbol : symbols) {
        table.push_back({static_cast<uint32_t>(strings.size()), symbol.info, 0, symbol.section, symbol.value,
                         symbol.size});
        strings += symbol.name + '\0';
    }
    const uint64_t table_at = sizeof(Elf64_Ehdr);
    const uint64_t table_bytes = table.size() * sizeof(Elf64_Sym);
    const uint64_t strings_at = table_at + table_bytes;
    const uint64_t sections_at = (strings_at + strings.size() + 7) & ~uint64_t{7};
    const auto section = [](uint32_t type, uint64_t address, uint64_t at, uint64_t size) {
        const uint64_t flags = type == SHT_PROGBITS ? SHF_ALLOC | SHF_EXECINSTR : 0;
        return Elf64_Shdr{0, type, flags, address, at, size, 4, 0, 0, sizeof(Elf64_Sym)};
    };
    const Elf64_Shdr sections[] = {
        {},
        section(SHT_PROGBITS, 0x1000, 0, 0x1000),
        section(SHT_PROGBITS, 0x2000, 0, 0x1000),
        section(SHT_SYMTAB, 0, table_at, table_bytes),
        section(SHT_STRTAB, 0, strings_at, strings.size()),
    };
    Elf64_Ehdr header = {};
    constexpr unsigned char kind[] = {ELFMAG0,    ELFMAG1,     ELFMAG2,   ELFMAG3,
                                      ELFCLASS64, ELFDATA2LSB, EV_CURRENT};
    memcpy(header.e_ident, kind, sizeof(kind));
    header.e_type = ET_DYN;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof(header);
    header.e_shentsize = sizeof(Elf64_Shdr);
    header.e_shnum = std::size(sections);
    header.e_shoff = sections_at;
    header.e_shstrndx = 4;
    vector<char> image(sections_at + sizeof(sections));
    memcpy(image.data(), &header, sizeof(header));
    memcpy(image.data() + table_at, table.data(), table_bytes);
    memcpy(image.data() + strings_at, strings.data(), strings.size());
    memcpy(image.data() + sections_at, sections, sizeof(sections));
    return image;
}

string name_at(vector<char> image, uint64_t address)
{
    auto file = std::make_unique<elf_file>();
    if (!file->open_image(std::move(image)))
        return "<no image>";
    const symbol_name name = symbol_table(std::move(file)).find(address);
    return name.text.empty() ? "" : name.text + "+" + std::to_string(name.offset);
}

}  // namespace

TEST(symbol_table, names_an_address_after_the_symbol_that_covers_it_and_none_other)
{
    constexpr uint8_t label = ELF64_ST_INFO(STB_LOCAL, STT_NOTYPE);
    constexpr uint8_t data = ELF64_ST_INFO(STB_GLOBAL, STT_OBJECT);
    const vector<char> image = image_with({
        {"outer", 0x1000, 0x100},
        {"inside", 0x1010, 0x10},
        {"local_alias", 0x1200, 0x10, ELF64_ST_INFO(STB_LOCAL, STT_FUNC)},
        {"alias", 0x1200, 0x10},
        {"versioned@@V_2.34", 0x1300, 0x10},
        {"table_of_data", 0x1400, 0x100, data},
        {"label", 0x1500, 0, label},
        {"$x", 0x1600, 0, label},
        {"after_label", 0x1700, 0x10},
        {"end_label", 0x1f00, 0, label},
        {"elsewhere", 0x2100, 0, label, 2},
        {"endless", 0x2200, ~uint64_t{0}, ELF64_ST_INFO(STB_GLOBAL, STT_FUNC), 99},
    });
    const struct {
        uint64_t address;
        const char* name;
    } wanted[] = {
        {0x1000, "outer+0"}, {0x1015, "inside+5"},      {0x1020, "outer+32"}, {0x1100, ""},
        {0x1205, "alias+5"}, {0x1301, "versioned+1"},   {0x1410, ""},         {0x1510, "label+16"},
        {0x1608, ""},        {0x1705, "after_label+5"}, {0x1710, ""},         {0x1f80, "end_label+128"},
        {0x2080, ""},        {0x2300, "elsewhere+512"}, {0x3000, ""},         {0, ""},
    };
    for (const auto& w : wanted)
        EXPECT_EQ(name_at(image, w.address), w.name) << std::hex << w.address;
}

static frame_section debug_frame_in(const vector<uint8_t>& bytes)
{
    return {true, 0, [&bytes](uint64_t at, void* to, size_t size) {
                if (at > bytes.size() || size > bytes.size() - at)
                    return false;
                memcpy(to, bytes.data() + at, size);
                return true;
            }};
}

// A .debug_frame by hand: one common entry, then the descriptions that are added.
struct frame_table {
    vector<uint8_t> bytes;

    explicit frame_table(const string& augmentation, uint64_t column = machine::return_column,
                         const vector<uint8_t>& data = {})
    {
        put(static_cast<uint32_t>(9 + augmentation.size() + data.size()));
        put(0xffffffff);
        put(uint8_t{1});
        bytes.insert(bytes.end(), augmentation.c_str(), augmentation.c_str() + augmentation.size() + 1);
        put(uint8_t{1});     // code alignment
        put(uint8_t{0x78});  // data alignment: -8
        put(static_cast<uint8_t>(column));
        bytes.insert(bytes.end(), data.begin(), data.end());
    }
    // Of 0x100 pcs. Returns where it is.
    template <typename address>
    size_t describe(address start, uint32_t common_at, const vector<uint8_t>& rules)
    {
        const size_t at = bytes.size();
        put(static_cast<uint32_t>(4 + 2 * sizeof(address) + rules.size()));
        put(common_at);
        put(start);
        put(address{0x100});
        bytes.insert(bytes.end(), rules.begin(), rules.end());
        return at;
    }
    template <typename number>
    void put(number value)
    {
        const auto* from = reinterpret_cast<const uint8_t*>(&value);
        bytes.insert(bytes.end(), from, from + sizeof(value));
    }
};

// For the last pc of the one description.
static std::unique_ptr<unwind_rule> rule_of(frame_table table, const vector<uint8_t>& rules)
{
    const size_t at = table.describe(uint64_t{0x1000}, 0, rules);
    const auto entry = read_frame_entry(debug_frame_in(table.bytes), at);
    return entry ? make_unwind_rule(*entry, 0x10ff) : nullptr;
}

// A name of 511 bytes can stand for more than there is memory: every step names the one before twice.
TEST(demangle, cuts_a_name_that_grows_without_end)
{
    string bomb = "_Z1f1AIiiE";
    for (const char* last : {"S0_", "S1_", "S2_", "S3_", "S4_", "S5_", "S6_", "S7_", "S8_", "S9_", "SA_",
                             "SB_", "SC_", "SD_", "SE_", "SF_", "SG_", "SH_", "SI_", "SJ_", "SK_", "SL_"})
        bomb += "S_I" + string(last) + last + "E";
    const string demangled = demangle(bomb.c_str());
    EXPECT_EQ(demangled.size(), max_demangled_bytes);
    EXPECT_TRUE(demangled.starts_with("f(A<int, int>, A<A<int, int>, A<int, int> >, A<A<")) << demangled;
    EXPECT_EQ(demangle("_ZN4shop7counter5serveEv"), "shop::counter::serve()");
    for (const char* plain : {"f", "main", "_Znot", "_GLOBAL__sub_I_main"})
        EXPECT_EQ(demangle(plain), "") << plain;
}

TEST(call_frame_info, indexes_what_stands_beside_a_damaged_entry)
{
    frame_table table("zR", machine::return_column, {1, pointer_encoding::udata4});
    table.describe(0x1000U, 0, {0});
    table.describe(0x2000U, 5, {0});  // its common entry is none
    table.describe(0x3000U, 0, {0});
    const auto index = index_frame_section(debug_frame_in(table.bytes), 0, table.bytes.size());
    ASSERT_EQ(index.size(), 2U);
    EXPECT_EQ(index[1].start, 0x3000U);
    EXPECT_EQ(index[1].end, 0x3100U);
}

TEST(call_frame_info, knows_signal_frames_without_augmentation_data)
{
    const struct {
        const char* augmentation;
        bool accepted;
        bool signal_frame;
    } cases[] = {
        {"", true, false}, {"S", true, true}, {"B", true, false}, {"R", false, false}, {"eh", false, false}};
    for (const auto& c : cases) {
        const auto rule = rule_of(frame_table(c.augmentation), {});
        EXPECT_EQ(rule != nullptr, c.accepted) << c.augmentation;
        EXPECT_EQ(rule && rule->signal_frame(), c.signal_frame) << c.augmentation;
    }
}

// A register without a column crashes libunwind or makes it read out of bounds, a division can be a SIGFPE,
// every remembered state takes memory, and a long common entry would be read for each of the others.
TEST(call_frame_info, refuses_what_libunwind_does_not_survive)
{
    const auto columns = static_cast<uint8_t>(machine::table_columns);
    EXPECT_FALSE(rule_of(frame_table("", columns), {}));
    const auto with_common_bytes = [](size_t count) {
        return frame_table("", machine::return_column, vector<uint8_t>(count - 9));
    };
    EXPECT_TRUE(rule_of(with_common_bytes(4096), {}));
    EXPECT_FALSE(rule_of(with_common_bytes(4097), {}));
    const auto repeated = [](vector<uint8_t> opcodes, int times) {
        vector<uint8_t> all;
        for (int i = 0; i < times; i++)
            all.insert(all.end(), opcodes.begin(), opcodes.end());
        return all;
    };
    constexpr uint8_t advance = 0x41, remember = 0x0a, restore = 0x0b;
    const std::pair<bool, vector<uint8_t>> programs[] = {
        {true, {0x09, 3, static_cast<uint8_t>(columns - 1)}},
        {false, {0x09, 3, columns}},  // register
        {false, {0x09, 3, 0xff, 0xff, 0xff, 0xff, 0xff, 0x7f}},
        {true, repeated({remember, advance, restore}, 80)},
        {true, repeated({remember}, 64)},
        {false, repeated({remember}, 65)},
        {false, {remember, restore, restore}},
    };
    for (const auto& [accepted, rules] : programs)
        EXPECT_EQ(rule_of(frame_table(""), rules) != nullptr, accepted) << testing::PrintToString(rules);

    const std::pair<bool, vector<uint8_t>> expressions[] = {
        {true, {}},
        {true, {0x77, 8, 0x80, 0, 0x3f, 0x1a, 0x3b, 0x2a, 0x33, 0x24, 0x22}},  // of every linkage table
        {true, {0x92, 7, 0x80, 1, 0x06, 0x23, 0x80, 1, 0x0c, 1, 2, 3, 4, 0x96}},
        {false, {0x31, 0x30, 0x1b}},  // a division
        {false, {0x08}},              // an operand is missing
        {false, {0x9c}},
        {true, {0x2f, 2, 0, 0x08, 0x1b, 0x30}},  // a jump past a constant
        {true, {0x31, 0x28, 0, 0}},
        {false, {0x2f, 1, 0, 0x08, 0x1b, 0x30}},  // and into it
        {false, {0x2f, 1, 0}},                    // and out of the expression
        {false, {0x2f, 0xfc, 0xff}},
    };
    for (const auto& [accepted, expression] : expressions) {
        for (const uint8_t opcode : vector<uint8_t>{0x0f, 0x10, 0x16}) {
            vector<uint8_t> rules = {opcode, 3, static_cast<uint8_t>(expression.size())};
            if (opcode == 0x0f)
                rules.erase(rules.begin() + 1);
            rules.insert(rules.end(), expression.begin(), expression.end());
            EXPECT_EQ(rule_of(frame_table(""), rules) != nullptr, accepted) << testing::PrintToString(rules);
        }
    }
}
