// The target's mappings, as unwinding needs them: every mapping, with its access and its file.
// Shared by the workers of a dump. The target runs on meanwhile, so an address that is not found makes the
// list be read again.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

// One line of /proc/<pid>/maps, see proc_pid_maps(5). [start, end) in the target's addresses.
struct mapping {
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t file_offset = 0;
    uint64_t inode = 0;  // 0 without a file
    bool readable = false;
    bool writable = false;
    bool executable = false;
    std::string path;  // as the kernel prints it; may be hostile text
};

using mapping_list = std::vector<mapping>;  // sorted by address

// What is asked most, without the path.
struct mapping_range {
    uint64_t start = 0;
    uint64_t end = 0;
    bool writable = false;
    bool executable = false;
    explicit operator bool() const { return end != 0; }
};

class target_maps
{
public:
    // tid: any live thread of the target.
    explicit target_maps(pid_t tid);

    // The mapping that holds address, or an empty range. Never reads the file.
    mapping_range find(uint64_t address) const;

    // The same, but a miss reads the file again, a bounded number of times in a dump.
    mapping_range find_fresh(uint64_t address);

    bool executable(uint64_t address) { return find_fresh(address).executable; }

    // True when the address is in the mapping that the kernel calls the main thread's stack.
    bool in_main_stack(uint64_t address) const;

    std::shared_ptr<const mapping_list> list() const;

private:
    void read();

    const pid_t tid_;
    mutable std::shared_mutex lock_;
    std::shared_ptr<const mapping_list> list_;
    int refreshes_ = 0;
};

// Parses one line, without its newline. False when it is not a maps line.
bool parse_mapping(const char* line, mapping& out);

// The mapping of a sorted list that holds address, or null.
const mapping* find_mapping(const mapping_list& list, uint64_t address);
