// What a held thread shows: its registers and its user stack, unwound from outside. Beside them what needs no
// stop: the kernel stack, read after the release, and the memory map. Up to four workers run these at once,
// each on a thread of its own.
#include <libunwind-ptrace.h>
#include <sched.h>
#include <string.h>

#include <memory>

#include "dumper.h"
#include "registers.h"
#include "system_log.h"
#include "time_limit.h"
#include "unwind/demangle.h"
#include "unwind/unwind_walk.h"

using std::stringstream;
using namespace std::chrono_literals;

namespace
{
constexpr auto longest_resume = 5ms;

struct space_deleter {
    void operator()(unw_addr_space_t space) const { unw_destroy_addr_space(space); }
};
struct context_deleter {
    void operator()(void* context) const { _UPT_destroy(context); }
};
using unwind_space = std::unique_ptr<std::remove_pointer_t<unw_addr_space_t>, space_deleter>;
using unwind_context = std::unique_ptr<void, context_deleter>;

// A released thread shows the stop that the tool held it in until it gets a processor. The short wait is for
// that; where it never comes, the thread's state is shown as it is.
bool read_kernel_trace(stringstream& trace, pid_t pid, pid_t tid)
{
    for (const time_limit limit(longest_resume);;) {
        trace.str("");
        if (!sys_stat::get_kernel_calltrace_to_stream(&trace, pid, tid))
            return false;
        if (trace.view().find("ptrace_stop") == std::string::npos || limit.passed())
            return true;
        sched_yield();
    }
}

}  // namespace

void dumper::load_target_image()
{
    image = std::make_shared<target_image>(pid);
}

bool dumper::take_snapshot(thread_snapshot& snapshot, pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    if (!image)
        load_target_image();
    return snapshot.take(*image, target_tid);
}

int dumper::dump_registers(stringstream* ss, const thread_snapshot& snapshot)
{
    write_text(ss, true, "\nRegister:\n");
    const register_set& set = snapshot.raw_registers();
    if (set.length == 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Ptrace error: %s\n", strerror(snapshot.error()));
        return -1;
    }
    const auto lines = register_lines(set);
    if (lines.empty()) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper",
                            "Tid %d has a register set of %zu bytes, not that of a 64-bit thread\n",
                            snapshot.tid(), set.length);
        return -1;
    }
    for (const auto& line : lines)
        write_text(ss, true, "%s", line.c_str());
    return 0;
}

int dumper::dump_backtrace(stringstream* ss, thread_snapshot& snapshot)
{
    const unwind_space addr_space(unw_create_addr_space(unwind_accessors(), 0));
    if (!addr_space) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Failed to create address space\n");
        return -1;
    }
    const unwind_context rctx(_UPT_create(snapshot.tid()));
    if (!rctx) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Failed to _UPT_create\n");
        return -2;
    }
    unw_cursor_t cursor;
    unwind_walk walk(*image, snapshot, cursor);
    const int started = unw_init_remote(&cursor, addr_space.get(), rctx.get());
    if (started != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "unw_init_remote failed, status=%d\n", started);
        return -3;
    }

    write_text(ss, true, "\nBacktrace:\n");
    int level = 0;
    do {
        unw_word_t pc = 0;
        unw_get_reg(&cursor, UNW_REG_IP, &pc);
        const map_info* mi = process_find_map_info(pc);
        const char* module = mi != nullptr ? mi->name : "??";
        char sym_raw[512];
        unw_word_t off = 0;
        if ((dump_mode & FUNC_PARSE) && unw_get_proc_name(&cursor, sym_raw, sizeof(sym_raw), &off) == 0) {
            const std::string demangled = demangle(sym_raw);
            write_text(ss, true, "#%2d pc 0x%lx  %s (%s + 0x%lx)\n", level, pc, module,
                       demangled.empty() ? sym_raw : demangled.c_str(), off);
        } else {
            write_text(ss, true, "#%2d pc 0x%lx %s\n", level, pc, module);
        }
        level++;
    } while (level < unwind_walk::max_frames && walk.step());
    return 0;
}

bool dumper::dump_ktrace(stringstream* ss, pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    stringstream section;
    __LOG(section, false, "\nKernel Trace:\n");
    stringstream trace;
    const bool copied = read_kernel_trace(trace, pid, target_tid);
    section << trace.view();
    if (ss != nullptr)
        *ss << section.view();
    else if (copied && fdump != nullptr)
        fputs(section.str().c_str(), fdump);
    return copied;
}

int dumper::dump_map_info()
{
    if (pmi == nullptr || fdump == nullptr)
        return -1;
    return pmi->process_map_to_file(fdump);
}

map_info* dumper::process_find_map_info(uintptr_t addr)
{
    return pmi != nullptr ? pmi->process_find_map_info(addr) : nullptr;
}
