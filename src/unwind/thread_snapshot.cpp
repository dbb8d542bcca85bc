// See thread_snapshot.h.
#include "thread_snapshot.h"

#include <elf.h>
#include <errno.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstring>

#include "machine.h"
#include "unwind_walk.h"

namespace
{

// Copies usually end sooner, at the end of the stack's mapping. What lies beyond is copied as a walk meets
// it.
constexpr size_t max_copy_bytes = size_t{256} * 1024;

// Walks the stack of a held thread, so that every page that the later walk needs is in the snapshot.
void collect_pages(target_image& image, thread_snapshot& thread)
{
    unw_addr_space_t space = unw_create_addr_space(unwind_accessors(), 0);
    void* context = space != nullptr ? _UPT_create(thread.tid()) : nullptr;
    if (context != nullptr) {
        unw_cursor_t cursor;
        unwind_walk walk(image, thread, cursor, unwind_walk::mode::held);
        if (unw_init_remote(&cursor, space, context) == 0) {
            for (int level = 1; level < unwind_walk::max_frames && walk.step();)
                level++;
        }
        _UPT_destroy(context);
    }
    if (space != nullptr)
        unw_destroy_addr_space(space);
}

}  // namespace

// Copies from the stack pointer upwards. True when that is all of the stack that the thread was started on;
// false when it is longer, or when the thread runs on another one (a signal's alternate stack, a
// coroutine's), from which a walk crosses over.
bool thread_snapshot::copy_stack(target_image& image)
{
    const uint64_t pointer = registers_.word[static_cast<size_t>(machine::stack_pointer)];
    const mapping_range stack = image.maps().find(pointer);
    start_ = std::max(stack.start, (pointer - machine::red_zone) & ~uint64_t{7});
    const size_t wanted = stack ? std::min<uint64_t>(stack.end - start_, max_copy_bytes) : max_copy_bytes;
    stack_ = std::make_unique_for_overwrite<uint8_t[]>(wanted);
    size_ = image.memory().read(start_, stack_.get(), wanted, tid_);
    if (size_ == max_copy_bytes)
        return false;
    if (!stack)
        return true;  // a thread younger than the list of mappings: what could be copied is its own stack
    return (registers_.thread_pointer >= stack.start && registers_.thread_pointer < stack.end) ||
           image.maps().in_main_stack(pointer);
}

bool thread_snapshot::take(target_image& image, pid_t tid)
{
    tid_ = tid;
    size_ = 0;
    pages_.clear();
    iovec answer{raw_registers_.bytes.data(), raw_registers_.bytes.size()};
    const bool read = ptrace(PTRACE_GETREGSET, tid, NT_PRSTATUS, &answer) == 0;
    error_ = read ? 0 : errno;
    raw_registers_.length = read ? answer.iov_len : 0;
    has_registers_ = read && machine::read_registers(tid, raw_registers_, registers_);
    if (!has_registers_)
        return false;
    if (!copy_stack(image) || image.memory().needs_ptrace())
        collect_pages(image, *this);
    return true;
}

bool thread_snapshot::read_word(uint64_t address, uint64_t& value) const
{
    if (address - start_ < size_ && size_ - (address - start_) >= sizeof(value)) {
        memcpy(&value, stack_.get() + (address - start_), sizeof(value));
        return true;
    }
    const uint64_t skip = address % target_memory::page_bytes;
    const auto found = pages_.find(address - skip);
    if (found == pages_.end() || skip + sizeof(value) > target_memory::page_bytes)
        return false;
    memcpy(&value, found->second->data() + skip, sizeof(value));
    return true;
}

bool thread_snapshot::copy_page(target_memory& memory, uint64_t address)
{
    const uint64_t start = address - address % target_memory::page_bytes;
    auto fresh = std::make_unique<page>();
    if (memory.read(start, fresh->data(), fresh->size(), tid_) != fresh->size())
        return false;
    pages_.insert_or_assign(start, std::move(fresh));
    return true;
}
