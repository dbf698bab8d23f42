// The real default log: needs root, and an executable of its own so no other test shares it.
#include "test_support.h"

using namespace qtest;

namespace {

// Defaults, then messages appended across a reopen; stale and own logs are removed.
TEST(DefaultLogTest, DefaultsAppendPlainMessagesToTheDeviceLog) {
    const util_dbgout_t& d = *dbg();
    EXPECT_EQ(std::make_tuple(d.dbglogAttr.log_max_size, d.extraInfo.log_daylight, d.extraInfo.timestamp_bits),
              std::make_tuple(UTIL_U64{0x100000}, 0, 0u));
    if (geteuid() != 0) GTEST_SKIP() << "needs root to write the device log";
    MachineWideFile device_log("/dev/util_dbgout.log");
    EXPECT_EQ(util_ops_pfun->util_init(), 0);
    attr()->fclose_dbglog_fp();
    EXPECT_EQ(util_ops_pfun->util_exit(), 0);
    attr()->fclose_dbglog_fp();
    const std::string text = read_file(device_log.path());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10) << text;
    EXPECT_THAT(text, testing::EndsWith("Func_util_func_exit] util exit\n"));
}

}  // namespace
