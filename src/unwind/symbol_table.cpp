// See symbol_table.h. Format: elf(5).
#include "symbol_table.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace
{

// The biggest programs known have some three million symbols.
constexpr uint64_t max_symbol_bytes = 128u << 20;
constexpr size_t max_name_bytes = 4096;

bool is_code(const Elf64_Sym& symbol, const std::vector<elf_file::section>& sections)
{
    const unsigned type = ELF64_ST_TYPE(symbol.st_info);
    if (type != STT_FUNC && type != STT_GNU_IFUNC && type != STT_NOTYPE)
        return false;
    if (symbol.st_shndx == SHN_XINDEX)
        return true;
    return symbol.st_shndx != SHN_UNDEF && symbol.st_shndx < sections.size() &&
           (sections[symbol.st_shndx].flags & SHF_EXECINSTR) != 0;
}

// Of two symbols at one place: what other files may call, then what the assembler calls a function.
int rank(const Elf64_Sym& symbol)
{
    const unsigned binding = ELF64_ST_BIND(symbol.st_info);
    const int by_binding = binding == STB_GLOBAL ? 3 : binding == STB_WEAK ? 2 : 1;
    return 2 * by_binding + (ELF64_ST_TYPE(symbol.st_info) != STT_NOTYPE ? 1 : 0);
}

}  // namespace

symbol_table::symbol_table(std::unique_ptr<elf_file> file)
{
    const elf_file::section* whole = file->find_section(SHT_SYMTAB);
    const elf_file::section* wanted = whole != nullptr ? whole : file->find_section(SHT_DYNSYM);
    std::unique_ptr<elf_file> mini_debug_info = whole == nullptr ? file->open_mini_debug_info() : nullptr;
    if (wanted != nullptr) {
        sources_.push_back({std::move(file), {}, {}});
        load(sources_.back(), *wanted);
    }
    if (mini_debug_info) {
        if (const elf_file::section* symbols = mini_debug_info->find_section(SHT_SYMTAB)) {
            sources_.push_back({std::move(mini_debug_info), {}, {}});
            load(sources_.back(), *symbols);
        }
    }
}

size_t symbol_table::kept_bytes() const
{
    size_t bytes = 0;
    for (const source& one : sources_)
        bytes += one.symbols.size() * sizeof(Elf64_Sym) + one.file->image_bytes();
    return bytes;
}

void symbol_table::load(source& into, const elf_file::section& section)
{
    const auto& sections = into.file->sections();
    if (section.size > max_symbol_bytes || section.link >= sections.size())
        return;
    into.strings = sections[section.link];
    into.symbols.reserve(section.size / sizeof(Elf64_Sym));  // untouched pages cost nothing, copies do
    std::array<Elf64_Sym, 512> chunk;
    for (uint64_t done = 0; done < section.size;) {
        const size_t wanted = std::min<uint64_t>(sizeof(chunk), section.size - done);
        const size_t count = into.file->read(section.offset + done, chunk.data(), wanted) / sizeof(Elf64_Sym);
        if (count == 0)
            break;
        std::copy_if(chunk.begin(), chunk.begin() + count, std::back_inserter(into.symbols),
                     [&](const Elf64_Sym& symbol) { return is_code(symbol, sections); });
        done += count * sizeof(Elf64_Sym);
    }
}

// The symbol with a size that holds the address, the innermost; else the last one without a size before it,
// when it is in the same section and no symbol with a size ends in between: labels of hand-written code reach
// to the next one.
const Elf64_Sym* symbol_table::find_symbol(const source& from, uint64_t address)
{
    const auto& sections = from.file->sections();
    const auto holder = std::find_if(sections.begin(), sections.end(), [address](const elf_file::section& s) {
        return (s.flags & SHF_EXECINSTR) != 0 && address >= s.address && address - s.address < s.size;
    });
    if (holder == sections.end())
        return nullptr;
    const Elf64_Sym* sized = nullptr;
    const Elf64_Sym* label = nullptr;
    uint64_t last_end = 0;
    const auto better = [](const Elf64_Sym& candidate, const Elf64_Sym* best) {
        return best == nullptr || candidate.st_value > best->st_value ||
               (candidate.st_value == best->st_value && rank(candidate) > rank(*best));
    };
    for (const Elf64_Sym& symbol : from.symbols) {
        if (symbol.st_value > address)
            continue;
        if (symbol.st_size == 0) {
            if (symbol.st_shndx == holder - sections.begin() && better(symbol, label))
                label = &symbol;
        } else if (address - symbol.st_value < symbol.st_size) {
            if (better(symbol, sized))
                sized = &symbol;
        } else {
            last_end = std::max(last_end, symbol.st_value + symbol.st_size);
        }
    }
    if (sized != nullptr)
        return sized;
    return label != nullptr && label->st_value >= last_end ? label : nullptr;
}

std::string symbol_table::read_name(const source& from, const Elf64_Sym& symbol)
{
    if (symbol.st_name >= from.strings.size)
        return {};
    std::array<char, max_name_bytes> bytes;
    const size_t wanted = std::min<uint64_t>(bytes.size(), from.strings.size - symbol.st_name);
    const size_t count = from.file->read(from.strings.offset + symbol.st_name, bytes.data(), wanted);
    const void* end = memchr(bytes.data(), '\0', count);
    if (end == nullptr || bytes[0] == '$')
        return {};  // no end, or a mark of where code and data alternate
    const std::string name(bytes.data());
    return name.substr(0, name.find('@', 1));
}

symbol_name symbol_table::find(uint64_t address) const
{
    for (const source& from : sources_) {
        const Elf64_Sym* symbol = find_symbol(from, address);
        if (symbol == nullptr)
            continue;
        if (std::string name = read_name(from, *symbol); !name.empty())
            return {std::move(name), address - symbol->st_value};
    }
    return {};
}
