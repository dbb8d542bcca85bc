// See fake_process.h. __wrap_name: ld(1), --wrap.
#include "fake_process.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "system_log.h"

fake_process target;

namespace
{
const bytes* find_file(const std::string& path)
{
    static const std::string folder = "/proc/" + std::to_string(fake_pid) + "/";
    const auto found =
        path.starts_with(folder) ? target.files.find(path.substr(folder.size())) : target.files.end();
    return found != target.files.end() ? &found->second : nullptr;
}

}  // namespace

int memory_file(bytes content)
{
    const int fd = memfd_create("fuzz", MFD_CLOEXEC);
    check(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    lseek(fd, 0, SEEK_SET);
    return fd;
}

extern "C" {
FILE* __real_fopen(const char* path, const char* mode);
int __real_open(const char* path, int flags, ...);

FILE* __wrap_fopen(const char* path, const char* mode)
{
    const bytes* file = find_file(path);
    return file == nullptr ? __real_fopen(path, mode)
                           : fmemopen(const_cast<uint8_t*>(file->data()), file->size(), "r");
}

int __wrap_open(const char* path, int flags, ...)
{
    if (const bytes* file = find_file(path))
        return memory_file(*file);
    if ((flags & O_CREAT) == 0)
        return __real_open(path, flags);
    target.created = path;
    errno = EACCES;
    return -1;
}

ssize_t __wrap_process_vm_readv(pid_t, const iovec* local, unsigned long, const iovec* remote, unsigned long,
                                unsigned long)
{
    const auto at = reinterpret_cast<uint64_t>(remote->iov_base);
    for (const auto& [start, content] : target.memory) {
        if (at < start || at - start >= target.region_bytes)
            continue;
        const size_t count = std::min(local->iov_len, target.region_bytes - (at - start));
        memset(local->iov_base, 0, count);
        if (at - start < content.size())
            memcpy(local->iov_base, &content[at - start], std::min(count, content.size() - (at - start)));
        return static_cast<ssize_t>(count);
    }
    errno = EFAULT;
    return -1;
}

long __wrap_ptrace(int request, pid_t, const void*, iovec* set)
{
    if (request != PTRACE_GETREGSET || target.registers.empty())
        return -1;
    set->iov_len = sizeof(user_regs_struct);
    memcpy(set->iov_base, target.registers.data(), std::min(set->iov_len, target.registers.size()));
    return 0;
}

// In place of the log: only what the format does to the arguments is of interest.
int __android_log_print(int, const char*, const char* fmt, ...)
{
    char text[2048];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return length;
}
}
