#include "support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "system_log.h"

namespace
{
std::mutex entries_mutex;
std::vector<log_entry> entries;

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    char text[4096];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    const std::lock_guard<std::mutex> lock(entries_mutex);
    entries.push_back({prio, tag != nullptr ? tag : "<null>", text});
    return length;
}

std::vector<log_entry> logged()
{
    const std::lock_guard<std::mutex> lock(entries_mutex);
    return entries;
}

void clear_log()
{
    const std::lock_guard<std::mutex> lock(entries_mutex);
    entries.clear();
}

bool was_logged(int prio, const std::string& text)
{
    for (const log_entry& entry : logged())
        if (entry.prio == prio && entry.text.find(text) != std::string::npos)
            return true;
    return false;
}

std::string log_as_text()
{
    std::string text;
    for (const log_entry& entry : logged())
        text += std::to_string(entry.prio) + " " + entry.tag + ": " + entry.text +
                (entry.text.ends_with('\n') ? "" : "\n");
    return text;
}
