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

#include "target_image.h"
#include "thread_snapshot.h"

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
    bool stopped_at_null_pc();
    uint64_t link_register();
    bool has_register(unw_regnum_t number) const;
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
