// The lock-free local-time conversion against the platform's gmtime_r.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <random>
#include <tuple>

#include "dbgout/util_dbgout_internal.h"

namespace {

auto fields(const struct tm& t) {
    return std::make_tuple(t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday, t.tm_yday,
                           t.tm_isdst);
}

// Either side of midnight on 1-2 January and 28 February-2 March to 2500; random times to 9999; random zones.
TEST(NolocksLocaltime, AgreesWithGmtimeUpToTheRangeEnds) {
    std::vector<time_t> local;
    for (int y = 70; y <= 600; ++y) {
        for (int day : {1, 2, 59, 60, 61}) {
            struct tm midnight {0, 0, 0, day, 0, y, 0, 0, 0, 0, nullptr};  // timegm carries day 59 into March
            local.insert(local.end(), {std::max<time_t>(0, timegm(&midnight) - 1), timegm(&midnight)});
        }
    }
    std::mt19937_64 rng(20261123);
    for (int i = 0; i < 100000; ++i) local.push_back(std::uniform_int_distribution<time_t>(0, 253402300799)(rng));
    struct tm mine {}, gm{};
    for (time_t at : local) {
        const time_t zones[] = {0, -28800, 18000, -20700, 43200}, tz = zones[rng() % 5], dst = rng() % 2;
        ASSERT_NE(gmtime_r(&at, &gm), nullptr);
        gm.tm_isdst = static_cast<int>(dst);
        Func_nolocks_localtime(&mine, at + tz - dst * 3600, tz, static_cast<int>(dst));
        ASSERT_EQ(fields(mine), fields(gm)) << at << " " << tz << " " << dst;
    }
    Func_nolocks_localtime(&mine, 100, 3600, 0);  // before 1970 or past 9999 it stops at that end
    EXPECT_EQ(fields(mine), std::make_tuple(70, 0, 1, 0, 0, 0, 4, 0, 0));
    Func_nolocks_localtime(&mine, INT64_MAX, INT64_MIN, INT32_MAX);
    Func_nolocks_localtime(&mine, 300000000000, 0, 0);
    EXPECT_EQ(fields(mine), std::make_tuple(9999 - 1900, 11, 31, 23, 59, 59, 5, 364, 0));
}

}  // namespace
