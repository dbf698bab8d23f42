// The top table, version text, initialisation and exit, the exported shell
// wrapper, thread affinity and the local-time readers.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_common_high_fun_t* high() { return util_ops_pfun->common_high; }

class LifecycleTest : public DebugRecordTest {};

// init traces the version, today's date and seven type sizes; exit one line.
// Silenced, both still return 0 and write nothing.
TEST_F(LifecycleTest, TablesVersionAndInitExitTraces) {
    EXPECT_EQ(util_ops_pfun, &util_ops_quillane_fun);
    EXPECT_EQ(high()->pox_system, &Func_pox_system);
    const std::string version = util_ops_pfun->verInfo;
    EXPECT_THAT(version, FullyMatches(R"(QuillaneUtil Version:V1\.1\.01, SVN:28 \[Build:[^@ ]+@[^@ ]+ )"
                                      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\])"));
    const std::string log = use_log("init.log");
    char today[16];
    const time_t now = time(nullptr);
    struct tm local {};
    strftime(today, sizeof today, "%Y-%m-%d", localtime_r(&now, &local));  // midnight may pass: rare, and loud
    EXPECT_EQ(util_ops_pfun->util_init() + util_ops_pfun->util_exit(), 0);
    const std::string p = R"(\[util_function\.cpp \+\d+ +Func_util_func_)";
    EXPECT_THAT(read_file(log), FullyMatches(p + "init\\] verInfo:" + regex_escape(version) + "\n" + p +
                                             "init\\] current time:" + today + R"( \d\d:\d\d:\d\d\n)" + "(" + p +
                                             R"(init\] sizeof\([^\n]*\n){7})" + p + "exit\\] util exit\n"));
    std::remove(log.c_str());
    attr()->fclose_dbglog_fp();
    dbg()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    EXPECT_EQ(util_ops_pfun->util_init() + util_ops_pfun->util_exit(), 0);
    EXPECT_FALSE(exists(log));
}

// The wrapper reports the command's real status even when the caller
// ignores SIGCHLD, and gives the caller its disposition back.
TEST(PoxSystem, StatusSurvivesIgnoredChildSignal) {
    struct sigaction ignore {}, saved{}, now{};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGCHLD, &ignore, &saved), 0);
    const int status = Func_pox_system("exit 3");
    sigaction(SIGCHLD, nullptr, &now);
    sigaction(SIGCHLD, &saved, nullptr);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
    EXPECT_EQ(high()->pox_system("true"), 0);
}

TEST(SetThreadCpu, PinsOrReportsThePlatformError) {
    std::thread worker([] {
        EXPECT_EQ(high()->setThreadCPU(pthread_self(), 0), 0);
        cpu_set_t set;
        ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
        EXPECT_EQ(CPU_COUNT(&set), 1);
        EXPECT_TRUE(CPU_ISSET(0, &set));
        for (UTIL_U32 cpu : {1024u, 0xFFFFFFFFu}) {
            CaptureStderr();
            EXPECT_EQ(high()->setThreadCPU(pthread_self(), cpu), EINVAL);
            EXPECT_THAT(GetCapturedStderr(), FullyMatches(R"(DBG_ERR:util_common_high_function\.cpp Func_setThreadCPU)"
                                                          R"(\[\d{4}\] pthread_setaffinity_np Error:16\n)"));
        }
    });
    worker.join();
}

// Both readers agree with the platform's clock; null arguments are refused
// with their message and leave what was given untouched.
TEST(LocalTime, MatchesThePlatformClockAndRefusesNull) {
    struct tm mine {}, want{}, r{};
    UTIL_U32 usec = 1234567;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const time_t before = wall_seconds();
        ASSERT_EQ(high()->get_local_time(&mine, &usec), 0);
        ASSERT_EQ(high()->get_local_time_r(&r), 0);
        localtime_r(&before, &want);
        if (before == wall_seconds()) break;
    }
    EXPECT_EQ(std::make_tuple(mine.tm_year, mine.tm_yday, mine.tm_hour, mine.tm_min, mine.tm_sec),
              std::make_tuple(want.tm_year, want.tm_yday, want.tm_hour, want.tm_min, want.tm_sec));
    EXPECT_EQ(std::make_tuple(r.tm_year, r.tm_yday, r.tm_hour), std::make_tuple(want.tm_year, want.tm_yday, want.tm_hour));
    EXPECT_LT(usec, 1000000u);

    mine.tm_year = 77;
    usec = 5;
    CaptureStderr();
    EXPECT_EQ(high()->get_local_time(&mine, nullptr) + high()->get_local_time(nullptr, &usec) +
                  high()->get_local_time_r(nullptr), -3);
    const std::string text = R"( error; ptm or ptvUsec is NULL!!!\n)";
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(R"((DBG_ERR:util_common_high_function\.cpp Func_get_local_time\[\d{4}\])" +
                                                  text + "){2}" + R"(DBG_ERR:util_common_high_function\.cpp )" +
                                                  R"(Func_get_local_time_r\[\d{4}\])" + text));
    EXPECT_EQ(mine.tm_year, 77);
    EXPECT_EQ(usec, 5u);
}

}  // namespace
