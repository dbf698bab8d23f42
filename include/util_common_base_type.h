/* Base scalar types and text records shared by every module. */
#ifndef UTIL_COMMON_BASE_TYPE_H
#define UTIL_COMMON_BASE_TYPE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint8_t UTIL_U8;
typedef int8_t UTIL_S8;
typedef uint16_t UTIL_U16;
typedef int16_t UTIL_S16;
typedef uint32_t UTIL_U32;
typedef int32_t UTIL_S32;
typedef uint64_t UTIL_U64;
typedef int64_t UTIL_S64;
/* Plain char: unsigned on the camera, so code must never rely on its sign. */
typedef char UTIL_CHAR;
typedef unsigned char UTIL_UCHAR;
typedef float UTIL_FLOAT;
typedef double UTIL_DOUBLE;

typedef enum UTIL_ENUM_BOOL {
    UTIL_FALSE = 0,
    UTIL_TRUE = 1
} UTIL_BOOL;

typedef struct UTIL_FUNCTION_STRING {
    UTIL_CHAR* string;
    UTIL_S32 length;
} util_string_t;

typedef struct UTIL_FUNCTION_STRING_LIST {
    util_string_t* strList;
    UTIL_S32 size;
} util_string_list_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_COMMON_BASE_TYPE_H */
