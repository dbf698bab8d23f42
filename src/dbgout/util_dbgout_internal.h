// Internal pieces of the debug output that other modules and the white-box
// tests reach directly (they are not exported from the shared object).
#pragma once

#include <ctime>

#include "util_dbgout_function.h"

UTIL_S32 Func_dbgout_dbglog(util_dbgout_dbglog_t* pdbglog, const UTIL_CHAR* msg,
                            util_dbgout_extra_info_t* pextraInfo) noexcept;
UTIL_S32 Func_dbgout_syslog(util_dbgout_syslog_t* psyslog, const UTIL_CHAR* msg,
                            util_dbgout_extra_info_t* pextraInfo) noexcept;
// Broken-down time from seconds since the epoch, shifted by a zone given in
// seconds west of UTC and a daylight shift in hours. Pure arithmetic: no
// time-zone database, no lock, no state.
void Func_nolocks_localtime(struct tm* tmp, time_t t, time_t tz, UTIL_S32 dst) noexcept;
UTIL_S32 Func_is_leap_year(time_t year) noexcept;

