// What the dump server, its requesters and the dump job share: the record of the socket and the readers of
// /proc.
#pragma once

#include <signal.h>
#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

constexpr const char* dump_server_socket = "/tmp/quorvineler.ipc";

enum dumper_command : uint16_t {
    CMD_CRASH_DUMP = 0xAE01,    // a crashing thread and its process
    CMD_PROCESS_STAT = 0xAE02,  // all threads of a process
    CMD_THREAD_STAT = 0xAE03,   // one thread
};

// One request, or its acknowledgement: 90 bytes in the host's byte order, both ways over a Unix stream
// socket. docs/protocol.md gives the record byte by byte.
struct dumper_request {
    char dump_path[64];  // directory of the report, NUL-terminated
    pid_t pid;
    uint32_t tid;
    int si_code;       // crash requests only
    void* abort_addr;  // fault address in the requester's address space, or null; crash requests only
};

struct dumper_acknowledgement {
    uint8_t ack[80];  // an int status in the first four bytes: 0 attached, -1 refused, -3 no such thread
};

struct __attribute__((packed)) dumper_frame {
    uint16_t cmd;  // a dumper_command; its bitwise complement in an acknowledgement
    union {
        dumper_request req_t;
        dumper_acknowledgement ack_t;
    };
};

static_assert(sizeof(dumper_request) == 88 && sizeof(dumper_frame) == 90);
static_assert(offsetof(dumper_frame, req_t) == 2 && offsetof(dumper_request, abort_addr) == 80);

// Milliseconds between two gettimeofday readings.
inline double elapsed_ms(const timeval& start, const timeval& end)
{
    return (static_cast<double>(end.tv_sec - start.tv_sec) * 1000000.0 +
            static_cast<double>(end.tv_usec - start.tv_usec)) /
           1000.0;
}

// Readers of /proc and system files. No state, and no log entries but that of log_signal_summary; any number
// of threads may call them at once.
// A buffer reader puts what one read of the file gives into buf, its last byte replaced by NUL (the newline
// of the one-line files), and returns false, buf untouched, when the file cannot be read or is empty. A
// stream reader appends a whole file, each line indented by two spaces, and returns false when it cannot be
// opened. A process number of -1 is the calling process. Formats: proc(5).
class sys_stat
{
    static bool read_sys_once(const std::string& path, char* buf, size_t len);
    static bool sys_info_to_stream(std::stringstream& target, const std::string& path);

    friend struct sys_stat_test;

public:
    sys_stat() = default;
    ~sys_stat() = default;

    // "SIGSEGV" and the like for the signals that crash reports name, "?" for others. Static text.
    static const char* get_signame(int si_signo);
    static bool get_uptime(char* buf, size_t len);
    static bool get_process_stat(char* buf, size_t len, pid_t pid, uint32_t tid);
    static bool get_thread_schedstat(char* buf, size_t len, pid_t pid, uint32_t tid);
    static bool get_kernel_version(char* buf, size_t len);
    static bool get_sys_version(char* buf, size_t len);
    static bool get_process_name(char* buf, size_t len, pid_t pid);
    // The arguments stay separated by NUL bytes. A zombie and a kernel thread have none: false.
    static bool get_process_cmdline(char* buf, size_t len, pid_t pid);
    // With pid and tid both -1: the calling thread's name, without touching a file; always true.
    static bool get_thread_name(char* buf, size_t len, pid_t pid, int tid);
    static bool get_meminfo_to_stream(std::stringstream* target);
    // The thread's kernel stack, /proc/<pid>/task/<tid>/stack, as the kernel writes it.
    static bool get_kernel_calltrace_to_stream(std::stringstream* target, pid_t pid, pid_t tid);
    static bool get_systat_to_stream(std::stringstream* target);
    // Whether si_addr is a fault address: sigaction(2).
    static bool signal_has_si_addr(const siginfo_t* si);
    // One ERROR entry that names the signal, the thread and the process; for use in a fatal-signal handler.
    static void log_signal_summary(const siginfo_t* si);
};
