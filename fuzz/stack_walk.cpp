// A whole hostile target: its registers, its stack and the image of its module, whose headers, tables, code
// and symbols the walk reads. The same bytes stand at two addresses: a module without a file and one with,
// the main thread's stack and another.
#include "fake_process.h"
#include "unwind/unwind_walk.h"

namespace
{
constexpr size_t register_bytes = 34 * 8;
constexpr size_t stack_bytes = 1024;

void walk_stack(target_image& image, thread_snapshot& thread, unw_addr_space_t space)
{
    unw_cursor_t cursor;
    unwind_walk walk(image, thread, cursor);
    void* context = _UPT_create(fake_pid);
    check(unw_init_remote(&cursor, space, context) == 0);
    int level = 0;
    bool after_signal = true;
    do {
        unw_word_t pc = 0;
        unw_get_reg(&cursor, UNW_REG_IP, &pc);
        check(after_signal || image.maps().executable(pc));
        after_signal = unw_is_signal_frame(&cursor) > 0;
        for (const uint64_t at : {pc, pc - 1}) {
            const unwind_rule* rule = image.find_rule(at, 0);
            check(rule == nullptr || (rule->start() <= at && at < rule->end()));
            after_signal |= rule != nullptr && rule->signal_frame();
        }
        char name[512];
        unw_word_t offset = 0;
        if (unw_get_proc_name(&cursor, name, sizeof(name), &offset) == 0)
            check(name[0] != '\0');  // any offset: the image says where it wants to be loaded
    } while (++level < unwind_walk::max_frames && walk.step());
    _UPT_destroy(context);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static constexpr char maps[] =
        "400000-404000 r-xp 00000000 00:00 0 [vdso]\n"
        "500000-504000 r-xp 00000000 08:01 7 /program\n"
        "700000-704000 rw-p 00000000 00:00 0 [stack]\n"
        "800000-804000 rw-p 00000000 00:00 0\n";
    if (size < register_bytes + stack_bytes)
        return -1;
    const bytes input(data, size);
    const bytes stack = input.subspan(register_bytes, stack_bytes);
    const bytes module = input.subspan(register_bytes + stack_bytes);
    target.registers = input.first(register_bytes);
    target.memory = {{0x400000, module}, {0x500000, module}, {0x700000, stack}, {0x800000, stack}};
    target.files["maps"] = {reinterpret_cast<const uint8_t*>(maps), sizeof(maps) - 1};
    target.files["map_files/500000-504000"] = module;

    target_image image(fake_pid);
    thread_snapshot thread;
    check(thread.take(image, fake_pid));
    unw_addr_space_t space = unw_create_addr_space(unwind_accessors(), 0);
    walk_stack(image, thread, space);
    unw_destroy_addr_space(space);
    return 0;
}
