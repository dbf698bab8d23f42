/* Common high utilities: files, configuration lines, shell commands and
 * processes, thread affinity and local time. */
#ifndef UTIL_COMMON_HIGH_FUNCTION_H
#define UTIL_COMMON_HIGH_FUNCTION_H

#include <pthread.h>
#include <stdio.h>
#include <time.h>

#include "util_common_base_type.h"
#include "util_common_func_type.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_COMMON_HIGH_FUNCTION {
    UTIL_S32 (*pox_system)(const UTIL_CHAR* cmd_line);
    UTIL_S32 (*readFileShellCmds_malloc)(UTIL_CHAR* filePath, util_string_list_t* pbuf, UTIL_S32 mblock);
    UTIL_U64 (*get_file_size)(const UTIL_CHAR* filepath);
    UTIL_U64 (*get_file_size2)(const UTIL_CHAR* filepath);
    UTIL_S32 (*is_file_empty)(UTIL_CHAR* path);
    UTIL_S32 (*parsePathName)(const UTIL_CHAR* path, UTIL_CHAR* dirName, UTIL_CHAR* baseName);
    UTIL_S32 (*isTextExistStr)(FILE* fp, UTIL_CHAR* str, UTIL_S32 size, UTIL_S32 max_num);
    UTIL_S32 (*compare_str_to_file)(UTIL_CHAR* path, UTIL_CHAR* str, UTIL_S32 size);
    UTIL_S32 (*readTextNum)(UTIL_CHAR* filePath, UTIL_S32* num);
    UTIL_S32 (*readTextFirstLineStr)(UTIL_CHAR* filePath, UTIL_CHAR* str, UTIL_U32 size);
    UTIL_S32 (*deleteFileList)(UTIL_CHAR (*delListName)[256], UTIL_S32 num);
    UTIL_S32 (*update_line_conf_str)(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_CHAR* keyvalue, UTIL_CHAR* format);
    UTIL_S32 (*update_line_conf_int)(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_S32 keyvalue, UTIL_CHAR* format);
    UTIL_S32 (*update_line_conf)(UTIL_CHAR* path, UTIL_CHAR* keyword, UTIL_CHAR* new_key_word_value);
    UTIL_S32 (*find_pid)(UTIL_CHAR* pidname);
    void (*kill_pid)(UTIL_CHAR* pid_name, UTIL_CHAR* level);
    UTIL_S32 (*popen_cmd)(UTIL_CHAR* cmd);
    UTIL_S32 (*popen_cmd_result)(UTIL_CHAR* cmd, UTIL_CHAR* result, UTIL_U32 size);
    UTIL_S32 (*setThreadCPU)(pthread_t thread, UTIL_U32 cpu_num);
    UTIL_S32 (*get_local_time)(struct tm* ptm, UTIL_U32* ptvUsec);
    UTIL_S32 (*get_local_time_r)(struct tm* ptm);
} util_ops_common_high_fun_t;

/* Exported by name as well as through the table. */
UTIL_S32 Func_pox_system(const UTIL_CHAR* cmd_line);

#ifdef __cplusplus
}
#endif

#endif /* UTIL_COMMON_HIGH_FUNCTION_H */
