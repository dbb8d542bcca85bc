// The lines that identify a thread, the open files, and how a report cuts a text.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/dumper_test.h"
#include "support/log_capture.h"
#include "support/mounted_file.h"
#include "support/target.h"
#include "system_log.h"

using std::string;
using std::stringstream;
using std::vector;

namespace
{
//                      state       utime             priority    start       core  policy
const char* fields_39 =
    "S 1 2 3 4 5 6 7 8 9 10 111 222 0 0 -51 0 1 0 100 4096 77 0 0 0 0 0 0 0 0 0 0 0 0 0 0 3 0 2\n";

}  // namespace

class statistics : public testing::Test
{
protected:
    const target sleeper{{"odd", "sleeper"}};
    const pid_t pid = sleeper.pid();
};

TEST_F(statistics, show_the_fields_of_the_stat_line)
{
    const string line = std::to_string(pid) + " (sleeper) " + fields_39;
    const mounted_file stat(task_file(pid, pid, "stat"), line);
    const mounted_file schedstat(task_file(pid, pid, "schedstat"), "12 34 56\n");
    stringstream ss;
    dumper_test job(pid, pid);
    EXPECT_EQ(job.thread_info(&ss, -1), 0);
    EXPECT_EQ(job.report(), "");
    EXPECT_EQ(job.thread_info(nullptr, pid), 0);

    const string head =
        "Cmdline: " + (build_dir() + "/tests/targets/odd").substr(0, 64) + "\npid: " + std::to_string(pid) +
        ", tid: " + std::to_string(pid) + ", process: sleeper, thread: sleeper\nThread stat:" + line +
        "Core=3, utime=111, stime=222, priority=-51, policy=2, vsize=4096, rss=77, state=S, current=";
    for (const string& text : {ss.str(), job.report()}) {
        double current = 0;
        double uptime = 0;
        ASSERT_TRUE(text.starts_with(head)) << text;
        EXPECT_EQ(sscanf(text.c_str() + head.size(), "%lf, uptime=%lf", &current, &uptime), 2) << text;
        char rest[100];
        snprintf(rest, sizeof(rest), "%.6f, uptime=%.6f, schedstat=<12 34 56>\n", current, uptime);
        EXPECT_EQ(text.substr(head.size()), rest);
        EXPECT_NEAR(current - uptime, 100.0 / static_cast<double>(sysconf(_SC_CLK_TCK)), 2e-6);
        EXPECT_NEAR(current, stod(file_text("/proc/uptime")), 100);
    }
}

TEST_F(statistics, survive_any_process_name_and_any_stat_line)
{
    const vector<std::pair<string, vector<string>>> cases = {
        {"(a b  c) R 1\n", {"R", "1"}},
        {"(a) Z (b) R 1\n", {"Z", "(b)", "R", "1"}},  // split behind the first ")"
        {"(a\nb) R  1   2 \n", {"R", "1", "2"}},
        {"(%s%n) R 1\n", {"R", "1"}},
        {"(open S 1 2\n", {}},
        {"(sleeper)\n", {}},
        {"(sleeper) \n", {}},
    };
    for (const auto& [rest, expected] : cases) {
        const string line = std::to_string(pid) + " " + rest;
        const mounted_file stat(task_file(pid, pid, "stat"), line);
        dumper_test job(pid, pid);
        vector<string> fields;
        EXPECT_EQ(job.stat_line(pid, fields), expected.empty() ? -3 : 0) << line;
        EXPECT_EQ(fields, expected);
        // All these have too few fields: the raw line is the last that is written.
        stringstream ss;
        EXPECT_EQ(job.thread_info(&ss, pid), -3);
        EXPECT_TRUE(ss.str().ends_with("\nThread stat:" + line)) << ss.str();
    }
}

TEST_F(statistics, name_what_cannot_be_read)
{
    dumper_test gone(0, 7);
    EXPECT_EQ(gone.thread_info(nullptr, -1), -3);
    EXPECT_EQ(gone.report(), "Cmdline: <unknown>\npid: 0, tid: 7, process: <unknown>, thread: <unknown>\n");
    EXPECT_EQ(
        log_as_text(),
        "6 Dumper: get_process_cmdline failed, pid=0\n6 Dumper: get_process_name failed, pid=0\n"
        "6 Dumper: get_thread_name failed, pid=0, tid=7\n6 Dumper: get_process_stat failed, pid=0, tid=7\n");
    const mounted_file schedstat(task_file(pid, pid, "schedstat"), "");
    stringstream ss;
    dumper_test job(pid, pid);
    EXPECT_EQ(job.thread_info(&ss, pid), -3);
    EXPECT_EQ(ss.str().find("Core="), string::npos);
}

TEST(open_files, are_listed_with_64_characters_of_their_names)
{
    const string name = "/tmp/" + string(100, 'n');
    const int fd = open(name.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    dumper_test job(getpid(), -1);
    EXPECT_EQ(job.opened_file(), 0);
    EXPECT_THAT(job.report(), testing::StartsWith("\nOpen files:\n    fd "));
    EXPECT_THAT(job.report(),
                testing::HasSubstr("\n    fd " + std::to_string(fd) + ": " + name.substr(0, 64) + "\n"));
    close(fd);
    dumper_test gone(0, -1);
    EXPECT_EQ(gone.opened_file(), -2);
    EXPECT_EQ(gone.report(), "\nOpen files:\n");
}

TEST(report, cuts_a_text_at_2046_characters_wherever_it_goes)
{
    for (const size_t length : {10U, 2045U, 2046U, 2047U, 3000U}) {
        clear_log();
        dumper_test job(1, 1, 0);
        const string text(length, 'x');
        const string expected = text.substr(0, 2046);
        stringstream ss;
        EXPECT_EQ(job.to_stream(ss, true, text), static_cast<int>(length));
        EXPECT_EQ(ss.str(), expected);
        EXPECT_EQ(job.report(), "");
        EXPECT_EQ(job.to_report(true, text), static_cast<int>(expected.size()));
        EXPECT_EQ(job.report(), expected);
        EXPECT_EQ(log_as_text(), "4 Dumper: " + expected + "\n4 Dumper: " + expected + "\n");
    }
}
