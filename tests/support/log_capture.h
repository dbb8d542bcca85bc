// The system log of the code under test: this binary links its own __android_log_print, which keeps every
// entry.
#pragma once

#include <string>
#include <vector>

struct log_entry {
    int prio;
    std::string tag;  // "<null>" for a null tag
    std::string text;
};

// Entries since the start of the test or the last clear; any thread may log meanwhile.
std::vector<log_entry> logged();
void clear_log();
// Whether an entry of that priority holds the text.
bool was_logged(int prio, const std::string& text);
std::string log_as_text();
