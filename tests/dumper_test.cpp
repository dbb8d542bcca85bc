// The dump job and its report.
#include "support/dumper_test.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/log_capture.h"
#include "system_log.h"

using std::string;
using std::stringstream;

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

TEST(report, is_copied_to_the_system_log_only_when_asked_and_not_silent)
{
    for (const int mode : {0, int{SILENT}, int{FUNC_PARSE}, SILENT | FUNC_PARSE})
        for (const bool tomerx : {false, true}) {
            clear_log();
            dumper_test job(1, 1, mode);
            stringstream ss;
            job.to_report(tomerx, "100 %s\n");
            job.to_stream(ss, tomerx, "100 %s\n");
            EXPECT_EQ(job.report() + ss.str(), "100 %s\n100 %s\n");
            EXPECT_EQ(count_of(log_as_text(), "Dumper: "), tomerx && !(mode & SILENT) ? 2U : 0U)
                << mode << tomerx;
        }
}

TEST(report, that_cannot_be_opened_or_written_is_logged_once)
{
    {
        dumper_test without(1, 1, SILENT, "/tmp/absent/report");
        EXPECT_EQ(without.job.fdump, nullptr);
        EXPECT_EQ(without.to_report(true, "dropped"), 0);
        dumper_test full(1, 1, SILENT, "/dev/full");
        for (int i = 0; i < 1000; i++)
            full.to_report(false, string(2000, 'x'));  // more than its buffer holds
    }
    EXPECT_EQ(log_as_text(),
              "6 Dumper: Open dump file failed\n"
              "6 Dumper: Report is incomplete, write failed: No space left on device\n");
}
