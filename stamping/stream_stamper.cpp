#include "stream_stamper.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "h26x/nal.h"
#include "h26x_syntax.h"
#include "picture_order.h"

namespace tcstamp {

namespace {

constexpr int kH264PicTiming = 1;
constexpr int kH265TimeCode = 136;
const char* codec_name(Codec c) { return c == Codec::h264 ? "H.264" : "H.265"; }

std::string rate_text(int fps_x100) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%d.%02d fps", fps_x100 / 100, fps_x100 % 100);
    return buf;
}

int drop_count(int fps_x100) { return fps_x100 == 2997 ? 2 : fps_x100 == 5994 ? 4 : 0; }

}  // namespace

std::string time_code_text(const TimeCode& t, bool drop_frame) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d%c%02d", t.hours, t.minutes, t.seconds, drop_frame ? ';' : ':',
                  t.frames);
    return buf;
}

bool label_exists(const TimeCode& t, int fps_x100) {
    const int whole = (fps_x100 + 50) / 100;
    if (t.frames >= whole) return false;
    return !(t.seconds == 0 && t.minutes % 10 != 0 && t.frames < drop_count(fps_x100));
}

struct StreamStamper::Impl {
    // One access unit between push() and pop().
    struct Unit : OrderedUnit {
        std::uint64_t tag = 0;
        std::optional<TimeCode> first_label;
        H264PicTiming encoder;  // what the encoder's own picture timing said
        // Byte ranges of `au` that go out replaced (removed when empty), in
        // order, and where the new SEI unit goes.
        struct Edit {
            std::size_t begin;
            std::size_t end;
            std::vector<std::uint8_t> bytes;
        };
        std::vector<Edit> edits;
        std::size_t insert_at = 0;
        bool ready = false;
        StampedUnit out;
    };

    StreamOptions options;
    std::string error;
    std::optional<StreamTiming> timing;
    std::optional<Codec> codec;
    std::optional<PictureOrder> order;
    AccessUnitStamper library;
    std::deque<Unit> units;  // decode order
    std::vector<OrderedUnit*> shown;
    std::uint64_t unstamped = 0;
    std::uint64_t stamped = 0;
    bool synced = false;  // the first picture was stamped
    bool failed = false;
    VuiTiming first_timing;  // of the SPS the stream began with

    explicit Impl(const StreamOptions& o) : options(o) {}

    bool fail(std::string why) {
        if (!failed) error = std::move(why);
        failed = true;
        return false;
    }
    bool same_timing(const VuiTiming& t) const {
        return t.present == first_timing.present && t.time_scale == first_timing.time_scale &&
               t.num_units_in_tick == first_timing.num_units_in_tick;
    }

    bool push(std::span<const std::uint8_t> bytes, std::uint64_t tag, std::optional<TimeCode> label);
    bool check_stream(const Unit& u);
    bool start_timing(const VuiTiming& t, bool h264_frame_ticks);
    void scan_sei(Unit& u);
    bool stamp_shown();
    bool stamp(Unit& u);
    void patch_h264(const Unit& u);
    void write_out(Unit& u, std::span<const std::uint8_t> sei);
    void pass_through(Unit& u) {
        u.ready = true;
        u.out.bytes = std::move(u.au);
    }
};

bool StreamStamper::Impl::push(std::span<const std::uint8_t> bytes, std::uint64_t tag,
                               std::optional<TimeCode> label) {
    if (failed) return false;
    Unit& u = units.emplace_back();
    u.au.assign(bytes.begin(), bytes.end());
    u.tag = tag;
    u.first_label = label;
    if (!order) {
        split_nal_units(u.au, Codec::h264, u.nals, true);
        const std::optional<Codec> seen = codec_of(u.au, u.nals);
        if (seen && options.codec && *seen != *options.codec) {
            return fail(std::string("the stream is ") + codec_name(*seen) + ", not " + codec_name(*options.codec));
        }
        codec = seen ? seen : options.codec;
        if (!codec && !u.nals.empty()) {
            return fail("the stream begins with no parameter set, delimiter or SEI unit that tells H.264 from "
                        "H.265: give the codec");
        }
        if (!codec) {
            pass_through(u);
            return true;
        }
        order.emplace(codec);
    }
    if (!order->analyse(u, shown) || !stamp_shown()) return fail(order->error());
    if (!u.has_picture) {
        pass_through(u);
        return true;
    }
    if (u.readable && !check_stream(u)) return false;
    if (!timing || !u.readable || !u.shown) {
        // Not a picture we can place (before its parameter sets, or never
        // shown): out as it came.
        ++unstamped;
        pass_through(u);
        return true;
    }
    scan_sei(u);
    if (!order->place(u, shown)) return fail(order->error());
    return stamp_shown();
}

bool StreamStamper::Impl::stamp_shown() {
    for (OrderedUnit* p : shown) {
        if (!stamp(static_cast<Unit&>(*p))) {
            shown.clear();
            return false;
        }
    }
    shown.clear();
    return true;
}

// What stamping needs of the stream, checked at its first readable picture
// and kept to after it.
bool StreamStamper::Impl::check_stream(const Unit& u) {
    if (*codec == Codec::h264) {
        const H264Sps& sps = *u.h264;
        if (timing) {
            if (!same_timing(sps.timing) || !sps.hrd() || !sps.pic_struct_present_flag) {
                return fail("the stream's SPS changes its timing or HRD parameters mid-stream");
            }
            return true;
        }
        if (!sps.hrd()) {
            return fail("the H.264 SPS carries no HRD parameters, so its picture timing cannot carry the delays "
                        "readers expect; encode with HRD parameters (x264: --nal-hrd vbr)");
        }
        if (!sps.pic_struct_present_flag) {
            return fail("the H.264 SPS does not announce pic_struct, so readers skip clock time codes; encode with "
                        "pic_struct (x264: --pic-struct)");
        }
        return start_timing(sps.timing, true);
    }
    if (timing) {
        if (!same_timing(u.h265->timing)) return fail("the stream's SPS changes its timing mid-stream");
        return true;
    }
    return start_timing(u.h265->timing, false);
}

// Frame rate and reorder window from the first picture's SPS, checked
// against what the caller asked for.
bool StreamStamper::Impl::start_timing(const VuiTiming& t, bool h264_frame_ticks) {
    StreamTiming st;
    st.codec = *codec;
    first_timing = t;
    if (t.present && t.num_units_in_tick > 0 && t.time_scale > 0) {
        // H.264 counts ticks in fields: a frame lasts two of them.
        const std::uint64_t per = std::uint64_t{t.num_units_in_tick} * (h264_frame_ticks ? 2 : 1);
        const std::uint64_t x100 = (std::uint64_t{t.time_scale} * 100 + per / 2) / per;
        st.fps_x100 = static_cast<int>(std::min<std::uint64_t>(x100, INT_MAX));
        st.from_stream = true;
        if (options.fps_x100 && std::abs(*options.fps_x100 - st.fps_x100) > 1) {
            return fail("the frame rate " + rate_text(*options.fps_x100) + " conflicts with the stream's own " +
                        rate_text(st.fps_x100));
        }
    } else if (options.fps_x100) {
        st.fps_x100 = *options.fps_x100;
    } else {
        return fail("the stream carries no frame rate (no timing information in its SPS): give the frame rate");
    }
    const int whole = (st.fps_x100 + 50) / 100;
    const int max_whole = *codec == Codec::h264 ? 255 : 511;
    if (st.fps_x100 < 50 || whole > max_whole) {
        return fail("a frame rate of " + rate_text(st.fps_x100) + " cannot be counted in a time code");
    }
    if (options.start) {
        if (options.start_drop_frame && drop_count(st.fps_x100) == 0) {
            return fail("the start label " + time_code_text(*options.start, true) + " asks for drop-frame counting, "
                        "which " + rate_text(st.fps_x100) + " does not use (write HH:MM:SS:FF)");
        }
        if (!label_exists(*options.start, st.fps_x100)) {
            return fail("the start label " + time_code_text(*options.start, drop_count(st.fps_x100) != 0) +
                        " does not exist at " + rate_text(st.fps_x100) +
                        (drop_count(st.fps_x100) != 0 ? " with drop-frame counting" : ""));
        }
    }
    st.reorder_window = order->reorder_window().value_or(0);
    StamperConfig config;
    config.codec = *codec;
    config.fps_x100 = st.fps_x100;
    config.drift_check = options.drift_check;
    config.frames_before_first_check = options.frames_before_first_check;
    if (!library.start(config)) return fail("out of memory");
    timing = st;
    return true;
}

// Finds the encoder's own picture-timing (H.264) or time-code (H.265)
// messages among the SEI units before the picture, and plans their removal:
// a unit holding nothing else goes, a unit holding other messages too is
// written again without them. The new unit takes the first one's place.
void StreamStamper::Impl::scan_sei(Unit& u) {
    const int sei_type = *codec == Codec::h264 ? quillane::nal::h264::kSei : quillane::nal::h265::kPrefixSei;
    const int target = *codec == Codec::h264 ? kH264PicTiming : kH265TimeCode;
    const std::size_t header = *codec == Codec::h264 ? 1 : 2;
    std::optional<std::size_t> insert_at;
    for (std::size_t k = 0; k < u.picture; ++k) {
        const Nal& n = u.nals[k];
        if (n.type != sei_type || n.size <= header) continue;
        const std::span<const std::uint8_t> nal(u.au.data() + n.offset, n.size);
        const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(header));
        const std::optional<std::vector<SeiMessage>> messages = parse_sei_messages(rbsp);
        if (!messages) continue;
        const auto is_target = [&](const SeiMessage& m) { return m.payload_type == target; };
        const auto found = std::ranges::find_if(*messages, is_target);
        if (found == messages->end()) continue;
        if (*codec == Codec::h264 && !u.encoder.pic_struct && !u.encoder.cpb_removal_delay) {
            if (auto t = parse_h264_pic_timing(std::span(rbsp).subspan(found->payload, found->end - found->payload),
                                               *u.h264)) {
                u.encoder = *t;
            }
        }
        const std::size_t next = k + 1 < u.nals.size() ? u.nals[k + 1].sc_begin : u.au.size();
        if (std::ranges::all_of(*messages, is_target)) {
            u.edits.push_back({n.sc_begin, next, {}});
            if (!insert_at) insert_at = n.sc_begin;
            continue;
        }
        std::vector<std::uint8_t> kept;
        for (const SeiMessage& m : *messages) {
            if (!is_target(m)) kept.insert(kept.end(), rbsp.begin() + static_cast<std::ptrdiff_t>(m.begin),
                                           rbsp.begin() + static_cast<std::ptrdiff_t>(m.end));
        }
        kept.push_back(0x80);  // rbsp_trailing_bits
        Unit::Edit e{n.offset, n.offset + n.size, std::vector<std::uint8_t>(nal.begin(), nal.begin() + static_cast<std::ptrdiff_t>(header))};
        escape_into(kept, e.bytes);
        u.edits.push_back(std::move(e));
        if (!insert_at) insert_at = next;
    }
    u.insert_at = insert_at.value_or(u.nals[u.picture].sc_begin);
}

bool StreamStamper::Impl::stamp(Unit& u) {
    u.ready = true;
    if (!synced && !(u.intra && u.random_access_units)) {
        // Shown before the first random-access picture: no time code can be
        // counted back to it without holding the whole group of pictures.
        ++unstamped;
        u.out.bytes = std::move(u.au);
        return true;
    }
    std::optional<TimeCode> label;
    if (!synced) label = u.first_label ? u.first_label : options.start;
    library.count(u.au, u.nals, u.picture, label);
    if (!library.counting()) {
        return fail("the local clock is not set (it shows 1970), so the time code has nothing to start from: give "
                    "a start label");
    }
    synced = true;
    if (*codec == Codec::h264) {
        patch_h264(u);
    } else {
        // GStreamer's parsers count n_frames in field units unless this flag
        // is set, FFmpeg's do not look at it: with it set both read the
        // label as written.
        library.context().h265_sei.nuits_field_based_flag = 1;
    }
    const std::span<const std::uint8_t> sei = library.build();
    if (sei.empty()) return fail("the library built no SEI unit");
    u.out.stamped = true;
    u.out.label = library.label();
    u.out.drop_frame = library.drop_frame();
    u.out.display_index = stamped++;
    write_out(u, sei);
    return true;
}

// What the stream says overrides the library's defaults: the encoder's
// delays, pic_struct and ct_type, the SPS's field widths. The library writes
// one clock timestamp and its time offset, then fills the last byte with
// zeros; a message must instead end its payload with a one bit and zeros up
// to the byte boundary (strict readers refuse it otherwise). So the time
// offset field the library writes is made wider and carries, after the
// SPS's time_offset_length bits of offset, the zero clock_timestamp_flag
// bits of the timestamps the library does not write (pic_struct 3 to 8 have
// two or three), then that one bit and its zeros.
void StreamStamper::Impl::patch_h264(const Unit& u) {
    const H264Sps& sps = *u.h264;
    util_h26x_sei_tim_t& ctx = library.context();
    util_h264_sei_timing_t& t = ctx.h264_sei;
    ctx.config_param.h264_cpb_removal_delay_length = static_cast<UTIL_U8>(sps.cpb_removal_delay_length_minus1);
    ctx.config_param.h264_dpb_output_delay_length = static_cast<UTIL_U8>(sps.dpb_output_delay_length_minus1);
    if (u.encoder.cpb_removal_delay) t.cpb_removal_delay = *u.encoder.cpb_removal_delay;
    if (u.encoder.dpb_output_delay) t.dpb_output_delay = *u.encoder.dpb_output_delay;
    const int pic_struct = u.encoder.pic_struct.value_or(0);
    t.pic_struct = static_cast<UTIL_U8>(pic_struct);
    // Fields and field pairs are interlaced content, frames progressive,
    // unless the encoder said otherwise.
    const bool fields = pic_struct >= 1 && pic_struct <= 6;
    t.ct_type = static_cast<UTIL_U8>(u.encoder.ct_type.value_or(fields ? 1 : 0));
    // A tick of the H.264 clock is a field period: n_frames counts frames
    // only with this flag set (GStreamer's parser halves it otherwise).
    t.nuit_field_based_flag = 1;
    const int fixed = (sps.cpb_removal_delay_length_minus1 + 1) + (sps.dpb_output_delay_length_minus1 + 1) + 41;
    const int content = sps.time_offset_length + (h264_num_clock_ts(pic_struct) - 1);
    // An already whole payload takes no alignment bits, but the library
    // writes at least one bit of offset: then a whole byte of them follows.
    int alignment = (8 - (fixed + content) % 8) % 8;
    if (content == 0 && alignment == 0) alignment = 8;
    int width = content + alignment;
    // Beyond 32 bits (time_offset_length 31 with field pairs) the offset is
    // cut to fit; no encoder writes offsets that long.
    while (width > 32) width -= 8;
    ctx.config_param.h264_time_offset_length = static_cast<UTIL_U8>(width - 1);
    t.time_offset = alignment > 0 && alignment <= width ? UTIL_U32{1} << (alignment - 1) : 0;
}

void StreamStamper::Impl::write_out(Unit& u, std::span<const std::uint8_t> sei) {
    std::vector<std::uint8_t>& out = u.out.bytes;
    out.reserve(u.au.size() + sei.size());
    std::size_t pos = 0;
    bool inserted = false;
    const auto copy_until = [&](std::size_t to) {
        if (!inserted && u.insert_at >= pos && u.insert_at <= to) {
            out.insert(out.end(), u.au.begin() + static_cast<std::ptrdiff_t>(pos),
                       u.au.begin() + static_cast<std::ptrdiff_t>(u.insert_at));
            out.insert(out.end(), sei.begin(), sei.end());
            inserted = true;
            pos = u.insert_at;
        }
        out.insert(out.end(), u.au.begin() + static_cast<std::ptrdiff_t>(pos),
                   u.au.begin() + static_cast<std::ptrdiff_t>(to));
        pos = to;
    };
    for (const Unit::Edit& e : u.edits) {
        copy_until(e.begin);
        out.insert(out.end(), e.bytes.begin(), e.bytes.end());
        pos = e.end;
    }
    copy_until(u.au.size());
    u.au = {};
}

StreamStamper::StreamStamper(const StreamOptions& options) : impl_(std::make_unique<Impl>(options)) {}
StreamStamper::~StreamStamper() = default;

bool StreamStamper::push(std::span<const std::uint8_t> au, std::uint64_t tag, std::optional<TimeCode> first_label) {
    return impl_->push(au, tag, first_label);
}

bool StreamStamper::finish() {
    Impl& m = *impl_;
    if (m.failed) return false;
    if (m.order && (!m.order->flush(m.shown) || !m.stamp_shown())) return m.fail(m.order->error());
    return !m.failed;
}

std::optional<StampedUnit> StreamStamper::pop() {
    if (impl_->units.empty() || !impl_->units.front().ready) return std::nullopt;
    Impl::Unit& u = impl_->units.front();
    StampedUnit out = std::move(u.out);
    out.tag = u.tag;
    if (!out.stamped && out.bytes.empty()) out.bytes = std::move(u.au);
    impl_->units.pop_front();
    return out;
}

const std::string& StreamStamper::error() const { return impl_->error; }
const std::optional<StreamTiming>& StreamStamper::timing() const { return impl_->timing; }
std::size_t StreamStamper::held() const { return impl_->units.size(); }
std::uint64_t StreamStamper::unstamped_pictures() const { return impl_->unstamped; }

}  // namespace tcstamp
