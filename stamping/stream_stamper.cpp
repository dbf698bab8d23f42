#include "stream_stamper.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "h26x_syntax.h"

namespace tcstamp {

namespace {

constexpr int kH264PicTiming = 1;
constexpr int kH265TimeCode = 136;
constexpr int kH264Sei = 6;
constexpr int kH265PrefixSei = 39;
// Without a reorder window in the stream, as many pictures as a decoded
// picture buffer can hold.
constexpr int kMaxReorder = 16;

bool h265_irap(int type) { return type >= 16 && type <= 23; }
bool h265_rasl(int type) { return type == 8 || type == 9; }
bool h265_radl_or_rasl(int type) { return type >= 6 && type <= 9; }
// Sub-layer non-reference pictures: the even types up to 14.
bool h265_sub_layer_non_reference(int type) { return type <= 14 && type % 2 == 0; }

bool library_random_access_type(Codec codec, int type) {
    return codec == Codec::h264 ? (type == 7 || type == 8 || type == 5) : (type >= 32 && type <= 34) || type == 19;
}

// An end of sequence or of stream closes its access unit, behind the
// picture: its last bytes show it without a walk through the slice data.
bool ends_with_end_of_sequence(std::span<const std::uint8_t> au, Codec codec) {
    std::size_t end = au.size();
    while (end > 0 && au[end - 1] == 0) --end;
    const std::size_t header = codec == Codec::h264 ? 1 : 2;
    if (end < 3 + header || au[end - header - 1] != 1 || au[end - header - 2] != 0 || au[end - header - 3] != 0) {
        return false;
    }
    const std::uint8_t b0 = au[end - header];
    return codec == Codec::h264 ? ((b0 & 0x1F) == 10 || (b0 & 0x1F) == 11)
                                : (((b0 >> 1) & 0x3F) == 36 || ((b0 >> 1) & 0x3F) == 37);
}

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
    struct Unit {
        std::vector<std::uint8_t> au;
        std::uint64_t tag = 0;
        std::optional<TimeCode> first_label;
        std::vector<Nal> nals;
        std::size_t picture = 0;  // index of the first slice in nals
        bool has_picture = false;
        bool shown = false;     // takes a place in display order
        bool eligible = false;  // may be the first stamped picture
        std::int64_t poc = 0;
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
    AccessUnitStamper library;
    std::deque<Unit> units;       // decode order
    std::vector<Unit*> waiting;   // shown pictures not yet given their display place
    std::uint64_t unstamped = 0;
    std::uint64_t stamped = 0;
    bool synced = false;          // the first picture was stamped
    bool failed = false;

    std::array<std::optional<H264Sps>, 32> h264_sps;
    std::array<std::optional<H264Pps>, 256> h264_pps;
    std::array<std::optional<H265Sps>, 16> h265_sps;
    std::array<std::optional<H265Pps>, 64> h265_pps;
    const H264Sps* active_h264 = nullptr;
    const H265Sps* active_h265 = nullptr;
    VuiTiming first_timing;  // of the SPS the stream began with

    bool same_timing(const VuiTiming& t) const {
        return t.present == first_timing.present && t.time_scale == first_timing.time_scale &&
               t.num_units_in_tick == first_timing.num_units_in_tick;
    }

    // Picture order count state, as a decoder keeps it.
    std::int64_t prev_poc_msb = 0;
    std::int64_t prev_poc_lsb = 0;
    std::int64_t decode_count = 0;  // H.264 pic_order_cnt_type 2: display order is decode order
    bool first_picture = true;
    bool after_end_of_sequence = false;
    bool skip_rasl = false;
    std::optional<std::int64_t> last_shown_poc;

    explicit Impl(const StreamOptions& o) : options(o) {}

    bool fail(std::string why) {
        if (!failed) error = std::move(why);
        failed = true;
        return false;
    }

    bool push(std::span<const std::uint8_t> bytes, std::uint64_t tag, std::optional<TimeCode> label);
    bool learn_parameter_sets(Unit& u);
    bool analyse_picture(Unit& u);
    bool start_timing(const VuiTiming& t, bool h264_frame_ticks);
    void scan_sei(Unit& u);
    bool place(Unit& u);
    bool show_next();
    bool stamp(Unit& u);
    void patch_h264(const Unit& u);
    void write_out(Unit& u, std::span<const std::uint8_t> sei);
};

bool StreamStamper::Impl::push(std::span<const std::uint8_t> bytes, std::uint64_t tag,
                               std::optional<TimeCode> label) {
    if (failed) return false;
    Unit& u = units.emplace_back();
    u.au.assign(bytes.begin(), bytes.end());
    u.tag = tag;
    u.first_label = label;
    if (!codec) {
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
    }
    // Slice data is never walked: what stamping needs comes before it.
    split_nal_units(u.au, codec.value_or(Codec::h264), u.nals, true);
    if (!learn_parameter_sets(u)) return false;
    const bool ends_sequence = ends_with_end_of_sequence(u.au, *codec);
    if (!u.has_picture) {
        after_end_of_sequence = after_end_of_sequence || ends_sequence;
        u.ready = true;
        u.out.bytes = std::move(u.au);
        return true;
    }
    if (!analyse_picture(u)) return false;
    after_end_of_sequence = after_end_of_sequence || ends_sequence;
    return place(u);
}

// Parameter sets are kept by id, as decoders keep them; the first picture
// unit ends the walk (its slice header is read by analyse_picture).
bool StreamStamper::Impl::learn_parameter_sets(Unit& u) {
    for (std::size_t k = 0; k < u.nals.size(); ++k) {
        const Nal& n = u.nals[k];
        const std::span<const std::uint8_t> nal(u.au.data() + n.offset, n.size);
        if (n.vcl) {
            u.has_picture = true;
            u.picture = k;
            return true;
        }
        if (*codec == Codec::h264) {
            if (n.type == 7) {
                if (auto s = parse_h264_sps(nal)) h264_sps[static_cast<std::size_t>(s->seq_parameter_set_id)] = *s;
            } else if (n.type == 8) {
                if (auto p = parse_h264_pps(nal)) h264_pps[static_cast<std::size_t>(p->pic_parameter_set_id)] = *p;
            }
        } else {
            if (n.type == 33) {
                if (auto s = parse_h265_sps(nal)) h265_sps[static_cast<std::size_t>(s->sps_seq_parameter_set_id)] = *s;
            } else if (n.type == 34) {
                if (auto p = parse_h265_pps(nal)) h265_pps[static_cast<std::size_t>(p->pps_pic_parameter_set_id)] = *p;
            }
        }
    }
    return true;
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
    if (*codec == Codec::h264) {
        const H264Sps& s = *active_h264;
        st.reorder_window = s.pic_order_cnt_type == 2 ? 0 : s.max_num_reorder_frames >= 0 ? s.max_num_reorder_frames
                                                                                          : kMaxReorder;
    } else {
        st.reorder_window = active_h265->sps_max_num_reorder_pics;
    }
    StamperConfig config;
    config.codec = *codec;
    config.fps_x100 = st.fps_x100;
    config.drift_check = options.drift_check;
    config.frames_before_first_check = options.frames_before_first_check;
    if (!library.start(config)) return fail("out of memory");
    timing = st;
    return true;
}

bool StreamStamper::Impl::analyse_picture(Unit& u) {
    const Nal& pic = u.nals[u.picture];
    const std::span<const std::uint8_t> nal(u.au.data() + pic.offset, pic.size);
    bool idr_or_irap = false;   // starts a new picture order count
    bool intra = false;
    if (*codec == Codec::h264) {
        const std::optional<int> pps_id = h264_slice_pps_id(nal);
        const H264Pps* pps = pps_id && h264_pps[static_cast<std::size_t>(*pps_id)] ? &*h264_pps[static_cast<std::size_t>(*pps_id)] : nullptr;
        const std::optional<H264Sps>* slot = pps ? &h264_sps[static_cast<std::size_t>(pps->seq_parameter_set_id)] : nullptr;
        const H264Sps* sps = slot && *slot ? &**slot : nullptr;
        const std::optional<H264SliceHeader> h = sps ? parse_h264_slice_header(nal, *pps, *sps) : std::nullopt;
        if (!h) {
            // Pictures whose parameter sets never came (a stream cut before
            // them) cannot be decoded: they go out as they came.
            if (synced) return fail("a picture's slice header or its parameter sets cannot be read");
            return true;
        }
        if (!timing) {
            active_h264 = sps;
            if (sps->pic_order_cnt_type == 1) {
                return fail("pictures with pic_order_cnt_type 1 cannot be put in display order; encode with "
                            "pic_order_cnt_type 0 or 2");
            }
            if (!sps->hrd()) {
                return fail("the H.264 SPS carries no HRD parameters, so its picture timing cannot carry the delays "
                            "readers expect; encode with HRD parameters (x264: --nal-hrd vbr)");
            }
            if (!sps->pic_struct_present_flag) {
                return fail("the H.264 SPS does not announce pic_struct, so readers skip clock time codes; encode "
                            "with pic_struct (x264: --pic-struct)");
            }
            if (!start_timing(sps->timing, true)) return false;
        } else if (!same_timing(sps->timing) || !sps->hrd() ||
                   !sps->pic_struct_present_flag || sps->pic_order_cnt_type == 1) {
            return fail("the stream's SPS changes its timing or HRD parameters mid-stream");
        }
        active_h264 = sps;
        if (h->field_pic_flag) {
            return fail("the stream codes fields as separate pictures, which cannot be stamped; encode interlaced "
                        "video as frames (MBAFF, as x264 --tff/--bff does)");
        }
        idr_or_irap = h->idr;
        intra = h->intra();
        if (idr_or_irap || after_end_of_sequence) {
            prev_poc_msb = 0;
            prev_poc_lsb = 0;
            decode_count = 0;
        }
        if (sps->pic_order_cnt_type == 0) {
            const std::int64_t max = std::int64_t{1} << sps->log2_max_pic_order_cnt_lsb;
            const std::int64_t lsb = h->pic_order_cnt_lsb;
            std::int64_t msb = prev_poc_msb;
            if (lsb < prev_poc_lsb && prev_poc_lsb - lsb >= max / 2) {
                msb += max;
            } else if (lsb > prev_poc_lsb && lsb - prev_poc_lsb > max / 2) {
                msb -= max;
            }
            const std::int64_t top = msb + lsb;
            u.poc = std::min(top, top + h->delta_pic_order_cnt_bottom);
            if (h->nal_ref_idc != 0) {
                prev_poc_msb = msb;
                prev_poc_lsb = lsb;
            }
        } else {
            u.poc = decode_count++;
        }
        u.shown = true;
        after_end_of_sequence = false;
    } else {
        const std::optional<int> pps_id = h265_slice_pps_id(nal);
        const H265Pps* pps = pps_id && h265_pps[static_cast<std::size_t>(*pps_id)] ? &*h265_pps[static_cast<std::size_t>(*pps_id)] : nullptr;
        const std::optional<H265Sps>* slot = pps ? &h265_sps[static_cast<std::size_t>(pps->pps_seq_parameter_set_id)] : nullptr;
        const H265Sps* sps = slot && *slot ? &**slot : nullptr;
        const std::optional<H265SliceHeader> h = sps ? parse_h265_slice_header(nal, *pps, *sps) : std::nullopt;
        if (!h) {
            if (synced) return fail("a picture's slice header or its parameter sets cannot be read");
            return true;
        }
        if (!timing) {
            active_h265 = sps;
            if (sps->field_seq_flag) {
                return fail("the stream codes fields as separate pictures (field_seq_flag), which cannot be stamped");
            }
            if (!start_timing(sps->timing, false)) return false;
        } else if (!same_timing(sps->timing) || sps->field_seq_flag) {
            return fail("the stream's SPS changes its timing mid-stream");
        }
        active_h265 = sps;
        const int type = h->nal_unit_type;
        const bool irap = h265_irap(type);
        // An IDR or BLA picture, or a CRA that begins the stream or follows
        // an end of sequence, starts over: its leading RASL pictures refer to
        // pictures the decoder never had, and are not shown.
        const bool no_rasl_output = irap && (type <= 20 || first_picture || after_end_of_sequence);
        idr_or_irap = no_rasl_output;
        intra = irap;
        if (irap) skip_rasl = no_rasl_output;
        const std::int64_t max = std::int64_t{1} << sps->log2_max_pic_order_cnt_lsb;
        const std::int64_t lsb = h->slice_pic_order_cnt_lsb;
        std::int64_t msb = 0;
        if (!no_rasl_output) {
            msb = prev_poc_msb;
            if (lsb < prev_poc_lsb && prev_poc_lsb - lsb >= max / 2) {
                msb += max;
            } else if (lsb > prev_poc_lsb && lsb - prev_poc_lsb > max / 2) {
                msb -= max;
            }
        }
        u.poc = msb + lsb;
        if (h->temporal_id == 0 && !h265_radl_or_rasl(type) && !h265_sub_layer_non_reference(type)) {
            prev_poc_msb = msb;
            prev_poc_lsb = lsb;
        }
        u.shown = h->pic_output_flag && !(h265_rasl(type) && skip_rasl);
        after_end_of_sequence = false;
    }
    first_picture = false;
    if (idr_or_irap) {
        // A new picture order count: everything before it is shown first.
        while (!waiting.empty()) {
            if (!show_next()) return false;
        }
        last_shown_poc.reset();
    }
    const bool random_access_units = std::any_of(u.nals.begin(), u.nals.begin() + static_cast<std::ptrdiff_t>(u.picture) + 1,
                                                 [&](const Nal& n) { return library_random_access_type(*codec, n.type); });
    u.eligible = intra && random_access_units;
    scan_sei(u);
    return true;
}

// Finds the encoder's own picture-timing (H.264) or time-code (H.265)
// messages among the SEI units before the picture, and plans their removal:
// a unit holding nothing else goes, a unit holding other messages too is
// written again without them. The new unit takes the first one's place.
void StreamStamper::Impl::scan_sei(Unit& u) {
    const int sei_type = *codec == Codec::h264 ? kH264Sei : kH265PrefixSei;
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
                                               *active_h264)) {
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

// Puts a picture in the queue for display order, and shows pictures as the
// reorder window allows: once more pictures wait than the window holds, the
// one with the lowest picture order count is next on screen.
bool StreamStamper::Impl::place(Unit& u) {
    if (!timing || !u.shown) {
        // Not a picture we can place (before its parameter sets, or never
        // shown): out as it came.
        ++unstamped;
        u.ready = true;
        u.out.bytes = std::move(u.au);
        return true;
    }
    waiting.push_back(&u);
    while (waiting.size() > static_cast<std::size_t>(timing->reorder_window)) {
        if (!show_next()) return false;
    }
    return true;
}

bool StreamStamper::Impl::show_next() {
    const auto next = std::ranges::min_element(waiting, {}, [](const Unit* w) { return w->poc; });
    Unit& u = **next;
    waiting.erase(next);
    if (last_shown_poc && u.poc <= *last_shown_poc) {
        return fail("the stream reorders pictures further than its reorder window of " +
                    std::to_string(timing->reorder_window) + " pictures allows, so display order cannot be known");
    }
    last_shown_poc = u.poc;
    return stamp(u);
}

bool StreamStamper::Impl::stamp(Unit& u) {
    u.ready = true;
    if (!synced && !u.eligible) {
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
// delays, pic_struct and ct_type, the SPS's field widths. The time offset
// field also carries the zero clock_timestamp_flag bits of the timestamps
// the library does not write (pic_struct 3 to 8 have two or three) and pads
// the message to whole bytes, so readers find every field where the SPS
// puts it and no stray bits follow.
void StreamStamper::Impl::patch_h264(const Unit& u) {
    const H264Sps& sps = *active_h264;
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
    int width = sps.time_offset_length + (h264_num_clock_ts(pic_struct) - 1);
    width += (8 - (fixed + width) % 8) % 8;
    if (width == 0) width = 8;
    // Beyond 32 bits (time_offset_length 31 with field pairs) the offset is
    // cut to fit; no encoder writes offsets that long.
    while (width > 32) width -= 8;
    ctx.config_param.h264_time_offset_length = static_cast<UTIL_U8>(width - 1);
    t.time_offset = 0;
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
    if (impl_->failed) return false;
    while (!impl_->waiting.empty()) {
        if (!impl_->show_next()) return false;
    }
    return true;
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
