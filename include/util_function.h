/* The library's single entry point: the top table of per-module tables. */
#ifndef UTIL_FUNCTION_H
#define UTIL_FUNCTION_H

#include "util_common_base_type.h"
#include "util_common_func_type.h"
#include "util_dbgout_function.h"
#include "util_common_base_function.h"
#include "util_common_high_function.h"
#include "util_queue_high_linkedList_function.h"
#include "util_queue_high_arrayList_function.h"
#include "util_stack_high_linkedList_function.h"
#include "util_stack_high_arrayList_function.h"
#include "util_h26x_base_function.h"
#include "util_h26x_high_seiTimeCode_function.h"
#include "util_net_function.h"
#include "util_parameter_base_function.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_QUILLANE_FUNCTION {
    const UTIL_CHAR* verInfo;
    UTIL_S32 (*util_init)(void);
    UTIL_S32 (*util_exit)(void);
    util_ops_dbgout_fun_t* dbgout;
    util_ops_common_base_fun_t* common_base;
    util_ops_common_high_fun_t* common_high;
    util_ops_queue_high_linkedList_fun_t* queue_high_linkedList;
    util_ops_queue_high_arrayList_fun_t* queue_high_arrayList;
    util_ops_stack_high_linkedList_fun_t* stack_high_linkedList;
    util_ops_stack_high_arrayList_fun_t* stack_high_arrayList;
    util_ops_h26x_base_fun_t* h26x_base;
    util_ops_h26x_high_seiTimeCode_fun_t* h26x_high_seiTimeCode;
    util_ops_net_fun_t* net;
    util_ops_parameter_base_fun_t* parameter_base;
} util_ops_quillane_fun_t;

extern util_ops_quillane_fun_t util_ops_quillane_fun;
extern util_ops_quillane_fun_t* util_ops_pfun;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_FUNCTION_H */
