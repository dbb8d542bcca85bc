// Answers libunwind's questions during a walk. See unwind_walk.h.
//
// libunwind passes its accessors the _UPT_create pointer, which the stock ones need, so the walk of the
// calling thread is found through a thread-local pointer.
#include "unwind_walk.h"

#include <array>
#include <cstring>

// libunwind's search of a binary-search table in the target: exported, but without a public prototype.
extern "C" int UNW_OBJ(dwarf_search_unwind_table)(unw_addr_space_t, unw_word_t, unw_dyn_info_t*,
                                                  unw_proc_info_t*, int, void*);

namespace
{

// Words that a walk may ask for: 1024 frames need some 100,000; an expression that loops ends with the walk,
// in about a millisecond.
constexpr int max_reads = 500'000;

thread_local unwind_walk* current_walk = nullptr;

}  // namespace

// libunwind's other error codes make it guess on: from the link register on aarch64, along rbp on x86_64.
constexpr int end_of_walk = -UNW_ESTOPUNWIND;

struct walk_accessors {
    static int find_proc_info(unw_addr_space_t space, unw_word_t pc, unw_proc_info_t* info, int need_info,
                              void* arg)
    {
        unwind_walk& walk = *current_walk;
        walk.rule_ = walk.find_rule(pc);
        walk.rule_asked_ = true;
        if (walk.rule_ == nullptr)
            return end_of_walk;
        if (const auto decoded = walk.rule_->decoded(); !decoded.empty()) {
            info->start_ip = walk.rule_->start();
            info->end_ip = walk.rule_->end();
            info->format = UNW_INFO_FORMAT_REMOTE_TABLE;  // handled like _TABLE, but libunwind leaves the
                                                          // memory to its owner
            info->unwind_info_size = static_cast<int>(decoded.size());
            info->unwind_info = const_cast<uint8_t*>(decoded.data());
            return 0;
        }
        unw_dyn_info_t table{};
        table.format = UNW_INFO_FORMAT_REMOTE_TABLE;
        table.start_ip = pc;
        table.end_ip = pc + 1;
        table.u.rti.segbase = unwind_rule::address;
        table.u.rti.table_data = unwind_rule::address;
        table.u.rti.table_len = unwind_rule::table_bytes / sizeof(unw_word_t);
        if (UNW_OBJ(dwarf_search_unwind_table)(space, pc, &table, info, need_info, arg) < 0)
            return end_of_walk;
        if (info->unwind_info != nullptr) {
            walk.rule_->keep_decoded({static_cast<const uint8_t*>(info->unwind_info),
                                      static_cast<size_t>(info->unwind_info_size)});
        }
        return 0;
    }

    static int get_dyn_info_list_addr(unw_addr_space_t, unw_word_t*, void*) { return -UNW_ENOINFO; }

    static int access_mem(unw_addr_space_t, unw_word_t address, unw_word_t* value, int write, void*)
    {
        unwind_walk& walk = *current_walk;
        if (write != 0 || --walk.reads_left_ < 0)
            return end_of_walk;
        return walk.read_word(address, *value) ? 0 : end_of_walk;
    }

    static int access_reg(unw_addr_space_t, unw_regnum_t number, unw_word_t* value, int write, void*)
    {
        const unwind_walk& walk = *current_walk;
        if (write != 0 || !walk.has_register(number))
            return -UNW_EBADREG;
        *value = walk.held_register(number);
        return 0;
    }

    static int access_fpreg(unw_addr_space_t, unw_regnum_t, unw_fpreg_t*, int, void*) { return -UNW_EBADREG; }

    static int get_proc_name(unw_addr_space_t, unw_word_t pc, char* to, size_t size, unw_word_t* offset,
                             void*)
    {
        unwind_walk& walk = *current_walk;
        // Callers are asked for by the byte before their pc. A signal's return trampoline never called: it
        // may start at its pc.
        const uint64_t back = walk.frame_register(UNW_REG_IP) == pc + 1 && walk.in_trampoline(pc) ? 1 : 0;
        const symbol_name& name = walk.image_.find_name(pc + back);
        if (name.text.empty() || size == 0)
            return -UNW_ENOINFO;
        if (name.text.size() >= size)
            return -UNW_ENOMEM;  // half a name could not be demangled
        memcpy(to, name.text.c_str(), name.text.size() + 1);
        if (offset != nullptr)
            *offset = name.offset - back;
        return 0;
    }
};

unw_accessors_t* unwind_accessors()
{
    static unw_accessors_t accessors = [] {
        unw_accessors_t made = _UPT_accessors;
        made.find_proc_info = walk_accessors::find_proc_info;
        made.get_dyn_info_list_addr = walk_accessors::get_dyn_info_list_addr;
        made.access_mem = walk_accessors::access_mem;
        made.access_reg = walk_accessors::access_reg;
        made.access_fpreg = walk_accessors::access_fpreg;
        made.get_proc_name = walk_accessors::get_proc_name;
        return made;
    }();
    return &accessors;
}

unwind_walk::unwind_walk(target_image& image, thread_snapshot& thread, unw_cursor_t& cursor, mode how)
    : image_(image),
      thread_(thread),
      cursor_(cursor),
      mode_(how),
      signature_mask_(thread.registers() != nullptr ? thread.registers()->signature_mask : 0),
      reads_left_(max_reads),
      outer_(current_walk)
{
    current_walk = this;
}

unwind_walk::~unwind_walk()
{
    current_walk = outer_;
}

uint64_t unwind_walk::frame_register(unw_regnum_t number)
{
    unw_word_t value = 0;
    return unw_get_reg(&cursor_, number, &value) == 0 ? value : 0;
}

bool unwind_walk::has_register(unw_regnum_t number) const
{
    return thread_.registers() != nullptr && number >= 0 && number < machine::register_count;
}

uint64_t unwind_walk::held_register(unw_regnum_t number) const
{
    return strip_signature(thread_.registers()->word[static_cast<size_t>(number)]);
}

// The frame's own; libunwind gives the pc for that register number. 0 where the machine has none, or when its
// value is lost.
uint64_t unwind_walk::link_register()
{
    unw_save_loc_t place{};
    uint64_t value = 0;
    if (machine::link_register < 0 || unw_get_save_loc(&cursor_, machine::link_register, &place) != 0)
        return 0;
    // The tables can say any register of the machine, a vector register for one.
    if (place.type == UNW_SLT_REG)
        return has_register(place.u.regnum) ? held_register(place.u.regnum) : 0;
    return place.type == UNW_SLT_MEMORY && read_word(place.u.addr, value) ? value : 0;
}

// A signature sits in the unused high bits of a return address. Other words have bits there, too, so only
// what turns into an address of code is taken for one.
uint64_t unwind_walk::strip_signature(uint64_t value) const
{
    if ((value & signature_mask_) == 0)
        return value;
    const uint64_t stripped = value & ~signature_mask_;
    return image_.maps().find(stripped).executable ? stripped : value;
}

bool unwind_walk::read_word(uint64_t address, uint64_t& value)
{
    if (address >= unwind_rule::address) {
        const uint64_t skip = address - unwind_rule::address;
        if (rule_ == nullptr || skip + sizeof(value) > rule_->bytes().size())
            return false;
        memcpy(&value, rule_->bytes().data() + skip, sizeof(value));
        return true;
    }
    if (thread_.read_word(address, value)) {
        value = strip_signature(value);
        return true;
    }
    const mapping_range range = image_.maps().find(address);
    if (range && !range.writable) {
        if (image_.memory().read_constant(address, &value, sizeof(value), held_tid()))
            return true;
    } else if (range.executable) {  // code being written while it runs: nothing but code is read there
        if (image_.memory().read(address, &value, sizeof(value), held_tid()) == sizeof(value))
            return true;
    } else if (mode_ == mode::held && thread_.copy_page(image_.memory(), address)) {
        if (thread_.read_word(address, value)) {
            value = strip_signature(value);
            return true;
        }
    }
    // libunwind looks at the code at a pc for a signal's return trampoline. A pc that cannot be read is none.
    value = 0;
    return address == frame_register(UNW_REG_IP);
}

bool unwind_walk::in_trampoline(uint64_t pc)
{
    const unwind_rule* rule = image_.find_rule(pc, 0);
    return rule != nullptr ? rule->signal_frame() : unw_is_signal_frame(&cursor_) > 0;
}

bool unwind_walk::step()
{
    const int stepped = unw_step(&cursor_);
    const bool moved =
        stepped > 0 || (stepped == 0 && (stopped_at_null_frame_pointer() || stopped_at_null_pc()));
    return moved && reached_code();
}

// libunwind 1.8 takes a zero in the caller's x29 for the end of the stack: it has found the caller's
// registers by then and drops them. But _start and a thread's first function are such callers, and so is all
// code that uses x29 for something else. Where a stack ends is said by the tables: there is no return address
// then.
bool unwind_walk::stopped_at_null_frame_pointer()
{
    const uint64_t caller = link_register();
    if (caller == 0)
        return false;
    // The cursor keeps the address before it tries, in vain, to write it to the target.
    unw_set_reg(&cursor_, UNW_REG_IP, caller);
    return frame_register(UNW_REG_IP) == caller;
}

// libunwind 1.8 takes every pc of 0 for the end of the stack, and has moved to it. Behind a signal's
// trampoline it is where a call through a null pointer went.
bool unwind_walk::stopped_at_null_pc()
{
    return rule_asked_ && rule_ != nullptr && rule_->signal_frame() && frame_register(UNW_REG_IP) == 0;
}

// Only what a signal interrupted may be anywhere, a call through a null pointer for one.
bool unwind_walk::reached_code()
{
    const bool after_signal =
        !rule_asked_ || rule_->signal_frame();  // libunwind knows the trampoline of aarch64 by its code
    rule_asked_ = false;
    return after_signal || image_.maps().executable(frame_register(UNW_REG_IP));
}

const unwind_rule* unwind_walk::find_rule(uint64_t pc)
{
    if (const unwind_rule* rule = image_.find_rule(pc, held_tid()))
        return rule;
    return guess_rule(pc);
}

bool unwind_walk::plausible_return(uint64_t address)
{
    address = strip_signature(address);
    std::array<uint8_t, machine::call_code_bytes> code;
    return image_.maps().executable(address) &&
           image_.memory().read(address - code.size(), code.data(), code.size(), held_tid()) == code.size() &&
           machine::follows_call(code);
}

bool unwind_walk::at_function_edge(uint64_t pc)
{
    if (!image_.maps().executable(pc))
        return true;  // a call through a wrong pointer: nothing has run there
    std::array<uint8_t, machine::edge_code_bytes> code{};
    return image_.memory().read(pc, code.data(), code.size(), held_tid()) > 0 &&
           machine::at_function_edge(code);
}

// Code without tables: jitted, hand-written, or none at all. Follows the frame record, or the return address
// of a function that has pushed nothing, as long as they hold water; else the walk ends here.
const unwind_rule* unwind_walk::guess_rule(uint64_t pc)
{
    const uint64_t pointer = frame_register(machine::stack_pointer);
    uint64_t return_address = 0;
    if (pc == frame_register(UNW_REG_IP) && at_function_edge(pc)) {  // interrupted, not calling
        if (machine::link_register >= 0) {
            return_address = link_register();
        } else if (!read_word(pointer, return_address)) {
            return nullptr;
        }
        if (!plausible_return(return_address))
            return nullptr;
        return &image_.call_site_rule();
    }
    const uint64_t record = frame_register(machine::frame_pointer);
    const mapping_range stack = image_.maps().find(pointer);
    const uint64_t stack_end = stack ? stack.end : thread_.stack_end();
    constexpr uint64_t record_bytes = 2 * sizeof(uint64_t);
    if (record % machine::frame_record_align != 0 || record < pointer || record >= stack_end ||
        stack_end - record < record_bytes) {
        return nullptr;
    }
    if (!read_word(record + sizeof(uint64_t), return_address) || !plausible_return(return_address))
        return nullptr;
    return &image_.frame_record_rule();
}
