// The real default log: needs root, and an executable of its own so no other test shares it.
#include "test_support.h"

using namespace qtest;

namespace {

// Defaults, then messages appended across a reopen; stale and own logs are removed.
TEST(DefaultLogTest, DefaultsAppendPlainMessagesToTheDeviceLog) {
    const util_dbgout_t& d = *dbg();
    EXPECT_EQ(std::make_tuple(std::string(d.dbglogAttr.log_path), d.dbglogAttr.log_max_size, d.dbglogAttr.enable,
                              d.enType, d.dbglogAttr.log_fp, d.syslogAttr.priority, d.syslogAttr.timestamp_enable,
                              d.extraInfo.log_timezone, d.extraInfo.log_daylight, d.extraInfo.timestamp_bits),
              std::make_tuple(std::string("/dev/util_dbgout.log"), UTIL_U64{0x100000}, 1u, 1u, nullptr, 0, 0u,
                              time_t{0}, 0, 0u));
    if (geteuid() != 0) GTEST_SKIP() << "needs root to write " << d.dbglogAttr.log_path;
    MachineWideFile device_log(d.dbglogAttr.log_path);
    EXPECT_EQ(util_ops_pfun->util_init(), 0);
    attr()->fclose_dbglog_fp();
    EXPECT_EQ(util_ops_pfun->util_exit(), 0);
    attr()->fclose_dbglog_fp();
    const std::string text = read_file(device_log.path());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10) << text;
    EXPECT_THAT(text, testing::EndsWith("Func_util_func_exit] util exit\n"));
}

}  // namespace
