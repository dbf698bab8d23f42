// The lock-free local-time conversion against glibc's gmtime_r and against a
// plain year-by-year walk from 1970.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <random>

#include "dbgout/util_dbgout_internal.h"

namespace {

// The straightforward conversion: shift, split, then walk years and months.
void walk_localtime(struct tm* tmp, time_t t, time_t tz, int dst) {
    t = t - tz + static_cast<time_t>(dst) * 3600;
    time_t days = t / 86400;
    const time_t secs = t % 86400;
    tmp->tm_isdst = dst;
    tmp->tm_hour = static_cast<int>(secs / 3600);
    tmp->tm_min = static_cast<int>((secs % 3600) / 60);
    tmp->tm_sec = static_cast<int>(secs % 60);
    tmp->tm_wday = static_cast<int>((days + 4) % 7);
    time_t year = 1970;
    while (days >= 365 + Func_is_leap_year(year)) {
        days -= 365 + Func_is_leap_year(year);
        ++year;
    }
    tmp->tm_yday = static_cast<int>(days);
    const int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int mon = 0;
    for (;;) {
        const int len = lengths[mon] + (mon == 1 ? Func_is_leap_year(year) : 0);
        if (days < len) break;
        days -= len;
        ++mon;
    }
    tmp->tm_mon = mon;
    tmp->tm_mday = static_cast<int>(days + 1);
    tmp->tm_year = static_cast<int>(year - 1900);
}

void expect_same(const struct tm& a, const struct tm& b, time_t t) {
    EXPECT_EQ(a.tm_year, b.tm_year) << t;
    EXPECT_EQ(a.tm_mon, b.tm_mon) << t;
    EXPECT_EQ(a.tm_mday, b.tm_mday) << t;
    EXPECT_EQ(a.tm_hour, b.tm_hour) << t;
    EXPECT_EQ(a.tm_min, b.tm_min) << t;
    EXPECT_EQ(a.tm_sec, b.tm_sec) << t;
    EXPECT_EQ(a.tm_wday, b.tm_wday) << t;
    EXPECT_EQ(a.tm_yday, b.tm_yday) << t;
}

TEST(NolocksLocaltime, AgreesWithGmtimeAndTheYearWalk) {
    std::vector<time_t> instants;
    // Around the start and end of every year from 1970 to 2500, and around
    // 28 February / 1 March (leap days, century years 2100, 2200, 2400).
    for (int y = 1970; y <= 2500; ++y) {
        struct tm jan1 {};
        jan1.tm_year = y - 1900;
        jan1.tm_mday = 1;
        const time_t start = timegm(&jan1);
        for (time_t d : {0L, -1L, 1L, 86399L, 86400L, 58 * 86400L, 59 * 86400L, 60 * 86400L - 1, 60 * 86400L}) {
            if (start + d >= 0) instants.push_back(start + d);
        }
    }
    std::mt19937_64 rng(20261123);
    std::uniform_int_distribution<time_t> any(0, 253402300799);
    for (int i = 0; i < 50000; ++i) instants.push_back(any(rng));

    const time_t zones[] = {0, -28800, 18000, -20700, 43200, -50400};
    for (time_t t : instants) {
        for (time_t tz : zones) {
            for (int dst : {0, 1}) {
                const time_t shifted = t - tz + dst * 3600;
                if (shifted < 0 || shifted > 253402300799) continue;
                struct tm mine {};
                Func_nolocks_localtime(&mine, t, tz, dst);
                struct tm gm {};
                ASSERT_NE(gmtime_r(&shifted, &gm), nullptr);
                expect_same(mine, gm, t);
                EXPECT_EQ(mine.tm_isdst, dst);
                if (shifted < 4102444800) {  // keep the slow walk to 1970-2100
                    struct tm walked {};
                    walk_localtime(&walked, t, tz, dst);
                    expect_same(mine, walked, t);
                }
                if (HasFailure()) return;
            }
        }
    }
}

TEST(NolocksLocaltime, KnownInstantsAndRangeEnds) {
    struct tm tm {};
    Func_nolocks_localtime(&tm, 951782400, 0, 0);  // 2000-02-29 00:00:00 UTC
    EXPECT_EQ(tm.tm_year, 100);
    EXPECT_EQ(tm.tm_mon, 1);
    EXPECT_EQ(tm.tm_mday, 29);
    EXPECT_EQ(tm.tm_wday, 2);
    EXPECT_EQ(tm.tm_yday, 59);

    // 2024-02-29 23:59:59 UTC is 2024-03-01 07:59:59 eight hours east.
    Func_nolocks_localtime(&tm, 1709251199, -28800, 0);
    EXPECT_EQ(tm.tm_mon, 2);
    EXPECT_EQ(tm.tm_mday, 1);
    EXPECT_EQ(tm.tm_hour, 7);

    // Untouched fields stay as the caller left them.
    tm.tm_gmtoff = 1234;
    Func_nolocks_localtime(&tm, 0, 0, 0);
    EXPECT_EQ(tm.tm_gmtoff, 1234);

    // Before the epoch (after the shift) the conversion stops at the epoch;
    // past year 9999 at its last second. Absurd zones never overflow.
    Func_nolocks_localtime(&tm, 100, 3600, 0);
    EXPECT_EQ(tm.tm_year, 70);
    EXPECT_EQ(tm.tm_yday, 0);
    EXPECT_EQ(tm.tm_hour, 0);
    EXPECT_EQ(tm.tm_sec, 0);
    Func_nolocks_localtime(&tm, INT64_MAX, INT64_MIN, INT32_MAX);
    Func_nolocks_localtime(&tm, 300000000000, 0, 0);
    EXPECT_EQ(tm.tm_year, 9999 - 1900);
    EXPECT_EQ(tm.tm_mon, 11);
    EXPECT_EQ(tm.tm_mday, 31);
    EXPECT_EQ(tm.tm_sec, 59);

    EXPECT_EQ(Func_is_leap_year(1900), 0);
    EXPECT_EQ(Func_is_leap_year(2000), 1);
    EXPECT_EQ(Func_is_leap_year(2024), 1);
    EXPECT_EQ(Func_is_leap_year(2100), 0);
}

}  // namespace
