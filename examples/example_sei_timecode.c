/* The per-frame time-code pipeline on two streams: an H.265 stream at 25 fps
 * that follows the local clock, and an H.264 stream at 29.97 fps started
 * from a fixed time code just before a minute boundary, so that drop-frame
 * counting shows. Every frame is scanned, counted, given its SEI unit in
 * front of the picture, and the stamped stream is written to a file. */
#include "example_support.h"

#define FRAMES 8

/* VPS, SPS, PPS (their contents do not matter here) and an IDR_W_RADL
 * slice; a TRAIL_R slice for the frames in between. */
static const UTIL_UCHAR g_h265_idr[] = {
    0x00, 0x00, 0x00, 0x01, 0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF,
    0x00, 0x00, 0x00, 0x01, 0x42, 0x01, 0x01, 0x01, 0x60, 0x00,
    0x00, 0x00, 0x00, 0x01, 0x44, 0x01, 0xC1, 0x72, 0xB4, 0x62,
    0x00, 0x00, 0x00, 0x01, 0x26, 0x01, 0xAF, 0x1D, 0x80, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA,
};
static const UTIL_UCHAR g_h265_p[] = {
    0x00, 0x00, 0x00, 0x01, 0x02, 0x01, 0xD0, 0x11, 0x80, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA,
};
/* SPS, PPS and an IDR slice; a P slice for the frames in between. */
static const UTIL_UCHAR g_h264_idr[] = {
    0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0x00, 0x1F, 0xE9, 0x40, 0x50, 0x04,
    0x00, 0x00, 0x00, 0x01, 0x68, 0xCE, 0x38, 0x80,
    0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84, 0x00, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA,
};
static const UTIL_UCHAR g_h264_p[] = {
    0x00, 0x00, 0x00, 0x01, 0x41, 0x9A, 0x02, 0x0C, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA, 0xAA,
};

typedef struct {
    unsigned hours, minutes, seconds, frames, dropped, drop_counting;
} time_code_t;

static time_code_t time_code_of(const util_h26x_sei_tim_t* ctx)
{
    time_code_t t;
    if (ctx->config_param.h26x_type == ENUM_UTIL_H264_STREAM_TYPE) {
        const util_h264_sei_timing_t* s = &ctx->h264_sei;
        t.hours = s->hours_value, t.minutes = s->minutes_value, t.seconds = s->seconds_value;
        t.frames = s->n_frames, t.dropped = s->cnt_dropped_flag, t.drop_counting = s->counting_type == 4;
    } else {
        const util_h265_sei_time_code_t* s = &ctx->h265_sei;
        t.hours = s->hours_value, t.minutes = s->minutes_value, t.seconds = s->seconds_value;
        t.frames = s->n_frames, t.dropped = s->cnt_dropped_flag, t.drop_counting = s->counting_type == 4;
    }
    return t;
}

/* Frame counts since midnight at the whole frame rate; drop-frame counting
 * makes this jump by 3 (29.97) at the frames after skipped counts. */
static long frame_index(time_code_t t, long fps)
{
    return (((long)t.hours * 60 + (long)t.minutes) * 60 + (long)t.seconds) * fps + (long)t.frames;
}

/* Runs one encoded frame of one stream through the pipeline and writes the
 * stamped frame. Returns the SEI unit's length, or -1. */
static int stamp_frame(util_h26x_sei_tim_t* ctx, const UTIL_UCHAR* frame, int size, util_h26xBaseSaveStreamToFile_t* out)
{
    util_ops_h26x_base_fun_t* h26x = util_ops_pfun->h26x_base;
    util_ops_h26x_high_seiTimeCode_fun_t* sei = util_ops_pfun->h26x_high_seiTimeCode;
    const UTIL_H26X_STREAM_TYPE_ENUM type = (UTIL_H26X_STREAM_TYPE_ENUM)ctx->config_param.h26x_type;
    util_h26x_frame_buf_info_t units;
    UTIL_UCHAR stamped[128];
    size_t picture;
    int n;

    /* The scanner writes nothing into the frame, but takes a non-const buffer. */
    memcpy(stamped, frame, (size_t)size);
    if (h26x->V1_get_hfbi(&units, stamped, size, type, 0) != 0) return -1;
    if (sei->running(ctx, &units) != 0) return -1;
    n = sei->get_data(ctx);
    if (n <= 0) return -1;

    /* The SEI unit goes right in front of the picture, the last unit listed. */
    picture = (size_t)units.list[units.count - 1].position;
    memmove(stamped + picture + n, stamped + picture, (size_t)size - picture);
    memcpy(stamped + picture, ctx->data, (size_t)n);
    h26x->fw_save_stream_bySize((UTIL_CHAR*)stamped, size + n, out);
    return n;
}

static void print_unit(const char* label, time_code_t t, const util_h26x_sei_tim_t* ctx)
{
    int i;
    printf("  %s %02u:%02u:%02u%c%02u%s  SEI", label, t.hours, t.minutes, t.seconds, t.drop_counting ? ';' : ':',
           t.frames, t.dropped ? " (after dropped counts)" : "                      ");
    for (i = 0; i < ctx->data_len; ++i) printf(" %02X", (unsigned)ctx->data[i]);
    printf("\n");
}

static int run(void)
{
    util_ops_h26x_high_seiTimeCode_fun_t* sei = util_ops_pfun->h26x_high_seiTimeCode;
    util_h26x_sei_tim_config_param_t cfg[2];
    util_list_h26x_sei_tim_t streams = {NULL, 0}; /* zeroed before the first init_list */
    util_h26xBaseSaveStreamToFile_t out[2];
    char path[2][128];
    long previous[2] = {0, 0};
    int f, s;

    memset(cfg, 0, sizeof cfg);
    cfg[0].ntp_enable = UTIL_TRUE; /* follow the local clock */
    cfg[0].max_fps_x100 = 2500;
    cfg[0].h26x_type = ENUM_UTIL_H265_STREAM_TYPE;
    cfg[1].ntp_enable = UTIL_TRUE;
    cfg[1].max_fps_x100 = 2997; /* drop-frame counting */
    cfg[1].h26x_type = ENUM_UTIL_H264_STREAM_TYPE;
    /* Field widths minus one, as the stream's SPS codes them (HRD and
     * pic_struct present): 24 + 24 + 7 bits make a byte-aligned payload. */
    cfg[1].h264_cpb_removal_delay_length = 23;
    cfg[1].h264_dpb_output_delay_length = 23;
    cfg[1].h264_time_offset_length = 6;
    EX_CHECK(sei->init_list(&streams, cfg, 2) == 0);

    memset(out, 0, sizeof out);
    out[0].file_name = ex_path("stamped.265", path[0], sizeof path[0]);
    out[1].file_name = ex_path("stamped.264", path[1], sizeof path[1]);
    out[0].max_size = out[1].max_size = 1024 * 1024;

    for (f = 0; f < FRAMES; ++f) {
        for (s = 0; s < 2; ++s) {
            util_h26x_sei_tim_t* ctx = &streams.ph26xSeiTim[s];
            const int idr = f == 0;
            const UTIL_UCHAR* frame = s == 0 ? (idr ? g_h265_idr : g_h265_p) : (idr ? g_h264_idr : g_h264_p);
            const int size = s == 0 ? (idr ? (int)sizeof g_h265_idr : (int)sizeof g_h265_p)
                                    : (idr ? (int)sizeof g_h264_idr : (int)sizeof g_h264_p);
            const long fps = s == 0 ? 25 : 30;
            time_code_t t;
            int n = stamp_frame(ctx, frame, size, &out[s]);

            EX_CHECK(n > 8);
            if (f == 0 && ctx->init_flag != 1) {
                fprintf(stderr, "the local clock is not set (it reads 1970): no synchronisation\n");
                return 1;
            }
            if (f == 0 && s == 1) {
                /* Start the H.264 stream at 00:00:59;28 instead of the clock,
                 * at the frame where it synchronised, and rebuild its SEI. */
                ctx->h264_sei.hours_value = 0;
                ctx->h264_sei.minutes_value = 0;
                ctx->h264_sei.seconds_value = 59;
                ctx->h264_sei.n_frames = 28;
                ctx->h264_sei.cnt_dropped_flag = 0;
                n = sei->get_data(ctx);
                EX_CHECK(n > 8);
            }
            t = time_code_of(ctx);
            print_unit(s == 0 ? "H.265" : "H.264", t, ctx);

            /* Start code, SEI NAL header, payload type, stop bit. */
            EX_CHECK(ctx->data[0] == 0 && ctx->data[1] == 0 && ctx->data[2] == 0 && ctx->data[3] == 1);
            EX_CHECK(s == 0 ? (ctx->data[4] == 0x4E && ctx->data[6] == 0x88) : (ctx->data[4] == 0x06 && ctx->data[5] == 0x01));
            EX_CHECK(ctx->data[n - 1] == 0x80);
            if (f > 0) {
                const long step = (frame_index(t, fps) - previous[s] + 86400L * fps) % (86400L * fps);
                EX_CHECK(step == 1 || (step == 3 && t.dropped && t.frames == 2));
            }
            previous[s] = frame_index(t, fps);
        }
    }
    /* 59;28, 59;29, then 01:00;02 (counts 0 and 1 skipped): the last frame
     * is 00:01:00;(FRAMES - 1). */
    EX_CHECK(previous[1] == frame_index((time_code_t){0, 1, 0, FRAMES - 1, 0, 1}, 30));

    /* The recordings end before their budgets: the records are ours, so
     * close the streams ourselves. */
    for (s = 0; s < 2; ++s) {
        EX_CHECK(out[s].fp != NULL && fclose(out[s].fp) == 0);
        out[s].fp = NULL;
    }
    EX_CHECK(sei->exit_list(&streams) == 0 && streams.ph26xSeiTim == NULL);
    printf("stamped streams: %s, %s\n", path[0], path[1]);
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {run};
    return ex_main("sei_timecode", steps, sizeof steps / sizeof steps[0], 1);
}
