/* Prints the time code of every frame as GStreamer reads it: its parser
 * (h264parse/h265parse) turns the SEI into a GstVideoTimeCodeMeta, its
 * decoder puts the frames in presentation order. One line per frame,
 * "HH:MM:SS:FF" (";" before FF with drop-frame counting, "." or "," for a
 * second field), or "none" for a frame without a time code. Exits 1 when
 * the pipeline fails.
 *
 *   gst_meta_reader h264|h265 FILE */
#include <gst/gst.h>
#include <gst/app/gstappsink.h>
#include <gst/video/video.h>
#include <stdio.h>
#include <string.h>
int main(int argc, char** argv) {
    if (argc != 3 || (strcmp(argv[1], "h264") != 0 && strcmp(argv[1], "h265") != 0)) {
        fprintf(stderr, "usage: gst_meta_reader h264|h265 FILE\n");
        return 2;
    }
    gst_init(&argc, &argv);
    const char* codec = argv[1];
    gchar* desc = g_strdup_printf("filesrc location=\"%s\" ! %s ! %s ! appsink name=sink sync=false", argv[2],
                                  strcmp(codec, "h264") == 0 ? "h264parse" : "h265parse",
                                  strcmp(codec, "h264") == 0 ? "avdec_h264" : "avdec_h265");
    GError* err = NULL;
    GstElement* p = gst_parse_launch(desc, &err);
    if (p == NULL) {
        fprintf(stderr, "gst_meta_reader: %s\n", err->message);
        return 2;
    }
    GstElement* sink = gst_bin_get_by_name(GST_BIN(p), "sink");
    gst_element_set_state(p, GST_STATE_PLAYING);
    for (;;) {
        GstSample* s = gst_app_sink_pull_sample(GST_APP_SINK(sink));
        if (s == NULL) break;
        GstBuffer* b = gst_sample_get_buffer(s);
        GstVideoTimeCodeMeta* m = gst_buffer_get_video_time_code_meta(b);
        if (m != NULL) {
            gchar* t = gst_video_time_code_to_string(&m->tc);
            printf("%s\n", t);
            g_free(t);
        } else {
            printf("none\n");
        }
        gst_sample_unref(s);
    }
    GstMessage* msg = gst_bus_pop_filtered(gst_element_get_bus(p), GST_MESSAGE_ERROR);
    int rc = 0;
    if (msg != NULL) {
        gst_message_parse_error(msg, &err, NULL);
        fprintf(stderr, "gst_meta_reader: %s\n", err->message);
        rc = 1;
    }
    gst_element_set_state(p, GST_STATE_NULL);
    return rc;
}
