// Makes entries with the system log layer. usage: log_entries [COUNT]   COUNT entries with their number, or a
// fixed few. Status 0 when errno and the results were right.
#include <errno.h>

#include <cstdlib>
#include <string>

#include "system_log.h"

int main(int argc, char** argv)
{
    if (argc > 1) {
        for (int i = 0; i < atoi(argv[1]); i++)
            __android_log_print(ANDROID_LOG_INFO, "Many", "entry %d\n", i);
        return 0;
    }
    errno = 77;
    bool good = __android_log_print(ANDROID_LOG_INFO, "Dumper", "all %s\n", "well") == 9;
    good = good && __android_log_print(ANDROID_LOG_WARN, "Dumper", "first\nsecond\n\n\n") == 15;
    good = good && __android_log_print(ANDROID_LOG_ERROR, nullptr, "no newline") == 10;
    const std::string longer(5000, 'l');
    good = good && __android_log_print(ANDROID_LOG_INFO, "Long", "%s\n", longer.c_str()) == 5001;
    return good && errno == 77 ? 0 : 1;
}
