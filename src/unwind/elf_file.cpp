// See elf_file.h.
#include "elf_file.h"

#include <elfutils/libdwelf.h>
#include <fcntl.h>
#include <gelf.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace
{

constexpr uint64_t max_section_bytes =
    256u << 20;  // the biggest programs known have some 100 MiB of call-frame tables

// The descriptor of a regular file, or -1. Looks before it opens: opening a device can have effects, a FIFO
// blocks.
int open_regular(const char* path)
{
    const int handle = open(path, O_PATH | O_CLOEXEC);
    if (handle < 0)
        return -1;
    struct stat status {
    };
    int fd = -1;
    if (fstat(handle, &status) == 0 && S_ISREG(status.st_mode)) {
        char self[40];
        snprintf(self, sizeof(self), "/proc/self/fd/%d", handle);
        fd = open(self, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    close(handle);
    return fd;
}

std::unique_ptr<elf_file> open_elf(const std::string& path)
{
    const int fd = open_regular(path.c_str());
    if (fd < 0)
        return nullptr;
    auto file = std::make_unique<elf_file>();
    if (!file->open_descriptor(fd))
        return nullptr;
    return file;
}

bool has_inode(const std::string& path, uint64_t inode)
{
    struct stat status {
    };
    return stat(path.c_str(), &status) == 0 && status.st_ino == inode;
}

}  // namespace

elf_file::~elf_file()
{
    if (elf_ != nullptr)
        elf_end(elf_);
    if (fd_ >= 0)
        close(fd_);
}

bool elf_file::open_descriptor(int fd)
{
    fd_ = fd;
    elf_version(EV_CURRENT);
    elf_ = elf_begin(fd, ELF_C_READ, nullptr);
    return read_sections();
}

bool elf_file::open_image(std::vector<char> image)
{
    image_ = std::move(image);
    elf_version(EV_CURRENT);
    elf_ = elf_memory(image_.data(), image_.size());
    return read_sections();
}

bool elf_file::read_sections()
{
    if (elf_ == nullptr || elf_kind(elf_) != ELF_K_ELF || gelf_getclass(elf_) != ELFCLASS64)
        return false;
    size_t names = 0;
    if (elf_getshdrstrndx(elf_, &names) != 0)
        return true;
    sections_.emplace_back();
    Elf_Scn* next = nullptr;
    while ((next = elf_nextscn(elf_, next)) != nullptr) {
        GElf_Shdr header;
        if (gelf_getshdr(next, &header) == nullptr)
            break;
        const char* name = elf_strptr(elf_, names, header.sh_name);
        sections_.push_back({name != nullptr ? name : "", header.sh_type, header.sh_flags, header.sh_addr,
                             header.sh_offset, header.sh_size, header.sh_link});
    }
    return true;
}

const elf_file::section* elf_file::find_section(const char* name) const
{
    for (const section& candidate : sections_) {
        if (candidate.name == name)
            return &candidate;
    }
    return nullptr;
}

const elf_file::section* elf_file::find_section(uint32_t type) const
{
    for (const section& candidate : sections_) {
        if (candidate.type == type)
            return &candidate;
    }
    return nullptr;
}

size_t elf_file::read(uint64_t offset, void* to, size_t size) const
{
    if (fd_ < 0) {
        if (offset >= image_.size())
            return 0;
        const size_t count = std::min<uint64_t>(size, image_.size() - offset);
        memcpy(to, image_.data() + offset, count);
        return count;
    }
    const ssize_t count = pread(fd_, to, size, static_cast<off_t>(offset));
    return count > 0 ? static_cast<size_t>(count) : 0;
}

std::vector<uint8_t> elf_file::section_bytes(const char* name) const
{
    const section* wanted = find_section(name);
    if (wanted == nullptr || wanted->type == SHT_NOBITS || wanted->size > max_section_bytes)
        return {};
    Elf_Scn* source = elf_getscn(elf_, static_cast<size_t>(wanted - sections_.data()));
    if ((wanted->flags & SHF_COMPRESSED) != 0) {
        GElf_Chdr compressed;
        if (gelf_getchdr(source, &compressed) == nullptr || compressed.ch_size > max_section_bytes)
            return {};
        if (elf_compress(source, 0, 0) < 0)
            return {};
    }
    const Elf_Data* data = elf_getdata(source, nullptr);
    if (data == nullptr || data->d_buf == nullptr)
        return {};
    const auto* bytes = static_cast<const uint8_t*>(data->d_buf);
    return {bytes, bytes + data->d_size};
}

std::string elf_file::build_id() const
{
    const void* bytes = nullptr;
    const ssize_t size = dwelf_elf_gnu_build_id(elf_, &bytes);
    return size > 0 ? std::string(static_cast<const char*>(bytes), static_cast<size_t>(size)) : std::string();
}

std::unique_ptr<elf_file> elf_file::open_mini_debug_info() const
{
    const std::vector<uint8_t> packed = section_bytes(".gnu_debugdata");
    if (packed.empty())
        return nullptr;
    const int fd = memfd_create("gnu_debugdata", MFD_CLOEXEC);  // libdw unpacks files, not memory
    if (fd < 0)
        return nullptr;
    auto unpacked = std::make_unique<elf_file>();
    if (write(fd, packed.data(), packed.size()) == static_cast<ssize_t>(packed.size()) &&
        lseek(fd, 0, SEEK_SET) == 0) {
        if (Elf* elf = dwelf_elf_begin(fd)) {
            size_t size = 0;
            if (const char* bytes = elf_rawfile(elf, &size); bytes != nullptr)
                unpacked->open_image({bytes, bytes + size});
            elf_end(elf);
        }
    }
    close(fd);
    return unpacked->sections().empty() ? nullptr : std::move(unpacked);
}

std::unique_ptr<elf_file> open_mapped_file(pid_t tid, const mapping& file, const std::string& build_id)
{
    if (file.path.empty() || file.path[0] != '/')
        return nullptr;
    char link[80];
    snprintf(link, sizeof(link), "/proc/%d/map_files/%lx-%lx", tid, static_cast<unsigned long>(file.start),
             static_cast<unsigned long>(file.end));
    if (auto found = open_elf(link))
        return found;
    const std::string by_path[] = {"/proc/" + std::to_string(tid) + "/root" + file.path, file.path};
    for (const std::string& path : by_path) {
        auto found = open_elf(path);
        if (found && (has_inode(path, file.inode) || (!build_id.empty() && found->build_id() == build_id)))
            return found;
    }
    return nullptr;
}

std::unique_ptr<elf_file> open_debug_file(pid_t tid, const std::string& build_id)
{
    if (build_id.size() < 2)
        return nullptr;
    std::string name = "/usr/lib/debug/.build-id/";
    for (size_t i = 0; i < build_id.size(); i++) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(build_id[i]));
        name += digits;
        if (i == 0)
            name += '/';
    }
    name += ".debug";
    const std::string places[] = {"/proc/" + std::to_string(tid) + "/root" + name, name};
    for (const std::string& path : places) {
        auto found = open_elf(path);
        if (found && found->build_id() == build_id && found->find_section(SHT_SYMTAB) != nullptr)
            return found;
    }
    return nullptr;
}
