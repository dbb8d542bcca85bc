// Names for pcs, from .symtab, .dynsym, separate debug files and MiniDebugInfo. Each distinct pc is looked up
// once in a dump, under one lock; nothing is loaded before the first question.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "module_table.h"
#include "symbol_table.h"

class symbol_names
{
public:
    symbol_names(pid_t tid, target_memory& memory);

    // Null when this pc was not looked up yet. The result lives as long as this object.
    const symbol_name* find_known(uint64_t pc) const;

    // Looks pc up in its module (null: no module).
    const symbol_name* find(uint64_t pc, const elf_module* owner);

private:
    std::unique_ptr<symbol_table> load(const elf_module& owner);

    const pid_t tid_;
    target_memory& memory_;
    std::mutex load_lock_;
    std::unordered_map<const elf_module*, std::unique_ptr<symbol_table>> tables_;
    size_t kept_bytes_ = 0;  // of the tables
    mutable std::shared_mutex names_lock_;
    std::unordered_map<uint64_t, symbol_name> names_;
};
