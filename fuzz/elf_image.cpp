// ELF files: as a file and as an image in memory, with the names of a symbol table.
#include "fake_process.h"
#include "unwind/demangle.h"
#include "unwind/symbol_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    for (const bool in_memory : {false, true}) {
        auto file = std::make_unique<elf_file>();
        if (!(in_memory ? file->open_image({data, data + size})
                        : file->open_descriptor(memory_file({data, size}))))
            continue;
        std::vector<uint64_t> addresses = {0, ~uint64_t{0}};
        for (const elf_file::section& section : file->sections()) {
            file->section_bytes(section.name.c_str());
            for (const uint64_t step : {0u, 1u, 40u})
                addresses.push_back(section.address + step);
        }
        file->build_id();
        const symbol_table symbols(std::move(file));
        for (const uint64_t address : addresses) {
            const symbol_name name = symbols.find(address);
            check(name.text.size() < 4096 && (name.text.empty() ? name.offset == 0 : name.offset <= address));
            check(demangle(name.text.c_str()).size() <= max_demangled_bytes);
        }
    }
    return 0;
}
