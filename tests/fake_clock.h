// The wall clock as the library reads it (gettimeofday), interposed: the
// program that includes this header defines gettimeofday, which the library
// then calls, so clock synchronisation and drift checks run without
// sleeping. Include it in exactly one source of a test program. While
// `enabled`, the library sees `now`; otherwise the real time.
#pragma once

#include <sys/time.h>

#include <ctime>

namespace qtest::fake_clock {

inline bool enabled = false;
inline struct timeval now {};

// The clock at a UTC date and time, plus microseconds.
inline void set_utc(int year, int month, int day, int hour, int minute, int second, long usec) {
    struct tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    now.tv_sec = timegm(&tm);
    now.tv_usec = usec;
}

inline void advance_us(long us) {
    now.tv_usec += us;
    now.tv_sec += now.tv_usec / 1000000;
    now.tv_usec %= 1000000;
}

}  // namespace qtest::fake_clock

extern "C" int gettimeofday(struct timeval* tv, void* /*tz*/) noexcept {
    if (qtest::fake_clock::enabled) {
        *tv = qtest::fake_clock::now;
        return 0;
    }
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}
