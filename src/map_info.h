// The executable mappings of a target, which name the module of every backtrace frame, and the copy of its
// whole memory map in the report. Source of the format: proc_pid_maps(5).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

// One mapping, e.g.  7f1c0000-7f1c2000 r-xp 00001000 fd:00 131 /usr/lib/libc.so.6
// Addresses are the target's; [start, end) in bytes. One calloc block each, the name at its end.
typedef struct map_info {
    struct map_info* next;
    uintptr_t start;
    uintptr_t end;
    bool is_readable;
    bool is_writable;
    bool is_executable;
    char name[];  // path or pseudo-name as the kernel writes it, NUL-terminated
} map_info;

// Built once by one thread, then searched by any number. The file stays open for the printed copy.
class process_map_info
{
    map_info* header;  // newest first, so by falling address
    pid_t pid;
    FILE* fmap;

    map_info* parse_maps_line(const char* line);

    friend struct map_info_test;

public:
    explicit process_map_info(pid_t tpid);
    ~process_map_info();  // closes the file; the list is process_destroy_map_info_list's
    process_map_info(const process_map_info&) = delete;
    process_map_info& operator=(const process_map_info&) = delete;

    // Loads the named "r-x" mappings. Call once. 0, or -2 when the maps file could not be opened. Logs
    // nothing.
    int process_create_map_info_list();
    void process_destroy_map_info_list();
    // The mapping that holds addr, or null.
    map_info* process_find_map_info(uintptr_t addr);
    // Writes the "Memory map:" section, read afresh. 0, or -2 (logged) without a stream or a maps file.
    int process_map_to_file(FILE* target);
};
