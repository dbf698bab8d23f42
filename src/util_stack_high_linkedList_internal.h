// The linked-list stack's table, for the top table.
#pragma once

#include "util_stack_high_linkedList_function.h"

extern util_ops_stack_high_linkedList_fun_t util_ops_stack_high_linkedList_fun;
