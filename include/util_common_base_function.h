/* Common base utilities: arithmetic, text and number-text helpers, string
 * lists and the range validator for textual parameter values. */
#ifndef UTIL_COMMON_BASE_FUNCTION_H
#define UTIL_COMMON_BASE_FUNCTION_H

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Kind of check named by the first character of a range list string
 * (the character minus '0'). */
typedef enum UTIL_TYPE_COMPARE_RANGE {
    UTIL_TYPE_COMPARE_STRING_LIST_ENUM_RANGE = 0, /* one of the listed texts */
    UTIL_TYPE_COMPARE_DIGITAL_MIN_MAX_RANGE = 1,  /* decimal integer within min..max */
    UTIL_TYPE_COMPARE_NONE_RANGE = 2,             /* anything goes */
    UTIL_TYPE_COMPARE_REGEX_RANGE = 3,            /* matches every listed pattern */
    UTIL_TYPE_COMPARE_RANGE_NUM_MAX = 4
} UTIL_TYPE_COMPARE_RANGE_ENUM;

/* Results of judgeSubStrWithinRange. */
typedef enum UTIL_STR_COMPARE_RETURN {
    UTIL_STR_COMPARE_RETURN_ERR_OTHER = -1,          /* bad list string, or empty numeric value */
    UTIL_STR_COMPARE_RETURN_ERR_NONE = 0,            /* admissible */
    UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_OUTRANGE = 1, /* not listed, or outside the bounds */
    UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_FORMAT = 2,   /* not a number, or no pattern match */
    UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_ISNULL = 3    /* no value at all */
} UTIL_STR_COMPARE_RETURN_ENUM;

/* Output buffers: 12 bytes for itoa and itoh, 33 for itob and itob2;
 * getUtf8Length takes an array of at least three counters. */
typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_COMMON_BASE_FUNCTION {
    UTIL_S32 (*calc_gcd)(UTIL_S32 w, UTIL_S32 h);
    UTIL_FLOAT (*err_rSqrt)(UTIL_FLOAT x);
    UTIL_FLOAT (*err_rSqrt2)(UTIL_FLOAT x, UTIL_S32 newton_step);
    UTIL_FLOAT (*err_sqrt)(UTIL_FLOAT x);
    UTIL_FLOAT (*err_sqrt2)(UTIL_FLOAT x, UTIL_S32 newton_step);
    void (*bubbleSort)(UTIL_S32* arr, UTIL_S32 n);
    void (*bubbleSort2)(UTIL_S32* arr, UTIL_S32 n);
    UTIL_S32 (*limitValueRange)(UTIL_S32 limitV1, UTIL_S32 val, UTIL_S32 limitV2);
    UTIL_CHAR* (*strTrimRight)(UTIL_CHAR* pstr);
    UTIL_CHAR* (*strTrimLeft)(UTIL_CHAR* pstr);
    UTIL_CHAR* (*strTrim)(UTIL_CHAR* pstr);
    UTIL_S32 (*command_visca_memcmp)(void* srcCmd, UTIL_U32 srcCmdSize, const void* dstCmd, UTIL_U32 dstCmdSize);
    UTIL_S32 (*strList_malloc)(util_string_list_t* pbuf, UTIL_S32 mblock, UTIL_S32 size);
    UTIL_S32 (*strList_free)(util_string_list_t buf);
    UTIL_S32 (*judgeSubStrWithinRange)(UTIL_CHAR* subStr, const UTIL_CHAR* listStr);
    UTIL_S32 (*htoi)(UTIL_CHAR* hstr, UTIL_S32* num, UTIL_S32 size);
    UTIL_S32 (*itoa)(UTIL_S32 n, UTIL_CHAR* astr);
    UTIL_S32 (*itoh)(UTIL_S32 n, UTIL_CHAR* hstr);
    UTIL_S32 (*itob)(UTIL_S32 n, UTIL_CHAR* bstr);
    UTIL_S32 (*itob2)(UTIL_S32 n, UTIL_CHAR* bstr);
    UTIL_S32 (*rgb2yuv_By_CCIR_601)(UTIL_S32 R, UTIL_S32 G, UTIL_S32 B, UTIL_S32* Y, UTIL_S32* U, UTIL_S32* V);
    UTIL_S32 (*getUtf8CharByteNum)(UTIL_UCHAR ch);
    UTIL_S32 (*isUtf8Format)(const UTIL_CHAR* str);
    UTIL_S32 (*getUtf8Length)(UTIL_CHAR* str, UTIL_S32* cnt);
} util_ops_common_base_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_COMMON_BASE_FUNCTION_H */
