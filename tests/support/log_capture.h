// The system log of the code under test: this binary links its own __android_log_print, which keeps every
// entry.
#pragma once

#include <string>

// Entries since the start of the test or the last clear, each as "6 Dumper: text" and a newline: the
// priority is a number, a null tag is "<null>". Any thread may log meanwhile.
std::string log_as_text();
void clear_log();
