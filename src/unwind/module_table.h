// The ELF modules of the target and their call-frame tables. A module is found from a pc: through the
// mappings to the ELF header in the target's memory, and from its program headers to the tables, so no file
// is needed for the usual case. Not locked: target_image lets one worker in at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "call_frame_info.h"
#include "target_maps.h"
#include "target_memory.h"

struct elf_module {
    uint64_t load_bias = 0;  // address in the target less address in the file
    mapping header;          // the mapping that begins with the ELF header
    std::string build_id;    // as the loaded image says; empty without one
    struct segment {
        uint64_t start = 0;
        uint64_t end = 0;
    };
    std::vector<segment> segments;  // loaded ones, in the target's addresses

    // The linker's binary-search table, in the target: rows of two 32-bit offsets from table_base.
    uint64_t table_base = 0;
    uint64_t table_rows_at = 0;
    uint64_t table_rows = 0;

    // Where there is none: an index made once from the sections.
    bool indexed = false;
    std::vector<frame_index_entry> frame_index;
    bool debug_frame_read = false;
    std::vector<uint8_t> debug_frame;
    std::vector<frame_index_entry> debug_frame_index;

    bool holds(uint64_t pc) const;
};

class module_table
{
public:
    module_table(pid_t tid, target_maps& maps, target_memory& memory)
        : tid_(tid), maps_(maps), memory_(memory)
    {
    }

    // The module whose loaded segments hold pc, or null.
    elf_module* find(uint64_t pc, pid_t held_tid);

    // What the tables say of pc. Nothing where they are silent or damaged.
    std::optional<frame_entry> find_frame_entry(uint64_t pc, pid_t held_tid);

private:
    std::unique_ptr<elf_module> read_module(const mapping& header, pid_t held_tid);
    void read_search_table(elf_module& owner, uint64_t header_at, uint64_t header_bytes, pid_t held_tid);
    std::optional<uint64_t> search(const elf_module& owner, uint64_t pc, pid_t held_tid);
    void index_frames(elf_module& owner, pid_t held_tid);
    void read_debug_frame(elf_module& owner);
    frame_section loaded_frames(pid_t held_tid);
    static frame_section debug_frames(const elf_module& owner);

    const pid_t tid_;
    target_maps& maps_;
    target_memory& memory_;
    std::vector<std::unique_ptr<elf_module>> modules_;
    size_t kept_bytes_ = 0;  // of their indexes and sections
};
