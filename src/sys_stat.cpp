// Readers of /proc, signal names and the fatal-signal line. Stateless; log_signal_summary runs in a
// fatal-signal handler, so what it calls takes no lock and no heap.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include "dumper_common.h"
#include "system_log.h"

using std::string;
using std::stringstream;

namespace
{
string process_file(pid_t pid, const char* file)
{
    return "/proc/" + std::to_string(pid) + file;
}

string thread_file(pid_t pid, const string& tid, const char* file)
{
    return "/proc/" + std::to_string(pid) + "/task/" + tid + file;
}

}  // namespace

bool sys_stat::read_sys_once(const string& path, char* buf, size_t len)
{
    const auto fd = static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    if (fd < 0)
        return false;
    const ssize_t rc = TEMP_FAILURE_RETRY(read(fd, buf, len));
    close(fd);
    if (rc <= 0)
        return false;
    buf[rc - 1] = '\0';
    return true;
}

bool sys_stat::sys_info_to_stream(stringstream& target, const string& path)
{
    const auto fd = static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
    if (fd < 0)
        return false;
    constexpr size_t longest_piece = 1023;  // longer lines get the indent again after so many bytes
    char chunk[4096];
    size_t piece = 0;  // bytes since the last indent
    ssize_t rc;
    while ((rc = TEMP_FAILURE_RETRY(read(fd, chunk, sizeof(chunk)))) > 0) {
        for (std::string_view rest(chunk, static_cast<size_t>(rc)); !rest.empty();) {
            if (piece == 0)
                target << "  ";
            const std::string_view part = rest.substr(0, longest_piece - piece);
            const size_t newline = part.find('\n');
            const size_t taken = newline == part.npos ? part.size() : newline + 1;
            target << part.substr(0, taken);
            rest.remove_prefix(taken);
            piece = newline != part.npos || piece + taken == longest_piece ? 0 : piece + taken;
        }
    }
    close(fd);
    return true;
}

bool sys_stat::get_uptime(char* buf, size_t len)
{
    return read_sys_once("/proc/uptime", buf, len);
}

bool sys_stat::get_process_stat(char* buf, size_t len, pid_t pid, uint32_t tid)
{
    return read_sys_once(thread_file(pid, std::to_string(tid), "/stat"), buf, len);
}

bool sys_stat::get_thread_schedstat(char* buf, size_t len, pid_t pid, uint32_t tid)
{
    return read_sys_once(thread_file(pid, std::to_string(tid), "/schedstat"), buf, len);
}

bool sys_stat::get_kernel_version(char* buf, size_t len)
{
    return read_sys_once("/proc/version", buf, len);
}

bool sys_stat::get_sys_version(char* buf, size_t len)
{
    return read_sys_once("/etc/version", buf, len);
}

bool sys_stat::get_process_name(char* buf, size_t len, pid_t pid)
{
    // The fixed path fits a string without heap: it is read in fatal-signal handlers.
    return read_sys_once(pid == -1 ? "/proc/self/comm" : process_file(pid, "/comm"), buf, len);
}

bool sys_stat::get_process_cmdline(char* buf, size_t len, pid_t pid)
{
    return read_sys_once(pid == -1 ? "/proc/self/cmdline" : process_file(pid, "/cmdline"), buf, len);
}

bool sys_stat::get_thread_name(char* buf, size_t len, pid_t pid, int tid)
{
    if (pid == -1 && tid == -1) {
        char name[17] = {};  // 16 bytes with their NUL: PR_GET_NAME(2const)
        if (prctl(PR_GET_NAME, name, 0, 0, 0) != 0)
            snprintf(buf, len, "<name unknown>");
        else
            snprintf(buf, len, "%s", name);
        return true;
    }
    if (pid == -1)
        return false;
    return read_sys_once(thread_file(pid, std::to_string(tid), "/comm"), buf, len);
}

bool sys_stat::get_meminfo_to_stream(stringstream* target)
{
    return sys_info_to_stream(*target, "/proc/meminfo");
}

bool sys_stat::get_kernel_calltrace_to_stream(stringstream* target, pid_t pid, pid_t tid)
{
    return sys_info_to_stream(*target, thread_file(pid, std::to_string(tid), "/stack"));
}

bool sys_stat::get_systat_to_stream(stringstream* target)
{
    return sys_info_to_stream(*target, "/proc/stat");
}

const char* sys_stat::get_signame(int si_signo)
{
    switch (si_signo) {
        case SIGILL:
            return "SIGILL";
        case SIGTRAP:
            return "SIGTRAP";
        case SIGABRT:
            return "SIGABRT";
        case SIGBUS:
            return "SIGBUS";
        case SIGFPE:
            return "SIGFPE";
        case SIGSEGV:
            return "SIGSEGV";
        case SIGSTKFLT:
            return "SIGSTKFLT";
        case SIGSTOP:
            return "SIGSTOP";
        case SIGSYS:
            return "SIGSYS";
        default:
            return "?";
    }
}

bool sys_stat::signal_has_si_addr(const siginfo_t* si)
{
    if (si->si_code == SI_USER || si->si_code == SI_QUEUE || si->si_code == SI_TKILL)
        return false;
    switch (si->si_signo) {
        case SIGILL:
        case SIGTRAP:
        case SIGBUS:
        case SIGFPE:
        case SIGSEGV:
            return true;
        default:
            return false;
    }
}

void sys_stat::log_signal_summary(const siginfo_t* si)
{
    char process_name[17];
    if (!get_process_name(process_name, sizeof(process_name), -1))
        strcpy(process_name, "<unknown>");
    char fault_addr[32] = {};
    if (signal_has_si_addr(si))
        snprintf(fault_addr, sizeof(fault_addr), "fault addr %p", si->si_addr);
    char thread_name[17];
    if (!get_thread_name(thread_name, sizeof(thread_name), -1, -1))
        strcpy(thread_name, "<unknown>");
    __android_log_print(ANDROID_LOG_ERROR, nullptr,
                        "Fatal signal %d (%s), code %d, %s in tid %ld (%s), pid %d (%s)", si->si_signo,
                        get_signame(si->si_signo), si->si_code, fault_addr, syscall(SYS_gettid), thread_name,
                        getpid(), process_name);
}
