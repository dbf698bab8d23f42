// The lock-free local-time conversion against the platform's gmtime_r.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <random>
#include <tuple>

#include "dbgout/util_dbgout_internal.h"

namespace {

auto fields(const struct tm& t) {
    return std::make_tuple(t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday, t.tm_yday);
}

// Instants around the start of every year from 1970 to 2500 and around
// 28 February / 1 March (leap days, century years), plus random ones up to
// the year 9999, in zones on both sides, with and without daylight saving.
TEST(NolocksLocaltime, AgreesWithGmtime) {
    std::vector<time_t> instants;
    for (int y = 1970; y <= 2500; ++y) {
        struct tm jan1 {};
        jan1.tm_year = y - 1900;
        jan1.tm_mday = 1;
        const time_t start = timegm(&jan1);
        for (time_t d : {0L, -1L, 86399L, 86400L, 58 * 86400L, 59 * 86400L, 60 * 86400L - 1, 60 * 86400L}) {
            if (start + d >= 0) instants.push_back(start + d);
        }
    }
    std::mt19937_64 rng(20261123);
    std::uniform_int_distribution<time_t> any(0, 253402300799);
    for (int i = 0; i < 50000; ++i) instants.push_back(any(rng));
    for (time_t t : instants) {
        for (time_t tz : {0L, -28800L, 18000L, -20700L, 43200L}) {
            for (int dst : {0, 1}) {
                const time_t shifted = t - tz + dst * 3600;
                if (shifted < 0 || shifted > 253402300799) continue;
                struct tm mine {}, gm{};
                Func_nolocks_localtime(&mine, t, tz, dst);
                ASSERT_NE(gmtime_r(&shifted, &gm), nullptr);
                ASSERT_EQ(fields(mine), fields(gm)) << t << " " << tz << " " << dst;
                ASSERT_EQ(mine.tm_isdst, dst);
            }
        }
    }
}

// Before the epoch (after the shift) the conversion stops at the epoch; past
// year 9999 at its last second. Absurd zones never overflow; fields it does
// not set stay as the caller left them.
TEST(NolocksLocaltime, RangeEndsAndLeapYears) {
    struct tm tm {};
    tm.tm_gmtoff = 1234;
    Func_nolocks_localtime(&tm, 100, 3600, 0);
    EXPECT_EQ(fields(tm), std::make_tuple(70, 0, 1, 0, 0, 0, 4, 0));
    EXPECT_EQ(tm.tm_gmtoff, 1234);
    Func_nolocks_localtime(&tm, INT64_MAX, INT64_MIN, INT32_MAX);
    Func_nolocks_localtime(&tm, 300000000000, 0, 0);
    EXPECT_EQ(fields(tm), std::make_tuple(9999 - 1900, 11, 31, 23, 59, 59, 5, 364));
    for (auto [year, leap] : {std::pair{1900, 0}, {2000, 1}, {2024, 1}, {2100, 0}, {2023, 0}}) {
        EXPECT_EQ(Func_is_leap_year(year), leap) << year;
    }
}

}  // namespace
