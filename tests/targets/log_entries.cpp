// Makes entries with the system log layer.
//
// usage: log_entries [COUNT [stop|LENGTH]]
//
// COUNT entries with their number (stop: and one more when it is continued), or COUNT of that length from
// each of eight threads; a fixed few without arguments. Status 0 when errno and the results were right.
#include <errno.h>
#include <signal.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "system_log.h"

namespace
{
bool make_fixed_few()
{
    errno = 77;
    bool good = __android_log_print(ANDROID_LOG_INFO, "Dumper", "all %s\n", "well") == 9;
    good = good && __android_log_print(ANDROID_LOG_WARN, "Dumper", "first\nsecond\n\n\n") == 15;
    good = good && __android_log_print(ANDROID_LOG_ERROR, nullptr, "no newline") == 10;
    const std::string longer(5000, 'l');
    good = good && __android_log_print(ANDROID_LOG_INFO, "Long", "%s\n", longer.c_str()) == 5001;
    return good && errno == 77;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 1)
        return make_fixed_few() ? 0 : 1;
    const int count = atoi(argv[1]);
    const std::string how = argc > 2 ? argv[2] : "";
    if (how.empty() || how == "stop") {
        for (int i = 0; i < count; i++)
            __android_log_print(ANDROID_LOG_INFO, "Many", "entry %d\n", i);
        if (how == "stop") {
            raise(SIGSTOP);
            __android_log_print(ANDROID_LOG_INFO, "Many", "last entry\n");
        }
        return 0;
    }
    const std::string text(static_cast<size_t>(atoi(how.c_str())), 'x');
    std::vector<std::thread> writers;
    for (int i = 0; i < 8; i++)
        writers.emplace_back([&] {
            for (int n = 0; n < count; n++)
                __android_log_print(ANDROID_LOG_INFO, "Many", "%s", text.c_str());
        });
    for (auto& writer : writers)
        writer.join();
}
