// System log entries as syslog datagrams, for systems without an Android log library.
// Runs in fatal-signal handlers and while a target is held, which may be the log daemon itself: no lock, no
// heap, and nothing that can block.
#include "system_log.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace
{
constexpr int facility_daemon = 3 << 3;  // syslog(3)
constexpr size_t max_entry = 4096;       // PIPE_BUF: a pipe takes it whole or not at all

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

// Never waits for who reads standard error, a held target perhaps: false when it would.
bool write_to_stderr(const char* line, size_t length)
{
    ssize_t written = send(STDERR_FILENO, line, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (written >= 0 || errno != ENOTSOCK)
        return written >= 0;
    // A pipe that polls writable may be full when the write comes, if others write too; and its flags belong
    // to all who share it. So the write goes through an open file of our own.
    struct stat file;
    if (fstat(STDERR_FILENO, &file) == 0 && S_ISFIFO(file.st_mode)) {
        const int fd = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            written = write(fd, line, length);
            close(fd);
            return written >= 0;
        }
    }
    pollfd writable = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&writable, 1, 0) != 1 || !(writable.revents & POLLOUT))
        return false;
    return write(STDERR_FILENO, line, length) >= 0;
}

struct log_entry {
    char text[max_entry];
    size_t length = 0;
};

// Returns what __android_log_print does.
int vmake_entry(log_entry& entry, int prio, const char* tag, const char* fmt, va_list args)
    __attribute__((format(printf, 4, 0)));
int vmake_entry(log_entry& entry, int prio, const char* tag, const char* fmt, va_list args)
{
    const int head = snprintf(entry.text, sizeof(entry.text),
                              "<%d>%.64s[%d]: ", facility_daemon + syslog_severity(prio), tag, getpid());
    const size_t room = sizeof(entry.text) - static_cast<size_t>(head) - 1;  // one byte stays for a newline
    const int text = vsnprintf(entry.text + head, room, fmt, args);
    if (text < 0)
        return text;
    entry.length = static_cast<size_t>(head) + std::min(static_cast<size_t>(text), room - 1);
    while (entry.length > static_cast<size_t>(head) && entry.text[entry.length - 1] == '\n')
        entry.length--;
    return text;
}

int make_entry(log_entry& entry, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int make_entry(log_entry& entry, int prio, const char* tag, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int text = vmake_entry(entry, prio, tag, fmt, args);
    va_end(args);
    return text;
}

// False when nobody takes it.
bool deliver(log_entry& entry, int prio)
{
    const bool sent = send_to_syslog(entry.text, entry.length);
    if (sent && (prio < ANDROID_LOG_WARN || !isatty(STDERR_FILENO)))
        return true;
    // "<27>Dumper[812]: text" becomes "E Dumper[812]: text".
    char* from = strchr(entry.text, '>') - 1;
    from[0] = priority_letter(prio);
    from[1] = ' ';
    entry.text[entry.length++] = '\n';
    const bool written = write_to_stderr(from, entry.length - static_cast<size_t>(from - entry.text));
    return sent || written;
}

std::atomic<unsigned> lost{0};  // entries that nobody took, until an entry says so

// Behind an entry that was taken.
void tell_of_lost_entries()
{
    const unsigned count = lost.exchange(0);
    if (count == 0)
        return;
    log_entry note;
    make_entry(note, ANDROID_LOG_WARN, "DumpServer", "%u log entries before this one are lost", count);
    if (!deliver(note, ANDROID_LOG_WARN))
        lost += count;
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    const int saved_errno = errno;
    log_entry entry;
    va_list args;
    va_start(args, fmt);
    const int text =
        vmake_entry(entry, prio, tag != nullptr ? tag : program_invocation_short_name, fmt, args);
    va_end(args);
    if (text >= 0) {
        if (deliver(entry, prio))
            tell_of_lost_entries();
        else
            lost++;
    }
    errno = saved_errno;
    return text;
}
