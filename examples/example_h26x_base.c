/* H.26x stream base on hand-made H.264 frames: list a frame's NAL units with
 * the three scanners, read bit fields of its SPS, and dump the stream to
 * files within a byte budget, by descriptor, and between flag files. */
#include "example_support.h"

#include <unistd.h>

/* SPS (baseline profile, level 3.1), PPS and an IDR slice, each behind a
 * four-byte start code; the slice data is filler. */
static UTIL_UCHAR g_idr_frame[] = {
    0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0x00, 0x1F, 0xE9, 0x40, 0x50, 0x04,
    0x00, 0x00, 0x00, 0x01, 0x68, 0xCE, 0x38, 0x80,
    0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84, 0x00, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA,
};

static const char* h264_type_name(int nalu)
{
    switch (nalu & 0x1F) {
    case ENUM_UTIL_H264_FRAME_NALU_TYPE_P: return "P slice";
    case ENUM_UTIL_H264_FRAME_NALU_TYPE_IDR: return "IDR slice";
    case ENUM_UTIL_H264_FRAME_NALU_TYPE_SEI: return "SEI";
    case ENUM_UTIL_H264_FRAME_NALU_TYPE_SPS: return "SPS";
    case ENUM_UTIL_H264_FRAME_NALU_TYPE_PPS: return "PPS";
    case ENUM_UTIL_H264_FRAME_NALU_TYPE_AUD: return "AUD";
    default: return "other";
    }
}

/* A frame of `n` units: an access unit delimiter, n - 2 SEI units and a P
 * slice, each with a few filler bytes. Returns the frame's size. */
static int build_long_frame(UTIL_UCHAR* out, int n)
{
    int size = 0, k, b;
    for (k = 0; k < n; ++k) {
        out[size++] = 0x00;
        out[size++] = 0x00;
        out[size++] = 0x00;
        out[size++] = 0x01;
        out[size++] = (UTIL_UCHAR)(k == 0 ? 0x09 : k == n - 1 ? 0x41 : 0x06);
        for (b = 0; b < 9; ++b) out[size++] = 0x5A;
    }
    return size;
}

static int scanners(void)
{
    util_ops_h26x_base_fun_t* h26x = util_ops_pfun->h26x_base;
    util_h26x_frame_buf_info_t units;
    util_list_h26x_frame_buf_info_t list;
    util_link_h26x_frame_buf_info_t chain;
    const util_h26x_frame_buf_info_one_node_t* node;
    UTIL_UCHAR long_frame[12 * 14];
    UTIL_U32 profile = 0, level = 0;
    int i;

    /* V1: a fixed record of the caller's; up to the first picture unit. */
    EX_CHECK(h26x->V1_get_hfbi(&units, g_idr_frame, (UTIL_S32)sizeof g_idr_frame, ENUM_UTIL_H264_STREAM_TYPE, 0) == 0);
    printf("V1: %d units\n", (int)units.count);
    for (i = 0; i < units.count; ++i) {
        printf("  at %2llu: header 0x%02X (%s), %llu bytes\n", (unsigned long long)units.list[i].position,
               (unsigned)units.list[i].nalu, h264_type_name(units.list[i].nalu),
               (unsigned long long)units.list[i].length);
    }
    EX_CHECK(units.count == 3 && (units.list[2].nalu & 0x1F) == ENUM_UTIL_H264_FRAME_NALU_TYPE_IDR);
    EX_CHECK(units.list[units.count].position == sizeof g_idr_frame); /* the terminator entry */

    /* Bit fields of the SPS: profile_idc and level_idc, after the header byte. */
    EX_CHECK(h26x->readBitsToU32(g_idr_frame, 5, 7, 12, 8, &profile) == 0);
    EX_CHECK(h26x->readBitsToU32(g_idr_frame, 7, 7, 12, 8, &level) == 0);
    printf("SPS: profile_idc %u, level_idc %u\n", (unsigned)profile, (unsigned)level);
    EX_CHECK(profile == 66 && level == 31);

    /* V2: a heap array of exactly the units found, here 12 (V1 takes 7). */
    memset(&list, 0, sizeof list);
    list.frame_addr = long_frame;
    list.frame_size = build_long_frame(long_frame, 12);
    EX_CHECK(h26x->V1_get_hfbi(&units, long_frame, list.frame_size, ENUM_UTIL_H264_STREAM_TYPE, 1) == -1);
    fputc('\n', stderr); /* this module's messages carry no line end */
    EX_CHECK(h26x->V2_init_list(&list, 1) == 0);
    printf("V2: %d units, the last at %llu (%s)\n", (int)list.hfbiMax,
           (unsigned long long)list.phfbi[list.hfbiMax - 1].position, h264_type_name(list.phfbi[list.hfbiMax - 1].nalu));
    EX_CHECK(list.hfbiMax == 12);
    EX_CHECK(h26x->V2_exit_list(&list) == 0 && list.phfbi == NULL);

    /* V3: a chain of heap nodes ending in a terminator node. */
    memset(&chain, 0, sizeof chain); /* head NULL, count 0 */
    chain.frame_addr = g_idr_frame;
    chain.frame_size = (UTIL_S32)sizeof g_idr_frame;
    EX_CHECK(h26x->V3_init_list(&chain, 1) == 0);
    printf("V3:");
    for (node = chain.head; node != NULL && node->hfbi.length != 0; node = node->next) {
        printf(" %s", h264_type_name(node->hfbi.nalu));
    }
    printf("\n");
    EX_CHECK(chain.count == 3);
    EX_CHECK(h26x->V3_exit_list(&chain) == 0 && chain.head == NULL);
    return 0;
}

static int writers(void)
{
    util_ops_h26x_base_fun_t* h26x = util_ops_pfun->h26x_base;
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    util_h26xBaseSaveStreamToFile_t dump;
    util_h26xBaseSaveStreamToFileByFlag_t flagged;
    char dump_path[128], fd_path[128], flag_path[128], start[128], stop[128];
    FILE* fp;
    int k;

    /* Buffered: the budget is checked before each write, so the chunk that
     * crosses it is written whole and the next call closes the file. */
    memset(&dump, 0, sizeof dump);
    dump.file_name = ex_path("dump.264", dump_path, sizeof dump_path);
    dump.max_size = 64;
    for (k = 0; k < 4; ++k) h26x->fw_save_stream_bySize((UTIL_CHAR*)g_idr_frame, (UTIL_S32)sizeof g_idr_frame, &dump);
    printf("buffered dump: %llu bytes in %s, file %s\n", (unsigned long long)high->get_file_size(dump_path),
           dump_path, dump.fp == NULL ? "closed" : "open");
    EX_CHECK(high->get_file_size(dump_path) == 2 * sizeof g_idr_frame && dump.fp == NULL);

    /* By descriptor: appends to an existing file (fd 0, 1, 2 mean "none"). */
    memset(&dump, 0, sizeof dump);
    dump.file_name = ex_path("dump_fd.264", fd_path, sizeof fd_path);
    dump.max_size = sizeof g_idr_frame;
    h26x->w_save_stream_bySize((UTIL_CHAR*)g_idr_frame, (UTIL_S32)sizeof g_idr_frame, &dump);
    h26x->w_save_stream_bySize((UTIL_CHAR*)g_idr_frame, (UTIL_S32)sizeof g_idr_frame, &dump); /* closes */
    EX_CHECK(high->get_file_size(fd_path) == sizeof g_idr_frame && dump.fd == -1);

    /* Between flag files an operator creates from a shell. */
    memset(&flagged, 0, sizeof flagged);
    flagged.save.file_name = ex_path("flagged.264", flag_path, sizeof flag_path);
    flagged.save.max_size = 1024 * 1024;
    flagged.startFileFlag = ex_path("record_start", start, sizeof start);
    flagged.endFileFlag = ex_path("record_stop", stop, sizeof stop);
    h26x->fw_save_stream_byFlag((UTIL_CHAR*)g_idr_frame, (UTIL_S32)sizeof g_idr_frame, &flagged); /* no flag: nothing */
    EX_CHECK(access(flag_path, F_OK) != 0);
    fp = fopen(start, "w");
    EX_CHECK(fp != NULL && fclose(fp) == 0);
    for (k = 0; k < 3; ++k) {
        h26x->fw_save_stream_byFlag((UTIL_CHAR*)g_idr_frame, (UTIL_S32)sizeof g_idr_frame, &flagged);
    }
    fp = fopen(stop, "w");
    EX_CHECK(fp != NULL && fclose(fp) == 0);
    h26x->fw_save_stream_byFlag((UTIL_CHAR*)g_idr_frame, (UTIL_S32)sizeof g_idr_frame, &flagged); /* stops */
    printf("flagged recording: %llu bytes, flags %s\n", (unsigned long long)high->get_file_size(flag_path),
           access(start, F_OK) != 0 && access(stop, F_OK) != 0 ? "consumed" : "still there");
    EX_CHECK(high->get_file_size(flag_path) == 3 * sizeof g_idr_frame && flagged.save.fp == NULL);
    EX_CHECK(access(start, F_OK) != 0 && access(stop, F_OK) != 0);
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {scanners, writers};
    return ex_main("h26x_base", steps, sizeof steps / sizeof steps[0], 0);
}
