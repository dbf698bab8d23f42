// The parameter registry's table, for the top table.
#pragma once

#include "util_parameter_base_function.h"

extern util_ops_parameter_base_fun_t util_ops_parameter_base_fun;
