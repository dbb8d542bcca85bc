// System log entries as syslog datagrams, for systems without an Android log library.
// Runs in fatal-signal handlers and while a target is held, which may be the log daemon itself: no lock, no
// heap, and nothing that can block.
#include "system_log.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace
{
constexpr int facility_daemon = 3 << 3;  // syslog(3)
constexpr size_t max_entry = 4096;       // PIPE_BUF: what a pipe that polls writable takes without blocking

int syslog_severity(int prio)
{
    return prio >= ANDROID_LOG_ERROR ? 3 : prio == ANDROID_LOG_WARN ? 4 : 6;
}

char priority_letter(int prio)
{
    return prio >= ANDROID_LOG_ERROR ? 'E' : prio == ANDROID_LOG_WARN ? 'W' : 'I';
}

bool send_to_syslog(const char* entry, size_t length)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    ssize_t sent = sendto(fd, entry, length, MSG_DONTWAIT | MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    close(fd);
    return sent >= 0;
}

// Drops the entry when standard error would block: a held target may be the one that reads it.
void write_to_stderr(char* entry, size_t length)
{
    pollfd writable = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&writable, 1, 0) != 1 || !(writable.revents & POLLOUT))
        return;
    entry[length++] = '\n';
    (void)!write(STDERR_FILENO, entry, length);  // nowhere left to report a failure
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    const int saved_errno = errno;
    if (tag == nullptr)
        tag = program_invocation_short_name;

    char entry[max_entry];
    int head = snprintf(entry, sizeof(entry), "<%d>%.64s[%d]: ", facility_daemon + syslog_severity(prio), tag,
                        getpid());
    va_list args;
    va_start(args, fmt);
    const size_t room = sizeof(entry) - static_cast<size_t>(head) - 1;  // one byte stays for a newline
    int text = vsnprintf(entry + head, room, fmt, args);
    va_end(args);
    if (text < 0) {
        errno = saved_errno;
        return text;
    }
    size_t length = static_cast<size_t>(head) + std::min(static_cast<size_t>(text), room - 1);
    while (length > static_cast<size_t>(head) && entry[length - 1] == '\n')
        length--;

    const bool sent = send_to_syslog(entry, length);
    if (!sent || (prio >= ANDROID_LOG_WARN && isatty(STDERR_FILENO))) {
        // "<27>Dumper[812]: text" becomes "E Dumper[812]: text".
        char* from = strchr(entry, '>') - 1;
        from[0] = priority_letter(prio);
        from[1] = ' ';
        write_to_stderr(from, length - static_cast<size_t>(from - entry));
    }
    errno = saved_errno;
    return text;
}
