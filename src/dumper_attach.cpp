// Whether a target exists, and the road of one thread: attach, stop, release. Attach, wait, captures and
// release of a thread run on one and the same thread of the tool, as ptrace(2) demands. Every path that
// attached a thread ends in its release, and where that is impossible the caller is told, so that it can end
// the tool.
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "dumper.h"
#include "system_log.h"
#include "time_limit.h"
#include "trace_gate.h"

using std::string;
using std::vector;
using namespace std::chrono_literals;

namespace
{
constexpr auto rescue_limit = 100ms;
constexpr auto exec_limit = 2000ms;  // an execve may have to fetch the new program
constexpr auto reap_limit = 1000ms;

bool is_thread_of(pid_t pid, pid_t tid)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task/%d", pid, tid);
    return access(path, F_OK) == 0;
}

// A number of /proc/<tid>/status, e.g. "TracerPid".
std::optional<uint64_t> status_number(pid_t tid, const char* key, int base)
{
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task/%d/status", tid, tid);  // /proc/<tid> shows the lead thread
    FILE* file = fopen(path, "re");
    if (file == nullptr)
        return std::nullopt;
    const size_t key_length = strlen(key);
    std::optional<uint64_t> number;
    char line[256];
    while (!number && fgets(line, sizeof(line), file) != nullptr)
        if (strncmp(line, key, key_length) == 0 && line[key_length] == ':')
            number = strtoull(line + key_length + 1, nullptr, base);
    fclose(file);
    return number;
}

bool stop_signal_pending(pid_t tid)
{
    return (status_number(tid, "SigPnd", 16).value_or(0) >> (SIGSTOP - 1) & 1) != 0;
}

// Dead, or on its way through exit: it will never stop again. Flags: PF_EXITING of the kernel's sched.h,
// field 9 of proc_pid_stat(5).
bool is_ending(pid_t tid)
{
    char stat[512] = "";
    if (!sys_stat::get_process_stat(stat, sizeof(stat), tid, static_cast<uint32_t>(tid)))
        return syscall(SYS_tkill, tid, 0) == -1 && errno == ESRCH;  // not for want of a descriptor
    const char* behind_name = strrchr(stat, ')');
    char state = '\0';
    unsigned flags = 0;
    if (behind_name == nullptr || sscanf(behind_name, ") %c %*d %*d %*d %*d %*d %u", &state, &flags) != 2)
        return false;
    return state == 'Z' || state == 'X' || (flags & 4) != 0;
}

// An execve of a thread that is being attached raises SIGTRAP in it (ptrace(2), "execve(2) under ptrace"):
// sent by the process to itself, and only because of the attach.
bool is_exec_trap(pid_t tid, int sig)
{
    siginfo_t info = {};
    return sig == SIGTRAP && ptrace(PTRACE_GETSIGINFO, tid, 0, &info) == 0 && info.si_code == SI_USER &&
           status_number(tid, "Tgid", 10) == static_cast<uint64_t>(info.si_pid);
}

// A process that Ctrl-Z has stopped reports that signal at an attach, but nothing arrives in it: there is no
// siginfo (ptrace(2), "Group-stop").
bool is_group_stop(pid_t tid, int sig)
{
    siginfo_t info = {};
    return (sig == SIGTSTP || sig == SIGTTIN || sig == SIGTTOU) &&
           ptrace(PTRACE_GETSIGINFO, tid, 0, &info) == -1 && errno == EINVAL;
}

// To a tracee, whose number cannot be reused meanwhile. tgkill would refuse a job whose pid is that of a
// thread other than the lead.
void send_to_tracee(pid_t tid, int sig)
{
    (void)syscall(SYS_tkill, tid, sig);
}

// Releases a tracee in its stop, or lets it run to the SIGSTOP that is still pending and would stop it after
// its release: false.
bool release_or_run_to_stop(pid_t tid, int sig)
{
    const bool once_more = stop_signal_pending(tid);
    const int handed_back = sig == SIGSTOP || is_exec_trap(tid, sig) ? 0 : sig;
    return ptrace(once_more ? PTRACE_CONT : PTRACE_DETACH, tid, 0, handed_back) == 0 && !once_more;
}

// Reaps a tracee that is ending, so that its parent's wait for it ends. A thread group leader can be reaped
// only after all its other threads have gone: hence the loop.
void reap_ending_thread(pid_t tid)
{
    const time_limit limit(reap_limit);
    int status = 0;
    while (waitpid(tid, &status, __WALL | WNOHANG) == 0 && !limit.passed())
        sched_yield();
}

}  // namespace

int dumper::process_exist([[maybe_unused]] pid_t target_pid)
{
    command_line ignored;
    return sys_stat::get_process_cmdline(ignored.data(), ignored.size(), pid) ? 0 : 1;
}

int dumper::thread_exist(pid_t target_tid)
{
    command_line ignored;
    return thread_exist(target_tid, ignored);
}

int dumper::thread_exist(pid_t target_tid, command_line& cmdline)
{
    if (!sys_stat::get_process_cmdline(cmdline.data(), cmdline.size(), pid))
        return -3;
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/task/%d/cmdline", pid, target_tid);
    if (access(path, R_OK) == 0)
        return 0;
    __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Tid %d does not exist in pid %d. ignoring request\n",
                        target_tid, pid);
    return -3;
}

int dumper::init_process_map()
{
    const int gone = process_exist(-1);
    if (gone != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "process map not exist\n");
        return gone;
    }
    load_target_image();
    pmi = new process_map_info(pid);
    return pmi->process_create_map_info_list();
}

int dumper::attach_thread(pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    const int missing = thread_exist(target_tid);
    return missing < 0 ? missing : attach_seen_thread(target_tid);
}

int dumper::attach_seen_thread(pid_t target_tid)
{
    trace_gate::begin_attach();
    if (ptrace(PTRACE_ATTACH, target_tid, 0, 0) == 0) {
        // A turn to attach can take seconds to come, in which the number may have gone to another process.
        // It stays where it is from now on.
        if (is_thread_of(pid, target_tid))
            return 0;
        release_attached_thread(target_tid);
        (void)thread_exist(target_tid);  // says so
        return -3;
    }
    const int error = errno;
    trace_gate::released();
    const int missing = thread_exist(target_tid);
    if (missing < 0)
        return missing;
    __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Ptrace attach tid:%d failed: %s\n", target_tid,
                        strerror(error));
    return -1;
}

int dumper::wait_for_sigstop(bool* detach_failed, pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    bool allow_dead_tid = false;
    bool timed_out = false;
    timeval start;
    timeval end;
    gettimeofday(&start, nullptr);
    for (;;) {
        gettimeofday(&end, nullptr);
        if (end.tv_sec - start.tv_sec > 1) {
            timed_out = true;
            break;
        }
        int status = 0;
        const auto waited =
            static_cast<pid_t>(TEMP_FAILURE_RETRY(waitpid(target_tid, &status, __WALL | WNOHANG)));
        if (waited == -1) {
            __android_log_print(ANDROID_LOG_INFO, "Dumper", "Waitpid exit: tid %d, %s", target_tid,
                                strerror(errno));
            break;
        }
        if (waited != target_tid) {
            sched_yield();  // a sleep would lengthen the hold; a bare loop keeps the target from its stop
            continue;
        }
        if (WIFSTOPPED(status)) {
            const int sig = is_group_stop(target_tid, WSTOPSIG(status)) ? SIGSTOP : WSTOPSIG(status);
            trace_gate::stop_seen(sig);
            return sig;
        }
        __android_log_print(ANDROID_LOG_INFO, "Dumper", "Unexpected waitpid response: pid=%d, status=%08x\n",
                            target_tid, static_cast<unsigned>(status));
        allow_dead_tid = true;
    }
    if (timed_out)
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Wait for sigstop timeout %d", target_tid);

    if (ptrace(PTRACE_DETACH, target_tid, 0, 0) == 0) {
        trace_gate::released();
        return -1;
    }
    const int error = errno;
    if (error == ESRCH && allow_dead_tid) {
        trace_gate::released();
        __android_log_print(ANDROID_LOG_INFO, "Dumper", "Tid exited before attach completed: tid %d",
                            target_tid);
        return -1;
    }
    *detach_failed = true;
    __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Detach failed: tid %d, %s", target_tid,
                        strerror(error));
    return -1;
}

void dumper::send_signal_back(pid_t target_tid, int sig)
{
    if (!is_exec_trap(target_tid, sig))
        send_to_tracee(target_tid, sig);
}

int dumper::detach_thread(pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    if (ptrace(PTRACE_DETACH, target_tid, 0, 0) == 0) {
        trace_gate::released();
        return 0;
    }
    const int error = errno;
    __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Ptrace detach tid:%d failed: %s\n", target_tid,
                        strerror(error));
    if (error != ESRCH)
        return -1;
    // A tracee that was killed stays listed, and its parent waiting, until its tracer has reaped it.
    int status = 0;
    const bool reaped = waitpid(target_tid, &status, __WALL | WNOHANG) == target_tid && !WIFSTOPPED(status);
    if (!reaped) {
        if (!is_ending(target_tid))
            return -1;
        reap_ending_thread(target_tid);
    }
    trace_gate::released();
    __android_log_print(ANDROID_LOG_WARN, "Dumper", "Process may exited, not fatal error, ignore\n");
    return 0;
}

bool dumper::release_thread(bool detach_failed, pid_t target_tid)
{
    if (!detach_failed && detach_thread(target_tid) == 0)
        return true;
    if (!rescue_thread(target_tid))
        return false;
    trace_gate::released();
    return true;
}

bool dumper::rescue_thread(pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    if (status_number(target_tid, "TracerPid", 10) != static_cast<uint64_t>(gettid()))
        return release_after_exec();

    trace_gate::stop_sent();
    send_to_tracee(target_tid, SIGSTOP);
    for (const time_limit limit(rescue_limit); !limit.passed();) {
        int status = 0;
        const auto waited =
            static_cast<pid_t>(TEMP_FAILURE_RETRY(waitpid(target_tid, &status, __WALL | WNOHANG)));
        if (waited == -1)
            return release_after_exec();
        if (waited == target_tid && !WIFSTOPPED(status))
            return true;  // it died, and is reaped now
        if (waited == target_tid && release_or_run_to_stop(target_tid, WSTOPSIG(status))) {
            __android_log_print(ANDROID_LOG_WARN, "Dumper", "Tid %d did not stop in time, released later\n",
                                target_tid);
            return true;
        }
        sched_yield();
    }
    if (!is_ending(target_tid))
        return false;
    reap_ending_thread(target_tid);
    return true;
}

bool dumper::release_after_exec()
{
    for (const time_limit limit(exec_limit); !limit.passed();) {
        siginfo_t stop = {};
        constexpr int stops_of_own_tracees = WSTOPPED | WNOHANG | __WALL | __WNOTHREAD;
        if (TEMP_FAILURE_RETRY(waitid(P_ALL, 0, &stop, stops_of_own_tracees)) != 0)
            return true;  // no tracee
        if (stop.si_code == CLD_TRAPPED && release_or_run_to_stop(stop.si_pid, stop.si_status))
            return true;
        sched_yield();
    }
    return false;
}

void dumper::release_attached_thread(pid_t target_tid)
{
    // Not the job's when the number has gone to another process. An execve keeps it.
    const auto owner =
        static_cast<pid_t>(status_number(target_tid, "Tgid", 10).value_or(static_cast<uint64_t>(pid)));
    bool detach_failed = false;
    const int sig = wait_for_sigstop(&detach_failed, target_tid);
    if (sig != SIGSTOP) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Wait for sigstop failed:%d, pid=%d, tid=%d\n", sig,
                            pid, tid);
        if (sig > 0)
            send_signal_back(target_tid, sig);
    }
    if (!release_thread(detach_failed, target_tid)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper",
                            "Dump_server(dump_thread_stats:%d-%d) kill itself to free the zombie!\n", pid,
                            tid);
        trace_gate::end_tool(owner);
    }
    if (sig > 0 && sig != SIGSTOP)
        trace_gate::resume_process(owner);
}

bool dumper::still_traced(pid_t target_tid)
{
    vector<string> fields;
    if (parse_proc_stat(nullptr, target_tid, fields, false) != 0 || fields.empty())
        return false;
    return fields[0] == "t" || fields[0] == "T";
}
