// C++ names as their source has them.
#pragma once

#include <string>

// Empty when the symbol's name is not mangled. Cut at max_demangled_bytes: a name of two
// hundred bytes can stand for gigabytes, so this does not use __cxa_demangle, which knows no limit.
std::string demangle(const char* symbol);

constexpr size_t max_demangled_bytes = 2048;  // as many as a line of a report holds
