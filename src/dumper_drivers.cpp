// The drivers: one thread from its statistics to its kernel stack, and a whole process, whose threads four
// workers share when there are many. Only one thread (with workers four) is held at a time, never the process
// as a whole.
#include <dirent.h>
#include <signal.h>
#include <string.h>

#include <cstdlib>
#include <memory>
#include <system_error>
#include <thread>

#include "dumper.h"
#include "system_log.h"
#include "trace_gate.h"
#include "unwind/thread_snapshot.h"

using std::string;
using std::stringstream;
using std::vector;

namespace
{
constexpr size_t worker_count = 4;
constexpr size_t most_in_sequence = 3;  // further threads that are dumped one after another
constexpr const char* dash_line = "\n--- --- --- --- --- --- --- --- --- --- --- --- --- --- --- ---\n";
constexpr const char* equals_line = "\n=== === === === === === === === === === === === === === === ===\n";

}  // namespace

int dumper::dump_process_stats(bool attached)
{
    int ret = dump_path.empty() ? 0 : dump_file_create(dump_path.c_str());
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dumper create file failed:%d\n", ret);
        if (attached)
            release_attached_thread(pid);
        return ret;
    }
    __LOG(true, "=== === === === Dump process:%d stat === === === ===\n", pid);
    ret = dump_process(attached);
    if (ret != 0)
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dumper process:%d failed:%d\n", pid, ret);
    return ret;
}

int dumper::dump_thread_stats(bool attached)
{
    int ret = dump_path.empty() ? 0 : dump_file_create(dump_path.c_str());
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dumper create file failed\n");
        if (attached)
            release_attached_thread(tid);
        return ret;
    }
    __LOG(true, "=== === === === Dump thread:%d stat === === === ===\n", tid);
    ret = dump_thread(tid, attached, nullptr);
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dumper thread:%d failed:%d\n", tid, ret);
        return ret;
    }
    ret = dump_map_info();
    if (ret < 0)
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump memory map failed:%d, pid=%d, tid=%d\n", ret,
                            pid, tid);
    return ret;
}

int dumper::dump_process(bool attached)
{
    const int missing = dump_process_sections();
    if (missing != 0) {
        if (attached)
            release_attached_thread(pid);
        return missing;
    }
    const int ret = dump_thread(pid, attached, nullptr);
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dumper thread:%d failed:%d\n", tid, ret);
        return ret;
    }
    return dump_other_threads(attached);
}

int dumper::dump_thread(pid_t target_tid, bool tid_attached, stringstream* ss)
{
    command_line cmdline;
    const int missing = thread_exist(target_tid, cmdline);
    if (missing < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "dump_thread tid:%d not exist\n", target_tid);
        if (tid_attached)
            release_attached_thread(target_tid);
        return missing;
    }
    int ret = dump_thread_info(ss, target_tid, cmdline);
    const bool has_info = ret == 0;
    if (!has_info) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump_thread_info failed:%d, pid=%d, tid=%d\n", ret,
                            pid, target_tid);
        if (!tid_attached)
            return ret;
    }
    if (!tid_attached) {
        if (ss == nullptr && fdump != nullptr)
            fflush(fdump);  // nothing waits for a reader that may be the held thread itself
        ret = attach_seen_thread(target_tid);
        if (ret != 0) {
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Attach_thread failed:%d, pid=%d, tid=%d\n", ret,
                                pid, target_tid);
            return ret;
        }
    }

    bool detach_failed = false;
    bool sent_back = false;
    bool captured = false;
    thread_snapshot snapshot;
    const int sig = wait_for_sigstop(&detach_failed, target_tid);
    if (sig != SIGSTOP) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Wait for sigstop failed:%d, pid=%d, tid=%d\n", sig,
                            pid, target_tid);
        if (sig > 0) {
            send_signal_back(target_tid, sig);
            sent_back = true;
        }
    } else if (has_info) {
        captured = take_snapshot(snapshot, target_tid);
        if (!captured) {
            ret = dump_registers(ss, snapshot);
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump register failed:%d, pid=%d, tid=%d\n", ret,
                                pid, target_tid);
        }
    }

    // Until now the process has run on, perhaps into a program that is not the asker's.
    const bool refused = !may_be_shown();

    if (!release_thread(detach_failed, target_tid)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper",
                            "Detach failed:%d, pid=%d, tid=%d, dump_server kill itself to free the zombie!\n",
                            ret, pid, target_tid);
        trace_gate::end_tool(pid);
    }
    if (sent_back) {
        __android_log_print(ANDROID_LOG_INFO, "Dumper", "Unexcept signal:%d..continue\n", sig);
        trace_gate::resume_process(pid);
    }
    if (refused) {
        if (ss != nullptr)
            ss->str("");
        else
            drop_report();
        return -3;
    }
    if (captured) {
        dump_registers(ss, snapshot);
        ret = dump_backtrace(ss, snapshot);
        if (ret < 0)
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump backtrace failed:%d, pid=%d, tid=%d\n",
                                ret, pid, target_tid);
    }
    if (!dump_ktrace(ss, target_tid)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump kernel trace failed:%d, pid=%d, tid=%d\n", 1,
                            pid, target_tid);
        return 1;
    }
    return 0;
}

// The process-wide sections, down to the first separator.
int dumper::dump_process_sections()
{
    if (process_exist(-1) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump_process process:%d not exist\n", pid);
        return -3;
    }
    dump_header_info();
    dump_process_info();
    int ret = dump_map_info();
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump memory map failed\n");
        return ret;
    }
    ret = dump_opened_file();
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dump open files failed:%d\n", ret);
        return ret;
    }
    __LOG(true, "%s", dash_line);
    return 0;
}

int dumper::dump_other_threads(bool attached)
{
    char task_path[64];
    snprintf(task_path, sizeof(task_path), "/proc/%d/task", pid);
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(task_path), closedir);
    if (!dir)
        return -2;
    vector<int> tid_vec;
    while (const dirent* entry = readdir(dir.get())) {
        char* end = nullptr;
        const auto id = static_cast<pid_t>(strtoul(entry->d_name, &end, 10));
        if (end == entry->d_name || *end != '\0')
            continue;
        // The lead stands in the report already; so does the crashing thread of a crash job, which comes
        // unattached.
        if (id == pid || (!attached && id == tid))
            continue;
        tid_vec.push_back(id);
    }

    if (tid_vec.size() > most_in_sequence) {
        dump_with_workers(tid_vec);
        return 0;
    }
    for (const int id : tid_vec) {
        __LOG(true, "%s", dash_line);
        const int ret = dump_thread(id, false, nullptr);
        if (ret != 0)
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Dumper thread:%d failed:%d\n", id, ret);
    }
    return 0;
}

void dumper::dump_with_workers(const vector<int>& tid_vec)
{
    __android_log_print(ANDROID_LOG_INFO, "Dumper",
                        "Multi thread trace mode(%d threads), %ld threads will be dumped\n",
                        static_cast<int>(worker_count), static_cast<long>(tid_vec.size()));
    const auto task_len = static_cast<std::ptrdiff_t>(tid_vec.size() / worker_count);
    vector<int> vec[worker_count];
    vector<std::thread> dumpers;
    for (size_t i = 0; i < worker_count; i++) {
        const auto first = tid_vec.begin() + static_cast<std::ptrdiff_t>(i) * task_len;
        vec[i].assign(first, i + 1 < worker_count ? first + task_len : tid_vec.end());
        try {
            dumpers.emplace_back(dump_thread_helper, std::ref(vec[i]), this);
        } catch (const std::system_error& error) {
            __android_log_print(ANDROID_LOG_WARN, "Dumper", "No worker thread (%s), dumping without\n",
                                error.what());
            dump_thread_helper(vec[i], this);
        }
    }
    for (auto& worker : dumpers)
        worker.join();
}

void dump_thread_helper(vector<int>& task_vec, dumper* dp)
{
    for (const int id : task_vec) {
        stringstream stream;
        stream << equals_line;
        if (dp->dump_thread(id, false, &stream) != 0)
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "dump_thread_helper dump tid:%d failed\n", id);
        if (dp->fdump != nullptr)
            fputs(stream.str().c_str(), dp->fdump);
    }
}
