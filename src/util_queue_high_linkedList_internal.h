// The linked-list queue's table, for the top table.
#pragma once

#include "util_queue_high_linkedList_function.h"

extern util_ops_queue_high_linkedList_fun_t util_ops_queue_high_linkedList_fun;
