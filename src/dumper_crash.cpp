// The crash dump: follows an attached thread to its fatal signal, freezes the process, writes the report, and
// lets the process die. Runs on the connection thread of the request, while no other dump of this server
// runs.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <time.h>
#include <unistd.h>

#include <iomanip>

#include "dumper.h"
#include "system_log.h"
#include "time_limit.h"
#include "trace_gate.h"
#include "unwind/thread_snapshot.h"

using std::string;
using std::stringstream;
using namespace std::chrono_literals;

namespace
{
constexpr int death_poll_us = 10000;
constexpr auto death_limit = 10s;   // a survivor must not lock the server for ever,
constexpr auto follow_limit = 10s;  // nor a thread that is stopped again and again

bool is_crash_signal(int signal)
{
    switch (signal) {
        case SIGILL:
        case SIGTRAP:
        case SIGABRT:
        case SIGBUS:
        case SIGFPE:
        case SIGSEGV:
        case SIGPIPE:
            return true;
        default:
            return false;
    }
}

bool is_sent_again(int signal)
{
    return signal == SIGABRT || signal == SIGFPE || signal == SIGSTKFLT;
}

}  // namespace

int dumper::dump_process_crash()
{
    bool detach_failed = false;
    int ret = -1;
    int signal = 0;
    const time_limit following(follow_limit);
    while ((signal = wait_for_sigstop(&detach_failed, -1)) == SIGSTOP && !following.passed()) {
        ret = static_cast<int>(ptrace(PTRACE_CONT, tid, 0, 0));
        if (ret != 0)
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Ptrace continue failed: %s\n", strerror(errno));
    }

    if (is_crash_signal(signal)) {
        trace_gate::freeze_process(pid);
        ret = crash_dump(signal, &detach_failed);
        if (ret != 0)
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Crash_dump failed:%d\n", ret);
    } else if (signal != -1) {
        __android_log_print(ANDROID_LOG_INFO, "Dumper", "Process stopped due to unexpected signal %d\n",
                            signal);
    }

    if (signal > 0 && detach_thread(-1) != 0)
        detach_failed = true;
    if (signal > 0 && !detach_failed) {
        if (fdump == nullptr)
            __android_log_print(ANDROID_LOG_INFO, "Dumper",
                                "Crash dump not support multiple threads crashed simultaneously or multiple "
                                "signals come from the same progress");
        if (ret == 0) {
            __LOG(true, "\n=== === === === Dump process:%d stat === === === ===\n", pid);
            set_mode(SILENT | FUNC_PARSE);
            ret = dump_process(false);
            if (ret != 0)
                __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Crash dump process:%d failed:%d\n", pid,
                                    ret);
        }
    }

    trace_gate::resume_process(pid);
    if (detach_failed && !release_thread(detach_failed, -1)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper",
                            "Dump_server(dump_process_crash:%d-%d) kill itself to free the zombie!\n", pid,
                            tid);
        trace_gate::end_tool(pid);
    }
    if (is_sent_again(signal))
        tgkill(pid, tid, signal);

    const time_limit dying(death_limit);
    bool lives = false;
    while ((lives = process_exist(-1) == 0) && !dying.passed())
        usleep(death_poll_us);
    if (lives)
        __android_log_print(ANDROID_LOG_WARN, "Dumper", "Process %d lives on after its crash dump\n", pid);
    return ret;
}

int dumper::crash_dump(int signo, bool* detach_failed)
{
    if (!may_be_shown())
        return -3;
    int ret = crash_file_create(dump_path.c_str());
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Create crash file failed:%d\n", ret);
        return ret;
    }
    set_mode(FUNC_PARSE);
    load_target_image();  // the process has run on since the request, until its signal
    ret = dump_crash_thread(signo, detach_failed);
    if (ret != 0)
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump crash thread failed:%d\n", ret);
    return ret;
}

int dumper::dump_crash_thread(int signo, [[maybe_unused]] bool* detach_failed)
{
    __LOG(true, "****************** Process crash dump stat ******************\n");
    dump_header_info();
    const int ret = dump_thread_info(nullptr, -1);
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump_thread_info failed:%d, pid=%d, tid=%d\n", ret,
                            pid, tid);
        return ret;
    }
    if (signo != 0)
        dump_signal_info(signo);
    thread_snapshot snapshot;
    take_snapshot(snapshot, -1);
    if (!may_be_shown()) {  // other threads run on until now, perhaps into a program that is not the asker's
        drop_report();
        return -3;
    }
    const int r = dump_registers(nullptr, snapshot);
    if (r < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump register failed:%d, pid=%d, tid=%d\n", r, pid,
                            tid);
        return r;
    }
    const int b = dump_backtrace(nullptr, snapshot);
    if (b < 0)
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump backtrace failed:%d, pid=%d, tid=%d\n", b, pid,
                            tid);
    return ret;
}

int dumper::dump_signal_info(int signo)
{
    char fault_addr[32] = {};
    if (abort_addr != nullptr)
        snprintf(fault_addr, sizeof(fault_addr), "fault addr %p", abort_addr);
    __LOG(true, "Fatal signal %d (%s), code %d, %s\n", signo, sys_stat::get_signame(signo), si_code,
          fault_addr);
    return 0;
}

int dumper::crash_file_create(const char* dump_dir)
{
    const time_t currentTime = time(nullptr);
    tm localTime = {};
    localtime_r(&currentTime, &localTime);
    stringstream stamp;
    stamp << std::put_time(&localTime, "%Y%m%d%H%M%S");
    const string path = string(dump_dir) + "/crashdump-" + std::to_string(pid) + "-" + std::to_string(tid) +
                        "_" + stamp.str();
    use_report(create_report_file(path));
    if (fdump == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Open dump file '%s' failed\n", path.c_str());
        return -2;
    }
    __android_log_print(ANDROID_LOG_INFO, "Dumper", "Crash dump saving to %s\n", path.c_str());
    return 0;
}
