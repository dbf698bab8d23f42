// The top table, version text, initialisation and exit, and the exported
// shell wrapper.
#include <signal.h>
#include <sys/wait.h>

#include <regex>

#include "test_support.h"

using namespace qtest;

namespace {

class LifecycleTest : public DebugRecordTest {};

TEST_F(LifecycleTest, TablesAndVersionText) {
    EXPECT_EQ(util_ops_pfun, &util_ops_quillane_fun);
    ASSERT_NE(util_ops_pfun->dbgout, nullptr);
    ASSERT_NE(util_ops_pfun->common_high, nullptr);
    EXPECT_EQ(util_ops_pfun->common_high->pox_system, &Func_pox_system);
    EXPECT_TRUE(std::regex_match(
        std::string(util_ops_pfun->verInfo),
        std::regex(R"(QuillaneUtil Version:V1\.1\.01, SVN:28 \[Build:[^@ ]+@[^@ ]+ )"
                   R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\])")))
        << util_ops_pfun->verInfo;
}

TEST_F(LifecycleTest, InitAndExitTraceTheirLines) {
    const std::string log = use_log("init.log");
    struct tm before {};
    const time_t now = time(nullptr);
    localtime_r(&now, &before);
    EXPECT_EQ(util_ops_pfun->util_init(), 0);
    EXPECT_EQ(util_ops_pfun->util_exit(), 0);
    const std::string p = R"(\[util_function\.cpp \+\d+ +Func_util_func_init\] )";
    const std::string expected =
        p + "verInfo:" + std::regex_replace(std::string(util_ops_pfun->verInfo), std::regex(R"([.\[\]])"), R"(\$&)") +
        "\n" + p + R"(current time:(\d{4})-(\d\d)-(\d\d) \d\d:\d\d:\d\d\n)" + p +
        R"(sizeof\(UTIL_U16\)=2,   sizeof\(unsigned short\)=2\n)" + p +
        R"(sizeof\(UTIL_U32\)=4,   sizeof\(unsigned int\)=4\n)" + p +
        R"(sizeof\(UTIL_U64\)=8,   sizeof\(unsigned long\)=8\n)" + p + R"(sizeof\(UTIL_FLOAT\)=4, sizeof\(float\)=4\n)" +
        p + R"(sizeof\(UTIL_DOUBLE\)=8,sizeof\(double\)=8\n)" + p + R"(sizeof\(unsigned long int\)=8\n)" + p +
        R"(sizeof\(unsigned long long int\)=8\n)" +
        R"(\[util_function\.cpp \+\d+ +Func_util_func_exit\] util exit\n)";
    std::smatch m;
    const std::string text = read_file(log);
    ASSERT_TRUE(std::regex_match(text, m, std::regex(expected))) << text;
    // The whole date, read before or after the call (midnight may pass).
    struct tm after {};
    const time_t later = time(nullptr);
    localtime_r(&later, &after);
    const int year = std::stoi(m[1]), month = std::stoi(m[2]), day = std::stoi(m[3]);
    EXPECT_TRUE((year == before.tm_year + 1900 && month == before.tm_mon + 1 && day == before.tm_mday) ||
                (year == after.tm_year + 1900 && month == after.tm_mon + 1 && day == after.tm_mday))
        << text;

    // Silenced output: both still return 0 and write nothing.
    std::remove(log.c_str());
    attr()->fclose_dbglog_fp();
    dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    EXPECT_EQ(util_ops_pfun->util_init(), 0);
    EXPECT_EQ(util_ops_pfun->util_exit(), 0);
    EXPECT_FALSE(exists(log));
}

// The wrapper reports the command's real status even when the caller
// ignores SIGCHLD, and gives the caller its disposition back.
TEST(PoxSystem, StatusSurvivesIgnoredChildSignal) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction saved {};
    ASSERT_EQ(sigaction(SIGCHLD, &ignore, &saved), 0);
    const int status = Func_pox_system("exit 3");
    struct sigaction now {};
    sigaction(SIGCHLD, nullptr, &now);
    sigaction(SIGCHLD, &saved, nullptr);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
    EXPECT_EQ(util_ops_pfun->common_high->pox_system("true"), 0);
}

}  // namespace
