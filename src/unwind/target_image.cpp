// What the threads of a dump share. See target_image.h.
#include "target_image.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace
{

bool has_memory(pid_t tid)
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/exe", tid);
    char target[8];
    return readlink(path, target, sizeof(target)) > 0;
}

// The leader, or another thread when the leader has ended: then only the others still show the memory.
pid_t find_live_thread(pid_t pid)
{
    if (has_memory(pid))
        return pid;
    char path[32];
    snprintf(path, sizeof(path), "/proc/%d/task", pid);
    DIR* tasks = opendir(path);
    if (tasks == nullptr)
        return pid;
    pid_t found = pid;
    while (const dirent* entry = readdir(tasks)) {
        const pid_t tid = atoi(entry->d_name);
        if (tid > 0 && has_memory(tid)) {
            found = tid;
            break;
        }
    }
    closedir(tasks);
    return found;
}

}  // namespace

target_image::target_image(pid_t pid)
    : tid_(find_live_thread(pid)),
      maps_(tid_),
      memory_(tid_),
      modules_(tid_, maps_, memory_),
      names_(tid_, memory_)
{
}

const unwind_rule* target_image::find_rule(uint64_t pc, pid_t held_tid)
{
    {
        std::shared_lock guard(rules_lock_);
        if (const auto known = rules_.find(pc); known != rules_.end())
            return known->second.get();
    }
    std::unique_ptr<unwind_rule> rule;
    {
        std::lock_guard guard(modules_lock_);
        if (const auto entry = modules_.find_frame_entry(pc, held_tid))
            rule = make_unwind_rule(*entry, pc);
    }
    std::unique_lock guard(rules_lock_);
    return rules_.try_emplace(pc, std::move(rule)).first->second.get();
}

const symbol_name& target_image::find_name(uint64_t pc)
{
    if (const symbol_name* known = names_.find_known(pc))
        return *known;
    const elf_module* owner;
    {
        std::lock_guard guard(modules_lock_);
        owner = modules_.find(pc, 0);
    }
    return *names_.find(pc, owner);
}
