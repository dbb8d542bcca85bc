// See module_table.h. Formats: elf(5), and the Linux Standard Base for .eh_frame_hdr.
#include "module_table.h"

#include <elf.h>

#include <algorithm>
#include <cstring>

#include "byte_reader.h"
#include "elf_file.h"

namespace
{

// From a pc's mapping to the ELF header: a handful, more for odd linkers.
constexpr int max_mappings_back = 64;
// Usual files have 10 to 15.
constexpr size_t max_program_headers = 64;
constexpr uint64_t max_frame_bytes = 256u << 20;
constexpr uint64_t max_note_bytes = 4096;
// A target can have any number of modules made for it: beyond this the tables of further ones are not read.
constexpr size_t max_kept_bytes = size_t{256} << 20;
constexpr size_t row_bytes = 8;

uint64_t page_of(uint64_t address)
{
    return address & ~uint64_t{target_memory::page_bytes - 1};
}

const frame_index_entry* find_entry(const std::vector<frame_index_entry>& index, uint64_t pc)
{
    auto after = std::upper_bound(index.begin(), index.end(), pc,
                                  [](uint64_t a, const auto& entry) { return a < entry.start; });
    if (after == index.begin())
        return nullptr;
    const frame_index_entry& candidate = *std::prev(after);
    return pc < candidate.end ? &candidate : nullptr;
}

}  // namespace

bool elf_module::holds(uint64_t pc) const
{
    return std::any_of(segments.begin(), segments.end(),
                       [pc](const segment& s) { return pc >= s.start && pc < s.end; });
}

elf_module* module_table::find(uint64_t pc, pid_t held_tid)
{
    for (const auto& known : modules_) {
        if (known->holds(pc))
            return known.get();
    }
    if (!maps_.executable(pc))
        return nullptr;
    const auto list = maps_.list();
    const mapping* at = find_mapping(*list, pc);
    for (int i = 0; at != nullptr && i < max_mappings_back; i++) {
        if (auto found = read_module(*at, held_tid); found && found->holds(pc)) {
            modules_.push_back(std::move(found));
            return modules_.back().get();
        }
        if (at == list->data())
            break;
        at--;
    }
    return nullptr;
}

std::unique_ptr<elf_module> module_table::read_module(const mapping& header, pid_t held_tid)
{
    Elf64_Ehdr file;
    if (!header.readable || !memory_.read_constant(header.start, &file, sizeof(file), held_tid))
        return nullptr;
    if (memcmp(file.e_ident, ELFMAG, SELFMAG) != 0 || file.e_ident[EI_CLASS] != ELFCLASS64)
        return nullptr;
    if (file.e_phentsize != sizeof(Elf64_Phdr) || file.e_phnum == 0 || file.e_phnum > max_program_headers)
        return nullptr;
    std::vector<Elf64_Phdr> headers(file.e_phnum);
    if (!memory_.read_constant(header.start + file.e_phoff, headers.data(),
                               headers.size() * sizeof(Elf64_Phdr), held_tid)) {
        return nullptr;
    }
    auto first =
        std::find_if(headers.begin(), headers.end(), [](const auto& h) { return h.p_type == PT_LOAD; });
    if (first == headers.end())
        return nullptr;
    auto found = std::make_unique<elf_module>();
    found->header = header;
    // The header's mapping shows the file from header.file_offset on; the first segment is the one that holds
    // the ELF header.
    found->load_bias = header.start - (page_of(first->p_vaddr) - page_of(first->p_offset));
    for (const Elf64_Phdr& h : headers) {
        const uint64_t at = found->load_bias + h.p_vaddr;
        if (at + h.p_memsz < at)
            return nullptr;
        if (h.p_type == PT_LOAD)
            found->segments.push_back({at, at + h.p_memsz});
    }
    for (const Elf64_Phdr& h : headers) {
        const uint64_t at = found->load_bias + h.p_vaddr;
        if (h.p_type == PT_GNU_EH_FRAME)
            read_search_table(*found, at, h.p_memsz, held_tid);
        if (h.p_type == PT_NOTE && found->build_id.empty() && h.p_memsz <= max_note_bytes) {
            std::vector<uint8_t> notes(h.p_memsz);
            if (memory_.read_constant(at, notes.data(), notes.size(), held_tid))
                found->build_id = find_build_id(notes);
        }
    }
    return found;
}

// Takes the table over only when it has the one form that linkers write and lies wholly in the module:
// everything else is indexed from the section itself.
void module_table::read_search_table(elf_module& owner, uint64_t header_at, uint64_t header_bytes,
                                     pid_t held_tid)
{
    constexpr size_t fixed_bytes = 12;  // version, three encodings, pointer to .eh_frame, number of rows
    uint8_t bytes[fixed_bytes];
    if (header_bytes < fixed_bytes || !owner.holds(header_at) || !owner.holds(header_at + header_bytes - 1))
        return;
    if (!memory_.read_constant(header_at, bytes, sizeof(bytes), held_tid))
        return;
    using namespace pointer_encoding;
    if (bytes[0] != 1 || bytes[1] != (pc_relative | sdata4) || bytes[2] != udata4 ||
        bytes[3] != (data_relative | sdata4))
        return;
    uint32_t rows;
    memcpy(&rows, bytes + 8, sizeof(rows));
    if (rows == 0 || rows > (header_bytes - fixed_bytes) / row_bytes)
        return;
    owner.table_base = header_at;
    owner.table_rows_at = header_at + fixed_bytes;
    owner.table_rows = rows;
}

std::optional<uint64_t> module_table::search(const elf_module& owner, uint64_t pc, pid_t held_tid)
{
    const auto offset = static_cast<int64_t>(pc - owner.table_base);
    int32_t row[2];
    uint64_t low = 0;
    for (uint64_t high = owner.table_rows; low < high;) {
        const uint64_t middle = low + (high - low) / 2;
        if (!memory_.read_constant(owner.table_rows_at + middle * row_bytes, row, sizeof(row), held_tid))
            return std::nullopt;
        if (offset < row[0]) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    if (low == 0)
        return std::nullopt;
    if (!memory_.read_constant(owner.table_rows_at + (low - 1) * row_bytes, row, sizeof(row), held_tid))
        return std::nullopt;
    return owner.table_base + static_cast<uint64_t>(int64_t{row[1]});
}

frame_section module_table::loaded_frames(pid_t held_tid)
{
    return {false, 0, [this, held_tid](uint64_t at, void* to, size_t size) {
                return memory_.read_constant(at, to, size, held_tid);
            }};
}

frame_section module_table::debug_frames(const elf_module& owner)
{
    return {true, owner.load_bias, [&bytes = owner.debug_frame](uint64_t at, void* to, size_t size) {
                if (at > bytes.size() || size > bytes.size() - at)
                    return false;
                memcpy(to, bytes.data() + at, size);
                return true;
            }};
}

void module_table::index_frames(elf_module& owner, pid_t held_tid)
{
    owner.indexed = true;
    if (kept_bytes_ > max_kept_bytes)
        return;
    const auto file = open_mapped_file(tid_, owner.header, owner.build_id);
    if (!file)
        return;
    const elf_file::section* section = file->find_section(".eh_frame");
    if (section == nullptr || section->size == 0 || section->size > max_frame_bytes)
        return;
    const uint64_t at = owner.load_bias + section->address;
    if (!owner.holds(at) || !owner.holds(at + section->size - 1))
        return;
    std::vector<uint8_t> bytes(section->size);
    if (memory_.read(at, bytes.data(), bytes.size(), held_tid) != bytes.size())
        return;
    const frame_section copy = {
        false, 0, [&](uint64_t from, void* to, size_t size) {
            if (from < at || from - at > bytes.size() || size > bytes.size() - (from - at))
                return false;
            memcpy(to, bytes.data() + (from - at), size);
            return true;
        }};
    owner.frame_index = index_frame_section(copy, at, section->size);
    kept_bytes_ += owner.frame_index.size() * sizeof(frame_index_entry);
}

void module_table::read_debug_frame(elf_module& owner)
{
    owner.debug_frame_read = true;
    if (kept_bytes_ > max_kept_bytes)
        return;
    const auto file = open_mapped_file(tid_, owner.header, owner.build_id);
    if (!file)
        return;
    owner.debug_frame = file->section_bytes(".debug_frame");
    owner.debug_frame_index = index_frame_section(debug_frames(owner), 0, owner.debug_frame.size());
    kept_bytes_ += owner.debug_frame.size() + owner.debug_frame_index.size() * sizeof(frame_index_entry);
}

std::optional<frame_entry> module_table::find_frame_entry(uint64_t pc, pid_t held_tid)
{
    elf_module* owner = find(pc, held_tid);
    if (owner == nullptr)
        return std::nullopt;
    const auto covers = [pc](const std::optional<frame_entry>& entry) {
        return entry && pc >= entry->start && pc < entry->end;
    };
    if (owner->table_rows > 0) {
        const auto at = search(*owner, pc, held_tid);
        if (at && owner->holds(*at)) {
            if (auto entry = read_frame_entry(loaded_frames(held_tid), *at); covers(entry))
                return entry;
        }
    } else {
        if (!owner->indexed)
            index_frames(*owner, held_tid);
        if (const frame_index_entry* found = find_entry(owner->frame_index, pc)) {
            if (auto entry = read_frame_entry(loaded_frames(held_tid), found->at); covers(entry))
                return entry;
        }
    }
    if (!owner->debug_frame_read)
        read_debug_frame(*owner);
    if (const frame_index_entry* found = find_entry(owner->debug_frame_index, pc)) {
        if (auto entry = read_frame_entry(debug_frames(*owner), found->at); covers(entry))
            return entry;
    }
    return std::nullopt;
}
