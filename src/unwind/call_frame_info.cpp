// See call_frame_info.h. The formats: DWARF 5, section 6.4, and the Linux Standard Base for .eh_frame.
#include "call_frame_info.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "byte_reader.h"
#include "machine.h"

namespace
{

constexpr uint64_t max_entry_bytes = uint64_t{256} * 1024;  // the longest seen are some 10 KiB
constexpr uint64_t max_common_bytes = 4096;      // some 30 are usual; an index may read one for each entry
constexpr size_t max_index_entries = 4'000'000;  // the biggest programs known have about a million functions
constexpr int max_remembered_states = 64;        // libunwind takes a kilobyte for each; one or two are usual

struct entry_header {
    uint64_t body = 0;    // where the byte after the length is
    uint64_t length = 0;  // of the body; 0 ends a section
    bool wide = false;    // 64-bit DWARF
};

std::optional<entry_header> read_header(const frame_section& section, uint64_t at)
{
    uint32_t length = 0;
    if (!section.read(at, &length, sizeof(length)))
        return std::nullopt;
    if (length < 0xfffffff0)
        return entry_header{at + 4, length, false};
    uint64_t wide_length = 0;
    if (length != 0xffffffff || !section.read(at + 4, &wide_length, sizeof(wide_length)))
        return std::nullopt;
    return entry_header{at + 12, wide_length, true};
}

std::optional<std::vector<uint8_t>> read_body(const frame_section& section, const entry_header& header)
{
    if (header.length < 5 || header.length > max_entry_bytes)
        return std::nullopt;
    std::vector<uint8_t> body(header.length);
    if (!section.read(header.body, body.data(), body.size()))
        return std::nullopt;
    return body;
}

uint64_t read_id(byte_reader& reader, const entry_header& header)
{
    return header.wide ? reader.read<uint64_t>() : reader.read<uint32_t>();
}

// The place of the common information entry that an entry refers to, nothing when the entry is itself one.
std::optional<uint64_t> find_common_entry(const frame_section& section, const entry_header& header,
                                          uint64_t id)
{
    const uint64_t common_id = !section.is_debug_frame ? 0 : header.wide ? ~uint64_t{0} : 0xffffffff;
    if (id == common_id)
        return std::nullopt;
    return section.is_debug_frame ? id : header.body - id;
}

// Fills what the common information entry says. pointer_form and has_data say how to read the frame
// descriptions of it.
bool read_common_entry(const frame_section& section, uint64_t at, frame_entry& entry, bool& has_data)
{
    const auto header = read_header(section, at);
    if (!header || header->length > max_common_bytes)
        return false;
    const auto body = read_body(section, *header);
    if (!body)
        return false;
    byte_reader reader(*body, header->body);
    const uint64_t id = read_id(reader, *header);
    if (find_common_entry(section, *header, id))
        return false;
    const auto version = reader.read<uint8_t>();
    if (version != 1 && version != 3 && version != 4)
        return false;
    char augmentation[9] = {};
    for (size_t i = 0;; i++) {
        const char c = static_cast<char>(reader.read<uint8_t>());
        if (c == '\0')
            break;
        if (i + 1 >= sizeof(augmentation))
            return false;
        augmentation[i] = c;
    }
    if (version == 4 && (reader.read<uint8_t>() != sizeof(uint64_t) || reader.read<uint8_t>() != 0))
        return false;
    entry.code_align = reader.read_uleb();
    entry.data_align = reader.read_sleb();
    entry.return_column = version == 1 ? reader.read<uint8_t>() : reader.read_uleb();
    entry.pointer_form = pointer_encoding::absolute;
    has_data = augmentation[0] == 'z';
    const uint64_t length = has_data ? reader.read_uleb() : 0;
    const uint64_t data_at = reader.address();
    const uint8_t* data = reader.take(length);
    if (data == nullptr)
        return false;
    byte_reader data_reader({data, length}, data_at);
    bool known = true;
    for (const char* c = augmentation + (has_data ? 1 : 0); *c != '\0' && known; c++) {
        switch (*c) {
            case 'R':
                entry.pointer_form = data_reader.read<uint8_t>();
                break;
            case 'L':
                data_reader.read<uint8_t>();
                break;
            case 'P':
                data_reader.read_pointer(data_reader.read<uint8_t>());
                break;
            case 'S':
                entry.signal_frame = true;
                break;
            case 'B':
                break;  // aarch64: return addresses are signed with the other key
            default:
                known = false;
        }
    }
    if (!data_reader.ok() || (!known && !has_data))
        return false;  // without their length, unknown data cannot be skipped
    if (!reader.ok() || entry.return_column >= machine::table_columns)
        return false;
    const auto rest = reader.rest();
    entry.initial_rules.assign(rest.begin(), rest.end());
    return true;
}

// The pc range of a frame description, read up to where its rules start.
bool read_range(const frame_section& section, byte_reader& reader, frame_entry& entry, bool has_data)
{
    const uint8_t form = entry.pointer_form;
    if ((form & pointer_encoding::indirect) != 0 || form == pointer_encoding::omitted)
        return false;
    entry.start = reader.read_pointer(form) + section.load_bias;
    entry.end = entry.start + reader.read_pointer(form & pointer_encoding::format_mask);
    if (has_data)
        reader.take(reader.read_uleb());
    return reader.ok() && entry.start < entry.end;
}

// Reads past the operands of an expression's instruction. False when libunwind has no such instruction.
bool skip_expression_operands(byte_reader& reader, uint8_t opcode)
{
    switch (opcode) {
        case 0x08:
        case 0x09:
        case 0x15:
        case 0x94:
            reader.take(1);  // const1u, const1s, pick, deref_size
            return true;
        case 0x0a:
        case 0x0b:
            reader.take(2);  // const2u, const2s
            return true;
        case 0x0c:
        case 0x0d:
            reader.take(4);  // const4u, const4s
            return true;
        case 0x03:
        case 0x0e:
        case 0x0f:
            reader.take(8);  // addr, const8u, const8s
            return true;
        case 0x92:
            reader.read_uleb();  // bregx
            [[fallthrough]];
        case 0x10:
        case 0x11:
        case 0x23:
        case 0x90:
            reader.read_uleb();  // constu, consts, plus_uconst, regx
            return true;
        default:
            if (opcode >= 0x70 && opcode <= 0x8f)
                reader.read_uleb();  // breg0 to breg31
            return opcode == 0x06 || (opcode >= 0x12 && opcode <= 0x8f) || opcode == 0x96;
    }
}

// libunwind's evaluation is safe from all but one thing: it divides, and the lowest number by -1 is a SIGFPE
// on x86_64. So there must be no division, nor a jump to where one could hide. No compiler emits one.
bool is_harmless_expression(std::span<const uint8_t> expression)
{
    constexpr uint8_t divide = 0x1b, branch = 0x28, skip = 0x2f;
    byte_reader reader(expression, 0);
    std::vector<bool> starts(expression.size() + 1);
    std::vector<uint64_t> jumps;
    while (!reader.at_end()) {
        starts[reader.position()] = true;
        const auto opcode = reader.read<uint8_t>();
        if (opcode == branch || opcode == skip) {
            const int64_t distance = reader.read<int16_t>();
            jumps.push_back(reader.position() + static_cast<uint64_t>(distance));
        } else if (opcode == divide || !skip_expression_operands(reader, opcode)) {
            return false;
        }
    }
    starts[expression.size()] = true;
    return reader.ok() && std::all_of(jumps.begin(), jumps.end(),
                                      [&starts](uint64_t to) { return to < starts.size() && starts[to]; });
}

template <typename number>
void put(std::vector<uint8_t>& out, number value)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    out.insert(out.end(), bytes, bytes + sizeof(value));
}

// Copies a call-frame program, instruction by instruction: checks that each is whole and does libunwind no
// harm, turns signature toggles into nothing (libunwind 1.6 gives up at one), gives DW_CFA_set_loc the form
// that the copy declares, and ends after the last one that counts at pc.
class rule_copier
{
public:
    rule_copier(const frame_entry& entry, std::vector<uint8_t>& out) : entry_(entry), out_(out) {}

    bool copy(std::span<const uint8_t> rules, uint64_t at, uint64_t location, uint64_t pc)
    {
        byte_reader reader(rules, at);
        while (!reader.at_end()) {
            const size_t start = reader.position();
            const auto opcode = reader.read<uint8_t>();
            if (opcode == set_location) {
                location = reader.read_pointer(entry_.pointer_form);
                if (!reader.ok())
                    return false;
                if (location > pc)
                    return true;
                out_.push_back(set_location);
                put(out_, location);
                continue;
            }
            uint64_t advance = 0;
            if (!skip_operands(reader, opcode, advance))
                return false;
            location += advance * entry_.code_align;
            if (location > pc)
                return true;
            if (machine::toggles_signature(opcode)) {
                out_.push_back(no_operation);
            } else {
                out_.insert(out_.end(), rules.begin() + static_cast<ptrdiff_t>(start),
                            rules.begin() + static_cast<ptrdiff_t>(reader.position()));
            }
        }
        return true;
    }

private:
    static constexpr uint8_t no_operation = 0x00;
    static constexpr uint8_t set_location = 0x01;

    static bool skip_expression(byte_reader& reader)
    {
        const uint64_t length = reader.read_uleb();
        const uint8_t* expression = reader.take(length);
        return expression != nullptr && is_harmless_expression({expression, length});
    }

    bool skip_operands(byte_reader& reader, uint8_t opcode, uint64_t& advance)
    {
        switch (opcode & 0xc0) {
            case 0x40:
                advance = opcode & 0x3f;
                return true;  // advance_loc
            case 0x80:
                reader.read_uleb();
                return reader.ok();  // offset
            case 0xc0:
                return true;  // restore
            default:
                break;
        }
        switch (opcode) {
            case 0x02:
                advance = reader.read<uint8_t>();
                break;  // advance_loc1, 2, 4
            case 0x03:
                advance = reader.read<uint16_t>();
                break;
            case 0x04:
                advance = reader.read<uint32_t>();
                break;
            case 0x00:
                break;  // nop
            case 0x0a:
                return ++remembered_states_ <= max_remembered_states;
            case 0x0b:
                return --remembered_states_ >= 0;
            case 0x09:
                reader.read_uleb();  // register
                if (reader.read_uleb() >= machine::table_columns)
                    return false;
                break;
            case 0x06:
            case 0x07:
            case 0x08:
            case 0x0d:
            case 0x0e:
            case 0x13:
            case 0x2e:  // one number
                reader.read_uleb();
                break;
            case 0x05:
            case 0x0c:
            case 0x11:
            case 0x12:
            case 0x14:
            case 0x15:
            case 0x2f:  // two numbers
                reader.read_uleb();
                reader.read_uleb();
                break;
            case 0x10:
            case 0x16:  // expression, val_expression
                reader.read_uleb();
                return skip_expression(reader);
            case 0x0f:  // def_cfa_expression
                return skip_expression(reader);
            default:
                return machine::toggles_signature(opcode);
        }
        return reader.ok();
    }

    const frame_entry& entry_;
    std::vector<uint8_t>& out_;
    int remembered_states_ = 0;
};

void put_uleb(std::vector<uint8_t>& out, uint64_t value)
{
    do {
        const auto low = static_cast<uint8_t>(value & 0x7f);
        value >>= 7;
        out.push_back(static_cast<uint8_t>(low | (value != 0 ? 0x80 : 0)));
    } while (value != 0);
}

void put_sleb(std::vector<uint8_t>& out, int64_t value)
{
    for (;;) {
        const auto low = static_cast<uint8_t>(value & 0x7f);
        value >>= 7;
        const bool last = (value == 0 && (low & 0x40) == 0) || (value == -1 && (low & 0x40) != 0);
        out.push_back(static_cast<uint8_t>(low | (last ? 0 : 0x80)));
        if (last)
            return;
    }
}

void set_length(std::vector<uint8_t>& out, size_t at)
{
    const auto length = static_cast<uint32_t>(out.size() - at - sizeof(uint32_t));
    memcpy(out.data() + at, &length, sizeof(length));
}

// The search table's row matches every pc: its start is the lowest offset there is.
std::vector<uint8_t> assemble(const frame_entry& entry, std::span<const uint8_t> initial_rules,
                              std::span<const uint8_t> rules)
{
    std::vector<uint8_t> out;
    out.reserve(64 + initial_rules.size() + rules.size());
    put<int32_t>(out, INT32_MIN);
    put<int32_t>(out, 0);  // where the frame description is; set below
    const size_t common_at = out.size();
    put<uint32_t>(out, 0);
    put<uint32_t>(out, 0);
    out.push_back(1);  // version
    for (const char c : {'z', 'R'})
        out.push_back(static_cast<uint8_t>(c));
    if (entry.signal_frame)
        out.push_back('S');
    out.push_back('\0');
    put_uleb(out, entry.code_align);
    put_sleb(out, entry.data_align);
    out.push_back(static_cast<uint8_t>(entry.return_column));
    out.push_back(1);
    out.push_back(pointer_encoding::absolute);
    out.insert(out.end(), initial_rules.begin(), initial_rules.end());
    set_length(out, common_at);

    const auto description_at = static_cast<int32_t>(out.size());
    memcpy(out.data() + sizeof(int32_t), &description_at, sizeof(description_at));
    put<uint32_t>(out, 0);
    put<uint32_t>(out, static_cast<uint32_t>(out.size() - common_at));
    put<uint64_t>(out, entry.start);
    put<uint64_t>(out, entry.end - entry.start);
    out.push_back(0);
    out.insert(out.end(), rules.begin(), rules.end());
    set_length(out, static_cast<size_t>(description_at));
    out.resize(out.size() + 16);  // libunwind reads whole words
    return out;
}

std::mutex decoded_lock;

}  // namespace

std::optional<frame_entry> read_frame_entry(const frame_section& section, uint64_t at)
{
    const auto header = read_header(section, at);
    if (!header)
        return std::nullopt;
    const auto body = read_body(section, *header);
    if (!body)
        return std::nullopt;
    byte_reader reader(*body, header->body);
    const auto common_at = find_common_entry(section, *header, read_id(reader, *header));
    frame_entry entry;
    bool has_data = false;
    if (!common_at || !read_common_entry(section, *common_at, entry, has_data))
        return std::nullopt;
    if (!read_range(section, reader, entry, has_data))
        return std::nullopt;
    entry.rules_at = reader.address();
    const auto rest = reader.rest();
    entry.rules.assign(rest.begin(), rest.end());
    return entry;
}

std::vector<frame_index_entry> index_frame_section(const frame_section& section, uint64_t at, uint64_t size)
{
    std::vector<frame_index_entry> index;
    const uint64_t end = at + size;
    uint64_t common_read_at = 0;  // neighbours mostly share their common entry
    bool common_known = false;
    frame_entry common;
    bool common_has_data = false;
    while (at < end && index.size() < max_index_entries) {
        const auto header = read_header(section, at);
        if (!header || header->length > end - header->body)
            break;
        const uint64_t entry_at = at;
        at = header->body + header->length;
        if (header->length == 0) {
            if (section.is_debug_frame)
                continue;
            break;  // the terminator
        }
        uint8_t head[64] = {};  // the id, the range and the start of the rest
        const size_t head_bytes = std::min<uint64_t>(header->length, sizeof(head));
        if (!section.read(header->body, head, head_bytes))
            break;
        byte_reader reader({head, head_bytes}, header->body);
        const auto common_at = find_common_entry(section, *header, read_id(reader, *header));
        if (!common_at)
            continue;
        if (!common_known || *common_at != common_read_at) {
            common = {};
            common_known = read_common_entry(section, *common_at, common, common_has_data);
            common_read_at = *common_at;
        }
        if (!common_known)
            continue;
        frame_entry entry;
        entry.pointer_form = common.pointer_form;
        if (read_range(section, reader, entry, false))
            index.push_back({entry.start, entry.end, entry_at});
    }
    std::sort(index.begin(), index.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
    return index;
}

std::unique_ptr<unwind_rule> make_unwind_rule(const frame_entry& entry, uint64_t pc)
{
    std::vector<uint8_t> initial_rules;
    std::vector<uint8_t> rules;
    if (!rule_copier(entry, initial_rules).copy(entry.initial_rules, 0, 0, ~uint64_t{0}))
        return nullptr;
    if (!rule_copier(entry, rules).copy(entry.rules, entry.rules_at, entry.start, pc))
        return nullptr;
    return std::make_unique<unwind_rule>(entry, assemble(entry, initial_rules, rules));
}

std::unique_ptr<unwind_rule> make_unwind_rule(std::span<const uint8_t> rules)
{
    frame_entry entry;
    entry.end = ~uint64_t{0};
    entry.return_column = machine::return_column;
    return std::make_unique<unwind_rule>(entry, assemble(entry, {}, rules));
}

std::span<const uint8_t> unwind_rule::decoded() const
{
    return has_decoded_.load(std::memory_order_acquire) ? decoded_ : std::span<const uint8_t>();
}

void unwind_rule::keep_decoded(std::span<const uint8_t> decoded) const
{
    std::lock_guard guard(decoded_lock);
    if (has_decoded_)
        return;
    decoded_.assign(decoded.begin(), decoded.end());
    has_decoded_.store(true, std::memory_order_release);
}
