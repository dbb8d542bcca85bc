// What all threads of a dump share when their stacks are unwound. See unwind_walk.h.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "call_frame_info.h"
#include "machine.h"
#include "module_table.h"
#include "symbol_names.h"
#include "target_maps.h"
#include "target_memory.h"

// Safe for several threads at a time.
class target_image
{
public:
    // Reads the maps of the target. Never fails: what cannot be read is missing from the stacks.
    explicit target_image(pid_t pid);

    target_maps& maps() { return maps_; }
    target_memory& memory() { return memory_; }

    // The rule of the call-frame tables for pc, worked out once; null when they have none. held_tid: as in
    // target_memory::read.
    const unwind_rule* find_rule(uint64_t pc, pid_t held_tid);

    // The symbol that covers pc; its text is empty when none does. Looked up once.
    const symbol_name& find_name(uint64_t pc);

    // The rules for code that the tables are silent on.
    const unwind_rule& frame_record_rule() const { return *frame_record_rule_; }
    const unwind_rule& call_site_rule() const { return *call_site_rule_; }

private:
    const pid_t tid_;  // a live thread: the leader may have ended
    target_maps maps_;
    target_memory memory_;
    std::mutex modules_lock_;
    module_table modules_;
    std::shared_mutex rules_lock_;
    std::unordered_map<uint64_t, std::unique_ptr<unwind_rule>> rules_;  // null: the tables are silent
    symbol_names names_;
    const std::unique_ptr<const unwind_rule> frame_record_rule_ =
        make_unwind_rule(machine::frame_record_rules);
    const std::unique_ptr<const unwind_rule> call_site_rule_ = make_unwind_rule(machine::call_site_rules);
};
