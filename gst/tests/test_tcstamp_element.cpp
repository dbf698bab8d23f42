// quillanetcstamp in GStreamer's test harness: caps negotiation and its
// refusals, access units in and out with their timestamps, the inserted SEI
// unit against what the library's tables build for the same frames, and
// buffers without a picture.
#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <cstdint>
#include <string>
#include <vector>

#include "test_support.h"
#include "util_function.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Frame {
    Bytes data;
    std::vector<std::size_t> positions;  // of each unit's start code
};

// Units as {start code length, header and payload}.
Frame frame(const std::vector<std::pair<int, Bytes>>& units) {
    Frame f;
    for (const auto& [code, bytes] : units) {
        f.positions.push_back(f.data.size());
        f.data.insert(f.data.end(), static_cast<std::size_t>(code - 1), 0);
        f.data.push_back(1);
        f.data.insert(f.data.end(), bytes.begin(), bytes.end());
    }
    return f;
}

Bytes slice(Bytes head, std::size_t payload) {
    for (std::size_t k = 0; k < payload; ++k) head.push_back(static_cast<std::uint8_t>(0x11 + k % 200));
    return head;
}

// x264's SPS with nal-hrd and pic-struct (cpb_removal_delay_length_minus1 9,
// dpb_output_delay_length_minus1 6, time_offset_length 0), and without HRD.
const Bytes kSpsHrd = {0x67, 0xF4, 0x00, 0x0B, 0x91, 0x96, 0x40, 0xA1, 0x1F, 0x89, 0xC0, 0x44,
                       0x00, 0x00, 0x0F, 0xA4, 0x00, 0x03, 0xA9, 0x81, 0x81, 0x00, 0x07, 0xA1,
                       0x00, 0x01, 0xE8, 0x4A, 0x69, 0x30, 0x0F, 0x8A, 0x15, 0x24};
const Bytes kSpsPlain = {0x67, 0x42, 0xC0, 0x0A, 0xD9, 0x04, 0x26, 0xC0, 0x44, 0x00, 0x00,
                         0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x3C, 0x48, 0x99, 0x20};
const char* kH264 = "video/x-h264, stream-format=byte-stream, alignment=au";

Bytes bytes_of(GstBuffer* b) {
    Bytes out(gst_buffer_get_size(b));
    gst_buffer_extract(b, 0, out.data(), out.size());
    return out;
}

// The element with its messages on a bus we read. With properties it sits in
// a bin of its own, so that they are set before the harness starts it;
// without, its pads are the harness's peers, as a source's would be (a bin's
// ghost pad turns refused caps back before they reach the element).
class Element {
public:
    explicit Element(const std::string& properties = "")
        : h_(properties.empty() ? gst_harness_new("quillanetcstamp")
                                : gst_harness_new_parse(("quillanetcstamp " + properties).c_str())),
          bus_(gst_bus_new()) {
        gst_element_set_bus(h_->element, bus_);
    }
    ~Element() {
        gst_harness_teardown(h_);
        gst_object_unref(bus_);
    }
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

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
    GstBuffer* pull() { return gst_harness_try_pull(h_); }
    Bytes pull_bytes() {
        GstBuffer* b = pull();
        if (b == nullptr) return {};
        Bytes out = bytes_of(b);
        gst_buffer_unref(b);
        return out;
    }

    // "error: ..." and "warning: ..." in the order posted.
    std::vector<std::string> messages() {
        std::vector<std::string> out;
        const auto types = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING);
        while (GstMessage* m = gst_bus_pop_filtered(bus_, types)) {
            GError* e = nullptr;
            const bool error = GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR;
            error ? gst_message_parse_error(m, &e, nullptr) : gst_message_parse_warning(m, &e, nullptr);
            out.push_back(std::string(error ? "error: " : "warning: ") + e->message);
            g_error_free(e);
            gst_message_unref(m);
        }
        return out;
    }

private:
    GstHarness* h_;
    GstBus* bus_;
};

// What an application calling the library's tables itself inserts: the
// frame's units up to its first slice, `running`, the fixed start time code
// on the first frame, `get_data`; returned as the whole stamped frame.
class Reference {
public:
    Reference(UTIL_S32 codec, int fps_x100, unsigned h, unsigned m, unsigned s, unsigned f, int cpb = 23,
              int dpb = 23, int toff = 0)
        : start_{h, m, s, f} {
        util_h26x_sei_tim_config_param_t c{};
        c.ntp_enable = UTIL_TRUE;
        c.max_fps_x100 = fps_x100;
        c.h26x_type = codec;
        c.h264_cpb_removal_delay_length = static_cast<UTIL_U8>(cpb);
        c.h264_dpb_output_delay_length = static_cast<UTIL_U8>(dpb);
        c.h264_time_offset_length = static_cast<UTIL_U8>(toff);
        EXPECT_EQ(util_ops_pfun->h26x_high_seiTimeCode->init_list(&list_, &c, 1), 0);
    }
    ~Reference() { util_ops_pfun->h26x_high_seiTimeCode->exit_list(&list_); }

    Bytes stamped(const Frame& fr, std::size_t units) {
        util_h26x_frame_buf_info_t info{};
        for (std::size_t k = 0; k < units; ++k) {
            info.list[k].position = fr.positions[k];
            info.list[k].nalu = fr.data[fr.positions[k] + (fr.data[fr.positions[k] + 2] == 1 ? 3 : 4)];
        }
        info.count = static_cast<UTIL_S32>(units);
        util_h26x_sei_tim_t& ctx = list_.ph26xSeiTim[0];
        const bool first = ctx.init_flag != 1;
        util_ops_pfun->h26x_high_seiTimeCode->running(&ctx, &info);
        if (first) {
            set(ctx.h264_sei);
            set(ctx.h265_sei);
        }
        const UTIL_S32 n = util_ops_pfun->h26x_high_seiTimeCode->get_data(&ctx);
        const auto at = static_cast<std::ptrdiff_t>(fr.positions[units - 1]);
        Bytes out(fr.data.begin(), fr.data.begin() + at);
        out.insert(out.end(), ctx.data, ctx.data + n);
        out.insert(out.end(), fr.data.begin() + at, fr.data.end());
        return out;
    }

private:
    template <typename T>
    void set(T& t) {
        t.hours_value = start_[0], t.minutes_value = start_[1], t.seconds_value = start_[2], t.n_frames = start_[3];
        t.cnt_dropped_flag = 0;
    }
    unsigned start_[4];
    util_list_h26x_sei_tim_t list_{};
};

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
    const std::string no_rate =
        "error: The stream's caps carry no frame rate (or a variable one) and max-fps-x100 is not set: the time "
        "code needs the frame rate, set max-fps-x100 (e.g. 2997 for 29.97 fps)";
    const std::pair<std::string, std::string> cases[] = {
        {"video/x-h264, stream-format=avc, alignment=au, framerate=25/1",
         format + "video/x-h264 with stream-format=avc, alignment=au" + fix},
        // Open fields pass the templates but not the element.
        {"video/x-h264, stream-format=byte-stream, framerate=25/1",
         format + "video/x-h264 with stream-format=byte-stream, alignment unset" + fix},
        {kH264, no_rate},
        {std::string(kH264) + ", framerate=0/1", no_rate},
        {std::string(kH264) + ", framerate=1000/1",
         "error: A frame rate of 1000.00 fps cannot be counted in this time code (1 to 255 frames per second)"},
    };
    const Bytes idr = frame({{4, slice({0x65, 0x88, 0x84}, 40)}}).data;
    for (const auto& [caps, message] : cases) {
        Element e;
        e.begin(caps);
        // The sticky caps are offered again with each buffer: still one error.
        EXPECT_EQ(e.push(idr), GST_FLOW_NOT_NEGOTIATED) << caps;
        EXPECT_EQ(e.push(idr), GST_FLOW_NOT_NEGOTIATED) << caps;
        EXPECT_THAT(e.messages(), ::testing::ElementsAre(message)) << caps;
        EXPECT_EQ(e.pull(), nullptr);
        // Caps it can work with put it back to work.
        e.begin(std::string(kH264) + ", framerate=25/1");
        EXPECT_EQ(e.push(idr), GST_FLOW_OK);
        EXPECT_GT(e.pull_bytes().size(), idr.size()) << caps;
    }
}

TEST_F(ElementTest, H264FramesKeepTheirTimingAndCarryTheLibrarysUnit) {
    const std::string trace = dir_.file("element.log");
    Element e("start-time-code=10:59:59:22 time-offset-length=2 trace-file=" + trace);
    e.begin(std::string(kH264) + ", framerate=25/1");
    // A key frame with delimiter, parameter sets, an encoder SEI and two
    // slices, then P frames, one with a three-byte start code.
    std::vector<Frame> frames = {frame({{4, {0x09, 0x10}},
                                        {4, kSpsHrd},
                                        {4, {0x68, 0xCE, 0x3C, 0x80}},
                                        {3, {0x06, 0x05, 0x01, 0xAA, 0x80}},
                                        {4, slice({0x65, 0x88, 0x84}, 300)},
                                        {3, slice({0x65, 0x40, 0x11}, 100)}})};
    for (int k = 1; k < 5; ++k) frames.push_back(frame({{4, {0x09, 0x30}}, {k == 2 ? 3 : 4, slice({0x41, 0x9A}, 50u + k)}}));
    // The widths come from the SPS, except the time offset's: the property.
    Reference ref(ENUM_UTIL_H264_STREAM_TYPE, 2500, 10, 59, 59, 22, 9, 6, 2);
    for (std::size_t k = 0; k < frames.size(); ++k) {
        GstBuffer* in = gst_buffer_new_memdup(frames[k].data.data(), frames[k].data.size());
        GST_BUFFER_PTS(in) = 40 * GST_MSECOND * (k + 1);
        GST_BUFFER_DTS(in) = 40 * GST_MSECOND * k;
        GST_BUFFER_DURATION(in) = 40 * GST_MSECOND;
        GST_BUFFER_OFFSET(in) = 1000 + k;
        GST_BUFFER_OFFSET_END(in) = 1001 + k;
        GST_BUFFER_FLAG_SET(in, k == 0 ? GST_BUFFER_FLAG_DISCONT : GST_BUFFER_FLAG_DELTA_UNIT);
        ASSERT_EQ(e.push(in), GST_FLOW_OK);
        GstBuffer* out = e.pull();
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(GST_BUFFER_PTS(out), 40 * GST_MSECOND * (k + 1));
        EXPECT_EQ(GST_BUFFER_DTS(out), 40 * GST_MSECOND * k);
        EXPECT_EQ(GST_BUFFER_DURATION(out), 40 * GST_MSECOND);
        EXPECT_EQ(GST_BUFFER_OFFSET(out), 1000 + k);
        EXPECT_EQ(GST_BUFFER_OFFSET_END(out), 1001 + k);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_DISCONT), k == 0);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(out, GST_BUFFER_FLAG_DELTA_UNIT), k != 0);
        EXPECT_EQ(bytes_of(out), ref.stamped(frames[k], k == 0 ? 5 : 2)) << "frame " << k;
        gst_buffer_unref(out);
    }
    EXPECT_THAT(e.messages(), ::testing::IsEmpty());
    EXPECT_THAT(qtest::read_file(trace), ::testing::HasSubstr("no add one frame"));
}

TEST_F(ElementTest, H265CountsDropFramesAtTheCapsRateOrTheProperty) {
    const Frame key = frame({{4, {0x46, 0x01, 0x50}},                    // AUD
                             {4, {0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF}},  // VPS
                             {3, {0x42, 0x01, 0x01, 0x01, 0x60}},        // SPS
                             {3, {0x44, 0x01, 0xC1, 0x73}},              // PPS
                             {3, {0x4E, 0x01, 0x05, 0x01, 0xAA, 0x80}},  // the encoder's SEI
                             {3, slice({0x28, 0x01, 0xAF}, 200)}});      // CRA
    const Frame idr = frame({{4, slice({0x26, 0x01, 0xAF}, 30)}});
    const Frame trail = frame({{4, slice({0x02, 0x01, 0xD0}, 80)}});
    const std::string caps = "video/x-h265, stream-format=byte-stream, alignment=au";
    {
        // 30000/1001 from the caps is 29.97: 00:00:59;29 is followed by 00:01:00;02.
        Element e("start-time-code=00:00:59;28");
        e.begin(caps + ", framerate=30000/1001");
        Reference ref(ENUM_UTIL_H265_STREAM_TYPE, 2997, 0, 0, 59, 28);
        const std::pair<const Frame*, std::size_t> frames[] = {{&key, 6}, {&trail, 1}, {&trail, 1}};
        for (const auto& [fr, units] : frames) {
            ASSERT_EQ(e.push(fr->data), GST_FLOW_OK);
            EXPECT_EQ(e.pull_bytes(), ref.stamped(*fr, units));
        }
    }
    {
        // No rate in the caps, 59.94 from the property: four counts dropped.
        Element e("max-fps-x100=5994 start-time-code=00:00:59:59");
        e.begin(caps);
        Reference ref(ENUM_UTIL_H265_STREAM_TYPE, 5994, 0, 0, 59, 59);
        for (const Frame* fr : {&idr, &trail}) {
            ASSERT_EQ(e.push(fr->data), GST_FLOW_OK);
            EXPECT_EQ(e.pull_bytes(), ref.stamped(*fr, 1));
        }
        EXPECT_THAT(e.messages(), ::testing::IsEmpty());
    }
}

TEST_F(ElementTest, FramesWithoutPicturePassThroughWithOneWarningPerStream) {
    const std::vector<std::string> warnings = {
        "warning: the SPS signals no HRD parameters; decoders will not read the picture timing (encode with HRD "
        "parameters and pic_struct)",
        "warning: A buffer without a picture unit was passed through without a time code (later ones in this stream "
        "are not reported)"};
    Element e;
    e.begin(std::string(kH264) + ", framerate=30/1");
    const Bytes headers = frame({{4, {0x09, 0x10}}, {4, kSpsPlain}, {4, {0x68, 0xCE, 0x3C, 0x80}}}).data;
    const Bytes idr = frame({{4, kSpsPlain}, {4, slice({0x65, 0x88, 0x84}, 60)}}).data;
    for (int k = 0; k < 3; ++k) {
        GstBuffer* in = gst_buffer_new_memdup(headers.data(), headers.size());
        ASSERT_EQ(e.push(gst_buffer_ref(in)), GST_FLOW_OK);
        GstBuffer* out = e.pull();
        EXPECT_EQ(out, in);  // the very buffer, untouched
        EXPECT_EQ(bytes_of(in), headers);
        gst_buffer_unref(out);
        gst_buffer_unref(in);
        ASSERT_EQ(e.push(idr), GST_FLOW_OK);
        EXPECT_GT(e.pull_bytes().size(), idr.size());
    }
    EXPECT_EQ(e.messages(), warnings);
    // A new stream is told about again.
    e.begin(std::string(kH264) + ", framerate=30/1", "second");
    ASSERT_EQ(e.push(headers), GST_FLOW_OK);
    EXPECT_EQ(e.pull_bytes(), headers);
    EXPECT_EQ(e.messages(), warnings);
}

TEST_F(ElementTest, SettingsThatCannotWorkFailTheStart) {
    GstElement* el = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("quillanetcstamp", nullptr)));
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(el, bus);
    auto start_error = [&]() {
        std::string text;
        if (gst_element_set_state(el, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) {
            GstMessage* m = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
            GError* e = nullptr;
            gst_message_parse_error(m, &e, nullptr);
            text = e->message;
            g_error_free(e);
            gst_message_unref(m);
        }
        gst_element_set_state(el, GST_STATE_NULL);
        return text;
    };
    g_object_set(el, "start-time-code", "24:00:00:00", nullptr);
    EXPECT_EQ(start_error(), "start-time-code \"24:00:00:00\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF");
    g_object_set(el, "start-time-code", "23:59:59;29", nullptr);
    EXPECT_EQ(start_error(), "");
    // The library keeps 63 bytes of log path.
    const std::string fits = "/tmp/" + std::string(58, 'x');
    g_object_set(el, "trace-file", (fits + "x").c_str(), nullptr);
    EXPECT_EQ(start_error(),
              "trace-file \"" + fits + "x\" is longer than the 63 bytes the library takes for its log path");
    g_object_set(el, "trace-file", fits.c_str(), nullptr);
    EXPECT_EQ(start_error(), "");
    EXPECT_STREQ(qtest::attr()->get_dbglog_logPath(), fits.c_str());
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
