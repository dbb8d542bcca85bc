// The system log call that every module uses. Where the platform has an Android log library CMake uses that
// one; elsewhere src/system_log.cpp sends each entry to the syslog socket.
#pragma once

#ifdef HAVE_ANDROID_LOG
#include <android/log.h>
#else
enum android_LogPriority {
    ANDROID_LOG_INFO = 4,   // progress and timings
    ANDROID_LOG_WARN = 5,   // recoverable oddities
    ANDROID_LOG_ERROR = 6,  // failures
};

// One entry; a null tag stands for the program's short name. Never blocks, takes no lock and no heap, keeps
// errno. What nobody takes is lost, and a later entry says how many. Returns the length of the text, negative
// when it could not be formatted.
extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
#endif
