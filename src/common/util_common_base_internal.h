// Operations of the common base module that other modules call directly.
#pragma once

#include "util_common_base_function.h"

UTIL_CHAR* Func_strTrim(UTIL_CHAR* pstr) noexcept;
UTIL_S32 Func_itoa(UTIL_S32 n, UTIL_CHAR* astr) noexcept;
UTIL_S32 Func_strList_free(util_string_list_t buf) noexcept;

