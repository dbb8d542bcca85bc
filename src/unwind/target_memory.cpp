// See target_memory.h.
#include "target_memory.h"

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

// 2 MiB; tables are read once for each distinct pc, so few pages come back.
constexpr size_t max_kept_pages = 512;

int open_mem(pid_t tid)
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/mem", tid);
    return open(path, O_RDONLY | O_CLOEXEC);
}

// A word at a time, up to the first that cannot be read.
size_t peek(pid_t tid, uint64_t address, uint8_t* to, size_t size)
{
    size_t done = 0;
    while (done < size) {
        const uint64_t at = (address + done) & ~uint64_t{7};
        errno = 0;
        const long word = ptrace(PTRACE_PEEKDATA, tid, at, nullptr);
        if (errno != 0)
            break;
        const size_t skip = address + done - at;
        const size_t count = std::min(sizeof(word) - skip, size - done);
        memcpy(to + done, reinterpret_cast<const uint8_t*>(&word) + skip, count);
        done += count;
    }
    return done;
}

}  // namespace

target_memory::target_memory(pid_t tid) : tid_(tid), mem_fd_(open_mem(tid)) {}

target_memory::~target_memory()
{
    if (mem_fd_ >= 0)
        close(mem_fd_);
}

size_t target_memory::read(uint64_t address, void* to, size_t size, pid_t held_tid)
{
    iovec local{to, size};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of another process
    iovec remote{reinterpret_cast<void*>(address), size};
    const ssize_t count = process_vm_readv(tid_, &local, 1, &remote, 1, 0);
    if (count > 0)
        return static_cast<size_t>(count);
    if (count == 0 || errno == EFAULT)
        return 0;  // the target has no such memory: the other ways would say the same
    const ssize_t from_file = mem_fd_ >= 0 ? pread(mem_fd_, to, size, static_cast<off_t>(address)) : -1;
    if (from_file > 0)
        return static_cast<size_t>(from_file);
    if (held_tid == 0)
        return 0;
    needs_ptrace_ = true;
    return peek(held_tid, address, static_cast<uint8_t*>(to), size);
}

bool target_memory::read_constant(uint64_t address, void* to, size_t size, pid_t held_tid)
{
    if (address + size < address)
        return false;
    auto* out = static_cast<uint8_t*>(to);
    std::lock_guard guard(lock_);
    while (size > 0) {
        const uint64_t start = address & ~uint64_t{page_bytes - 1};
        auto found = pages_.find(start);
        if (found == pages_.end()) {
            auto fresh = std::make_unique<page>();
            if (read(start, fresh->data(), page_bytes, held_tid) != page_bytes)
                return false;
            if (pages_.size() >= max_kept_pages)
                pages_.clear();
            found = pages_.emplace(start, std::move(fresh)).first;
        }
        const size_t skip = address - start;
        const size_t count = std::min(size, page_bytes - skip);
        memcpy(out, found->second->data() + skip, count);
        out += count;
        address += count;
        size -= count;
    }
    return true;
}
