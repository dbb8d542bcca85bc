#include "support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "system_log.h"

namespace
{
std::mutex log_mutex;
std::string log_text;

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    char text[4096];
    va_list args;
    va_start(args, fmt);
    const int length = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    const std::lock_guard<std::mutex> lock(log_mutex);
    log_text += std::to_string(prio) + " " + (tag != nullptr ? tag : "<null>") + ": " + text;
    if (!log_text.ends_with('\n'))
        log_text += '\n';
    return length;
}

std::string log_as_text()
{
    const std::lock_guard<std::mutex> lock(log_mutex);
    return log_text;
}

void clear_log()
{
    const std::lock_guard<std::mutex> lock(log_mutex);
    log_text.clear();
}
