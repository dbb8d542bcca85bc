// The job's life and its report: construction, the report text and its copies in the system log, report
// files.
#include "dumper.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio_ext.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "system_log.h"

using std::string;
using std::stringstream;

namespace
{
constexpr size_t text_buffer_size = 2048;

// A larger one makes fewer writes, but has more pages to touch for the first time, which costs as much.
constexpr size_t report_buffer_size = size_t{64} * 1024;

// File system rights of another user for the calling thread, while in scope: setfsuid(2), credentials(7).
class rights_of
{
    std::vector<gid_t> saved_groups;
    bool taken;

public:
    rights_of(uid_t uid, gid_t gid) : saved_groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)))
    {
        // The raw call changes this thread alone; the library's changes the whole process.
        (void)!getgroups(static_cast<int>(saved_groups.size()), saved_groups.data());
        const bool no_groups = syscall(SYS_setgroups, 0, nullptr) == 0;
        setfsgid(gid);
        setfsuid(uid);
        constexpr auto ask_only = static_cast<uid_t>(-1);  // the calls report no failure
        taken = no_groups && setfsuid(ask_only) == static_cast<int>(uid) &&
                setfsgid(ask_only) == static_cast<int>(gid);
    }
    ~rights_of()
    {
        const int saved_errno = errno;
        setfsuid(geteuid());
        setfsgid(getegid());
        (void)syscall(SYS_setgroups, saved_groups.size(), saved_groups.data());
        errno = saved_errno;
    }
    explicit operator bool() const { return taken; }
    rights_of(const rights_of&) = delete;
    rights_of& operator=(const rights_of&) = delete;
};

}  // namespace

dumper::dumper(dumper_frame* df)
    : pid(df->req_t.pid),
      tid(static_cast<pid_t>(df->req_t.tid)),
      dump_path(df->req_t.dump_path, strnlen(df->req_t.dump_path, sizeof(df->req_t.dump_path))),
      si_code(df->req_t.si_code),
      abort_addr(df->req_t.abort_addr)
{
}

dumper::dumper(pid_t new_pid, pid_t new_tid) : pid(new_pid), tid(new_tid)
{
    use_report(stdout);
}

dumper::dumper(pid_t new_pid, pid_t new_tid, const string& output) : pid(new_pid), tid(new_tid)
{
    FILE* file = fopen(output.c_str(), "we");
    if (file == nullptr)
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Open dump file failed\n");
    use_report(file);
}

dumper::~dumper()
{
    if (fdump != nullptr) {
        errno = 0;
        const bool failed_before = ferror(fdump) != 0;
        if (fclose(fdump) != 0 || failed_before)
            __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Report is incomplete, write failed: %s\n",
                                strerror(errno != 0 ? errno : EIO));
    }
    if (pmi != nullptr) {
        pmi->process_destroy_map_info_list();
        delete pmi;
    }
}

void dumper::set_asker(uid_t uid, gid_t gid)
{
    asker = {uid, gid};
}

bool dumper::may_be_shown()
{
    // The folder itself belongs to the process's user in any case; that of a process that has ended, to root.
    struct stat owner;
    const string path = "/proc/" + std::to_string(pid) + "/stat";
    if (!asker || stat(path.c_str(), &owner) != 0 || owner.st_uid == asker->uid || process_exist(-1) != 0)
        return true;
    __android_log_print(ANDROID_LOG_WARN, "DumpServer", "User %d may not ask for a dump of pid %d\n",
                        static_cast<int>(asker->uid), pid);
    return false;
}

void dumper::drop_report()
{
    if (fdump == nullptr)
        return;
    __fpurge(fdump);
    (void)!ftruncate(fileno(fdump), 0);
    rewind(fdump);
}

void dumper::use_report(FILE* report)
{
    fdump = report;
    if (report == nullptr)
        return;
    report_buffer.reset(new char[report_buffer_size]);
    setvbuf(report, report_buffer.get(), _IOFBF, report_buffer_size);
}

int dumper::__LOG(bool tomerx, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int result = log_to_report(tomerx, fmt, args);
    va_end(args);
    return result;
}

int dumper::__LOG(stringstream& ss, bool tomerx, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int result = log_to_stream(ss, tomerx, fmt, args);
    va_end(args);
    return result;
}

int dumper::write_text(stringstream* ss, bool tomerx, const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int result =
        ss != nullptr ? log_to_stream(*ss, tomerx, fmt, args) : log_to_report(tomerx, fmt, args);
    va_end(args);
    return result;
}

int dumper::log_to_report(bool tomerx, const char* fmt, va_list args)
{
    if (fdump == nullptr)
        return 0;
    char buf[text_buffer_size];
    vsnprintf(buf, text_buffer_size - 1, fmt, args);
    copy_to_system_log(tomerx, buf);
    return fprintf(fdump, "%s", buf);
}

int dumper::log_to_stream(stringstream& ss, bool tomerx, const char* fmt, va_list args)
{
    char buf[text_buffer_size];
    const int n = vsnprintf(buf, text_buffer_size - 1, fmt, args);
    copy_to_system_log(tomerx, buf);
    ss << buf;
    return n;
}

void dumper::copy_to_system_log(bool tomerx, const char* text)
{
    if (tomerx && !(dump_mode & SILENT))
        __android_log_print(ANDROID_LOG_INFO, "Dumper", "%s", text);
}

int dumper::dump_file_create(const char* dump_dir)
{
    const time_t t = time(nullptr);
    tm lt = {};
    localtime_r(&t, &lt);
    timeval tv;
    gettimeofday(&tv, nullptr);
    char fname[64];
    snprintf(fname, sizeof(fname), "/%d-dumpstat-%d-%d-%d_%d-%d-%d-%ld.log", pid, lt.tm_year + 1900,
             lt.tm_mon + 1, lt.tm_mday, lt.tm_hour, lt.tm_min, lt.tm_sec, static_cast<long>(tv.tv_usec));
    const string path = string(dump_dir) + fname;
    use_report(create_report_file(path));
    if (fdump == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, "Dumper", "Open dumpstate file '%s' failed\n", path.c_str());
        return -2;
    }
    __android_log_print(ANDROID_LOG_INFO, "Dumper", "Stack dump saving to %s\n", path.c_str());
    return 0;
}

FILE* dumper::create_report_file(const string& path)
{
    int fd = -1;
    {
        std::optional<rights_of> rights;
        if (asker)
            rights.emplace(asker->uid, asker->gid);
        constexpr int new_file_only = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        errno = EPERM;
        if (!rights || *rights)
            fd = static_cast<int>(TEMP_FAILURE_RETRY(open(path.c_str(), new_file_only, 0640)));
    }
    if (fd < 0)
        return nullptr;
    FILE* file = fdopen(fd, "w");
    if (file == nullptr)
        close(fd);
    return file;
}
