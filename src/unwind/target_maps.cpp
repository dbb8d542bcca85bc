// Reads /proc/<pid>/maps. See target_maps.h.
#include "target_maps.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace
{

constexpr int max_refreshes = 16;  // a target that maps and unmaps all the time must not slow a dump down
// Below it a pc comes from a null pointer: nothing new to find.
constexpr uint64_t lowest_mapped_address = 0x10000;

}  // namespace

bool parse_mapping(const char* line, mapping& out)
{
    char access[5] = {};
    int path_at = 0;
    if (sscanf(line, "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*x:%*x %" SCNu64 " %n", &out.start, &out.end,
               access, &out.file_offset, &out.inode, &path_at) != 5 ||
        out.start >= out.end) {
        return false;
    }
    out.readable = access[0] == 'r';
    out.writable = access[1] == 'w';
    out.executable = access[2] == 'x';
    out.path = path_at > 0 ? line + path_at : "";
    return true;
}

const mapping* find_mapping(const mapping_list& list, uint64_t address)
{
    auto after = std::upper_bound(list.begin(), list.end(), address,
                                  [](uint64_t a, const mapping& m) { return a < m.start; });
    if (after == list.begin())
        return nullptr;
    const mapping& candidate = *std::prev(after);
    return address < candidate.end ? &candidate : nullptr;
}

target_maps::target_maps(pid_t tid) : tid_(tid), list_(std::make_shared<mapping_list>())
{
    read();
}

void target_maps::read()
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/maps", tid_);
    FILE* file = fopen(path, "re");
    if (file == nullptr)
        return;
    auto fresh = std::make_shared<mapping_list>();
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t length;
    while ((length = getline(&line, &capacity, file)) > 0) {
        if (line[length - 1] == '\n')
            line[length - 1] = '\0';
        mapping next;
        if (parse_mapping(line, next))
            fresh->push_back(std::move(next));
    }
    free(line);
    fclose(file);
    if (fresh->empty())
        return;  // the target is going away; what was known still names its frames
    std::unique_lock guard(lock_);
    list_ = std::move(fresh);
}

mapping_range target_maps::find(uint64_t address) const
{
    std::shared_lock guard(lock_);
    const mapping* found = find_mapping(*list_, address);
    if (found == nullptr)
        return {};
    return {found->start, found->end, found->writable, found->executable};
}

mapping_range target_maps::find_fresh(uint64_t address)
{
    mapping_range found = find(address);
    if (found || address < lowest_mapped_address || address >> 56 != 0)
        return found;
    {
        std::unique_lock guard(lock_);
        if (refreshes_ >= max_refreshes)
            return {};
        refreshes_++;
    }
    read();
    return find(address);
}

bool target_maps::in_main_stack(uint64_t address) const
{
    std::shared_lock guard(lock_);
    const mapping* found = find_mapping(*list_, address);
    return found != nullptr && found->path == "[stack]";
}

std::shared_ptr<const mapping_list> target_maps::list() const
{
    std::shared_lock guard(lock_);
    return list_;
}
