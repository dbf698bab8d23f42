// Internal steps of the SEI time code that the white-box tests drive one by one.
#pragma once

#include "util_h26x_high_seiTimeCode_function.h"

UTIL_S32 Func_h26x_high_sei_sync_local_time(util_h26x_sei_tim_t* pSeiTim) noexcept;
UTIL_S32 Func_h26x_high_sei_set_timing_nframes(util_h26x_sei_tim_t* phst) noexcept;
UTIL_S32 Func_h26x_high_correct_tv_sei_sync_local_time_diffence_func(util_h26x_sei_tim_t* phst) noexcept;
UTIL_S32 Func_h26x_high_sei_timing_get_dropped_nframes_func(util_h26x_sei_tim_t* pSeiTim) noexcept;
UTIL_S32 Func_h26x_high_sei_timing_get_ready_dropped_nframes_func(util_h26x_sei_tim_t* pSeiTim) noexcept;
UTIL_S32 Func_h26x_high_sei_get_tim_buf_data(util_h26x_sei_tim_t* pstSei) noexcept;
UTIL_S32 Func_h26x_high_sei_getDataFromSeiTiming(util_h26x_sei_tim_t* pstSei) noexcept;

extern util_ops_h26x_high_seiTimeCode_fun_t util_ops_h26x_high_seiTimeCode_fun;
