// What unwinding needs of a thread, taken while it is held: its registers and a copy of its stack. The walk
// runs on it after the release, so a thread is not held for the walk.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "machine_registers.h"
#include "target_memory.h"

class target_image;

class thread_snapshot
{
public:
    // Takes the snapshot; the calling thread must hold tid stopped. False when there are no registers of a
    // 64-bit thread.
    bool take(target_image& image, pid_t tid);

    pid_t tid() const { return tid_; }
    // As ptrace gave them; of length 0 when it refused, with error() as the reason.
    const register_set& raw_registers() const { return raw_registers_; }
    int error() const { return error_; }
    // Null before take, or when they could not be read.
    const machine_registers* registers() const { return has_registers_ ? &registers_ : nullptr; }

    // Reads a word of the copied stack. False when it was not copied.
    bool read_word(uint64_t address, uint64_t& value) const;

    // Adds the page of an address. For the walk that runs while the thread is held.
    bool copy_page(target_memory& memory, uint64_t address);

    // Of what was copied, from the stack pointer upwards.
    uint64_t stack_end() const { return start_ + size_; }

private:
    using page = std::array<uint8_t, target_memory::page_bytes>;

    bool copy_stack(target_image& image);

    pid_t tid_ = 0;
    register_set raw_registers_;
    int error_ = 0;
    bool has_registers_ = false;
    machine_registers registers_;
    uint64_t start_ = 0;
    size_t size_ = 0;
    std::unique_ptr<uint8_t[]> stack_;
    std::unordered_map<uint64_t, std::unique_ptr<page>> pages_;
};
