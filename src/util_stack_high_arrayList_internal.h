// The array stack's table, for the top table.
#pragma once

#include "util_stack_high_arrayList_function.h"

extern util_ops_stack_high_arrayList_fun_t util_ops_stack_high_arrayList_fun;
