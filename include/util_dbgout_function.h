/* Debug output: the global debug attributes, the trace function and the
 * command byte dump. */
#ifndef UTIL_DBGOUT_FUNCTION_H
#define UTIL_DBGOUT_FUNCTION_H

#include <stdio.h>
#include <time.h>

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define UTIL_PRINTF_LIKE(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define UTIL_PRINTF_LIKE(fmt_index, first_arg)
#endif

/* Output selector; tested as a set of bits (1 log file, 2 syslog). */
typedef enum UTIL_DBGOUT_ENUM_TYPE {
    UTIL_DBGOUT_ENUM_TYPE_NOLOG = 0,
    UTIL_DBGOUT_ENUM_TYPE_DBGLOG = 1,
    UTIL_DBGOUT_ENUM_TYPE_SYSLOG = 2
} UTIL_DBGOUT_ENUM_TYPE_E;

/* Option bits of util_dbgout_dbglog_t.enable. */
#define UTIL_DBGOUT_DBGLOG_ENABLE 0x1u
#define UTIL_DBGOUT_DBGLOG_BACKUP 0x2u
#define UTIL_DBGOUT_DBGLOG_TIMESTAMP 0x4u
#define UTIL_DBGOUT_DBGLOG_BUSY 0x10000u

typedef struct UTIL_DBGOUT_DBGLOG_ATTR {
    UTIL_U32 enable;
    FILE* log_fp;
    UTIL_CHAR log_path[64];
    UTIL_U64 log_max_size;
} util_dbgout_dbglog_t;

typedef struct UTIL_DBGOUT_SYSLOG_ATTR {
    UTIL_S32 priority;
    UTIL_U32 timestamp_enable;
} util_dbgout_syslog_t;

typedef struct UTIL_DBGOUT_EXTRA_INFO_ATTR {
    time_t log_timezone;
    UTIL_S32 log_daylight;
    UTIL_U32 timestamp_bits;
} util_dbgout_extra_info_t;

typedef struct UTIL_DBGOUT_ATTR {
    UTIL_U32 enType;
    util_dbgout_dbglog_t dbglogAttr;
    util_dbgout_syslog_t syslogAttr;
    util_dbgout_extra_info_t extraInfo;
} util_dbgout_t;

/* Accessors of the one global debug record. */
typedef struct UTIL_DBGOUT_ATTR_FUNCTION {
    void (*set)(util_dbgout_t* pst);
    util_dbgout_t* (*get)(void);
    void (*set_dbglog_enable)(UTIL_U32 enable);
    UTIL_U32 (*get_dbglog_enable)(void);
    void (*set_dbglog_logMaxSize)(UTIL_U64 logMaxSize);
    UTIL_U64 (*get_dbglog_logMaxSize)(void);
    void (*set_dbglog_logPath)(const UTIL_CHAR* logPath);
    UTIL_CHAR* (*get_dbglog_logPath)(void);
    void (*fclose_dbglog_fp)(void);
    void (*set_dbglog_attr)(UTIL_U32 enable, const UTIL_CHAR* logPath, UTIL_U64 logMaxSize);
    void (*set_syslog_attr)(UTIL_S32 priority, UTIL_U32 timestampEnable);
    void (*set_extraInfo_attr)(time_t logTimezone, UTIL_S32 logDaylight, UTIL_U32 timestampBits);
    void (*get_extraInfo_attr)(time_t* logTimezone, UTIL_S32* logDaylight, UTIL_U32* timestampBits);
} util_dbgout_attr_fun_t;

typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_DBGOUT_FUNCTION {
    util_dbgout_attr_fun_t* pstDebugAttr;
    UTIL_S32 (*traceout)(util_dbgout_t* p_dbg, const UTIL_CHAR* fmt, ...) UTIL_PRINTF_LIKE(2, 3);
    UTIL_S32 (*cmdToStr)(UTIL_U8* arr, UTIL_U8 size, UTIL_CHAR* buf);
    UTIL_S32 (*cmdPrint)(UTIL_U8* arr, UTIL_U8 size);
} util_ops_dbgout_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_DBGOUT_FUNCTION_H */
