// Thread affinity and the local-time readers of the common high table.
#include <pthread.h>
#include <sched.h>

#include <thread>

#include "test_support.h"

using qtest::FullyMatches;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_common_high_fun_t* high() { return util_ops_pfun->common_high; }

TEST(SetThreadCpu, PinsOrReportsThePlatformError) {
    std::thread worker([] {
        EXPECT_EQ(high()->setThreadCPU(pthread_self(), 0), 0);
        cpu_set_t set;
        CPU_ZERO(&set);
        ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof set, &set), 0);
        EXPECT_EQ(CPU_COUNT(&set), 1);
        EXPECT_TRUE(CPU_ISSET(0, &set));

        for (UTIL_U32 cpu : {1024u, 0xFFFFFFFFu}) {
            CaptureStderr();
            EXPECT_EQ(high()->setThreadCPU(pthread_self(), cpu), EINVAL);
            EXPECT_THAT(GetCapturedStderr(),
                      FullyMatches("DBG_ERR:util_common_high_function.cpp Func_setThreadCPU\\[[0-9]{4}\\] "
                                              "pthread_setaffinity_np Error:16\n"));
        }
    });
    worker.join();
}

TEST(LocalTime, MatchesThePlatformClock) {
    struct tm mine {};
    UTIL_U32 usec = 1234567;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const time_t before = qtest::wall_seconds();
        ASSERT_EQ(high()->get_local_time(&mine, &usec), 0);
        const time_t after = qtest::wall_seconds();
        if (before != after) continue;
        struct tm want {};
        localtime_r(&before, &want);
        EXPECT_EQ(mine.tm_year, want.tm_year);
        EXPECT_EQ(mine.tm_yday, want.tm_yday);
        EXPECT_EQ(mine.tm_hour, want.tm_hour);
        EXPECT_EQ(mine.tm_min, want.tm_min);
        EXPECT_EQ(mine.tm_sec, want.tm_sec);
        break;
    }
    EXPECT_LT(usec, 1000000u);

    struct tm r {};
    EXPECT_EQ(high()->get_local_time_r(&r), 0);
    EXPECT_GE(r.tm_year, 124);
}

TEST(LocalTime, NullArgumentsAreRefused) {
    struct tm untouched {};
    untouched.tm_year = 77;
    UTIL_U32 usec = 5;
    CaptureStderr();
    EXPECT_EQ(high()->get_local_time(&untouched, nullptr), -1);
    EXPECT_EQ(high()->get_local_time(nullptr, &usec), -1);
    EXPECT_EQ(high()->get_local_time_r(nullptr), -1);
    const std::string out = GetCapturedStderr();
    EXPECT_THAT(out, FullyMatches(
                       "(DBG_ERR:util_common_high_function.cpp Func_get_local_time\\[[0-9]{4}\\] error; ptm or "
                       "ptvUsec is NULL!!!\n){2}"
                       "DBG_ERR:util_common_high_function.cpp Func_get_local_time_r\\[[0-9]{4}\\] error; ptm or "
                       "ptvUsec is NULL!!!\n"));
    EXPECT_EQ(untouched.tm_year, 77);
    EXPECT_EQ(usec, 5u);
}

}  // namespace
