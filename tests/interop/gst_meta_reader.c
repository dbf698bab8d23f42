/* The time code GStreamer's parser reads of every frame in presentation order, or "none".
 *   gst_meta_reader h264|h265 FILE */
#include <gst/gst.h>
#include <gst/app/gstappsink.h>
#include <gst/video/video.h>
#include <stdio.h>
int main(int argc, char** argv) {
    if (argc != 3) return 2;
    gst_init(&argc, &argv);
    gchar* desc = g_strdup_printf("filesrc location=\"%s\" ! %sparse ! avdec_%s ! appsink name=sink sync=false",
                                  argv[2], argv[1], argv[1]);
    GError* err = NULL;
    GstElement* p = gst_parse_launch(desc, &err);
    if (p == NULL) return 2;
    GstElement* sink = gst_bin_get_by_name(GST_BIN(p), "sink");
    gst_element_set_state(p, GST_STATE_PLAYING);
    GstSample* s;
    while ((s = gst_app_sink_pull_sample(GST_APP_SINK(sink))) != NULL) {
        GstVideoTimeCodeMeta* m = gst_buffer_get_video_time_code_meta(gst_sample_get_buffer(s));
        gchar* t = m != NULL ? gst_video_time_code_to_string(&m->tc) : g_strdup("none");
        printf("%s\n", t);
        g_free(t);
        gst_sample_unref(s);
    }
    GstMessage* msg = gst_bus_pop_filtered(gst_element_get_bus(p), GST_MESSAGE_ERROR);
    if (msg != NULL) {
        gst_message_parse_error(msg, &err, NULL);
        fprintf(stderr, "gst_meta_reader: %s\n", err->message);
    }
    gst_element_set_state(p, GST_STATE_NULL);
    return msg != NULL;
}
