// The default log file "/dev/util_dbgout.log" is real: these tests need
// root and remove the file afterwards. They run in an executable of their own
// so no other test shares the path.
#include <unistd.h>

#include <regex>

#include "test_support.h"

using namespace qtest;

namespace {

constexpr const char* kDefaultLog = "/dev/util_dbgout.log";

class DefaultLogTest : public DebugRecordTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to write " << kDefaultLog;
        DebugRecordTest::SetUp();
        had_file_ = exists(kDefaultLog);
        if (had_file_) previous_ = read_file(kDefaultLog);
    }
    void TearDown() override {
        if (geteuid() != 0) return;
        DebugRecordTest::TearDown();
        if (had_file_) {
            write_file(kDefaultLog, previous_);
        } else {
            std::remove(kDefaultLog);
        }
    }

private:
    bool had_file_ = false;
    std::string previous_;
};

TEST_F(DefaultLogTest, DefaultsAppendPlainMessagesToTheDeviceLog) {
    EXPECT_STREQ(attr()->get_dbglog_logPath(), kDefaultLog);
    EXPECT_EQ(attr()->get_dbglog_logMaxSize(), 0x100000u);
    EXPECT_EQ(attr()->get_dbglog_enable(), UTIL_DBGOUT_DBGLOG_ENABLE);
    EXPECT_EQ(dbg()->enType, 1u);
    EXPECT_EQ(dbg()->dbglogAttr.log_fp, nullptr);

    std::remove(kDefaultLog);
    EXPECT_EQ(util_ops_pfun->util_init(), 0);
    attr()->fclose_dbglog_fp();
    const std::string first = read_file(kDefaultLog);
    EXPECT_EQ(std::count(first.begin(), first.end(), '\n'), 9);
    EXPECT_EQ(first.rfind("[util_function.cpp +", 0), 0u) << first;

    EXPECT_EQ(util_ops_pfun->util_exit(), 0);
    const std::string both = read_file(kDefaultLog);
    EXPECT_EQ(both.substr(0, first.size()), first);  // appended after reopening
    EXPECT_TRUE(std::regex_match(both.substr(first.size()),
                                 std::regex(R"(\[util_function\.cpp \+\d+ +Func_util_func_exit\] util exit\n)")));
}

}  // namespace
