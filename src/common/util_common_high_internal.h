// Operations of the common high module that other modules call directly.
#pragma once

#include <ctime>

#include "util_common_high_function.h"

UTIL_S32 Func_get_local_time(struct tm* ptm, UTIL_U32* ptvUsec) noexcept;
UTIL_S32 Func_get_local_time_r(struct tm* ptm) noexcept;

