// The array queue's table, for the top table.
#pragma once

#include "util_queue_high_arrayList_function.h"

extern util_ops_queue_high_arrayList_fun_t util_ops_queue_high_arrayList_fun;
