// Call-frame tables. The first byte says which of the two forms the others are.
#include <cstring>

#include "fake_process.h"
#include "unwind/call_frame_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const bytes table(data + 1, size - 1);
    const frame_section section = {(data[0] & 1) != 0, 0, [table](uint64_t at, void* to, size_t count) {
                                       if (at > table.size() || count > table.size() - at)
                                           return false;
                                       memcpy(to, table.data() + at, count);
                                       return true;
                                   }};
    const auto index = index_frame_section(section, 0, table.size());
    uint64_t last = 0;
    for (const frame_index_entry& row : index) {
        check(row.start >= last && row.start < row.end && row.at < table.size());
        last = row.start;
        const auto entry = read_frame_entry(section, row.at);
        if (!entry)
            continue;
        check(entry->start == row.start && entry->end == row.end);
        for (const uint64_t pc :
             {entry->start, entry->start + (entry->end - entry->start) / 2, entry->end - 1}) {
            if (const auto rule = make_unwind_rule(*entry, pc)) {
                check(rule->start() <= pc && pc < rule->end());
                check(rule->bytes().size() <= 200 + 9 * (entry->initial_rules.size() + entry->rules.size()));
            }
        }
    }
    return 0;
}
