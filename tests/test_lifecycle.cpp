// The top table, version text, initialisation and exit, and the small system
// helpers of common_high: shell wrapper, thread affinity, local-time refusals.
#include <signal.h>
#include <sys/wait.h>

#include "test_support.h"

using namespace qtest;

namespace {

class LifecycleTest : public DebugRecordTest {};

// The version text, and init's trace of today's date (the whole trace: DefaultLogTest).
TEST_F(LifecycleTest, TablesVersionAndInitExitTraces) {
    EXPECT_THAT(std::string(util_ops_pfun->verInfo),
                FullyMatches(R"(QuillaneUtil Version:V1\.1\.01, SVN:28 \[Build:[^@ ]+@[^@ ]+ )"
                             R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\])"));
    const std::string log = use_log("init.log");
    char today[16];
    const time_t now = time(nullptr);
    strftime(today, sizeof today, "%Y-%m-%d", localtime(&now));  // midnight may pass: rare, and loud
    EXPECT_EQ(util_ops_pfun->util_init() + util_ops_pfun->util_exit(), 0);
    EXPECT_THAT(read_file(log), testing::HasSubstr("init] current time:" + std::string(today) + " "));
}

// The shell wrapper reports the real status even when the caller ignores
// SIGCHLD, and gives its disposition back; refusals carry the platform error.
TEST_F(LifecycleTest, ShellWrapperAffinityAndLocalTimeRefusals) {
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    struct sigaction ignore {}, saved{}, now{};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGCHLD, &ignore, &saved), 0);
    const int status = Func_pox_system("exit 3");
    sigaction(SIGCHLD, nullptr, &now);
    sigaction(SIGCHLD, &saved, nullptr);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3 && now.sa_handler == SIG_IGN) << status;

    struct tm mine {};
    UTIL_U32 usec = 5;
    const std::string err = console([&] {
        EXPECT_EQ(high->setThreadCPU(pthread_self(), 1024), EINVAL);  // the first CPU past the set
        EXPECT_EQ(high->get_local_time(&mine, nullptr) + high->get_local_time(nullptr, &usec) +
                      high->get_local_time_r(nullptr), -3);
    });
    EXPECT_THAT(err, FullyMatches(R"((DBG_ERR:util_common_high_function\.cpp Func_\w+\[\d{4}\] ()"
                                  R"(pthread_setaffinity_np Error:16|error; ptm or ptvUsec is NULL!!!)\n){4})"));
    EXPECT_EQ(std::make_tuple(mine.tm_year, usec), std::make_tuple(0, 5u));
}

}  // namespace
