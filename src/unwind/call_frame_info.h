// Call-frame information: decodes the entries of .eh_frame and .debug_frame, and writes the one entry that
// libunwind gets to see for a pc. Every byte comes from the target and is checked here, before libunwind
// meets it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

// Where entries are read from. Both forms are addressed alike: by the target's address for .eh_frame, by the
// offset in the section for .debug_frame.
struct frame_section {
    bool is_debug_frame = false;
    uint64_t load_bias = 0;  // added to the pcs of .debug_frame
    std::function<bool(uint64_t at, void* to, size_t size)> read;
};

// One frame description entry together with its common information entry.
struct frame_entry {
    uint64_t start = 0;  // [start, end): the pcs that it describes
    uint64_t end = 0;
    uint64_t code_align = 1;
    int64_t data_align = -8;
    uint64_t return_column = 0;
    bool signal_frame = false;
    uint8_t pointer_form = 0;  // of DW_CFA_set_loc
    std::vector<uint8_t> initial_rules;
    std::vector<uint8_t> rules;
    uint64_t rules_at = 0;
};

// Reads the frame description entry at a place. Nothing when it is damaged, or no frame description.
std::optional<frame_entry> read_frame_entry(const frame_section& section, uint64_t at);

// Where entries start: one per pc range.
struct frame_index_entry {
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t at = 0;
};

// Walks a whole section of size bytes and returns its entries sorted by pc.
std::vector<frame_index_entry> index_frame_section(const frame_section& section, uint64_t at, uint64_t size);

// How libunwind gets to know about a pc: bytes that it reads as if they were the target's, namely a search
// table with one row, a common information entry, and a frame description entry. The same for every thread
// that meets the pc.
class unwind_rule
{
public:
    // The entry's range and kind count; bytes as assembled for it.
    unwind_rule(const frame_entry& entry, std::vector<uint8_t> bytes)
        : start_(entry.start), end_(entry.end), signal_frame_(entry.signal_frame), bytes_(std::move(bytes))
    {
    }

    // Where the bytes appear to be: an address that no user memory has.
    static constexpr uint64_t address = 0xffff'f000'0000'0000;
    static constexpr size_t table_bytes = 8;  // the row; the entries follow it

    const std::vector<uint8_t>& bytes() const { return bytes_; }
    uint64_t start() const { return start_; }
    uint64_t end() const { return end_; }
    bool signal_frame() const { return signal_frame_; }

    // libunwind's own decoding of the entries, in its private form: empty until someone has kept it. Kept, it
    // spares each later walk the decoding, and the four signal-mask system calls of libunwind's allocator
    // that go with it.
    std::span<const uint8_t> decoded() const;
    void keep_decoded(std::span<const uint8_t> decoded) const;

private:
    const uint64_t start_;
    const uint64_t end_;
    const bool signal_frame_;
    const std::vector<uint8_t> bytes_;
    mutable std::vector<uint8_t> decoded_;
    mutable std::atomic<bool> has_decoded_ = false;
};

// The rule for pc that an entry describes: its program up to pc, without what libunwind must not see. Null
// when the program is damaged.
std::unique_ptr<unwind_rule> make_unwind_rule(const frame_entry& entry, uint64_t pc);

// The rule for any pc that no table describes, from one of the two programs of machine.h.
std::unique_ptr<unwind_rule> make_unwind_rule(std::span<const uint8_t> rules);
