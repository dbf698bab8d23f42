// quillanetcstamp: stamps every access unit of an H.264 or H.265 byte stream
// with a clock time code SEI unit built by QuillaneUtil, for camera
// pipelines that already move their encoded video through GStreamer.
//
// The element is a thin shell around tcstamp::AccessUnitStamper, the same
// component the quillane-tcstamp tool uses: the stamper finds where the SEI
// unit goes and runs the library's per-frame pipeline; the element takes its
// configuration from the caps and the properties, copies each access unit
// once into a buffer with room for the SEI unit, and pushes it with the
// input's timestamps, flags and metas.
#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "au_stamper.h"
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
    PROP_MAX_FPS_X100,
    PROP_CPB_REMOVAL_DELAY_LENGTH,
    PROP_DPB_OUTPUT_DELAY_LENGTH,
    PROP_TIME_OFFSET_LENGTH,
    PROP_DRIFT_CHECK,
    PROP_FRAMES_BEFORE_FIRST_CHECK,
    PROP_START_TIME_CODE,
    PROP_TRACE_FILE,
};

constexpr int kFromStream = -1;
// A minute's worth of frames at 25 fps: the first drift check needs a period
// long enough for one frame of drift to mean something.
constexpr guint64 kDefaultFramesBeforeFirstCheck = 1500;
// The library's log path field holds 63 bytes and a terminator.
constexpr std::size_t kMaxTracePath = 63;

struct Settings {
    int max_fps_x100 = 0;  // 0: from the caps
    int cpb_removal_delay_length = kFromStream;
    int dpb_output_delay_length = kFromStream;
    int time_offset_length = kFromStream;
    bool drift_check = false;
    guint64 frames_before_first_check = kDefaultFramesBeforeFirstCheck;
    std::string start_time_code;  // empty: the local clock
    std::string trace_file;       // empty: the library's debug output is left alone
};

// Everything the streaming thread owns. Built in place inside the GObject
// instance, so the per-buffer path allocates nothing of its own.
struct State {
    Settings settings;  // written by the application thread under the object lock
    Settings active;    // the copy taken at start, read by the streaming thread
    std::optional<tcstamp::TimeCode> start;
    tcstamp::Codec codec = tcstamp::Codec::h264;
    int fps_x100 = 0;  // 0 until caps have been accepted
    std::optional<tcstamp::AccessUnitStamper> stamper;
    bool warned_no_picture = false;
    bool warned_stream = false;
    // The last caps refused: a sticky caps event is offered again with every
    // buffer that follows it, and the refusal is worth one error only.
    GstCaps* refused = nullptr;
};

// The library converts the local time with a non-re-entrant call when it
// synchronises a stream with the clock; elements of one process that stamp
// streams on different streaming threads take turns.
GMutex library_clock_lock;

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
    if (st.refused != nullptr && gst_caps_is_equal(st.refused, caps)) return true;
    gst_caps_replace(&st.refused, caps);
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
        case PROP_MAX_FPS_X100: s.max_fps_x100 = g_value_get_int(value); break;
        case PROP_CPB_REMOVAL_DELAY_LENGTH: s.cpb_removal_delay_length = g_value_get_int(value); break;
        case PROP_DPB_OUTPUT_DELAY_LENGTH: s.dpb_output_delay_length = g_value_get_int(value); break;
        case PROP_TIME_OFFSET_LENGTH: s.time_offset_length = g_value_get_int(value); break;
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
        case PROP_MAX_FPS_X100: g_value_set_int(value, s.max_fps_x100); break;
        case PROP_CPB_REMOVAL_DELAY_LENGTH: g_value_set_int(value, s.cpb_removal_delay_length); break;
        case PROP_DPB_OUTPUT_DELAY_LENGTH: g_value_set_int(value, s.dpb_output_delay_length); break;
        case PROP_TIME_OFFSET_LENGTH: g_value_set_int(value, s.time_offset_length); break;
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

// READY -> PAUSED: takes the properties as they are now and checks the ones
// that need no caps, so that a typo fails the state change at once.
gboolean start(GstBaseTransform* trans) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    State& st = self->state;
    GST_OBJECT_LOCK(self);
    st.active = st.settings;
    GST_OBJECT_UNLOCK(self);

    st.start.reset();
    if (!st.active.start_time_code.empty()) {
        st.start = tcstamp::parse_time_code(st.active.start_time_code);
        if (!st.start) {
            GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                              ("start-time-code \"%s\" is not a time code: write HH:MM:SS:FF, or HH:MM:SS;FF",
                               st.active.start_time_code.c_str()),
                              (nullptr));
            return FALSE;
        }
    }
    if (!st.active.trace_file.empty()) {
        if (st.active.trace_file.size() > kMaxTracePath) {
            GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS,
                              ("trace-file \"%s\" is longer than the %zu bytes the library takes for its log path",
                               st.active.trace_file.c_str(), kMaxTracePath),
                              (nullptr));
            return FALSE;
        }
        util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
        attr->fclose_dbglog_fp();  // so that the next trace opens the new path
        attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, st.active.trace_file.c_str(), 1u << 20);
        attr->get()->enType |= UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    }
    st.fps_x100 = 0;
    st.stamper.reset();
    gst_caps_replace(&st.refused, nullptr);
    return TRUE;
}

gboolean stop(GstBaseTransform* trans) noexcept {
    State& st = self_of(trans)->state;
    st.stamper.reset();  // releases the library's context
    st.fps_x100 = 0;
    return TRUE;
}

// The caps give the codec and, unless max-fps-x100 is set, the frame rate.
// A new codec or rate starts a new time code context; the same ones keep
// the running time code through a renegotiation.
gboolean set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps*) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    State& st = self->state;
    if (st.refused != nullptr && gst_caps_is_equal(st.refused, incaps)) return FALSE;  // reported already
    const GstStructure* s = gst_caps_get_structure(incaps, 0);
    const tcstamp::Codec codec =
        gst_structure_has_name(s, "video/x-h265") ? tcstamp::Codec::h265 : tcstamp::Codec::h264;
    // Caps that leave the format or the alignment open pass the templates,
    // but a buffer could then hold a part of an access unit, or several.
    if (!has_string(s, "stream-format", "byte-stream") || !has_string(s, "alignment", "au")) {
        refused_before(st, incaps);
        post_format_error(GST_ELEMENT(self), incaps);
        return FALSE;
    }

    int fps_x100 = st.active.max_fps_x100;
    if (fps_x100 == 0) {
        gint num = 0;
        gint den = 0;
        if (!gst_structure_get_fraction(s, "framerate", &num, &den) || num <= 0 || den <= 0) {
            refused_before(st, incaps);
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                              ("The stream's caps carry no frame rate (or a variable one) and max-fps-x100 is not "
                               "set: the time code needs the frame rate, set max-fps-x100 (e.g. 2997 for 29.97 fps)"),
                              ("caps: %" GST_PTR_FORMAT, incaps));
            return FALSE;
        }
        // 30000/1001 gives 2997, 60000/1001 gives 5994: the rates that count
        // drop frames come out exactly.
        const gint64 x100 = (static_cast<gint64>(num) * 100 + den / 2) / den;
        fps_x100 = x100 > G_MAXINT ? G_MAXINT : static_cast<int>(x100);
    }
    // The library counts frames with the rate rounded to a whole number and
    // carries n_frames in 8 bits (H.264) or 9 bits (H.265).
    const int max_whole = codec == tcstamp::Codec::h264 ? 255 : 511;
    const int whole = fps_x100 > G_MAXINT - 50 ? G_MAXINT : (fps_x100 + 50) / 100;
    if (whole < 1 || whole > max_whole) {
        refused_before(st, incaps);
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
                          ("A frame rate of %d.%02d fps cannot be counted in this time code (1 to %d frames per second)",
                           fps_x100 / 100, fps_x100 % 100, max_whole),
                          ("caps: %" GST_PTR_FORMAT, incaps));
        return FALSE;
    }
    gst_caps_replace(&st.refused, nullptr);
    if (st.stamper && (codec != st.codec || fps_x100 != st.fps_x100)) st.stamper.reset();
    st.codec = codec;
    st.fps_x100 = fps_x100;
    GST_INFO_OBJECT(self, "%s at %d.%02d fps", codec == tcstamp::Codec::h264 ? "H.264" : "H.265", fps_x100 / 100,
                    fps_x100 % 100);
    return TRUE;
}

// A new stream gets a new time code context (and its own warnings), even
// when its caps are the same as the last stream's.
gboolean sink_event(GstBaseTransform* trans, GstEvent* event) noexcept {
    if (GST_EVENT_TYPE(event) == GST_EVENT_STREAM_START) self_of(trans)->state.stamper.reset();
    return GST_BASE_TRANSFORM_CLASS(gst_quillane_tcstamp_parent_class)->sink_event(trans, event);
}

std::optional<int> length_setting(int value) {
    return value == kFromStream ? std::nullopt : std::optional<int>(value);
}

bool start_stamper(GstQuillaneTcstamp* self) {
    State& st = self->state;
    tcstamp::StamperConfig config;
    config.codec = st.codec;
    config.fps_x100 = st.fps_x100;
    config.cpb_removal_delay_length = length_setting(st.active.cpb_removal_delay_length);
    config.dpb_output_delay_length = length_setting(st.active.dpb_output_delay_length);
    config.time_offset_length = length_setting(st.active.time_offset_length);
    config.drift_check = st.active.drift_check;
    config.frames_before_first_check = st.active.frames_before_first_check;
    config.start = st.start;
    st.stamper.emplace();
    st.warned_no_picture = false;
    st.warned_stream = false;
    if (st.stamper->start(config)) return true;
    st.stamper.reset();
    GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("Could not create the time code context (out of memory)"), (nullptr));
    return false;
}

// One access unit in, one out: the input itself when it holds no picture,
// else a copy with the SEI unit in front of the first slice.
GstFlowReturn generate_output(GstBaseTransform* trans, GstBuffer** outbuf) noexcept {
    GstQuillaneTcstamp* self = self_of(trans);
    State& st = self->state;
    *outbuf = nullptr;
    GstBuffer* in = trans->queued_buf;
    trans->queued_buf = nullptr;
    if (in == nullptr) return GST_FLOW_OK;
    if (!st.stamper && !start_stamper(self)) {
        gst_buffer_unref(in);
        return GST_FLOW_ERROR;
    }

    GstMapInfo map;
    if (!gst_buffer_map(in, &map, GST_MAP_READ)) {
        gst_buffer_unref(in);
        GST_ELEMENT_ERROR(self, RESOURCE, READ, ("Could not read an input buffer"), (nullptr));
        return GST_FLOW_ERROR;
    }
    g_mutex_lock(&library_clock_lock);
    const tcstamp::StampPlan plan = st.stamper->stamp(std::span<const std::uint8_t>(map.data, map.size));
    g_mutex_unlock(&library_clock_lock);

    if (!st.warned_stream && !st.stamper->stream_warning().empty()) {
        st.warned_stream = true;
        GST_ELEMENT_WARNING(self, STREAM, FORMAT, ("%s", st.stamper->stream_warning().c_str()), (nullptr));
    }
    if (!plan.picture || plan.sei.empty()) {
        if (!st.warned_no_picture) {
            st.warned_no_picture = true;
            GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                                ("A buffer without a picture unit was passed through without a time code "
                                 "(later ones in this stream are not reported)"),
                                ("%" G_GSIZE_FORMAT " bytes, pts %" GST_TIME_FORMAT, map.size,
                                 GST_TIME_ARGS(GST_BUFFER_PTS(in))));
        }
        gst_buffer_unmap(in, &map);
        *outbuf = in;
        return GST_FLOW_OK;
    }

    GstBuffer* out = gst_buffer_new_allocate(nullptr, map.size + plan.sei.size(), nullptr);
    GstMapInfo omap;
    if (out == nullptr || !gst_buffer_map(out, &omap, GST_MAP_WRITE)) {
        if (out != nullptr) gst_buffer_unref(out);
        gst_buffer_unmap(in, &map);
        gst_buffer_unref(in);
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT, ("Could not allocate an output buffer"), (nullptr));
        return GST_FLOW_ERROR;
    }
    std::memcpy(omap.data, map.data, plan.insert_at);
    std::memcpy(omap.data + plan.insert_at, plan.sei.data(), plan.sei.size());
    std::memcpy(omap.data + plan.insert_at + plan.sei.size(), map.data + plan.insert_at, map.size - plan.insert_at);
    gst_buffer_unmap(out, &omap);
    gst_buffer_unmap(in, &map);
    gst_buffer_copy_into(
        out, in, static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS | GST_BUFFER_COPY_META),
        0, static_cast<gsize>(-1));
    gst_buffer_unref(in);
    *outbuf = out;
    return GST_FLOW_OK;
}

void finalize(GObject* object) noexcept {
    State& st = self_of(object)->state;
    gst_caps_replace(&st.refused, nullptr);
    st.~State();
    G_OBJECT_CLASS(gst_quillane_tcstamp_parent_class)->finalize(object);
}

GParamSpec* length_property(const char* name, const char* nick, const char* blurb) {
    return g_param_spec_int(name, nick, blurb, kFromStream, 31, kFromStream,
                            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY));
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
    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;

    g_object_class_install_property(
        object_class, PROP_MAX_FPS_X100,
        g_param_spec_int("max-fps-x100", "Frame rate x 100",
                         "Frame rate times 100 for counting frames (2500, 2997, 3000, 5994, ...; 2997 and 5994 count "
                         "drop-frame time code). 0: take it from the caps' framerate",
                         0, 100000, 0, flags));
    g_object_class_install_property(
        object_class, PROP_CPB_REMOVAL_DELAY_LENGTH,
        length_property("cpb-removal-delay-length", "H.264 cpb_removal_delay length",
                        "H.264: bit width of cpb_removal_delay minus one, as cpb_removal_delay_length_minus1 of the "
                        "SPS. -1: read it from the stream's SPS (23 until one is seen)"));
    g_object_class_install_property(
        object_class, PROP_DPB_OUTPUT_DELAY_LENGTH,
        length_property("dpb-output-delay-length", "H.264 dpb_output_delay length",
                        "H.264: bit width of dpb_output_delay minus one, as dpb_output_delay_length_minus1 of the "
                        "SPS. -1: read it from the stream's SPS (23 until one is seen)"));
    g_object_class_install_property(
        object_class, PROP_TIME_OFFSET_LENGTH,
        length_property("time-offset-length", "H.264 time_offset length",
                        "H.264: bit width of time_offset minus one (at least one bit is written). -1: from the "
                        "stream's SPS time_offset_length (0 until one is seen)"));
    g_object_class_install_property(
        object_class, PROP_DRIFT_CHECK,
        g_param_spec_boolean("drift-check", "Drift check",
                             "Compare the frames counted with the wall clock now and then, and reload the time code "
                             "from the clock when they drift apart by more than a frame (for live sources)",
                             FALSE, flags));
    g_object_class_install_property(
        object_class, PROP_FRAMES_BEFORE_FIRST_CHECK,
        g_param_spec_uint64("frames-before-first-check", "Frames before the first drift check",
                            "Number of frames counted before the first drift check (later checks come every half "
                            "hour or sooner, as the drift requires); 0 never checks",
                            0, G_MAXUINT64, kDefaultFramesBeforeFirstCheck, flags));
    g_object_class_install_property(
        object_class, PROP_START_TIME_CODE,
        g_param_spec_string("start-time-code", "Start time code",
                            "Time code of the first frame, HH:MM:SS:FF (or HH:MM:SS;FF), counted on from there "
                            "instead of following the local clock. Unset: the local clock",
                            nullptr, flags));
    g_object_class_install_property(
        object_class, PROP_TRACE_FILE,
        g_param_spec_string("trace-file", "Library trace file",
                            "Route QuillaneUtil's trace output (clock synchronisation, drift corrections) to this "
                            "file (at most 63 bytes of path; the library stops writing at 1 MiB); this sets the debug "
                            "output of the whole process. Unset: leave it as the application configured it",
                            nullptr, flags));

    GstCaps* caps = gst_caps_from_string(kCaps);
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_element_class_add_pad_template(element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(
        element_class, "QuillaneUtil time code stamper", "Codec/Video/Filter",
        "Inserts a clock time code SEI unit (H.264 picture timing, H.265 time code) into every access unit",
        "QuillaneUtil developers");

    trans_class->start = start;
    trans_class->stop = stop;
    trans_class->set_caps = set_caps;
    trans_class->sink_event = sink_event;
    trans_class->generate_output = generate_output;
    trans_class->passthrough_on_same_caps = FALSE;
}

static gboolean plugin_init(GstPlugin* plugin) {
    GST_DEBUG_CATEGORY_INIT(quillane_tcstamp_debug, "quillanetcstamp", 0, "QuillaneUtil time code stamper");
    return gst_element_register(plugin, "quillanetcstamp", GST_RANK_NONE, gst_quillane_tcstamp_get_type());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, quillanetcstamp,
                  "Clock time code SEI for H.264 and H.265 streams, from QuillaneUtil", plugin_init, QUILLANE_VERSION,
                  "Proprietary", "QuillaneUtil", "QuillaneUtil")
