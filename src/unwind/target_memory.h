// Reads the memory of another process. Shared by the workers of a dump; pages that the target cannot write
// are kept for all of them.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

class target_memory
{
public:
    // tid: any live thread of the target.
    explicit target_memory(pid_t tid);
    ~target_memory();
    target_memory(const target_memory&) = delete;
    target_memory& operator=(const target_memory&) = delete;

    // Reads up to size bytes, now, and returns how many came: fewer where the memory ends. Asks
    // process_vm_readv, then /proc/<pid>/mem where that is refused, then ptrace, for which held_tid must be
    // stopped by the calling thread (0: none is).
    size_t read(uint64_t address, void* to, size_t size, pid_t held_tid = 0);

    // The same through the pages kept for the dump: for memory that does not change. All or nothing.
    bool read_constant(uint64_t address, void* to, size_t size, pid_t held_tid = 0);

    // True once memory came through ptrace: then nothing can be read any more when no thread is held.
    bool needs_ptrace() const { return needs_ptrace_; }

    static constexpr size_t page_bytes = 4096;

private:
    using page = std::array<uint8_t, page_bytes>;

    const pid_t tid_;
    const int mem_fd_;
    std::atomic<bool> needs_ptrace_ = false;
    std::mutex lock_;
    std::unordered_map<uint64_t, std::unique_ptr<page>> pages_;
};
