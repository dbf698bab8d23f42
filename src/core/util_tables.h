// The per-module tables that the exported top table points to. Each module
// defines its own; the top table (util_function.cpp) and the modules that
// call one another's operations directly see them all here.
#pragma once

#include "util_function.h"

extern util_ops_dbgout_fun_t util_ops_dbgout_fun;
extern util_ops_common_base_fun_t util_ops_common_base_fun;
extern util_ops_common_high_fun_t util_ops_common_high_fun;
extern util_ops_queue_high_linkedList_fun_t util_ops_queue_high_linkedList_fun;
extern util_ops_queue_high_arrayList_fun_t util_ops_queue_high_arrayList_fun;
extern util_ops_stack_high_linkedList_fun_t util_ops_stack_high_linkedList_fun;
extern util_ops_stack_high_arrayList_fun_t util_ops_stack_high_arrayList_fun;
extern util_ops_h26x_base_fun_t util_ops_h26x_base_fun;
extern util_ops_h26x_high_seiTimeCode_fun_t util_ops_h26x_high_seiTimeCode_fun;
extern util_ops_net_fun_t util_ops_net_fun;
extern util_ops_parameter_base_fun_t util_ops_parameter_base_fun;
