// Opens the file of a module of the target, without trusting its path or its content: only regular files,
// never blocking, never mapped into the tool (a file cut short while it is mapped kills the reader), never
// fetched from a network.
#pragma once

#include <libelf.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "target_maps.h"

// An open ELF file, or an ELF image in memory.
class elf_file
{
public:
    elf_file() = default;
    ~elf_file();
    elf_file(const elf_file&) = delete;
    elf_file& operator=(const elf_file&) = delete;

    bool open_descriptor(int fd);  // takes the descriptor over
    bool open_image(std::vector<char> image);

    struct section {
        std::string name;
        uint32_t type = 0;  // SHT_…
        uint64_t flags = 0;
        uint64_t address = 0;
        uint64_t offset = 0;
        uint64_t size = 0;
        uint32_t link = 0;
    };
    // By index; the first is the empty one. Empty when the headers are damaged.
    const std::vector<section>& sections() const { return sections_; }
    const section* find_section(const char* name) const;
    const section* find_section(uint32_t type) const;

    // Reads bytes of the file: as many as there are, at most size.
    size_t read(uint64_t offset, void* to, size_t size) const;

    // A section's bytes, decompressed. Empty when it has none in the file, or more than is sensible.
    std::vector<uint8_t> section_bytes(const char* name) const;

    std::string build_id() const;

    // 0 for an image.
    uint64_t inode() const;

    size_t image_bytes() const { return image_.size(); }

    // The small symbol table that distributions pack into stripped files (.gnu_debugdata). Null when there is
    // none.
    std::unique_ptr<elf_file> open_mini_debug_info() const;

private:
    // Asked before libelf, which reserves memory for as many as a file claims to have.
    bool has_few_sections() const;
    bool read_sections();

    Elf* elf_ = nullptr;
    int fd_ = -1;
    std::vector<char> image_;
    std::vector<section> sections_;
};

// The build-id among notes, as they lie in a file or in memory: raw bytes, empty without one.
std::string find_build_id(std::span<const uint8_t> notes);

// Opens the file that a mapping shows: through the kernel's own link to it, then inside the target's root,
// then by its path. The latter two only count when they are the mapped file: by build_id, or by inode when
// that is empty.
std::unique_ptr<elf_file> open_mapped_file(pid_t tid, const mapping& file, const std::string& build_id);

// Opens the debug file of a build-id under /usr/lib/debug of the target's root, then of the tool's own.
std::unique_ptr<elf_file> open_debug_file(pid_t tid, const std::string& build_id);
