// The syslog writer, observed through the platform's own copy of every
// message on stderr (LOG_PERROR), which the host process chooses as it would.
#include <sys/time.h>
#include <syslog.h>

#include <regex>

#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

class SyslogTest : public DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        openlog("qtest", LOG_PERROR, LOG_USER);
        dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_SYSLOG;
    }
    void TearDown() override {
        closelog();
        DebugRecordTest::TearDown();
    }
    std::string traced(const char* msg) {
        CaptureStderr();
        EXPECT_EQ(trace("%s", msg), 0);
        return GetCapturedStderr();
    }
};

TEST_F(SyslogTest, TimestampForms) {
    EXPECT_EQ(traced("plain\n"), "qtest: plain\n");

    attr()->set_syslog_attr(LOG_USER | LOG_INFO, 1);
    attr()->set_extraInfo_attr(0, 0, 3);
    EXPECT_TRUE(std::regex_match(traced("msec usec\n"), std::regex(R"(qtest: \d{3}\.\d{3} msec usec\n)")));
    // No value selects the seconds-only form; anything but 31 and 3 is the
    // short millisecond form.
    for (UTIL_U32 bits : {0u, 15u, 63u, 255u}) {
        attr()->set_extraInfo_attr(0, 0, bits);
        EXPECT_TRUE(std::regex_match(traced("msec\n"), std::regex(R"(qtest: \d{3} msec\n)"))) << bits;
    }
    // The full form honours zone and daylight shift.
    for (time_t zone : {0L, -28800L, 3600L}) {
        for (UTIL_S32 dst : {0, 1}) {
            attr()->set_extraInfo_attr(zone, dst, 31);
            std::string out;
            time_t before = 0;
            time_t after = 1;
            for (int attempt = 0; attempt < 5 && before != after; ++attempt) {
                before = wall_seconds();
                out = traced("full\n");
                after = wall_seconds();
            }
            std::smatch m;
            ASSERT_TRUE(std::regex_match(out, m, std::regex(R"(qtest: (\d\d):(\d\d):(\d\d)\.\d{3}\.\d{3} full\n)")))
                << out;
            const time_t local = before - zone + dst * 3600;
            struct tm want {};
            gmtime_r(&local, &want);
            EXPECT_EQ(std::stoi(m[1]), want.tm_hour);
            EXPECT_EQ(std::stoi(m[2]), want.tm_min);
            EXPECT_EQ(std::stoi(m[3]), want.tm_sec);
        }
    }
}

TEST_F(SyslogTest, BothOutputsGetTheSameMessage) {
    const std::string log = use_log("both.log");
    dbg()->enType = 3;
    EXPECT_EQ(traced("twice %d\n"), "qtest: twice %d\n");  // a message is never a format
    EXPECT_EQ(read_file(log), "twice %d\n");
}

}  // namespace
