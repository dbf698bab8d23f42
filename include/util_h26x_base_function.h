/* H.26x stream base: stream, NAL unit and SEI payload type constants, the
 * bit reader, the NAL unit scanners and the stream-to-file writers. */
#ifndef UTIL_H26X_BASE_FUNCTION_H
#define UTIL_H26X_BASE_FUNCTION_H

#include <stdio.h>

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Anonymous unions are standard in C11 and C++; C99 compilers of the GNU
 * family accept them as an extension. */
#if defined(__GNUC__) && !defined(__cplusplus)
#define UTIL_ANONYMOUS_UNION __extension__ union
#else
#define UTIL_ANONYMOUS_UNION union
#endif

typedef enum UTIL_H26X_STREAM_TYPE {
    ENUM_UTIL_H264_STREAM_TYPE = 264,
    ENUM_UTIL_H265_STREAM_TYPE = 265
} UTIL_H26X_STREAM_TYPE_ENUM;

/* NAL unit types: H.264 (header byte & 0x1F), H.265 ((header byte >> 1) & 0x3F). */
enum {
    ENUM_UTIL_H264_FRAME_NALU_TYPE_P = 1,
    ENUM_UTIL_H264_FRAME_NALU_TYPE_IDR = 5,
    ENUM_UTIL_H264_FRAME_NALU_TYPE_SEI = 6,
    ENUM_UTIL_H264_FRAME_NALU_TYPE_SPS = 7,
    ENUM_UTIL_H264_FRAME_NALU_TYPE_PPS = 8,
    ENUM_UTIL_H264_FRAME_NALU_TYPE_AUD = 9,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_P = 1,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_IDR = 19,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_VPS = 32,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_SPS = 33,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_PPS = 34,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_AUD = 35,
    ENUM_UTIL_H265_FRAME_NALU_TYPE_SEI = 39
};

/* SEI payload types. */
enum {
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_BUFFERING_PERIOD = 0,
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_PIC_TIMING = 1,
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_PAN_SCAN_RECT = 2,
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_FILLER_PAYLOAD = 3,
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_USER_DATA_REGISTERED_ITU_T_T35 = 4,
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_USER_DATA_UNREGISTERED = 5,
    ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_RECOVERY_POINT = 6,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_BUFFERING_PERIOD = 0,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_PIC_TIMING = 1,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_PAN_SCAN_RECT = 2,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_FILLER_PAYLOAD = 3,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_USER_DATA_REGISTERED_ITU_T_T35 = 4,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_USER_DATA_UNREGISTERED = 5,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_RECOVERY_POINT = 6,
    ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_TIME_CODE = 136,
    ENUM_UTIL_H265_FRAME_SUFFIX_SEI_PAYLOAD_TYPE_FILLER_PAYLOAD = 3,
    ENUM_UTIL_H265_FRAME_SUFFIX_SEI_PAYLOAD_TYPE_USER_DATA_REGISTERED_ITU_T_T35 = 4,
    ENUM_UTIL_H265_FRAME_SUFFIX_SEI_PAYLOAD_TYPE_USER_DATA_UNREGISTERED = 5
};

/* One NAL unit of a frame: where its start code is, its first header byte,
 * and its length including the start code. */
typedef struct _util_h26x_frame_buf_info_one_attr {
    UTIL_ANONYMOUS_UNION {
        UTIL_U64 position;
        UTIL_UCHAR* addr;
    };
    UTIL_S32 nalu;
    UTIL_U64 length;
} util_h26x_frame_buf_info_one_t;

/* V1: at most 7 units plus a terminator entry, owned by the caller. */
typedef struct UTIL_H26X_FRAME_BUF_INFO_ATTR_V1 {
    util_h26x_frame_buf_info_one_t list[8];
    UTIL_S32 count;
} util_h26x_frame_buf_info_t;

/* V2: a heap array of exactly the units found. */
typedef struct UTIL_LIST_H26X_FRAME_BUF_INFO_ATTR_V2 {
    util_h26x_frame_buf_info_one_t* phfbi;
    UTIL_S32 hfbiMax;
    UTIL_UCHAR* frame_addr;
    UTIL_S32 frame_size;
} util_list_h26x_frame_buf_info_t;

/* V3: a chain of heap nodes ending in a terminator node. */
typedef struct _util_h26x_frame_buf_info_one_node_attr {
    util_h26x_frame_buf_info_one_t hfbi;
    struct _util_h26x_frame_buf_info_one_node_attr* next;
} util_h26x_frame_buf_info_one_node_t;

typedef struct util_LINK_h26x_frame_buf_info_attr_v3 {
    util_h26x_frame_buf_info_one_node_t* head;
    UTIL_S32 count;
    UTIL_UCHAR* frame_addr;
    UTIL_S32 frame_size;
} util_link_h26x_frame_buf_info_t;

/* Stream dump writers' state, owned by the caller; start zero-filled. */
typedef struct UTIL_QUILLANE_H26X_BASE_SAVE_STREAM_TO_FILE_ATTR {
    const UTIL_CHAR* file_name;
    UTIL_U64 max_size;
    UTIL_ANONYMOUS_UNION {
        FILE* fp;
        UTIL_S32 fd;
    };
    UTIL_U64 write_size;
} util_h26xBaseSaveStreamToFile_t;

typedef struct UTIL_QUILLANE_H26X_BASE_SAVE_STREAM_TO_FILE_BY_FLAG_ATTR {
    util_h26xBaseSaveStreamToFile_t save;
    const UTIL_CHAR* endFileFlag;
    const UTIL_CHAR* startFileFlag;
} util_h26xBaseSaveStreamToFileByFlag_t;

typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_H26X_BASE_FUNCTION {
    UTIL_S32 (*readBitsToU32)(const UTIL_UCHAR* pdata, UTIL_S32 startByteIndex, UTIL_S8 startBitIndex,
                              UTIL_S32 endByteIndex, UTIL_U8 readBits, UTIL_U32* result);
    UTIL_S32 (*V1_get_hfbi)(util_h26x_frame_buf_info_t* phfbi, UTIL_UCHAR* frame_buf, UTIL_S32 frame_size,
                            UTIL_H26X_STREAM_TYPE_ENUM frame_type, UTIL_S32 analyzeAllFlag);
    UTIL_S32 (*V2_init_list)(util_list_h26x_frame_buf_info_t* phfbiList, UTIL_S32 analyzeAllFlag);
    UTIL_S32 (*V2_exit_list)(util_list_h26x_frame_buf_info_t* phfbiList);
    UTIL_S32 (*V3_init_list)(util_link_h26x_frame_buf_info_t* phfbiLink, UTIL_S32 analyzeAllFlag);
    UTIL_S32 (*V3_exit_list)(util_link_h26x_frame_buf_info_t* phfbiLink);
    void (*fw_save_stream_bySize)(UTIL_CHAR* pstStream, UTIL_S32 frame_size, util_h26xBaseSaveStreamToFile_t* pst);
    void (*w_save_stream_bySize)(UTIL_CHAR* pstStream, UTIL_S32 frame_size, util_h26xBaseSaveStreamToFile_t* pst);
    void (*fw_save_stream_byFlag)(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                  util_h26xBaseSaveStreamToFileByFlag_t* pst);
} util_ops_h26x_base_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_H26X_BASE_FUNCTION_H */
