// Unwinding other processes. A target_image holds what all threads of a dump share; a thread_snapshot what
// one thread shows; an unwind_walk joins the two for libunwind, which asks through unwind_accessors().
//
//   target_image image(pid);                    before the first thread is held
//   thread_snapshot thread;
//   thread.take(image, tid);                    while it is held, by the thread that holds it
//   unwind_walk walk(image, thread, cursor);    after the release
//   unw_init_remote(&cursor, space, context);   space made with unwind_accessors()
//   do { … } while (walk.step());
#pragma once

#include <libunwind-ptrace.h>
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
#include "thread_snapshot.h"

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
    mutable std::shared_mutex rules_lock_;
    std::unordered_map<uint64_t, std::unique_ptr<unwind_rule>> rules_;  // null: the tables are silent
    symbol_names names_;
    const std::unique_ptr<const unwind_rule> frame_record_rule_ =
        make_unwind_rule(machine::frame_record_rules);
    const std::unique_ptr<const unwind_rule> call_site_rule_ = make_unwind_rule(machine::call_site_rules);
};

// One walk over one thread's stack. Until it ends, libunwind's questions on the calling thread are answered
// from it.
class unwind_walk
{
public:
    static constexpr int max_frames = 1024;  // bounds a stack that loops or has overflowed

    enum class mode {
        released,  // memory that can change is taken from the snapshot alone
        held,      // the thread is stopped by the calling thread: memory is read as it is, and added to the
                   // snapshot
    };

    unwind_walk(target_image& image, thread_snapshot& thread, unw_cursor_t& cursor,
                mode how = mode::released);
    ~unwind_walk();
    unwind_walk(const unwind_walk&) = delete;
    unwind_walk& operator=(const unwind_walk&) = delete;

    // Moves the cursor to the caller. False at the end of the stack.
    bool step();

private:
    friend struct walk_accessors;

    bool reached_code();
    bool in_trampoline(uint64_t pc);
    bool stopped_at_null_frame_pointer();
    uint64_t link_register();
    uint64_t held_register(unw_regnum_t number) const;
    bool read_word(uint64_t address, uint64_t& value);
    uint64_t strip_signature(uint64_t value) const;
    const unwind_rule* find_rule(uint64_t pc);
    const unwind_rule* guess_rule(uint64_t pc);
    bool plausible_return(uint64_t address);
    bool at_function_edge(uint64_t pc);
    pid_t held_tid() const { return mode_ == mode::held ? thread_.tid() : 0; }
    uint64_t frame_register(unw_regnum_t number);

    target_image& image_;
    thread_snapshot& thread_;
    unw_cursor_t& cursor_;
    const mode mode_;
    const uint64_t signature_mask_;
    int reads_left_;
    const unwind_rule* rule_ = nullptr;  // of the current step
    bool rule_asked_ = false;
    unwind_walk* const outer_;
};

// For unw_create_addr_space: libunwind's ptrace accessors with memory, registers, tables and names replaced.
unw_accessors_t* unwind_accessors();
