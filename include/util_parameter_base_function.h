/* Registry of integer parameters grouped into classes, each class with its
 * own callback, flag word and mutex. The application describes its classes
 * once; the registry keeps a deep copy that it owns until exit_list. */
#ifndef UTIL_PARAMETER_BASE_FUNCTION_H
#define UTIL_PARAMETER_BASE_FUNCTION_H

#include <pthread.h>

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    UTIL_PARAMETER_OPS_FLAG_SET = 0,
    UTIL_PARAMETER_OPS_FLAG_GET = 1
};

typedef struct UTIL_PARAMETER_BASE_ONE_ATTR {
    UTIL_S32 cur;
    UTIL_S32 def;
    UTIL_S32 min;
    UTIL_S32 max;
    UTIL_S32 (*getVal)(UTIL_S32 value); /* stored for the application, never called here */
    UTIL_CHAR* text;                    /* in the list: a heap copy owned by the list, or null */
    const UTIL_CHAR* description;       /* borrowed: must outlive the list */
    const UTIL_CHAR* name;              /* borrowed: must outlive the list */
    UTIL_S32 (*setFunc_callback)(struct UTIL_PARAMETER_BASE_ONE_ATTR* pstParameterBase, void** content);
    UTIL_U32 callback_flag;
} util_parameter_base_one_t;

typedef struct UTIL_PARAMETER_CLASS_ATTR {
    const UTIL_CHAR* path; /* borrowed: must outlive the list */
    util_parameter_base_one_t* paraList;
    UTIL_S32 paraListMax;
    /* Called by run_class. It may register and run classes, of its own list
     * too; exit_list and init_list of the list being run return -1. */
    UTIL_S32 (*setFunc_callback)(struct UTIL_PARAMETER_CLASS_ATTR* pstParameterClass, void** content);
    UTIL_U32 callback_flag;
    pthread_mutex_t used_mutex; /* created and destroyed by the registry, locked only by its users */
    UTIL_U64 bit_param;
    UTIL_U8 ops_flag; /* a UTIL_PARAMETER_OPS_FLAG_* value */
} util_parameter_class_t;

/* Zero it before the first init_list: a non-null pclass is taken for a built list. */
typedef struct UTIL_LIST_PARAMETER_CLASS_ATTR {
    util_parameter_class_t* pclass;
    UTIL_S32 classMax;
} util_list_parameter_class_t;

typedef UTIL_S32 (*util_parameter_base_fun_t)(util_parameter_base_one_t* pstParameterBase, void** content);
typedef UTIL_S32 (*util_parameter_class_fun_t)(util_parameter_class_t* pstParameterClass, void** content);

/* A classIndex (or baseIndex) of -1 means every class (every parameter of
 * the class) in run_class and in the four register operations alike. */
typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_PARAMETER_BASE_FUNCTION {
    UTIL_S32 (*set_base_func)(util_parameter_base_one_t* pstParameterBase, util_parameter_base_fun_t fun);
    UTIL_S32 (*set_class_func)(util_parameter_class_t* pstParameterClass, util_parameter_class_fun_t fun);
    UTIL_S32 (*init_list)(util_list_parameter_class_t* pclassList, util_parameter_class_t* ppc, UTIL_S32 pcMax);
    UTIL_S32 (*exit_list)(util_list_parameter_class_t* pclassList);
    UTIL_S32 (*run_class)(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex, void** content);
    UTIL_S32 (*register_base_func)(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex, UTIL_S32 baseIndex,
                                   util_parameter_base_fun_t fun);
    UTIL_S32 (*register_base_flag)(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex, UTIL_S32 baseIndex,
                                   UTIL_U32* baseFlag, UTIL_BOOL isSetFlag);
    UTIL_S32 (*register_class_func)(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                    util_parameter_class_fun_t fun);
    UTIL_S32 (*register_class_flag)(util_list_parameter_class_t* pclassList, UTIL_S32 classIndex,
                                    UTIL_U32* classFlag, UTIL_BOOL isSetFlag);
} util_ops_parameter_base_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_PARAMETER_BASE_FUNCTION_H */
