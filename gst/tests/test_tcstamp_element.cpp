// quillanetcstamp in GStreamer's test harness and in one small pipeline:
// what the interop table cannot see in a stamped file. Caps and stamper
// refusals, the input's order and timing kept, the meta beside the SEI, the
// latency of held pictures, where the first label comes from, and settings
// that cannot work.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>

#include "stream_stamper.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
const char* kH264 = "video/x-h264, stream-format=byte-stream, alignment=au";

// The access units of a sample stream, as a parser hands them on.
std::vector<Bytes> sample_units() {
    std::ifstream file(std::string(QUILLANE_SAMPLES_DIR) + "/sample_2997.264", std::ios::binary);
    const Bytes data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    tcstamp::AccessUnitSplitter splitter(tcstamp::Codec::h264);
    splitter.feed(data);
    splitter.finish();
    std::vector<Bytes> units;
    while (auto au = splitter.next()) units.emplace_back(au->begin(), au->end());
    return units;
}

// "HH:MM:SS:FF @N/D", with ';' before FF when counting drops frames.
std::string label_of(const GstVideoTimeCode* tc) {
    if (tc == nullptr) return "none";
    gchar* text = gst_video_time_code_to_string(tc);
    std::string out = text;
    g_free(text);
    return out + " @" + std::to_string(tc->config.fps_n) + "/" + std::to_string(tc->config.fps_d);
}
std::string label_of(const GstVideoTimeCodeMeta* m) { return label_of(m != nullptr ? &m->tc : nullptr); }

// "error: ..." and "warning: ..." in the order posted.
std::vector<std::string> pop_messages(GstBus* bus) {
    std::vector<std::string> out;
    const auto types = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
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

// The element between the harness's pads, its messages on a bus we read.
// Properties set here are set while it plays.
class Element {
public:
    Element() : h_(gst_harness_new("quillanetcstamp")), bus_(gst_bus_new()) { gst_element_set_bus(h_->element, bus_); }
    ~Element() {
        gst_harness_teardown(h_);
        gst_object_unref(bus_);
    }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

    void set(const char* name, const char* value) { gst_util_set_object_arg(G_OBJECT(h_->element), name, value); }
    GstHarness* harness() { return h_; }

    // Stream start, caps and a time segment, as a parser sends them.
    void begin(const std::string& caps, const char* stream_id = "s") {
        gst_harness_push_event(h_, gst_event_new_stream_start(stream_id));
        gst_harness_push_event(h_, gst_event_new_caps(gst_caps_from_string(caps.c_str())));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_harness_push_event(h_, gst_event_new_segment(&segment));
    }
    GstFlowReturn push(GstBuffer* b) { return gst_harness_push(h_, b); }
    GstFlowReturn push(const Bytes& data) { return push(gst_buffer_new_memdup(data.data(), data.size())); }
    void end() { gst_harness_push_event(h_, gst_event_new_eos()); }
    // The label of every buffer that came out so far, in order.
    std::vector<std::string> labels() {
        std::vector<std::string> out;
        while (GstBuffer* b = gst_harness_try_pull(h_)) {
            out.push_back(label_of(gst_buffer_get_video_time_code_meta(b)));
            gst_buffer_unref(b);
        }
        return out;
    }
    std::vector<std::string> messages() { return pop_messages(bus_); }

private:
    GstHarness* h_;
    GstBus* bus_;
};

// The labels that counting from `first` gives, one frame apart.
std::vector<std::string> counted(const std::string& first, guint fps_n, guint fps_d, std::size_t n) {
    GstVideoTimeCode* tc = gst_video_time_code_new_from_string(first.c_str());
    tc->config.fps_n = fps_n;
    tc->config.fps_d = fps_d;
    tc->config.flags = first.find(';') != std::string::npos ? GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME
                                                             : GST_VIDEO_TIME_CODE_FLAGS_NONE;
    std::vector<std::string> out;
    for (std::size_t k = 0; k < n; ++k, gst_video_time_code_increment_frame(tc)) out.push_back(label_of(tc));
    gst_video_time_code_free(tc);
    return out;
}

class ElementTest : public qtest::DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        use_log("trace.log");  // never the device's default log
    }
};

TEST_F(ElementTest, RefusesCapsItCannotStampWithOneClearError) {
    const std::string format = "error: quillanetcstamp takes H.264 or H.265 in byte-stream format with alignment=au, not ";
    const std::string fix = " (put h264parse or h265parse in front of it)";
    const std::pair<std::string, std::string> cases[] = {
        {"video/x-h264, stream-format=avc, alignment=au", format + "video/x-h264 with stream-format=avc, alignment=au" + fix},
        {"video/x-h265, stream-format=hvc1, alignment=au",
         format + "video/x-h265 with stream-format=hvc1, alignment=au" + fix},
        // Open fields pass the templates but not the element.
        {"video/x-h264, stream-format=byte-stream", format + "video/x-h264 with stream-format=byte-stream, alignment unset" + fix},
    };
    const std::vector<Bytes> units = sample_units();
    for (const auto& [caps, message] : cases) {
        Element e;
        e.begin(caps);
        // The sticky caps are offered again with each buffer: still one error.
        EXPECT_EQ(e.push(units[0]), GST_FLOW_NOT_NEGOTIATED) << caps;
        EXPECT_EQ(e.push(units[0]), GST_FLOW_NOT_NEGOTIATED) << caps;
        EXPECT_THAT(e.messages(), ::testing::ElementsAre(message)) << caps;
        // Caps it can work with put it back to work.
        e.begin(kH264);
        EXPECT_EQ(e.push(units[0]), GST_FLOW_OK);
        e.end();
        EXPECT_THAT(e.labels(), ::testing::SizeIs(1)) << caps;
    }
}

struct Seen {
    GstClockTime pts, dts, duration;
    guint64 offset;
    guint flags;
    std::string label;
    bool operator==(const Seen&) const = default;
};

GstPadProbeReturn record(GstPad*, GstPadProbeInfo* info, gpointer seen) noexcept {
    GstBuffer* b = GST_PAD_PROBE_INFO_BUFFER(info);
    static_cast<std::vector<Seen>*>(seen)->push_back({GST_BUFFER_PTS(b), GST_BUFFER_DTS(b), GST_BUFFER_DURATION(b),
                                                      GST_BUFFER_OFFSET(b), GST_BUFFER_FLAGS(b),
                                                      label_of(gst_buffer_get_video_time_code_meta(b))});
    return GST_PAD_PROBE_OK;
}

// The SEI the labels stand in is read back by FFmpeg and GStreamer in the
// interop table; here the meta must count the same way.
TEST_F(ElementTest, BFramesKeepDecodeOrderAndTimingAndGetTheirPresentationLabelAsMeta) {
    const int frames = 60;
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(
        ("videotestsrc num-buffers=" + std::to_string(frames) +
         " ! video/x-raw,width=160,height=120,framerate=25/1 ! x264enc bframes=2 b-adapt=false key-int-max=25 "
         "speed-preset=ultrafast vbv-buf-capacity=1000 option-string=nal-hrd=vbr:pic-struct=1 ! h264parse "
         "! quillanetcstamp name=stamp source=start start-time-code=10:59:59:20 ! fakesink")
            .c_str(),
        &error);
    ASSERT_NE(pipeline, nullptr) << error->message;
    GstElement* stamp = gst_bin_get_by_name(GST_BIN(pipeline), "stamp");
    std::vector<Seen> in;
    std::vector<Seen> out;
    GstPad* sink_pad = gst_element_get_static_pad(stamp, "sink");
    GstPad* src_pad = gst_element_get_static_pad(stamp, "src");
    gst_pad_add_probe(sink_pad, GST_PAD_PROBE_TYPE_BUFFER, record, &in, nullptr);
    gst_pad_add_probe(src_pad, GST_PAD_PROBE_TYPE_BUFFER, record, &out, nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* end = gst_bus_timed_pop_filtered(bus, 20 * GST_SECOND,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(end), GST_MESSAGE_EOS);
    gst_message_unref(end);

    // In presentation order the labels count on from the start, across the hour.
    std::vector<Seen> shown = out;
    std::ranges::sort(shown, {}, &Seen::pts);
    std::vector<std::string> labels(shown.size());
    std::ranges::transform(shown, labels.begin(), &Seen::label);
    EXPECT_EQ(labels, counted("10:59:59:20", 25, 1, frames));
    for (auto* seen : {&in, &out})
        for (Seen& s : *seen) s.label.clear();
    // Everything held came out, in the order it went in, timing and flags unchanged.
    ASSERT_EQ(in.size(), static_cast<std::size_t>(frames));
    EXPECT_EQ(out, in);
    EXPECT_TRUE(std::ranges::any_of(in, [](const Seen& s) { return s.pts != s.dts; })) << "no reordered pictures";

    // The held pictures add whole frames to the latency upstream reports.
    GstQuery* with = gst_query_new_latency();
    GstQuery* without = gst_query_new_latency();
    GstClockTime min_with = 0;
    GstClockTime min_without = 0;
    EXPECT_TRUE(gst_pad_query(src_pad, with) && gst_pad_peer_query(sink_pad, without));
    gst_query_parse_latency(with, nullptr, &min_with, nullptr);
    gst_query_parse_latency(without, nullptr, &min_without, nullptr);
    EXPECT_GT(min_with, min_without);
    EXPECT_EQ((min_with - min_without) % (40 * GST_MSECOND), 0u);
    gst_query_unref(with);
    gst_query_unref(without);

    EXPECT_THAT(pop_messages(bus), ::testing::IsEmpty());
    gst_element_set_state(pipeline, GST_STATE_NULL);
    for (GstObject* o : {GST_OBJECT(bus), GST_OBJECT(sink_pad), GST_OBJECT(src_pad), GST_OBJECT(stamp),
                         GST_OBJECT(pipeline)})
        gst_object_unref(o);
}

// The local time `seconds_ago`, as "HH:MM:SS".
std::string clock_text(int seconds_ago) {
    const std::time_t t = std::time(nullptr) - seconds_ago;
    std::tm local{};
    localtime_r(&t, &local);
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

TEST_F(ElementTest, FirstLabelComesFromTheChosenSourceWhichCanChangeWhilePlaying) {
    const std::vector<Bytes> units = sample_units();
    const std::string caps = std::string(kH264) + ", framerate=30000/1001";
    Element e;
    gst_harness_use_testclock(e.harness());
    ASSERT_TRUE(gst_harness_set_time(e.harness(), 10 * GST_SECOND));

    // clock (the default): captured 10 s before now, at running time 0, not
    // when it arrived here.
    e.begin(caps, "one");
    const std::string before = clock_text(10);
    for (std::size_t k = 0; k < units.size(); ++k) {
        GstBuffer* b = gst_buffer_new_memdup(units[k].data(), units[k].size());
        GST_BUFFER_PTS(b) = gst_util_uint64_scale(k, 1001 * GST_SECOND, 30000);
        ASSERT_EQ(e.push(b), GST_FLOW_OK);
        // A change while playing waits for the next stream.
        if (k == 0) e.set("source", "upstream-meta");
    }
    e.end();
    const std::string after = clock_text(10);
    std::vector<std::string> labels = e.labels();
    ASSERT_EQ(labels.size(), units.size());
    const std::string first_second = labels[0].substr(0, 8);
    EXPECT_TRUE(first_second == before || first_second == after) << labels[0] << " not " << before;
    EXPECT_EQ(labels, counted(labels[0].substr(0, 11), 30000, 1001, units.size()));

    // upstream-meta: the first picture's meta, at the stream's own rate.
    e.begin(caps, "two");
    GstBuffer* first = gst_buffer_new_memdup(units[0].data(), units[0].size());
    gst_buffer_add_video_time_code_meta_full(first, 30000, 1001, nullptr, GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME, 0, 0,
                                             59, 28, 0);
    ASSERT_EQ(e.push(first), GST_FLOW_OK);
    e.set("source", "start");
    e.set("start-time-code", "01:02:03;04");
    for (std::size_t k = 1; k < 4; ++k) ASSERT_EQ(e.push(units[k]), GST_FLOW_OK);
    e.end();
    EXPECT_EQ(e.labels(), counted("00:00:59;28", 30000, 1001, 4));  // across a dropped count

    // start: the property, as set while the last stream played.
    e.begin(caps, "three");
    for (std::size_t k = 0; k < 2; ++k) ASSERT_EQ(e.push(units[k]), GST_FLOW_OK);
    e.end();
    EXPECT_EQ(e.labels(), counted("01:02:03;04", 30000, 1001, 2));
    EXPECT_THAT(e.messages(), ::testing::IsEmpty());
}

TEST_F(ElementTest, AStreamTheStamperRefusesIsOneElementErrorInItsWords) {
    const std::vector<Bytes> units = sample_units();
    // What the stamper itself says of this stream at a rate it does not have.
    tcstamp::StreamOptions options;
    options.codec = tcstamp::Codec::h264;
    options.fps_x100 = 2500;
    tcstamp::StreamStamper reference(options);
    ASSERT_FALSE(reference.push(units[0]));
    ASSERT_FALSE(reference.error().empty());

    Element e;
    e.set("max-fps-x100", "2500");
    e.begin(std::string(kH264) + ", framerate=30000/1001");
    EXPECT_EQ(e.push(units[0]), GST_FLOW_ERROR);
    EXPECT_EQ(e.push(units[1]), GST_FLOW_ERROR);  // nothing more is taken, and said once
    EXPECT_THAT(e.messages(), ::testing::ElementsAre("error: " + reference.error()));
    EXPECT_THAT(e.labels(), ::testing::IsEmpty());
    // The next stream starts afresh, with the setting changed meanwhile.
    e.set("max-fps-x100", "0");
    e.begin(std::string(kH264) + ", framerate=30000/1001", "next");
    EXPECT_EQ(e.push(units[0]), GST_FLOW_OK);
    e.end();
    EXPECT_THAT(e.labels(), ::testing::SizeIs(1));
    EXPECT_THAT(e.messages(), ::testing::IsEmpty());
}

TEST_F(ElementTest, SettingsThatCannotWorkFailTheStartAndTheDefaultLogIsNotWritten) {
    GstElement* el = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("quillanetcstamp", nullptr)));
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(el, bus);
    auto start_error = [&]() {
        std::string text;
        if (gst_element_set_state(el, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) {
            const std::vector<std::string> messages = pop_messages(bus);
            text = messages.empty() ? "no message" : messages[0];
        }
        gst_element_set_state(el, GST_STATE_NULL);
        return text;
    };
    g_object_set(el, "start-time-code", "24:00:00:00", nullptr);
    EXPECT_EQ(start_error(), "error: start-time-code \"24:00:00:00\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF");
    g_object_set(el, "start-time-code", "23:59:59;29", nullptr);
    EXPECT_EQ(start_error(), "");

    // Without trace-file, a log the application configured stays; the
    // library's default device log is switched off.
    const std::string own = qtest::attr()->get_dbglog_logPath();
    EXPECT_EQ(start_error(), "");
    EXPECT_EQ(qtest::attr()->get()->enType, UTIL_DBGOUT_ENUM_TYPE_DBGLOG);
    EXPECT_EQ(qtest::attr()->get_dbglog_logPath(), own);
    qtest::attr()->set_dbglog_logPath("/dev/util_dbgout.log");
    qtest::attr()->get()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG | UTIL_DBGOUT_ENUM_TYPE_SYSLOG;
    EXPECT_EQ(start_error(), "");
    EXPECT_EQ(qtest::attr()->get()->enType, UTIL_DBGOUT_ENUM_TYPE_SYSLOG);

    // The library keeps 63 bytes of log path.
    const std::string fits = "/tmp/" + std::string(58, 'x');
    g_object_set(el, "trace-file", (fits + "x").c_str(), nullptr);
    EXPECT_EQ(start_error(),
              "error: trace-file \"" + fits + "x\" is longer than the 63 bytes the library takes for its log path");
    g_object_set(el, "trace-file", fits.c_str(), nullptr);
    EXPECT_EQ(start_error(), "");
    EXPECT_STREQ(qtest::attr()->get_dbglog_logPath(), fits.c_str());
    EXPECT_EQ(qtest::attr()->get()->enType, UTIL_DBGOUT_ENUM_TYPE_DBGLOG | UTIL_DBGOUT_ENUM_TYPE_SYSLOG);
    gst_element_set_bus(el, nullptr);
    gst_object_unref(bus);
    gst_object_unref(el);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    gst_init(&argc, &argv);
    return RUN_ALL_TESTS();
}
