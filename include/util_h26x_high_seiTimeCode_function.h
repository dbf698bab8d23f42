/* H.26x SEI time code: per-stream contexts that count frames in step with
 * the local clock and build the H.264 picture timing or H.265 time code SEI
 * NAL unit for every frame. */
#ifndef UTIL_H26X_HIGH_SEITIMECODE_FUNCTION_H
#define UTIL_H26X_HIGH_SEITIMECODE_FUNCTION_H

#include <sys/time.h>

#include "util_common_base_type.h"
#include "util_h26x_base_function.h"

#ifdef __cplusplus
extern "C" {
#endif

struct UTIL_H26X_SEI_TIM_ATTR;

/* One stream's configuration, given by the caller. */
typedef struct UTIL_H26X_SEI_TIM_USER_PARAM_ATTR {
    UTIL_BOOL ntp_enable;
    UTIL_S32 max_fps_x100;
    UTIL_S32 video_format;
    UTIL_S32 h26x_type;
    UTIL_S32 timDiffCal_enable;
    UTIL_U8 h264_cpb_removal_delay_length;
    UTIL_U8 h264_dpb_output_delay_length;
    UTIL_U8 h264_time_offset_length;
    UTIL_U64 init_wait_frame_cnts;
    /* Called by init_list once on the fresh context, then for every counted
     * frame. It may change the context; exit_list and init_list of the list
     * being built return -1 while it runs from init_list. */
    UTIL_S32 (*setTimeCode_callback)(struct UTIL_H26X_SEI_TIM_ATTR* phst);
} util_h26x_sei_tim_config_param_t;

/* H.264 picture timing values; bit-field widths are the syntax element widths. */
typedef struct UTIL_H264_SEI_TIMING_ATTR {
    UTIL_U32 cpb_removal_delay;
    UTIL_U32 dpb_output_delay;
    UTIL_U8 pic_struct : 4;
    UTIL_U8 clock_timestamp_flag : 1;
    UTIL_U8 ct_type : 2;
    UTIL_U8 nuit_field_based_flag : 1;
    UTIL_U8 counting_type : 5;
    UTIL_U8 full_timestamp_flag : 1;
    UTIL_U8 discontinuity_flag : 1;
    UTIL_U8 cnt_dropped_flag : 1;
    UTIL_U8 n_frames : 8;
    UTIL_U8 seconds_value : 6;
    UTIL_U8 minutes_value : 6;
    UTIL_U8 hours_value : 5;
    UTIL_U32 time_offset;
} util_h264_sei_timing_t;

/* H.265 time code values. */
typedef struct UTIL_H265_SEI_TIME_CODE_ATTR {
    UTIL_U8 num_clock_ts : 2;
    UTIL_U8 clock_timestamp_flag : 1;
    UTIL_U8 nuits_field_based_flag : 1;
    UTIL_U8 counting_type : 5;
    UTIL_U8 full_timestamp_flag : 1;
    UTIL_U8 discontinuity_flag : 1;
    UTIL_U32 cnt_dropped_flag : 1;
    UTIL_U32 n_frames : 9;
    UTIL_U32 seconds_value : 6;
    UTIL_U32 minutes_value : 6;
    UTIL_U32 hours_value : 5;
    UTIL_U32 time_offset_length : 5;
    UTIL_U32 time_offset_value;
} util_h265_sei_time_code_t;

/* State of the periodic comparison of counted frames with the wall clock. */
typedef struct UTIL_H26X_SEI_TIM_DIFFERENCE_CALIBRATE_ATTR {
    struct timeval latest_time;
    UTIL_U64 real_frame_cnt;
    UTIL_U64 wait_frame_cnts;
} util_h26x_sei_tim_diff_calibrate_t;

/* One stream's context. */
typedef struct UTIL_H26X_SEI_TIM_ATTR {
    util_h26x_sei_tim_config_param_t config_param;
    UTIL_S32 init_flag;
    UTIL_BOOL idr_flag;
    util_h264_sei_timing_t h264_sei;
    util_h265_sei_time_code_t h265_sei;
    UTIL_UCHAR data[64];
    UTIL_S32 data_len;
    util_h26x_sei_tim_diff_calibrate_t timDiffCal;
} util_h26x_sei_tim_t;

/* The caller's list of contexts, one per stream. */
typedef struct UTIL_LIST_H26X_SEI_TIM_ATTR {
    util_h26x_sei_tim_t* ph26xSeiTim;
    UTIL_S32 h26xSeiTimMax;
} util_list_h26x_sei_tim_t;

typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_H26X_HIGH_SEI_TIME_CODE_FUNCTION {
    UTIL_S32 (*get_data)(util_h26x_sei_tim_t* phst);
    UTIL_S32 (*running)(util_h26x_sei_tim_t* phst, util_h26x_frame_buf_info_t* phfbi);
    UTIL_S32 (*init_list)(util_list_h26x_sei_tim_t* phstList, util_h26x_sei_tim_config_param_t* phstcp,
                          UTIL_S32 hstcpMax);
    UTIL_S32 (*exit_list)(util_list_h26x_sei_tim_t* phstList);
} util_ops_h26x_high_seiTimeCode_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_H26X_HIGH_SEITIMECODE_FUNCTION_H */
