// One dump job: what to dump, how much work to do for it, and the report it writes. The operations stand in
// reading order: each group has a source file of its own, named beside it.
//
// A job belongs to the thread that made it; the workers of a large process dump share it read-only. A thread
// number of -1 means the job's own tid. Status values: 0 done, -1 a system call or ptrace request failed, -2
// a file or directory could not be opened, -3 the process or thread does not exist.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "dumper_common.h"
#include "map_info.h"

class target_image;
class thread_snapshot;

enum DUMP_MODE {
    SILENT = 1,      // report lines are not copied to the system log
    FUNC_PARSE = 2,  // backtraces name functions
};

class dumper
{
    using command_line = std::array<char, 65>;  // the first argument, as far as reports show it

    process_map_info* pmi = nullptr;      // until init_process_map
    std::shared_ptr<target_image> image;  // what unwinding knows of the target; null until its first stack
    pid_t pid;
    pid_t tid;                   // the thread of a thread dump, the crashing thread, or -1
    std::string dump_path;       // directory of a server-side report; empty in client mode
    int si_code = 0;             // what a crashing process said of its signal
    void* abort_addr = nullptr;  // the same; null when there is none
    int dump_mode = SILENT;      // DUMP_MODE bits

public:
    FILE* fdump = nullptr;  // the report; null when there is none, and then report lines are dropped

    // The job and its report: dumper.cpp
    explicit dumper(dumper_frame* df);     // server: no report open yet
    dumper(pid_t new_pid, pid_t new_tid);  // report on standard output
    dumper(pid_t new_pid, pid_t new_tid,
           const std::string& output);  // report in a file, created or truncated
    ~dumper();  // closes the report, standard output too, and logs what could not be written
    dumper(const dumper&) = delete;
    dumper& operator=(const dumper&) = delete;

    // Loads the target's executable mappings. 0, 1 when the process does not exist, -2.
    int init_process_map();
    // Starts to trace: the thread stops soon, which wait_for_sigstop sees. Only the calling thread of the
    // tool can act on the tracee from here on. 0, -3 thread gone, -1 refused.
    int attach_thread(pid_t target_tid);
    // Releases a stopped tracee without a signal. 0 also when it has gone meanwhile; -1 when it is still
    // held.
    int detach_thread(pid_t target_tid);
    // Waits for and releases a thread that the server attached and that will not be dumped after all.
    void release_attached_thread(pid_t target_tid);
    // Whether the thread is in a tracing stop or stopped. Does not replace -1.
    bool still_traced(pid_t target_tid);

    // attached: the caller has attached already, the lead thread for a process, the job's tid for a thread.
    int dump_process_stats(bool attached);
    int dump_thread_stats(bool attached);
    // One thread's block, into *ss or, when that is null, the report. 0, or 1 when all but the kernel stack
    // was written.
    int dump_thread(pid_t target_tid, bool tid_attached, std::stringstream* ss);
    // The crash report of an attached, crashing thread and its process. Returns when the process has gone, or
    // 10 s after its release.
    int dump_process_crash();

    void set_mode(int mode) { dump_mode = mode; }
    // Who asks, when that is neither root nor the server's own user. Reports show only processes of theirs,
    // are opened with their rights and belong to them: they go where the asker may write.
    void set_asker(uid_t uid, gid_t gid);
    // Whether the process is the asker's now: it may have been replaced, or have replaced its program. One
    // that its own user may not trace (a set-uid program; prctl(2), PR_SET_DUMPABLE) belongs to root in
    // /proc. A refusal is logged. True when it has ended: there is nothing to see.
    bool may_be_shown();

private:
    friend struct dumper_test;

    // Report text, printf-style, cut at 2046 characters; copied to the system log when tomerx is true and
    // SILENT clear. The report form returns the characters written, the stream form the length before the
    // cut.
    int __LOG(bool tomerx, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int __LOG(std::stringstream& ss, bool tomerx, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
    // One of the two: into *ss, or into the report when ss is null.
    int write_text(std::stringstream* ss, bool tomerx, const char* fmt, ...)
        __attribute__((format(printf, 4, 5)));
    int log_to_report(bool tomerx, const char* fmt, va_list args) __attribute__((format(printf, 3, 0)));
    int log_to_stream(std::stringstream& ss, bool tomerx, const char* fmt, va_list args)
        __attribute__((format(printf, 4, 0)));
    void copy_to_system_log(bool tomerx, const char* text);
    void use_report(FILE* report);
    void drop_report();  // what was written of it is not the asker's to see
    int dump_file_create(const char* dump_dir);
    // A new file, never through a link and never over an existing one. Null with errno set.
    FILE* create_report_file(const std::string& path);

    // Attach, stop, release: dumper_attach.cpp
    int process_exist(pid_t target_pid);
    int thread_exist(pid_t target_tid);
    // The same, and gives what it read to find out.
    int thread_exist(pid_t target_tid, command_line& cmdline);
    // Like attach_thread, for a thread that was there just now: asks whether it is after ptrace(2) did.
    int attach_seen_thread(pid_t target_tid);
    // Waits one to two seconds for the stop of an attached thread. Returns the signal that stopped it, or -1:
    // then the thread is released or gone, or still traced when *detach_failed was set.
    int wait_for_sigstop(bool* detach_failed, pid_t target_tid);
    // Hands the foreign signal that stopped a held thread back to it.
    void send_signal_back(pid_t target_tid, int sig);
    // Releases a thread in its stop. False when it is still held, whatever was tried: the tool has to end.
    bool release_thread(bool detach_failed, pid_t target_tid);
    // Last try for a thread that a detach did not release: false when it cannot be brought to a stop.
    bool rescue_thread(pid_t target_tid);
    // A thread other than the lead that replaces the program takes the lead's number, and stays our tracee
    // under it: releases this tool thread's tracee, whatever it is called now. False when it is still held.
    bool release_after_exec();

    // What a held thread shows, its kernel stack, the memory map: dumper_capture.cpp
    // What both sections need of a held thread, so that they can be written after its release. False when it
    // has no registers to show.
    bool take_snapshot(thread_snapshot& snapshot, pid_t target_tid);
    // 0, or -1 when the registers could not be read.
    int dump_registers(std::stringstream* ss, const thread_snapshot& snapshot);
    // 0, -1 no address space, -2 no ptrace context, -3 the unwinder could not start: no registers.
    int dump_backtrace(std::stringstream* ss, thread_snapshot& snapshot);
    void load_target_image();
    bool dump_ktrace(std::stringstream* ss, pid_t target_tid);
    int dump_map_info();
    map_info* process_find_map_info(uintptr_t addr);

    // Statistics: dumper_stats.cpp
    void dump_header_info();
    void dump_process_info();
    int dump_opened_file();
    int dump_thread_info(std::stringstream* ss, pid_t target_tid);
    int dump_thread_info(std::stringstream* ss, pid_t target_tid, const command_line& cmdline);
    int get_process_stat(std::stringstream* ss, pid_t target_tid);
    // Splits the thread's stat line behind the command name: fields[0] is the state letter, fields[k] field k
    // + 3 of proc_pid_stat(5). to_file: writes the raw line too.
    int parse_proc_stat(std::stringstream* ss, pid_t target_tid, std::vector<std::string>& fields,
                        bool to_file);

    // Drivers: dumper_drivers.cpp
    int dump_process(bool attached);
    int dump_process_sections();
    int dump_other_threads(bool attached);
    void dump_with_workers(const std::vector<int>& tid_vec);

    // Crash dump: dumper_crash.cpp
    int crash_dump(int signo, bool* detach_failed);
    int dump_crash_thread(int signo, bool* detach_failed);
    int dump_signal_info(int signo);
    int crash_file_create(const char* dump_dir);

    struct user {
        uid_t uid;
        gid_t gid;
    };
    std::optional<user> asker;              // none: the tool's own user
    std::unique_ptr<char[]> report_buffer;  // fdump's
};

// Body of a worker thread: dumps the threads of one slice, each block written to the report in one piece.
void dump_thread_helper(std::vector<int>& task_vec, dumper* dp);
