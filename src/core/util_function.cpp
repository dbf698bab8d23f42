// The exported top table, the version text, initialisation and exit.
#include "util_function.h"

#include <ctime>

#include "common/util_common_high_internal.h"
#include "core/util_alloc.h"
#include "core/util_msg.h"
#include "core/util_tables.h"
#include "core/util_version.h"

std::atomic<long> quillane::g_alloc_failure_countdown{-1};

namespace {

UTIL_S32 Func_util_func_init() noexcept {
    struct tm now = {};
    Func_get_local_time_r(&now);
    UTIL_TRACE("verInfo:%s\n", util_ops_pfun->verInfo);
    UTIL_TRACE("current time:%d-%02d-%02d %02d:%02d:%02d\n", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday,
               now.tm_hour, now.tm_min, now.tm_sec);
    UTIL_TRACE("sizeof(UTIL_U16)=%d,   sizeof(unsigned short)=%d\n", static_cast<int>(sizeof(UTIL_U16)),
               static_cast<int>(sizeof(unsigned short)));
    UTIL_TRACE("sizeof(UTIL_U32)=%d,   sizeof(unsigned int)=%d\n", static_cast<int>(sizeof(UTIL_U32)),
               static_cast<int>(sizeof(unsigned int)));
    UTIL_TRACE("sizeof(UTIL_U64)=%d,   sizeof(unsigned long)=%d\n", static_cast<int>(sizeof(UTIL_U64)),
               static_cast<int>(sizeof(unsigned long)));
    UTIL_TRACE("sizeof(UTIL_FLOAT)=%d, sizeof(float)=%d\n", static_cast<int>(sizeof(UTIL_FLOAT)),
               static_cast<int>(sizeof(float)));
    UTIL_TRACE("sizeof(UTIL_DOUBLE)=%d,sizeof(double)=%d\n", static_cast<int>(sizeof(UTIL_DOUBLE)),
               static_cast<int>(sizeof(double)));
    UTIL_TRACE("sizeof(unsigned long int)=%d\n", static_cast<int>(sizeof(unsigned long int)));
    UTIL_TRACE("sizeof(unsigned long long int)=%d\n", static_cast<int>(sizeof(unsigned long long int)));
    return 0;
}

UTIL_S32 Func_util_func_exit() noexcept {
    UTIL_TRACE("util exit\n");
    return 0;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) util_ops_quillane_fun_t util_ops_quillane_fun = {
    util_version_text,
    Func_util_func_init,
    Func_util_func_exit,
    &util_ops_dbgout_fun,
    &util_ops_common_base_fun,
    &util_ops_common_high_fun,
    &util_ops_queue_high_linkedList_fun,
    &util_ops_queue_high_arrayList_fun,
    &util_ops_stack_high_linkedList_fun,
    &util_ops_stack_high_arrayList_fun,
    &util_ops_h26x_base_fun,
    &util_ops_h26x_high_seiTimeCode_fun,
    &util_ops_net_fun,
    &util_ops_parameter_base_fun,
};

__attribute__((visibility("default"))) util_ops_quillane_fun_t* util_ops_pfun = &util_ops_quillane_fun;

}  // extern "C"
