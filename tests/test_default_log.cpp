// The default log file "/dev/util_dbgout.log" is real: this test needs root,
// puts back what was there and runs in an executable of its own so no other
// test shares the path.
#include "test_support.h"

using namespace qtest;

namespace {

constexpr const char* kDefaultLog = "/dev/util_dbgout.log";

class DefaultLogTest : public DebugRecordTest {};

// The defaults: the device log, 1 MiB, enabled, no stream open; messages are
// appended after reopening.
TEST_F(DefaultLogTest, DefaultsAppendPlainMessagesToTheDeviceLog) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to write " << kDefaultLog;
    const bool had_file = exists(kDefaultLog);
    const std::string previous = had_file ? read_file(kDefaultLog) : "";
    EXPECT_STREQ(attr()->get_dbglog_logPath(), kDefaultLog);
    EXPECT_EQ(attr()->get_dbglog_logMaxSize(), 0x100000u);
    EXPECT_EQ(attr()->get_dbglog_enable(), UTIL_DBGOUT_DBGLOG_ENABLE);
    EXPECT_EQ(dbg()->enType, 1u);
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);
    {
        MachineWideFile device_log(kDefaultLog);
        EXPECT_EQ(util_ops_pfun->util_init(), 0);
        attr()->fclose_dbglog_fp();
        EXPECT_EQ(util_ops_pfun->util_exit(), 0);
        attr()->fclose_dbglog_fp();
        EXPECT_THAT(read_file(kDefaultLog), FullyMatches(R"((\[util_function\.cpp \+\d+ +Func_util_func_init\] )"
                                                         R"([^\n]*\n){9}\[util_function\.cpp \+\d+ +)"
                                                         R"(Func_util_func_exit\] util exit\n)"));
    }
    if (had_file) write_file(kDefaultLog, previous);
}

}  // namespace
