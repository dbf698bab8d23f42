/* Prints the clock time codes a stream carries, as GStreamer's own parsers
 * read them: a second reader, written by other people, to hold our SEI
 * messages against.
 *
 *   gst_timecode_reader h264|h265 FILE
 *
 * One line per time-code message, in stream order:
 *   HH:MM:SS:FF cnt_dropped_flag counting_type
 * H.264 reads clock_timestamp[0] of the picture timing SEI, which the parser
 * can only size with the SPS's HRD and pic_struct flags at hand; H.265 reads
 * the first clock timestamp of the time code SEI. A message whose first
 * clock timestamp is absent prints "absent", so a caller comparing line by
 * line sees it. Exits 1 when a unit fails to parse. */
#include <gst/codecparsers/gsth264parser.h>
#include <gst/codecparsers/gsth265parser.h>
#include <stdio.h>
#include <string.h>

static int failures;

static void print_clock(guint h, guint m, guint s, guint f, guint dropped, guint counting) {
    printf("%02u:%02u:%02u:%02u %u %u\n", h, m, s, f, dropped, counting);
}

static void bad_unit(const char* what, guint offset, int result) {
    fprintf(stderr, "gst_timecode_reader: %s at byte %u: parser result %d\n", what, offset, result);
    ++failures;
}

static void read_h264(const guint8* data, gsize size) {
    GstH264NalParser* parser = gst_h264_nal_parser_new();
    GstH264NalUnit nalu;
    guint offset = 0;
    for (;;) {
        const GstH264ParserResult found = gst_h264_parser_identify_nalu(parser, data, offset, size, &nalu);
        if (found != GST_H264_PARSER_OK && found != GST_H264_PARSER_NO_NAL_END) break;
        GstH264ParserResult r;
        offset = nalu.offset + nalu.size;
        if (nalu.type == GST_H264_NAL_SPS || nalu.type == GST_H264_NAL_PPS) {
            r = gst_h264_parser_parse_nal(parser, &nalu);
            if (r != GST_H264_PARSER_OK) bad_unit("parameter set", nalu.sc_offset, r);
        } else if (nalu.type == GST_H264_NAL_SEI) {
            GArray* messages = NULL;
            r = gst_h264_parser_parse_sei(parser, &nalu, &messages);
            if (r != GST_H264_PARSER_OK) bad_unit("SEI", nalu.sc_offset, r);
            for (guint i = 0; messages != NULL && i < messages->len; ++i) {
                const GstH264SEIMessage* m = &g_array_index(messages, GstH264SEIMessage, i);
                if (m->payloadType != GST_H264_SEI_PIC_TIMING) continue;
                const GstH264PicTiming* pt = &m->payload.pic_timing;
                const GstH264ClockTimestamp* c = &pt->clock_timestamp[0];
                if (!pt->pic_struct_present_flag || !pt->clock_timestamp_flag[0]) {
                    printf("absent\n");
                    continue;
                }
                print_clock(c->hours_value, c->minutes_value, c->seconds_value, c->n_frames, c->cnt_dropped_flag,
                            c->counting_type);
            }
            if (messages != NULL) g_array_free(messages, TRUE);
        }
        if (found == GST_H264_PARSER_NO_NAL_END || offset >= size) break;
    }
    gst_h264_nal_parser_free(parser);
}

static void read_h265(const guint8* data, gsize size) {
    GstH265Parser* parser = gst_h265_parser_new();
    GstH265NalUnit nalu;
    guint offset = 0;
    for (;;) {
        const GstH265ParserResult found = gst_h265_parser_identify_nalu(parser, data, offset, size, &nalu);
        if (found != GST_H265_PARSER_OK && found != GST_H265_PARSER_NO_NAL_END) break;
        GstH265ParserResult r;
        offset = nalu.offset + nalu.size;
        if (nalu.type == GST_H265_NAL_VPS || nalu.type == GST_H265_NAL_SPS || nalu.type == GST_H265_NAL_PPS) {
            r = gst_h265_parser_parse_nal(parser, &nalu);
            if (r != GST_H265_PARSER_OK) bad_unit("parameter set", nalu.sc_offset, r);
        } else if (nalu.type == GST_H265_NAL_PREFIX_SEI || nalu.type == GST_H265_NAL_SUFFIX_SEI) {
            GArray* messages = NULL;
            r = gst_h265_parser_parse_sei(parser, &nalu, &messages);
            if (r != GST_H265_PARSER_OK) bad_unit("SEI", nalu.sc_offset, r);
            for (guint i = 0; messages != NULL && i < messages->len; ++i) {
                const GstH265SEIMessage* m = &g_array_index(messages, GstH265SEIMessage, i);
                if (m->payloadType != GST_H265_SEI_TIME_CODE) continue;
                const GstH265TimeCode* tc = &m->payload.time_code;
                if (tc->num_clock_ts == 0 || !tc->clock_timestamp_flag[0]) {
                    printf("absent\n");
                    continue;
                }
                print_clock(tc->hours_value[0], tc->minutes_value[0], tc->seconds_value[0], tc->n_frames[0],
                            tc->cnt_dropped_flag[0], tc->counting_type[0]);
            }
            if (messages != NULL) g_array_free(messages, TRUE);
        }
        if (found == GST_H265_PARSER_NO_NAL_END || offset >= size) break;
    }
    gst_h265_parser_free(parser);
}

int main(int argc, char** argv) {
    if (argc != 3 || (strcmp(argv[1], "h264") != 0 && strcmp(argv[1], "h265") != 0)) {
        fprintf(stderr, "usage: gst_timecode_reader h264|h265 FILE\n");
        return 2;
    }
    /* No gst_init(): the parsers need none, and it would scan the plugins
     * and write a registry cache under $HOME. */
    gchar* data = NULL;
    gsize size = 0;
    GError* error = NULL;
    if (!g_file_get_contents(argv[2], &data, &size, &error)) {
        fprintf(stderr, "gst_timecode_reader: %s\n", error->message);
        g_error_free(error);
        return 2;
    }
    if (strcmp(argv[1], "h264") == 0) {
        read_h264((const guint8*)data, size);
    } else {
        read_h265((const guint8*)data, size);
    }
    g_free(data);
    return failures == 0 ? 0 : 1;
}
