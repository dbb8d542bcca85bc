// What /proc and system files say: the report's header, the process-wide sections and the lines that identify
// a thread. All buffers are local; workers call the thread's part with streams of their own.
#include <dirent.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "dumper.h"
#include "system_log.h"

using std::string;
using std::stringstream;
using std::vector;

namespace
{
void stringSplit(vector<string>& elems, const string& str, char sp)
{
    stringstream stream(str);
    string item;
    while (getline(stream, item, sp))
        if (!item.empty())
            elems.push_back(item);
}

// Places in the split stat line, counted from the state letter: field k of proc_pid_stat(5) is at k - 3.
enum stat_token : size_t {
    token_state = 0,
    token_utime = 11,
    token_stime = 12,
    token_priority = 15,
    token_starttime = 19,
    token_vsize = 20,
    token_rss = 21,
    token_core = 36,
    token_policy = 38,
};

}  // namespace

void dumper::dump_header_info()
{
    const time_t t = time(nullptr);
    tm lt = {};
    localtime_r(&t, &lt);
    char tmp[1024] = "";
    sys_stat::get_uptime(tmp, sizeof(tmp));
    __LOG(true, "Uptime: %s\n", tmp);
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    __LOG(true, "Timestamp: %d-%02d-%02d %02d:%02d:%02d.%09ld\n", lt.tm_year + 1900, lt.tm_mon + 1,
          lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec, ts.tv_nsec);
    tmp[0] = '\0';
    sys_stat::get_sys_version(tmp, sizeof(tmp));
    __LOG(true, "Sys version: %s\n", tmp);
    tmp[0] = '\0';
    sys_stat::get_kernel_version(tmp, sizeof(tmp));
    __LOG(true, "Kernel version: %s\n", tmp);
}

void dumper::dump_process_info()
{
    stringstream ss;
    __LOG(ss, false, "\nMemoryinfo:\n");
    sys_stat::get_meminfo_to_stream(&ss);
    __LOG(false, "%s", ss.str().c_str());
    ss.str("");
    __LOG(ss, false, "\nSys Stat:\n");
    sys_stat::get_systat_to_stream(&ss);
    __LOG(false, "%s", ss.str().c_str());
}

int dumper::dump_opened_file()
{
    __LOG(false, "\nOpen files:\n");
    char fd_path[64];
    snprintf(fd_path, sizeof(fd_path), "/proc/%d/fd", pid);
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(fd_path), closedir);
    if (!dir)
        return -2;
    while (const dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0)
            continue;
        char file[576];
        snprintf(file, sizeof(file), "%s/%s", fd_path, entry->d_name);
        char link[65];
        const ssize_t len = readlink(file, link, sizeof(link) - 1);
        if (len <= 0)
            continue;  // closed meanwhile
        link[len] = '\0';
        __LOG(false, "    fd %s: %s\n", entry->d_name, link);
    }
    return 0;
}

int dumper::dump_thread_info(stringstream* ss, pid_t target_tid)
{
    command_line cmdline;
    if (!sys_stat::get_process_cmdline(cmdline.data(), cmdline.size(), pid)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "get_process_cmdline failed, pid=%d\n", pid);
        strcpy(cmdline.data(), "<unknown>");
    }
    return dump_thread_info(ss, target_tid, cmdline);
}

int dumper::dump_thread_info(stringstream* ss, pid_t target_tid, const command_line& cmdline)
{
    if (target_tid == -1)
        target_tid = tid;
    char process_name[65];
    char thread_name[65];
    if (!sys_stat::get_process_name(process_name, sizeof(process_name), pid)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "get_process_name failed, pid=%d\n", pid);
        strcpy(process_name, "<unknown>");
    }
    if (!sys_stat::get_thread_name(thread_name, sizeof(thread_name), pid, target_tid)) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "get_thread_name failed, pid=%d, tid=%d\n", pid,
                            target_tid);
        strcpy(thread_name, "<unknown>");
    }
    write_text(ss, true, "Cmdline: %s\npid: %d, tid: %d, process: %s, thread: %s\n", cmdline.data(), pid,
               target_tid, process_name, thread_name);
    return get_process_stat(ss, target_tid);
}

int dumper::get_process_stat(stringstream* ss, pid_t target_tid)
{
    if (target_tid == -1)
        target_tid = tid;
    timespec current_time;
    clock_gettime(CLOCK_BOOTTIME, &current_time);
    vector<string> fields;
    if (parse_proc_stat(ss, target_tid, fields, true) != 0)
        return -3;
    char schedstat[512];
    if (!sys_stat::get_thread_schedstat(schedstat, sizeof(schedstat), pid, static_cast<uint32_t>(target_tid)))
        return -3;
    if (fields.size() <= token_policy) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Stat line has %zu fields only, pid=%d, tid=%d\n",
                            fields.size(), pid, target_tid);
        return -3;
    }
    // Negative numbers come back as such: the report prints them signed.
    auto number = [&fields](stat_token token) {
        return static_cast<long>(strtoul(fields[token].c_str(), nullptr, 10));
    };
    const double current =
        static_cast<double>(current_time.tv_sec) + static_cast<double>(current_time.tv_nsec) / 1e9;
    const double start = static_cast<double>(static_cast<unsigned long>(number(token_starttime))) /
                         static_cast<double>(sysconf(_SC_CLK_TCK));
    write_text(ss, true,
               "Core=%ld, utime=%ld, stime=%ld, priority=%ld, policy=%ld, vsize=%ld, rss=%ld, state=%s, "
               "current=%lf, uptime=%lf, schedstat=<%s>\n",
               number(token_core), number(token_utime), number(token_stime), number(token_priority),
               number(token_policy), number(token_vsize), number(token_rss), fields[token_state].c_str(),
               current, current - start, schedstat);
    return 0;
}

int dumper::parse_proc_stat(stringstream* ss, pid_t target_tid, vector<string>& fields, bool to_file)
{
    char stats[512];
    if (!sys_stat::get_process_stat(stats, sizeof(stats), pid, static_cast<uint32_t>(target_tid))) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "get_process_stat failed, pid=%d, tid=%d\n", pid,
                            target_tid);
        return -3;
    }
    if (to_file)
        write_text(ss, false, "Thread stat:%s\n", stats);
    const string sstat = stats;
    const size_t name_end = sstat.find(')');
    if (name_end == string::npos || name_end + 2 >= sstat.size()) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Stat line is cut short, pid=%d, tid=%d\n", pid,
                            target_tid);
        return -3;
    }
    stringSplit(fields, sstat.substr(name_end + 2), ' ');
    return 0;
}
