// quillanetcstamp in GStreamer's test harness: what the stamped files cannot show (caps, meta, properties).
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include "stream_stamper.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
const std::string kH264 = "video/x-h264, stream-format=byte-stream, alignment=au";

// The access units of a sample stream, as a parser hands them on.
std::vector<Bytes> sample_units() {
    const std::string data = qtest::read_file(std::string(QUILLANE_SAMPLES_DIR) + "/sample_2997.264");
    tcstamp::AccessUnitSplitter splitter(tcstamp::Codec::h264);
    splitter.feed({reinterpret_cast<const std::uint8_t*>(data.data()), data.size()});
    splitter.finish();
    std::vector<Bytes> units;
    while (auto au = splitter.next()) units.emplace_back(au->begin(), au->end());
    return units;
}

// The element between the harness's pads, its messages on a bus we read.
struct Element {
    GstHarness* const h = gst_harness_new("quillanetcstamp");
    GstBus* const bus = gst_bus_new();

    Element() { gst_element_set_bus(h->element, bus); }
    ~Element() {
        gst_harness_teardown(h);
        gst_object_unref(bus);
    }
    // Set while it plays.
    void set(const char* key, const char* value) { gst_util_set_object_arg(G_OBJECT(h->element), key, value); }
    // Stream start, caps and a time segment, as a parser sends them.
    void begin(const std::string& caps, const char* stream_id = "s") {
        gst_harness_push_event(h, gst_event_new_stream_start(stream_id));
        gst_harness_push_event(h, gst_event_new_caps(gst_caps_from_string(caps.c_str())));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_harness_push_event(h, gst_event_new_segment(&segment));
    }
    auto push(const Bytes& au) { return gst_harness_push(h, gst_buffer_new_memdup(au.data(), au.size())); }
    void end() { gst_harness_push_event(h, gst_event_new_eos()); }
    // "HH:MM:SS:FF @N/D" (';' before FF when counting drops frames) of each buffer out so far, in order.
    std::vector<std::string> labels() {
        std::vector<std::string> out;
        while (GstBuffer* b = gst_harness_try_pull(h)) {
            const GstVideoTimeCodeMeta* m = gst_buffer_get_video_time_code_meta(b);
            gchar* text = m == nullptr ? g_strdup("none") : gst_video_time_code_to_string(&m->tc);
            out.push_back(text);
            if (m != nullptr)
                out.back() += " @" + std::to_string(m->tc.config.fps_n) + "/" +
                              std::to_string(m->tc.config.fps_d);
            g_free(text);
            gst_buffer_unref(b);
        }
        return out;
    }
    // "error: ..." and "warning: ..." in the order posted.
    std::vector<std::string> messages() {
        std::vector<std::string> out;
        const auto types = GstMessageType(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
        while (GstMessage* m = gst_bus_pop_filtered(bus, types)) {
            GError* e = nullptr;
            const bool error = GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR;
            error ? gst_message_parse_error(m, &e, nullptr) : gst_message_parse_warning(m, &e, nullptr);
            out.push_back(std::string(error ? "error: " : "warning: ") + e->message);
            g_error_free(e);
            gst_message_unref(m);
        }
        return out;
    }
};

struct ElementTest : qtest::DebugRecordTest {
    void SetUp() override {
        DebugRecordTest::SetUp();
        use_log("trace.log");  // never the device's default log
    }
};

// Caps it cannot take and a stream the stamper refuses: one error in the
// element's or the stamper's words however many buffers follow, nothing out,
// and the next caps or stream works again.
TEST_F(ElementTest, RefusalsAreOneErrorAndTheNextStreamWorks) {
    const std::tuple<std::string, const char*, GstFlowReturn, std::string> rows[] = {
        {"video/x-h264, stream-format=avc, alignment=au", "0", GST_FLOW_NOT_NEGOTIATED,
         "error: quillanetcstamp takes H.264 or H.265 in byte-stream format with alignment=au, not "
         "video/x-h264 with stream-format=avc, alignment=au (put h264parse or h265parse in front of it)"},
        {kH264 + ", framerate=30000/1001", "2500", GST_FLOW_ERROR,
         "error: the frame rate 25.00 fps conflicts with the stream's own 29.97 fps"},
    };
    const std::vector<Bytes> units = sample_units();
    for (const auto& [caps, max_fps, flow, message] : rows) {
        Element e;
        e.set("max-fps-x100", max_fps);
        e.begin(caps);
        for (int k : {0, 1}) EXPECT_EQ(e.push(units[k]), flow) << caps;
        EXPECT_THAT(e.messages(), ::testing::ElementsAre(message)) << caps;
        EXPECT_THAT(e.labels(), ::testing::IsEmpty()) << caps;
        // New caps put it back to work; a refused stream needs the next one.
        e.set("max-fps-x100", "0");
        e.begin(kH264, flow == GST_FLOW_ERROR ? "next" : "s");
        EXPECT_EQ(e.push(units[0]), GST_FLOW_OK) << caps;
        e.end();
        EXPECT_THAT(e.labels(), ::testing::SizeIs(1)) << caps;
        EXPECT_THAT(e.messages(), ::testing::IsEmpty()) << caps;
    }
}

// The first picture's meta gives the first label at the stream's rate, across the counts drop-frame
// counting skips; a new source waits for the next stream.
TEST_F(ElementTest, FirstLabelComesFromUpstreamMetaAndASourceChangeWaits) {
    const std::vector<Bytes> units = sample_units();
    Element e;
    e.set("source", "upstream-meta");
    e.begin(kH264 + ", framerate=30000/1001");
    GstBuffer* first = gst_buffer_new_memdup(units[0].data(), units[0].size());
    gst_buffer_add_video_time_code_meta_full(first, 30000, 1001, nullptr, GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME, 0, 0,
                                             59, 28, 0);
    ASSERT_EQ(gst_harness_push(e.h, first), GST_FLOW_OK);
    e.set("source", "start");
    for (std::size_t k = 1; k < 4; ++k) ASSERT_EQ(e.push(units[k]), GST_FLOW_OK);
    e.end();
    EXPECT_THAT(e.labels(), ::testing::ElementsAre("00:00:59;28 @30000/1001", "00:00:59;29 @30000/1001",
                                                   "00:01:00;02 @30000/1001", "00:01:00;03 @30000/1001"));
    EXPECT_THAT(e.messages(), ::testing::IsEmpty());
}

// Bad settings fail the start in the element's words; the library's default device log is never written.
TEST_F(ElementTest, SettingsThatCannotWorkFailTheStartAndTheDefaultLogIsNotWritten) {
    Element e;
    GstElement* const el = e.h->element;
    gst_element_set_state(el, GST_STATE_NULL);
    const std::string dev = "/dev/util_dbgout.log", fits = "/tmp/" + std::string(58, 'x'), over = fits + "x";
    const UTIL_U32 syslog = UTIL_DBGOUT_ENUM_TYPE_SYSLOG, both = UTIL_DBGOUT_ENUM_TYPE_DBGLOG | syslog;
    // Each row starts from the log settings the row before left.
    qtest::attr()->set_dbglog_logPath(dev.c_str());
    qtest::attr()->get()->enType = both;
    const std::tuple<const char*, const char*, std::string, std::string, UTIL_U32> rows[] = {
        {"trace-file", nullptr, "started", dev, syslog},
        {"trace-file", over.c_str(),  // the library keeps 63 bytes of log path
         "error: trace-file \"" + over + "\" is longer than the 63 bytes the library takes for its log path",
         dev, syslog},
        {"trace-file", fits.c_str(), "started", fits, both},
        {"start-time-code", "24:00:00:00",
         "error: start-time-code \"24:00:00:00\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF",
         fits, both},
    };
    for (const auto& [property, value, result, log_after, type_after] : rows) {
        g_object_set(el, property, value, nullptr);
        std::vector<std::string> got = {"started"};
        if (gst_element_set_state(el, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) got = e.messages();
        gst_element_set_state(el, GST_STATE_NULL);
        EXPECT_THAT(got, ::testing::ElementsAre(result)) << value;
        EXPECT_EQ(qtest::attr()->get_dbglog_logPath(), log_after) << value;
        EXPECT_EQ(qtest::attr()->get()->enType, type_after) << value;
    }
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    gst_init(&argc, &argv);
    return RUN_ALL_TESTS();
}
