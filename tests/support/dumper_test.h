// The private operations of a dump job, for the tests of its modules.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "dumper.h"
#include "support/tool.h"
#include "unwind/thread_snapshot.h"

struct dumper_test {
    dumper job;
    bool detach_failed = false;

    static constexpr const char* report_file = "/tmp/report";
    dumper_test(pid_t pid, pid_t tid, int mode = SILENT, const std::string& path = report_file)
        : job(pid, tid, path)
    {
        job.set_mode(mode);
    }
    // What it holds so far.
    std::string report()
    {
        if (job.fdump != nullptr)
            fflush(job.fdump);
        return file_text(report_file);
    }

    int to_report(bool tomerx, const std::string& text) { return job.__LOG(tomerx, "%s", text.c_str()); }
    int to_stream(std::stringstream& ss, bool tomerx, const std::string& text)
    {
        return job.__LOG(ss, tomerx, "%s", text.c_str());
    }
    int stat_line(pid_t tid, std::vector<std::string>& fields)
    {
        return job.parse_proc_stat(nullptr, tid, fields, false);
    }
    int thread_info(std::stringstream* ss, pid_t tid) { return job.dump_thread_info(ss, tid); }
    int opened_file() { return job.dump_opened_file(); }
    int wait_for_sigstop(pid_t tid = -1) { return job.wait_for_sigstop(&detach_failed, tid); }
    bool release_thread() { return job.release_thread(detach_failed, -1); }
    int registers(std::stringstream* ss, pid_t tid)
    {
        thread_snapshot snapshot;
        job.take_snapshot(snapshot, tid);
        return job.dump_registers(ss, snapshot);
    }
    bool ktrace(std::stringstream* ss, pid_t tid) { return job.dump_ktrace(ss, tid); }
    int map_section() { return job.dump_map_info(); }
};
