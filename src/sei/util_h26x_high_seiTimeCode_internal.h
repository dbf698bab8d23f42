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

namespace quillane {

// Size of a context's SEI buffer.
inline constexpr int kSeiDataSize = static_cast<int>(sizeof(util_h26x_sei_tim_t::data));

// The indexes k of d[4..len-1], in order, in front of which emulation
// prevention puts a 03; returns their number (at most kSeiDataSize / 2).
// `d` is a whole kSeiDataSize-byte buffer: it is read in 16-byte blocks.
int sei_emulation_points(const UTIL_UCHAR* d, int len, int* points) noexcept;

}  // namespace quillane

