// quillanetcstamp: stamps every picture of an H.264 or H.265 byte stream
// with a clock time code SEI unit built by QuillaneUtil, for camera
// pipelines that already move their encoded video through GStreamer.
//
// The element is a shell around tcstamp::StreamStamper, the component the
// quillane-tcstamp tool uses too. Access units go in and come out in decode
// order, but the stamper holds pictures for the stream's reorder window so
// that each one gets the time of its place in presentation order: an input
// buffer may give no output at once and several later. The element keeps
// each input buffer until its stamped bytes come back (keyed by the tag it
// passed along), gives the output the input's timestamps, flags and metas,
// and attaches a GstVideoTimeCodeMeta equal to the label in the SEI.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "stream_stamper.h"
#include "util_function.h"

#ifndef QUILLANE_VERSION
#define QUILLANE_VERSION "0.0.0"
#endif
// The package name GST_PLUGIN_DEFINE records in the registry.
#ifndef PACKAGE
#define PACKAGE "quillaneutil"
#endif

GST_DEBUG_CATEGORY_STATIC(quillane_tcstamp_debug);
#define GST_CAT_DEFAULT quillane_tcstamp_debug

namespace {

constexpr const char* kCaps =
    "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au; "
    "video/x-h265, stream-format=(string)byte-stream, alignment=(string)au";

enum {
    PROP_0,
    PROP_SOURCE,
    PROP_MAX_FPS_X100,
    PROP_CPB_REMOVAL_DELAY_LENGTH,
    PROP_DPB_OUTPUT_DELAY_LENGTH,
    PROP_TIME_OFFSET_LENGTH,
    PROP_DRIFT_CHECK,
    PROP_FRAMES_BEFORE_FIRST_CHECK,
    PROP_START_TIME_CODE,
    PROP_TRACE_FILE,
};

// Where the label of a stream's first stamped picture comes from.
enum class Source { clock, upstream_meta, start };

// A minute's worth of frames at 25 fps: the first drift check needs a period
// long enough for one frame of drift to mean something.
constexpr guint64 kDefaultFramesBeforeFirstCheck = 1500;
// The library's log path field holds 63 bytes and a terminator.
constexpr std::size_t kMaxTracePath = 63;
// Where the library writes its trace until an application says otherwise:
// a device path, never meant for a pipeline on a desktop or a server.
constexpr const char* kLibraryDefaultLog = "/dev/util_dbgout.log";

struct Settings {
    Source source = Source::clock;
    bool source_set = false;  // false: start-time-code alone selects Source::start
    int max_fps_x100 = 0;  // 0: the stream's own rate
    bool drift_check = false;
    guint64 frames_before_first_check = kDefaultFramesBeforeFirstCheck;
    std::string start_time_code;
    std::string trace_file;  // empty: no trace file of ours
    guint trace_generation = 0;  // bumped by every change of trace_file
};

struct Held {
    std::uint64_t tag;
    GstBuffer* buffer;
};

// Everything the streaming thread owns, built in place in the instance.
struct State {
    Settings settings;  // written by the application thread under the object lock
    Settings active;    // the copy the current stream was started with
    std::optional<tcstamp::TimeCode> start;
    std::unique_ptr<tcstamp::StreamStamper> stamper;  // null between streams
    std::deque<Held> held;  // input buffers in decode order, until their unit comes back
    std::uint64_t next_tag = 0;
    tcstamp::Codec codec = tcstamp::Codec::h264;
    int caps_fps_x100 = 0;  // 0: the caps carry no fixed rate
    bool refused = false;   // the stamper refused this stream; nothing more is taken
    bool counting = false;  // a stamped unit came out: the first label was used
    bool drift_check = false;  // as the stream was started: off on a non-live pipeline
    bool warned_unstamped = false;
    bool warned_no_meta = false;
    guint trace_applied = 0;
    GstClockTime added_latency = 0;  // read by latency queries under the object lock
    // The last caps refused: a sticky caps event is offered again with every
    // buffer that follows it, and the refusal is worth one error only.
    GstCaps* refused_caps = nullptr;
};

}  // namespace

struct GstQuillaneTcstamp {
    GstBaseTransform parent;
    State state;
};

struct GstQuillaneTcstampClass {
    GstBaseTransformClass parent_class;
};

G_DEFINE_TYPE(GstQuillaneTcstamp, gst_quillane_tcstamp, GST_TYPE_BASE_TRANSFORM)

namespace {

GstQuillaneTcstamp* self_of(gpointer p) { return reinterpret_cast<GstQuillaneTcstamp*>(p); }

GType source_type() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {static_cast<gint>(Source::clock), "The wall-clock time at which the picture was captured", "clock"},
        {static_cast<gint>(Source::upstream_meta), "The GstVideoTimeCodeMeta the picture arrives with",
         "upstream-meta"},
        {static_cast<gint>(Source::start), "The start-time-code property", "start"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&type)) g_once_init_leave(&type, g_enum_register_static("GstQuillaneTcstampSource", values));
    return type;
}

// "video/x-h264 with stream-format=avc, alignment=nal": what the caps say
// about the two fields the element depends on, without codec_data noise.
std::string describe_format(const GstCaps* caps) {
    if (caps == nullptr || gst_caps_is_empty(caps) || gst_caps_is_any(caps)) return "unknown caps";
    const GstStructure* s = gst_caps_get_structure(caps, 0);
    std::string text = gst_structure_get_name(s);
    const char* separator = " with ";
    for (const char* field : {"stream-format", "alignment"}) {
        const gchar* value = gst_structure_get_string(s, field);
        text += separator;
        text += field;
        text += value != nullptr ? std::string("=") + value : std::string(" unset");
        separator = ", ";
    }
    return text;
}

// A sticky caps event is offered again with every buffer that follows it:
// each refused caps is reported once. True when these caps were reported.
bool refused_before(State& st, GstCaps* caps) {
    if (st.refused_caps != nullptr && gst_caps_is_equal(st.refused_caps, caps)) return true;
    gst_caps_replace(&st.refused_caps, caps);
    return false;
}

void post_format_error(GstElement* element, GstCaps* caps) {
    const std::string got = describe_format(caps);
    GST_ELEMENT_ERROR(element, CORE, NEGOTIATION,
                      ("quillanetcstamp takes H.264 or H.265 in byte-stream format with alignment=au, not %s "
                       "(put h264parse or h265parse in front of it)",
                       got.c_str()),
                      ("refused caps: %" GST_PTR_FORMAT, caps));
}

// Input the pad templates refuse never reaches set_caps: the caps event is
// turned back before any handler of the element runs. This probe sees it
// first and says why, since upstream only reports "not-negotiated".
GstPadProbeReturn refuse_with_reason(GstPad* pad, GstPadProbeInfo* info, gpointer element) noexcept {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (event == nullptr || GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    GstCaps* accepted = gst_pad_get_pad_template_caps(pad);
    const bool ok = gst_caps_can_intersect(caps, accepted);
    gst_caps_unref(accepted);
    if (!ok && !refused_before(self_of(element)->state, caps)) post_format_error(GST_ELEMENT(element), caps);
    return GST_PAD_PROBE_OK;
}

bool has_string(const GstStructure* s, const char* field, const char* value) {
    const gchar* v = gst_structure_get_string(s, field);
    return v != nullptr && std::strcmp(v, value) == 0;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec) noexcept {
    GstQuillaneTcstamp* self = self_of(object);
    Settings& s = self->state.settings;
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_SOURCE:
            s.source = static_cast<Source>(g_value_get_enum(value));
            s.source_set = true;
            break;
        case PROP_MAX_FPS_X100: s.max_fps_x100 = g_value_get_int(value); break;
        case PROP_CPB_REMOVAL_DELAY_LENGTH:
        case PROP_DPB_OUTPUT_DELAY_LENGTH:
        case PROP_TIME_OFFSET_LENGTH: break;  // the stamper reads the widths from the SPS
        case PROP_DRIFT_CHECK: s.drift_check = g_value_get_boolean(value) != FALSE; break;
        case PROP_FRAMES_BEFORE_FIRST_CHECK: s.frames_before_first_check = g_value_get_uint64(value); break;
        case PROP_START_TIME_CODE: {
            const gchar* text = g_value_get_string(value);
            s.start_time_code = text != nullptr ? text : "";
            break;
        }
        case PROP_TRACE_FILE: {
            const gchar* text = g_value_get_string(value);
            s.trace_file = text != nullptr ? text : "";
            ++s.trace_generation;
            break;
        }
        default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec); break;
    }
    GST_OBJECT_UNLOCK(self);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) noexcept {
    GstQuillaneTcstamp* self = self_of(object);
    const Settings& s = self->state.settings;
    GST_OBJECT_LOCK(self);
    switch (id) {
        case PROP_SOURCE: g_value_set_enum(value, static_cast<gint>(s.source)); break;
        case PROP_MAX_FPS_X100: g_value_set_int(value, s.max_fps_x100); break;
        case PROP_CPB_REMOVAL_DELAY_LENGTH:
        case PROP_DPB_OUTPUT_DELAY_LENGTH:
        case PROP_TIME_OFFSET_LENGTH: g_value_set_int(value, -1); break;
        case PROP_DRIFT_CHECK: g_value_set_boolean(value, s.drift_check ? TRUE : FALSE); break;
        case PROP_FRAMES_BEFORE_FIRST_CHECK: g_value_set_uint64(value, s.frames_before_first_check); break;
        case PROP_START_TIME_CODE:
            g_value_set_string(value, s.start_time_code.empty() ? nullptr : s.start_time_code.c_str());
            break;
        case PROP_TRACE_FILE: g_value_set_string(value, s.trace_file.empty() ? nullptr : s.trace_file.c_str()); break;
        default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec); break;
    }
    GST_OBJECT_UNLOCK(self);
}

Settings settings_now(GstQuillaneTcstamp* self) {
    GST_OBJECT_LOCK(self);
    Settings copy = self->state.settings;
    GST_OBJECT_UNLOCK(self);
    return copy;
}

// Reads start-time-code; false (with the element error posted) when it is
// set but is no time code.
bool parse_start(GstQuillaneTcstamp* self, const Settings& s, std::optional<tcstamp::TimeCode>& start) {
    start.reset();
    if (s.start_time_code.empty()) return true;
    start = tcstamp::parse_time_code(s.start_time_code);
    if (start) return true;
    GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                      ("start-time-code \"%s\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF",
                       s.start_time_code.c_str()),
                      (nullptr));
    return false;
}

// The library's trace goes to one global record. With trace-file set it
// goes there; without, a record that still points at the library's default
// device path is routed nowhere, while a log the application configured
// itself stays as it is.
bool apply_trace_file(GstQuillaneTcstamp* self, const Settings& s) {
    State& st = self->state;
    st.trace_applied = s.trace_generation;
    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
    if (s.trace_file.empty()) {
        if (std::strcmp(attr->get_dbglog_logPath(), kLibraryDefaultLog) == 0)
            attr->get()->enType &= ~static_cast<UTIL_U32>(UTIL_DBGOUT_ENUM_TYPE_DBGLOG);
        return true;
    }
    if (s.trace_file.size() > kMaxTracePath) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                          ("trace-file \"%s\" is longer than the %zu bytes the library takes for its log path",
                           s.trace_file.c_str(), kMaxTracePath),
                          (nullptr));
        return false;
    }
    attr->fclose_dbglog_fp();  // so that the next trace opens the new path
    attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, s.trace_file.c_str(), 1u << 20);
    attr->get()->enType |= UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    return true;
}

void release_held(State& st) {
    for (const Held& h : st.held) gst_buffer_unref(h.buffer);
    st.held.clear();
}

// Forgets the current stream: the next buffer starts a new one with the
// properties as they are then.
void reset_stream(GstQuillaneTcstamp* self) {
    State& st = self->state;
    release_held(st);
    st.stamper.reset();
    st.refused = false;
    st.counting = false;
    st.warned_unstamped = false;
    st.warned_no_meta = false;
}

// READY -> PAUSED: checks the properties that need no stream, so that a
// typo fails the state change at once.
gboolean start(GstBaseTransform* trans) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    State& st = self->state;
    const Settings s = settings_now(self);
    if (!parse_start(self, s, st.start) || !apply_trace_file(self, s)) return FALSE;
    reset_stream(self);
    st.caps_fps_x100 = 0;
    GST_OBJECT_LOCK(self);
    st.added_latency = 0;  // a stream tells its own when it starts
    GST_OBJECT_UNLOCK(self);
    gst_caps_replace(&st.refused_caps, nullptr);
    return TRUE;
}

gboolean stop(GstBaseTransform* trans) noexcept {
    reset_stream(self_of(trans));
    return TRUE;
}

// The caps give the codec and a rate the stamper checks against the
// stream's own timing (and uses when the stream has none).
gboolean set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps*) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    State& st = self->state;
    if (st.refused_caps != nullptr && gst_caps_is_equal(st.refused_caps, incaps)) return FALSE;  // reported already
    const GstStructure* s = gst_caps_get_structure(incaps, 0);
    // Caps that leave the format or the alignment open pass the templates,
    // but a buffer could then hold a part of an access unit, or several.
    if (!has_string(s, "stream-format", "byte-stream") || !has_string(s, "alignment", "au")) {
        refused_before(st, incaps);
        post_format_error(GST_ELEMENT(self), incaps);
        return FALSE;
    }
    gst_caps_replace(&st.refused_caps, nullptr);
    st.codec = gst_structure_has_name(s, "video/x-h265") ? tcstamp::Codec::h265 : tcstamp::Codec::h264;
    gint num = 0;
    gint den = 0;
    st.caps_fps_x100 = 0;
    // 30000/1001 gives 2997, 60000/1001 gives 5994: the rates that count
    // drop frames come out exactly.
    if (gst_structure_get_fraction(s, "framerate", &num, &den) && num > 0 && den > 0)
        st.caps_fps_x100 = static_cast<int>(std::min<gint64>((static_cast<gint64>(num) * 100 + den / 2) / den, G_MAXINT));
    return TRUE;
}

bool pipeline_is_live(GstBaseTransform* trans) {
    GstQuery* query = gst_query_new_latency();
    gboolean live = FALSE;
    if (gst_pad_peer_query(GST_BASE_TRANSFORM_SINK_PAD(trans), query))
        gst_query_parse_latency(query, &live, nullptr, nullptr);
    gst_query_unref(query);
    return live != FALSE;
}

tcstamp::StreamOptions stream_options(const State& st) {
    tcstamp::StreamOptions options;
    options.codec = st.codec;
    if (st.active.max_fps_x100 != 0)
        options.fps_x100 = st.active.max_fps_x100;
    else if (st.caps_fps_x100 != 0)
        options.fps_x100 = st.caps_fps_x100;
    if (st.active.source == Source::start) options.start = st.start;
    options.drift_check = st.drift_check;
    options.frames_before_first_check = st.active.frames_before_first_check;
    return options;
}

void post_refusal(GstQuillaneTcstamp* self, const std::string& why) {
    GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("%s", why.c_str()), (nullptr));
}

// The first buffer of a stream: takes the properties as they are now.
bool start_stream(GstQuillaneTcstamp* self) {
    State& st = self->state;
    GstBaseTransform* trans = GST_BASE_TRANSFORM(self);
    st.active = settings_now(self);
    // A start label given on its own is meant to be used.
    if (!st.active.source_set && !st.active.start_time_code.empty()) st.active.source = Source::start;
    if (!parse_start(self, st.active, st.start)) return false;
    if (st.active.source == Source::start && !st.start) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                          ("source=start needs start-time-code, the label of the first picture"), (nullptr));
        return false;
    }
    // Buffers that do not arrive at the pace of the wall clock would make
    // every check find a drift and pull the time code back to the clock.
    st.drift_check = st.active.drift_check;
    if (st.drift_check && !pipeline_is_live(trans)) {
        st.drift_check = false;
        GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS,
                            ("drift-check is ignored: the pipeline is not live, so its buffers do not come at "
                             "the pace of the wall clock (the time codes count frames)"),
                            (nullptr));
    }
    try {
        st.stamper = std::make_unique<tcstamp::StreamStamper>(stream_options(st));
    } catch (const std::bad_alloc&) {
        GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("Could not create the time code context (out of memory)"), (nullptr));
        return false;
    }
    return true;
}

// The rate at which a capture time becomes a label: the stream's, once the
// stamper knows it; until then the one the stamper was told to expect; and
// when nothing said it yet, what this access unit's own parameter sets say.
int label_rate(GstQuillaneTcstamp* self, std::span<const std::uint8_t> au) {
    State& st = self->state;
    if (st.stamper->timing()) return st.stamper->timing()->fps_x100;
    tcstamp::StreamOptions options = stream_options(st);
    if (options.fps_x100) return *options.fps_x100;
    options.start = tcstamp::TimeCode{};  // keeps the scratch stamper off the clock
    options.drift_check = false;
    tcstamp::StreamStamper scratch(options);
    scratch.push(au);
    return scratch.timing() ? scratch.timing()->fps_x100 : 0;
}

// When the buffer was captured, by the wall clock: the pipeline clock's
// time of its running time, moved onto the wall clock by the distance
// between the two clocks now. Unlike the time it reaches this element, it
// does not depend on how long the encoder held it.
std::optional<tcstamp::TimeCode> capture_label(GstQuillaneTcstamp* self, GstBuffer* in, int fps_x100) {
    GstBaseTransform* trans = GST_BASE_TRANSFORM(self);
    const GstClockTime pts = GST_BUFFER_PTS_IS_VALID(in) ? GST_BUFFER_PTS(in) : GST_BUFFER_DTS(in);
    const int whole = (fps_x100 + 50) / 100;
    if (whole < 1 || !GST_CLOCK_TIME_IS_VALID(pts) || trans->segment.format != GST_FORMAT_TIME) return std::nullopt;
    const GstClockTime running = gst_segment_to_running_time(&trans->segment, GST_FORMAT_TIME, pts);
    GstClock* clock = gst_element_get_clock(GST_ELEMENT(self));
    if (clock == nullptr || !GST_CLOCK_TIME_IS_VALID(running)) {
        if (clock != nullptr) gst_object_unref(clock);
        return std::nullopt;
    }
    const gint64 wall_now_us = g_get_real_time();
    const GstClockTime clock_now = gst_clock_get_time(clock);
    gst_object_unref(clock);
    const GstClockTime captured_at = gst_element_get_base_time(GST_ELEMENT(self)) + running;
    const gint64 age_us = GST_CLOCK_DIFF(captured_at, clock_now) / 1000;
    const gint64 captured_us = wall_now_us - age_us;
    const std::time_t seconds = static_cast<std::time_t>(captured_us / G_USEC_PER_SEC);
    const gint64 micros = captured_us % G_USEC_PER_SEC;
    std::tm local{};
    if (captured_us < 0 || localtime_r(&seconds, &local) == nullptr) return std::nullopt;
    tcstamp::TimeCode label{local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(whole * micros / G_USEC_PER_SEC)};
    // Drop-frame counting has no label for the first counts of most
    // minutes: a capture then is labelled with the next count there is.
    while (!tcstamp::label_exists(label, fps_x100) && label.frames + 1 < whole) ++label.frames;
    return label;
}

std::optional<tcstamp::TimeCode> first_label(GstQuillaneTcstamp* self, GstBuffer* in, std::span<const std::uint8_t> au) {
    State& st = self->state;
    // Only the first stamped picture's label is used.
    if (st.active.source == Source::start || st.counting) return std::nullopt;
    if (st.active.source == Source::upstream_meta) {
        if (const GstVideoTimeCodeMeta* meta = gst_buffer_get_video_time_code_meta(in))
            return tcstamp::TimeCode{static_cast<int>(meta->tc.hours), static_cast<int>(meta->tc.minutes),
                                     static_cast<int>(meta->tc.seconds), static_cast<int>(meta->tc.frames)};
        if (!st.warned_no_meta) {
            st.warned_no_meta = true;
            GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                                ("source=upstream-meta, but a picture came without a time code meta: its capture "
                                 "time is used instead (later ones in this stream are not reported)"),
                                ("pts %" GST_TIME_FORMAT, GST_TIME_ARGS(GST_BUFFER_PTS(in))));
        }
    }
    return capture_label(self, in, label_rate(self, au));
}

void refuse_stream(GstQuillaneTcstamp* self) {
    State& st = self->state;
    post_refusal(self, st.stamper->error().empty() ? "The stream cannot be stamped" : st.stamper->error());
    release_held(st);
    st.refused = true;
}

// GstVideoTimeCode takes the rate as a fraction: the NTSC family as
// N*1000/1001, everything else as fps_x100/100 reduced.
void rate_fraction(int fps_x100, gint& num, gint& den) {
    const int whole = (fps_x100 + 50) / 100;
    if (whole * 100000 / 1001 == fps_x100 || (whole * 100000 + 500) / 1001 == fps_x100) {
        num = whole * 1000;
        den = 1001;
        return;
    }
    num = fps_x100;
    den = 100;
    for (int d : {2, 5}) {
        while (num % d == 0 && den % d == 0) num /= d, den /= d;
    }
}

void set_time_code_meta(GstQuillaneTcstamp* self, GstBuffer* out, const tcstamp::StampedUnit& unit) {
    while (GstVideoTimeCodeMeta* old = gst_buffer_get_video_time_code_meta(out)) gst_buffer_remove_meta(out, &old->meta);
    const auto& timing = self->state.stamper->timing();
    if (!timing) return;
    gint num = 0;
    gint den = 1;
    rate_fraction(timing->fps_x100, num, den);
    const auto flags = unit.drop_frame ? GST_VIDEO_TIME_CODE_FLAGS_DROP_FRAME : GST_VIDEO_TIME_CODE_FLAGS_NONE;
    const tcstamp::TimeCode& t = unit.label;
    if (gst_buffer_add_video_time_code_meta_full(out, num, den, nullptr, flags, t.hours, t.minutes, t.seconds,
                                                 t.frames, 0) == nullptr)
        GST_WARNING_OBJECT(self, "GStreamer refuses the label %s at %d/%d fps as a time code meta",
                           tcstamp::time_code_text(t, unit.drop_frame).c_str(), num, den);
}

void free_bytes(gpointer bytes) noexcept { delete static_cast<std::vector<std::uint8_t>*>(bytes); }

// The output of one unit: its bytes with the timestamps, flags and metas of
// the input buffer it came from; the input itself when nothing changed.
GstBuffer* output_of(GstQuillaneTcstamp* self, tcstamp::StampedUnit& unit, GstBuffer* in) {
    if (!unit.stamped && gst_buffer_get_size(in) == unit.bytes.size() &&
        gst_buffer_memcmp(in, 0, unit.bytes.data(), unit.bytes.size()) == 0) {
        if (!self->state.warned_unstamped) {
            self->state.warned_unstamped = true;
            GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                                ("An access unit was passed through without a time code: it holds no picture, or "
                                 "one that comes before the stream's first random-access picture (later ones in "
                                 "this stream are not reported)"),
                                ("%" G_GSIZE_FORMAT " bytes, pts %" GST_TIME_FORMAT, gst_buffer_get_size(in),
                                 GST_TIME_ARGS(GST_BUFFER_PTS(in))));
        }
        return in;
    }
    auto* bytes = new (std::nothrow) std::vector<std::uint8_t>(std::move(unit.bytes));
    if (bytes == nullptr) {
        gst_buffer_unref(in);
        return nullptr;
    }
    GstBuffer* out = gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), bytes->data(), bytes->size(), 0,
                                                 bytes->size(), bytes, free_bytes);
    gst_buffer_copy_into(
        out, in, static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS | GST_BUFFER_COPY_META),
        0, static_cast<gsize>(-1));
    gst_buffer_unref(in);
    if (unit.stamped) set_time_code_meta(self, out, unit);
    return out;
}

// The next unit the stamper has ready, as an output buffer; null when none.
GstFlowReturn next_output(GstQuillaneTcstamp* self, GstBuffer** out) {
    State& st = self->state;
    *out = nullptr;
    if (!st.stamper || st.refused) return GST_FLOW_OK;
    std::optional<tcstamp::StampedUnit> unit;
    try {
        unit = st.stamper->pop();
    } catch (const std::bad_alloc&) {
    }
    if (!unit) return GST_FLOW_OK;
    // Units come back in the order they went in.
    while (!st.held.empty() && st.held.front().tag != unit->tag) {
        gst_buffer_unref(st.held.front().buffer);
        st.held.pop_front();
    }
    if (st.held.empty()) {
        GST_ELEMENT_ERROR(self, CORE, FAILED, ("The stamper returned an access unit that was never given to it"),
                          ("tag %" G_GUINT64_FORMAT, unit->tag));
        return GST_FLOW_ERROR;
    }
    GstBuffer* in = st.held.front().buffer;
    st.held.pop_front();
    st.counting = st.counting || unit->stamped;
    GST_LOG_OBJECT(self, "unit %" G_GUINT64_FORMAT ": %s", unit->tag,
                   unit->stamped ? tcstamp::time_code_text(unit->label, unit->drop_frame).c_str() : "not stamped");
    *out = output_of(self, *unit, in);
    if (*out != nullptr) return GST_FLOW_OK;
    GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT, ("Could not allocate an output buffer"), (nullptr));
    return GST_FLOW_ERROR;
}

// Held pictures delay the output by the reorder window: once the stream
// tells how many, downstream is told to ask for the latency again.
void update_latency(GstQuillaneTcstamp* self) {
    State& st = self->state;
    const auto& timing = st.stamper->timing();
    if (!timing || timing->fps_x100 <= 0) return;
    const GstClockTime latency =
        gst_util_uint64_scale_int_ceil(static_cast<guint64>(timing->reorder_window) * 100, GST_SECOND, timing->fps_x100);
    GST_OBJECT_LOCK(self);
    const bool changed = latency != st.added_latency;
    st.added_latency = latency;
    GST_OBJECT_UNLOCK(self);
    if (changed) gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
}

// Takes one input buffer in decode order into the stamper.
GstFlowReturn take(GstQuillaneTcstamp* self, GstBuffer* in) {
    State& st = self->state;
    if (st.refused) {
        gst_buffer_unref(in);
        return GST_FLOW_ERROR;
    }
    const Settings now = settings_now(self);
    if (now.trace_generation != st.trace_applied && !apply_trace_file(self, now)) {
        gst_buffer_unref(in);
        return GST_FLOW_ERROR;
    }
    if (!st.stamper && !start_stream(self)) {
        gst_buffer_unref(in);
        return GST_FLOW_ERROR;
    }
    GstMapInfo map;
    if (!gst_buffer_map(in, &map, GST_MAP_READ)) {
        gst_buffer_unref(in);
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("Could not read an input buffer"), (nullptr));
        return GST_FLOW_ERROR;
    }
    const std::span<const std::uint8_t> au(map.data, map.size);
    const std::uint64_t tag = st.next_tag++;
    bool ok = false;
    try {
        const std::optional<tcstamp::TimeCode> label = first_label(self, in, au);
        ok = st.stamper->push(au, tag, label);
    } catch (const std::bad_alloc&) {
    }
    gst_buffer_unmap(in, &map);
    if (!ok) {
        gst_buffer_unref(in);
        refuse_stream(self);
        return GST_FLOW_ERROR;
    }
    st.held.push_back({tag, in});
    update_latency(self);
    return GST_FLOW_OK;
}

// The base class calls this after each input buffer, and again as long as
// it returns a buffer: one input gives as many outputs as became ready.
GstFlowReturn generate_output(GstBaseTransform* trans, GstBuffer** outbuf) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    *outbuf = nullptr;
    if (GstBuffer* in = trans->queued_buf) {
        trans->queued_buf = nullptr;
        const GstFlowReturn ret = take(self, in);
        if (ret != GST_FLOW_OK) return ret;
    }
    return next_output(self, outbuf);
}

// End of a stream: every held picture is ordered, stamped and pushed before
// whatever ends the stream goes on.
void drain(GstQuillaneTcstamp* self) {
    State& st = self->state;
    if (st.stamper && !st.refused) {
        bool ok = false;
        try {
            ok = st.stamper->finish();
        } catch (const std::bad_alloc&) {
        }
        GstBuffer* out = nullptr;
        while (next_output(self, &out) == GST_FLOW_OK && out != nullptr) {
            if (gst_pad_push(GST_BASE_TRANSFORM_SRC_PAD(self), out) != GST_FLOW_OK) break;
        }
        if (!ok) refuse_stream(self);
    }
    reset_stream(self);
}

gboolean sink_event(GstBaseTransform* trans, GstEvent* event) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    State& st = self->state;
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_EOS:
        case GST_EVENT_STREAM_START: drain(self); break;
        case GST_EVENT_FLUSH_STOP: reset_stream(self); break;
        case GST_EVENT_CAPS: {
            // Another codec is another stream; the stamper is told the codec
            // once, at its start.
            GstCaps* caps = nullptr;
            gst_event_parse_caps(event, &caps);
            const bool h265 = gst_structure_has_name(gst_caps_get_structure(caps, 0), "video/x-h265");
            if (st.stamper && h265 != (st.codec == tcstamp::Codec::h265)) drain(self);
            break;
        }
        default: break;
    }
    return GST_BASE_TRANSFORM_CLASS(gst_quillane_tcstamp_parent_class)->sink_event(trans, event);
}

gboolean query(GstBaseTransform* trans, GstPadDirection direction, GstQuery* q) noexcept {
    if (direction != GST_PAD_SRC || GST_QUERY_TYPE(q) != GST_QUERY_LATENCY)
        return GST_BASE_TRANSFORM_CLASS(gst_quillane_tcstamp_parent_class)->query(trans, direction, q);
    if (!gst_pad_peer_query(GST_BASE_TRANSFORM_SINK_PAD(trans), q)) return FALSE;
    gboolean live = FALSE;
    GstClockTime min = 0;
    GstClockTime max = 0;
    gst_query_parse_latency(q, &live, &min, &max);
    GST_OBJECT_LOCK(trans);
    const GstClockTime added = self_of(trans)->state.added_latency;
    GST_OBJECT_UNLOCK(trans);
    gst_query_set_latency(q, live, min + added, GST_CLOCK_TIME_IS_VALID(max) ? max + added : max);
    return TRUE;
}

void finalize(GObject* object) noexcept {
    State& st = self_of(object)->state;
    release_held(st);
    gst_caps_replace(&st.refused_caps, nullptr);
    st.~State();
    G_OBJECT_CLASS(gst_quillane_tcstamp_parent_class)->finalize(object);
}

GParamSpec* deprecated_length(const char* name) {
    return g_param_spec_int(name, name,
                            "Deprecated, ignored: the stamper reads the H.264 field widths from the stream's SPS",
                            -1, 31, -1,
                            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | G_PARAM_DEPRECATED));
}

}  // namespace

static void gst_quillane_tcstamp_init(GstQuillaneTcstamp* self) {
    new (&self->state) State();
    // The element always builds its own output buffer (or hands the input
    // on untouched), so the base class must not treat it as a pass-through.
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), FALSE);
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), FALSE);
    gst_pad_add_probe(GST_BASE_TRANSFORM_SINK_PAD(self), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, refuse_with_reason, self,
                      nullptr);
}

static void gst_quillane_tcstamp_class_init(GstQuillaneTcstampClass* klass) {
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);

    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;

    g_object_class_install_property(
        object_class, PROP_SOURCE,
        g_param_spec_enum("source", "Time of the first picture",
                          "Where the label of a stream's first stamped picture comes from; the pictures after it are "
                          "counted. A change takes effect at the next stream start or flush",
                          source_type(), static_cast<gint>(Source::clock), flags));
    g_object_class_install_property(
        object_class, PROP_MAX_FPS_X100,
        g_param_spec_int("max-fps-x100", "Frame rate x 100",
                         "Frame rate times 100 (2500, 2997, 3000, 5994, ...; 2997 and 5994 count drop-frame time "
                         "code), checked against the stream's own timing and needed only by a stream without it. "
                         "0: the stream's rate (the caps' framerate for a stream without timing). A change takes "
                         "effect at the next stream start or flush",
                         0, 100000, 0, flags));
    g_object_class_install_property(object_class, PROP_CPB_REMOVAL_DELAY_LENGTH,
                                    deprecated_length("cpb-removal-delay-length"));
    g_object_class_install_property(object_class, PROP_DPB_OUTPUT_DELAY_LENGTH,
                                    deprecated_length("dpb-output-delay-length"));
    g_object_class_install_property(object_class, PROP_TIME_OFFSET_LENGTH, deprecated_length("time-offset-length"));
    g_object_class_install_property(
        object_class, PROP_DRIFT_CHECK,
        g_param_spec_boolean("drift-check", "Drift check",
                             "Compare the frames counted with the wall clock now and then, and reload the time code "
                             "from the clock when they drift apart by more than a frame. Live pipelines only: "
                             "ignored with a warning otherwise. A change takes effect at the next stream start or "
                             "flush",
                             FALSE, flags));
    g_object_class_install_property(
        object_class, PROP_FRAMES_BEFORE_FIRST_CHECK,
        g_param_spec_uint64("frames-before-first-check", "Frames before the first drift check",
                            "Number of frames counted before the first drift check (later checks come every half "
                            "hour or sooner, as the drift requires); 0 never checks. A change takes effect at the "
                            "next stream start or flush",
                            0, G_MAXUINT64, kDefaultFramesBeforeFirstCheck, flags));
    g_object_class_install_property(
        object_class, PROP_START_TIME_CODE,
        g_param_spec_string("start-time-code", "Start time code",
                            "Label of the first stamped picture with source=start (set alone, it selects source=start), HH:MM:SS:FF (or HH:MM:SS;FF for "
                            "drop-frame rates). A change takes effect at the next stream start or flush",
                            nullptr, flags));
    g_object_class_install_property(
        object_class, PROP_TRACE_FILE,
        g_param_spec_string("trace-file", "Library trace file",
                            "Route QuillaneUtil's trace output (clock synchronisation, drift corrections) to this "
                            "file (at most 63 bytes of path; the library stops writing at 1 MiB); this sets the debug "
                            "output of the whole process. Unset: no trace file, unless the application configured "
                            "one. A change takes effect at the next buffer",
                            nullptr, flags));

    GstCaps* caps = gst_caps_from_string(kCaps);
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(
        element_class, "QuillaneUtil time code stamper", "Codec/Video/Filter",
        "Inserts a clock time code SEI unit (H.264 picture timing, H.265 time code) into every picture, labelled in "
        "presentation order, and attaches the same label as a time code meta",
        "QuillaneUtil developers");
    gst_type_mark_as_plugin_api(source_type(), static_cast<GstPluginAPIFlags>(0));

    trans_class->start = start;
    trans_class->stop = stop;
    trans_class->set_caps = set_caps;
    trans_class->sink_event = sink_event;
    trans_class->query = query;
    trans_class->generate_output = generate_output;
    trans_class->passthrough_on_same_caps = FALSE;
}

static gboolean plugin_init(GstPlugin* plugin) {
    GST_DEBUG_CATEGORY_INIT(quillane_tcstamp_debug, "quillanetcstamp", 0, "QuillaneUtil time code stamper");
    return gst_element_register(plugin, "quillanetcstamp", GST_RANK_NONE, gst_quillane_tcstamp_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, quillanetcstamp,
                  "Clock time code SEI for H.264 and H.265 streams, from QuillaneUtil", plugin_init, QUILLANE_VERSION,
                  "MIT/X11", "QuillaneUtil", "QuillaneUtil")
