// See symbol_names.h.
#include "symbol_names.h"

#include "elf_file.h"

namespace
{
// A target can have any number of modules made for it: beyond these limits further ones have no names.
constexpr size_t max_kept_bytes = size_t{256} << 20;
constexpr size_t max_tables = 400;  // each keeps its file open
}  // namespace

symbol_names::symbol_names(pid_t tid, target_memory& memory) : tid_(tid), memory_(memory) {}

const symbol_name* symbol_names::find_known(uint64_t pc) const
{
    std::shared_lock guard(names_lock_);
    const auto found = names_.find(pc);
    return found != names_.end() ? &found->second : nullptr;
}

std::unique_ptr<symbol_table> symbol_names::load(const elf_module& owner)
{
    auto file = std::make_unique<elf_file>();
    if (owner.header.path == "[vdso]") {  // has no file: the loaded image is whole
        std::vector<char> image(owner.header.end - owner.header.start);
        if (memory_.read_constant(owner.header.start, image.data(), image.size()))
            file->open_image(std::move(image));
    } else {
        if (auto mapped = open_mapped_file(tid_, owner.header, owner.build_id))
            file = std::move(mapped);
        if (file->find_section(SHT_SYMTAB) == nullptr) {
            // Stripped. The addresses and sections of its debug file are its own.
            if (auto debug_file = open_debug_file(tid_, owner.build_id))
                file = std::move(debug_file);
        }
    }
    return std::make_unique<symbol_table>(std::move(file));
}

const symbol_name* symbol_names::find(uint64_t pc, const elf_module* owner)
{
    std::lock_guard load_guard(load_lock_);
    if (const symbol_name* known = find_known(pc))
        return known;
    symbol_name name;
    if (owner != nullptr) {
        auto& table = tables_[owner];
        if (!table) {
            const bool has_room = kept_bytes_ <= max_kept_bytes && tables_.size() <= max_tables;
            table = has_room ? load(*owner) : std::make_unique<symbol_table>(std::make_unique<elf_file>());
            kept_bytes_ += table->kept_bytes();
        }
        name = table->find(pc - owner->load_bias);
    }
    std::unique_lock guard(names_lock_);
    return &names_.emplace(pc, std::move(name)).first->second;
}
