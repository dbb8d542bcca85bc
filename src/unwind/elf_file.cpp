// See elf_file.h.
#include "elf_file.h"

#include <fcntl.h>
#include <gelf.h>
#include <lzma.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "byte_reader.h"

namespace
{

constexpr uint64_t max_section_bytes =
    256u << 20;                          // the biggest programs known have some 100 MiB of call-frame tables
constexpr unsigned max_sections = 1024;  // linked files have some 40
constexpr uint64_t max_section_names_bytes = 1u << 20;
constexpr size_t max_section_name = 64;

constexpr size_t max_unpacked_bytes = 64u << 20;  // MiniDebugInfo of the biggest programs takes a few MiB
constexpr uint64_t max_unpacker_bytes = 128u << 20;

// Unpacks xz data. Empty when it is damaged, or when it grows beyond what is sensible.
std::vector<char> unpack_xz(const std::vector<uint8_t>& packed)
{
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_stream_decoder(&stream, max_unpacker_bytes, 0) != LZMA_OK)
        return {};
    stream.next_in = packed.data();
    stream.avail_in = packed.size();
    std::vector<char> unpacked;
    lzma_ret result = LZMA_OK;
    while (result == LZMA_OK && unpacked.size() < max_unpacked_bytes) {
        const size_t done = unpacked.size();
        unpacked.resize(std::min(max_unpacked_bytes, std::max(packed.size() * 4, done * 2)));
        stream.next_out = reinterpret_cast<uint8_t*>(unpacked.data() + done);
        stream.avail_out = unpacked.size() - done;
        result = lzma_code(&stream, LZMA_FINISH);
    }
    unpacked.resize(stream.total_out);
    lzma_end(&stream);
    return result == LZMA_STREAM_END ? unpacked : std::vector<char>();
}

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
    elf_ = has_few_sections() ? elf_begin(fd, ELF_C_READ, nullptr) : nullptr;
    return read_sections();
}

uint64_t elf_file::inode() const
{
    struct stat status {
    };
    return fd_ >= 0 && fstat(fd_, &status) == 0 ? status.st_ino : 0;
}

bool elf_file::open_image(std::vector<char> image)
{
    image_ = std::move(image);
    elf_version(EV_CURRENT);
    elf_ = has_few_sections() ? elf_memory(image_.data(), image_.size()) : nullptr;
    return read_sections();
}

bool elf_file::has_few_sections() const
{
    Elf64_Ehdr header;
    return read(0, &header, sizeof(header)) == sizeof(header) && header.e_shnum <= max_sections &&
           (header.e_shnum > 0 || header.e_shoff == 0);  // else their number stands elsewhere: elf(5)
}

bool elf_file::read_sections()
{
    if (elf_ == nullptr || elf_kind(elf_) != ELF_K_ELF || gelf_getclass(elf_) != ELFCLASS64)
        return false;
    size_t names = 0;
    GElf_Shdr table;
    if (elf_getshdrstrndx(elf_, &names) != 0 || gelf_getshdr(elf_getscn(elf_, names), &table) == nullptr ||
        table.sh_size > max_section_names_bytes)
        return true;
    sections_.emplace_back();
    Elf_Scn* next = nullptr;
    while ((next = elf_nextscn(elf_, next)) != nullptr) {
        GElf_Shdr header;
        if (gelf_getshdr(next, &header) == nullptr)
            break;
        const char* name = elf_strptr(elf_, names, header.sh_name);
        sections_.push_back({name != nullptr ? std::string(name, strnlen(name, max_section_name)) : "",
                             header.sh_type, header.sh_flags, header.sh_addr, header.sh_offset,
                             header.sh_size, header.sh_link});
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
    if (wanted == nullptr || wanted->type == SHT_NOBITS || wanted->size == 0 ||
        wanted->size > max_section_bytes)
        return {};
    char last;
    if (read(wanted->offset + wanted->size - 1, &last, 1) != 1)
        return {};  // claims more than the file has
    if ((wanted->flags & SHF_COMPRESSED) == 0) {
        std::vector<uint8_t> bytes(wanted->size);
        if (read(wanted->offset, bytes.data(), bytes.size()) != bytes.size())
            return {};
        return bytes;
    }
    Elf_Scn* source = elf_getscn(elf_, static_cast<size_t>(wanted - sections_.data()));
    GElf_Chdr compressed;
    if (gelf_getchdr(source, &compressed) == nullptr || compressed.ch_size > max_section_bytes ||
        elf_compress(source, 0, 0) < 0)
        return {};
    const Elf_Data* data = elf_getdata(source, nullptr);
    if (data == nullptr || data->d_buf == nullptr)
        return {};
    const auto* bytes = static_cast<const uint8_t*>(data->d_buf);
    return {bytes, bytes + data->d_size};
}

std::string elf_file::build_id() const
{
    return find_build_id(section_bytes(".note.gnu.build-id"));
}

std::unique_ptr<elf_file> elf_file::open_mini_debug_info() const
{
    const section* holder = find_section(".gnu_debugdata");
    if (holder == nullptr || (holder->flags & SHF_COMPRESSED) != 0 || holder->size > max_unpacked_bytes)
        return nullptr;
    const std::vector<uint8_t> packed = section_bytes(".gnu_debugdata");
    auto unpacked = std::make_unique<elf_file>();
    return unpacked->open_image(unpack_xz(packed)) ? std::move(unpacked) : nullptr;
}

std::string find_build_id(std::span<const uint8_t> notes)
{
    byte_reader reader(notes, 0);
    while (!reader.at_end()) {
        const auto name_bytes = reader.read<uint32_t>();
        const auto data_bytes = reader.read<uint32_t>();
        const auto type = reader.read<uint32_t>();
        const uint8_t* name = reader.take((uint64_t{name_bytes} + 3) & ~uint64_t{3});
        const uint8_t* data = reader.take(data_bytes);
        if (!reader.ok())
            return {};
        if (type == NT_GNU_BUILD_ID && name_bytes == 4 && memcmp(name, "GNU", 4) == 0) {
            return {reinterpret_cast<const char*>(data), data_bytes};
        }
        if (!reader.at_end())  // the last one's padding may be missing
            reader.take(-data_bytes & 3U);
    }
    return {};
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
        if (found && (build_id.empty() ? found->inode() == file.inode : found->build_id() == build_id))
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
