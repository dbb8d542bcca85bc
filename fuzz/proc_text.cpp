// One text in the place of every file of /proc that is taken apart: the two readers of maps, the stat line.
#include <cstring>

#include "dumper.h"
#include "fake_process.h"
#include "unwind/target_maps.h"

struct dumper_test {
    static void stat_line()
    {
        dumper_frame frame = {};
        frame.req_t.pid = fake_pid;
        frame.req_t.tid = fake_pid;
        dumper job(&frame);
        std::vector<std::string> fields;
        const int split = job.parse_proc_stat(nullptr, fake_pid, fields, false);
        check(split == 0 || split == -3);
        for (const std::string& field : fields)
            check(!field.empty() && field.find(' ') == std::string::npos);
        std::stringstream lines;
        check(job.dump_thread_info(&lines, -1) == 0 || split != 0 || fields.size() < 39);
    }
};

struct map_info_test {
    static void list()
    {
        process_map_info maps(fake_pid);
        check(maps.process_create_map_info_list() == 0);
        for (const map_info* mi = maps.header; mi != nullptr; mi = mi->next) {
            check(mi->name[0] != '\0' && strlen(mi->name) < 1024 && !mi->is_writable);
            const map_info* first = maps.process_find_map_info(mi->start);
            check(mi->start >= mi->end || (first->start <= mi->start && mi->start < first->end));
        }
        maps.process_destroy_map_info_list();
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string thread = "task/" + std::to_string(fake_pid);
    for (const std::string& file : {thread + "/stat", thread + "/schedstat", std::string("maps")})
        target.files[file] = {data, size};
    dumper_test::stat_line();
    map_info_test::list();
    target_maps maps(fake_pid);
    for (const mapping& m : *maps.list()) {
        check(m.start < m.end && m.path.find('\n') == std::string::npos);
        const mapping_range found = maps.find(m.start);
        check(!found || (found.start <= m.start && m.start < found.end));
    }
    return 0;
}
