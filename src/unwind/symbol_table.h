// The code symbols of one ELF file. libdwfl would do, but it wants the whole string table in memory, mapped
// or copied: a mapped file that is cut short kills the reader, and the copy takes longer than all else for a
// big program. Here the symbols are read in passing, and a string when it is asked for.
#pragma once

#include <elf.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "elf_file.h"

struct symbol_name {
    std::string text;     // as in the symbol table, without its version; empty when no symbol covers the pc
    uint64_t offset = 0;  // of the pc from the symbol's start
};

class symbol_table
{
public:
    // Loads the file's .symtab, or else its .dynsym and MiniDebugInfo.
    explicit symbol_table(std::unique_ptr<elf_file> file);

    // The symbol that covers an address of the file.
    symbol_name find(uint64_t address) const;

    size_t kept_bytes() const;

private:
    struct source {  // one symbol section
        std::unique_ptr<elf_file> file;
        elf_file::section strings;
        std::vector<Elf64_Sym> symbols;  // those of code
    };

    static void load(source& into, const elf_file::section& section);
    static const Elf64_Sym* find_symbol(const source& from, uint64_t address);
    static std::string read_name(const source& from, const Elf64_Sym& symbol);

    std::vector<source> sources_;
};
