/* Function pointer types shared by several modules. */
#ifndef UTIL_COMMON_FUNC_TYPE_H
#define UTIL_COMMON_FUNC_TYPE_H

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A signal handler: takes the signal number, returns nothing. */
typedef void (*UTIL_Void__FUNC__S32)(UTIL_S32);

#ifdef __cplusplus
}
#endif

#endif /* UTIL_COMMON_FUNC_TYPE_H */
