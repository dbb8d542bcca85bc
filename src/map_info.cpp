// Parser and printer of /proc/<pid>/maps. The list is filled before any dump thread runs and only read
// afterwards.
#include "map_info.h"

#include <ctype.h>
#include <string.h>

#include <cstdlib>

#include "system_log.h"

process_map_info::process_map_info(pid_t tpid) : header(nullptr), pid(tpid), fmap(nullptr)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/maps", pid);
    fmap = fopen(path, "re");
}

process_map_info::~process_map_info()
{
    if (fmap != nullptr)
        fclose(fmap);
}

int process_map_info::process_create_map_info_list()
{
    if (fmap == nullptr)
        return -2;
    fseek(fmap, 0, SEEK_SET);
    char line[1024];
    bool starts_line = true;  // the further pieces of a long line are of its name, and may look like anything
    for (; fgets(line, sizeof(line), fmap) != nullptr; starts_line = strchr(line, '\n') != nullptr) {
        map_info* mi = starts_line ? parse_maps_line(line) : nullptr;
        if (mi != nullptr) {
            mi->next = header;
            header = mi;
        }
    }
    return 0;
}

map_info* process_map_info::parse_maps_line(const char* line)
{
    const char* text_permissions = "r-x";
    uintptr_t start;
    uintptr_t end;
    char permissions[5];
    // A line that ends before the inode leaves %n unset: then there is no name either.
    int name_pos = static_cast<int>(strlen(line));
    if (sscanf(line, "%lx-%lx %4s %*x %*x:%*x %*d%n", &start, &end, permissions, &name_pos) != 3)
        return nullptr;
    if (strncmp(permissions, text_permissions, 3) != 0)
        return nullptr;

    const char* name = line + name_pos;
    while (isspace(static_cast<unsigned char>(*name)))
        name++;
    size_t name_len = strlen(name);
    if (name_len > 0 && name[name_len - 1] == '\n')
        name_len--;
    if (name_len == 0)
        return nullptr;

    auto* mi = static_cast<map_info*>(calloc(1, sizeof(map_info) + name_len + 1));
    if (mi == nullptr)
        return nullptr;
    mi->start = start;
    mi->end = end;
    if (strlen(permissions) == 4) {
        mi->is_readable = permissions[0] == 'r';
        mi->is_writable = permissions[1] == 'w';
        mi->is_executable = permissions[2] == 'x';
    }
    memcpy(mi->name, name, name_len);  // NOLINT(bugprone-not-null-terminated-result): calloc left the NUL
    return mi;
}

void process_map_info::process_destroy_map_info_list()
{
    while (header != nullptr) {
        map_info* next = header->next;
        free(header);
        header = next;
    }
}

map_info* process_map_info::process_find_map_info(uintptr_t addr)
{
    for (map_info* mi = header; mi != nullptr; mi = mi->next)
        if (mi->start <= addr && addr < mi->end)
            return mi;
    return nullptr;
}

int process_map_info::process_map_to_file(FILE* target)
{
    if (target == nullptr || fmap == nullptr) {
        __android_log_print(ANDROID_LOG_INFO, nullptr, "process_map_to_file: fmap or target is null");
        return -2;
    }
    fseek(fmap, 0, SEEK_SET);
    constexpr char heading[] = "\nMemory map:\n";
    fwrite(heading, 1, sizeof(heading) - 1, target);
    char line[1024];
    while (fgets(line, sizeof(line), fmap) != nullptr)
        fprintf(target, "  %s", line);
    return 0;
}
