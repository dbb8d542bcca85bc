// See demangle.h. The demangler is the one of the C++ runtime, which GCC's libiberty has with a callback.
#include "demangle.h"

#define HAVE_DECL_BASENAME 1  // libiberty has a declaration of its own, which clashes with the system's
#include <libiberty/demangle.h>

#include <cstring>

namespace
{
struct enough {
};

void append(const char* part, size_t length, void* text)
{
    auto& demangled = *static_cast<std::string*>(text);
    demangled.append(part, length);
    if (demangled.size() > max_demangled_bytes)
        throw enough();  // the one way to stop it; it keeps nothing on the heap
}

}  // namespace

std::string demangle(const char* symbol)
{
    // Names that are not mangled stay as they are: the demangler takes `f` for the type float.
    if (strncmp(symbol, "_Z", 2) != 0)
        return {};
    std::string demangled;
    try {
        if (cplus_demangle_v3_callback(symbol, DMGL_PARAMS, append, &demangled) == 0)
            return {};
    } catch (const enough&) {
        demangled.resize(max_demangled_bytes);
    }
    return demangled;
}
