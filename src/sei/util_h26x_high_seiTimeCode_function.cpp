// H.26x SEI time code: stream contexts, per-frame counting in step with the
// local clock (with drop-frame counting and a periodic drift check), and the
// SEI NAL unit built for every frame.
#include "util_h26x_high_seiTimeCode_function.h"

#include <sys/time.h>
#include <unistd.h>

#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "core/util_alloc.h"
#include "common/util_common_high_internal.h"
#include "h26x/nal.h"
#include "h26x/util_h26x_base_internal.h"
#include "sei/util_h26x_high_seiTimeCode_internal.h"
#include "core/util_entry_list.h"
#include "core/util_msg.h"
#include "core/util_reentry.h"

using quillane::kSeiDataSize;

namespace {

// While this file exists, the drift check explains itself in the trace.
constexpr const char* kDriftMarker = "/dev/util_h26x_high_seiTimeCode";

bool drift_explained() noexcept { return access(kDriftMarker, F_OK) == 0; }

constexpr UTIL_S32 kH264 = ENUM_UTIL_H264_STREAM_TYPE;
constexpr UTIL_S32 kH265 = ENUM_UTIL_H265_STREAM_TYPE;
constexpr int kCheckPeriodSeconds = 1800;

// The whole frame rate: 2997 counts as 30, 5994 as 60. Rounded in 64 bits, so
// that any rate a caller can configure (up to INT_MAX) has its whole rate.
UTIL_S32 whole_fps(const util_h26x_sei_tim_t* phst) noexcept {
    return static_cast<UTIL_S32>((static_cast<std::int64_t>(phst->config_param.max_fps_x100) + 50) / 100);
}

// The drift rounded to whole frames. A drift too large for an int (a period
// start the caller wrote into the record, a frame counter near its end) is
// out of step all the same: it is held at the int's ends.
int round_drift(float drift) noexcept {
    const double rounded = static_cast<double>(drift) + 0.5;
    if (rounded >= 2147483647.0) return INT_MAX;
    if (rounded <= -2147483648.0) return INT_MIN;
    return static_cast<int>(rounded);
}

bool is_h264(const util_h26x_sei_tim_t* phst) noexcept { return phst->config_param.h26x_type == kH264; }
bool is_h265(const util_h26x_sei_tim_t* phst) noexcept { return phst->config_param.h26x_type == kH265; }

// The counting rules are the same for both codecs' records; only the field
// widths (and so where they wrap) differ.
template <typename TimeCode>
void carry(TimeCode& tc, UTIL_S32 fps) noexcept {
    if (static_cast<std::int64_t>(tc.n_frames) >= fps) {
        tc.seconds_value = tc.seconds_value + 1;
        tc.n_frames = 0;
    }
    if (tc.seconds_value > 59) {
        tc.minutes_value = tc.minutes_value + 1;
        tc.seconds_value = 0;
    }
    if (tc.minutes_value > 59) {
        tc.hours_value = tc.hours_value + 1;
        tc.minutes_value = 0;
    }
    if (tc.hours_value > 23) {
        tc.hours_value = 0;
    }
}

template <typename TimeCode>
void load_clock(TimeCode& tc, const struct tm& tm, UTIL_U32 n_frames) noexcept {
    tc.hours_value = static_cast<unsigned>(tm.tm_hour);
    tc.minutes_value = static_cast<unsigned>(tm.tm_min);
    tc.seconds_value = static_cast<unsigned>(tm.tm_sec);
    tc.n_frames = n_frames;
}

// Runs `fn` on the time code of the stream's codec; unknown codecs have none.
template <typename Fn>
void with_time_code(util_h26x_sei_tim_t* phst, Fn fn) noexcept {
    if (is_h264(phst)) {
        fn(phst->h264_sei);
    } else if (is_h265(phst)) {
        fn(phst->h265_sei);
    }
}

void init_h264(util_h264_sei_timing_t& t) noexcept {
    t = util_h264_sei_timing_t{};
    t.cpb_removal_delay = 0;
    t.dpb_output_delay = 2;
    t.clock_timestamp_flag = 1;
    t.counting_type = 1;
    t.full_timestamp_flag = 1;
    t.time_offset = 1;
}

void init_h265(util_h265_sei_time_code_t& t) noexcept {
    t = util_h265_sei_time_code_t{};
    t.num_clock_ts = 1;
    t.clock_timestamp_flag = 1;
    t.counting_type = 1;
    t.full_timestamp_flag = 1;
}

// The codec's time code as plain numbers, for the traces.
struct ClockView {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
};

ClockView view_time_code(util_h26x_sei_tim_t* phst) noexcept {
    ClockView v;
    with_time_code(phst, [&v](auto& tc) {
        v.hours = static_cast<int>(tc.hours_value);
        v.minutes = static_cast<int>(tc.minutes_value);
        v.seconds = static_cast<int>(tc.seconds_value);
        v.frames = static_cast<int>(tc.n_frames);
    });
    return v;
}

bool is_random_access(const util_h26x_sei_tim_t* phst, UTIL_S32 nalu) noexcept {
    if (is_h264(phst)) return quillane::nal::h264::is_random_access(nalu);
    if (is_h265(phst)) return quillane::nal::h265::is_random_access(nalu);
    return false;
}

}  // namespace

// ---- clock synchronisation, counting and drift ----

UTIL_S32 Func_h26x_high_sei_sync_local_time(util_h26x_sei_tim_t* pSeiTim) noexcept {
    struct tm tm;
    UTIL_U32 usec = 0;
    if (Func_get_local_time(&tm, &usec) != 0) {
        UTIL_TRACE("error: get local time\n");
        return -1;
    }
    // A clock still in 1970 has not been set yet (no network time so far).
    const UTIL_S32 result = tm.tm_year == 70 ? -1 : 0;
    const auto fps = static_cast<UTIL_U32>(whole_fps(pSeiTim));
    const UTIL_U32 n_frames = fps * usec / 1000000u;
    load_clock(pSeiTim->h264_sei, tm, n_frames);
    load_clock(pSeiTim->h265_sei, tm, n_frames);
    return result;
}

UTIL_S32 Func_h26x_high_sei_timing_get_ready_dropped_nframes_func(util_h26x_sei_tim_t* pSeiTim) noexcept {
    switch (pSeiTim->config_param.max_fps_x100) {
        case 2997:
            return 2;
        case 5994:
            return 4;
        default:
            return 0;
    }
}

UTIL_S32 Func_h26x_high_sei_timing_get_dropped_nframes_func(util_h26x_sei_tim_t* pSeiTim) noexcept {
    const UTIL_S32 ready = Func_h26x_high_sei_timing_get_ready_dropped_nframes_func(pSeiTim);
    if (ready == 0) {
        return -1;
    }
    UTIL_U32 n_frames = 0;
    UTIL_U32 seconds = 0;
    UTIL_U32 minutes = 0;
    with_time_code(pSeiTim, [&](auto& tc) {
        n_frames = tc.n_frames;
        seconds = tc.seconds_value;
        minutes = tc.minutes_value;
    });
    return (n_frames == 0 && seconds == 0 && minutes % 10 != 0) ? ready : 0;
}

namespace {

// Takes the time code from the clock again, telling the trace (in the name
// of the drift check at `at`) what it was and what it is now.
void resync_with_clock(util_h26x_sei_tim_t* phst, const quillane::Where& at) noexcept {
    if (!is_h264(phst) && !is_h265(phst)) return;
    const ClockView before = view_time_code(phst);
    if (drift_explained()) {
        UTIL_TRACE_AT(at, "cur time:%02d:%02d:%02d.%02d\n", before.hours, before.minutes, before.seconds,
                      before.frames);
    }
    Func_h26x_high_sei_sync_local_time(phst);
    const ClockView after = view_time_code(phst);
    if (drift_explained()) {
        UTIL_TRACE_AT(at, "sync system time:%02d:%02d:%02d.%02d\n", after.hours, after.minutes, after.seconds,
                      after.frames);
    }
}

}  // namespace

UTIL_S32 Func_h26x_high_correct_tv_sei_sync_local_time_diffence_func(util_h26x_sei_tim_t* phst) noexcept {
    util_h26x_sei_tim_diff_calibrate_t& cal = phst->timDiffCal;
    if (cal.latest_time.tv_sec == 0) {
        gettimeofday(&cal.latest_time, nullptr);
        return 0;
    }
    ++cal.real_frame_cnt;
    if (cal.wait_frame_cnts == 0 || cal.real_frame_cnt % cal.wait_frame_cnts != 0) {
        return 0;
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    // latest_time lives in the caller's record and may hold any value: in 128
    // bits neither the elapsed time nor its product with the rate can
    // overflow, and for every real period they equal the 64-bit results.
    using Wide = __int128;
    const Wide elapsed_ms = (static_cast<Wide>(now.tv_sec) - cal.latest_time.tv_sec) * 1000 +
                            (static_cast<Wide>(now.tv_usec) - cal.latest_time.tv_usec) / 1000;
    // Frames counted beyond what the exact rate (29.97, not 30) expects.
    const Wide product = static_cast<Wide>(phst->config_param.max_fps_x100) * elapsed_ms;
    const float expected = static_cast<float>(product) / 1000.0f / 100.0f;
    const float drift = static_cast<float>(cal.real_frame_cnt) - expected;
    const int diff = round_drift(drift);
    const UTIL_S32 fps = whole_fps(phst);

    if (diff >= -1 && diff <= 1) {
        // In step: look again later, the later the smaller the drift.
        int x = static_cast<int>(drift * 1200.0f);
        if (x < 0) x = -x;
        const int wait = x < kCheckPeriodSeconds ? kCheckPeriodSeconds - x : 1;
        cal.wait_frame_cnts += static_cast<UTIL_U64>(static_cast<std::int64_t>(fps) * wait);
        if (drift_explained()) {
            UTIL_TRACE("data: cnt:%d, diff:%d, ###=:%.3f, wait:%ds\n", static_cast<int>(cal.real_frame_cnt), diff,
                       static_cast<double>(drift), wait);
        }
        return 0;
    }
    // Out of step: take the time from the clock again and start a new period.
    resync_with_clock(phst, UTIL_HERE);
    cal.latest_time = now;
    cal.wait_frame_cnts = static_cast<UTIL_U64>(static_cast<std::int64_t>(fps) * kCheckPeriodSeconds);
    if (drift_explained()) {
        UTIL_TRACE("###warning: cnt:%d, diff:%d, ###=:%.3f, wait:%ds\n", static_cast<int>(cal.real_frame_cnt), diff,
                   static_cast<double>(drift), kCheckPeriodSeconds);
    }
    cal.real_frame_cnt = 0;
    return 1;
}

namespace {

// cpb_removal_delay counts field periods since the last random-access frame
// and should be back at max on the next one. Reported on behalf of the
// operation `where` names.
void advance_cpb_removal_delay(util_h26x_sei_tim_t* phst, UTIL_S32 fps, const quillane::Where& where) noexcept {
    util_h264_sei_timing_t& t = phst->h264_sei;
    const std::int64_t max = static_cast<std::int64_t>(fps) * 2;
    if (phst->init_flag == 0) {
        t.dpb_output_delay = 2;
        t.cpb_removal_delay = static_cast<UTIL_U32>(max);
    } else {
        t.cpb_removal_delay += 2;
        if (t.cpb_removal_delay > max) t.cpb_removal_delay = 2;
    }
    const bool at_max = t.cpb_removal_delay == max;
    const bool idr = phst->idr_flag == UTIL_TRUE;
    if (idr != at_max) {
        UTIL_TRACE_AT(where, "warning, outRange, idr_flag=%d, cpb=%d, max=%d!\n", static_cast<int>(phst->idr_flag),
                      static_cast<int>(t.cpb_removal_delay), static_cast<int>(max));
        if (idr) t.cpb_removal_delay = static_cast<UTIL_U32>(max);
    }
}

}  // namespace

UTIL_S32 Func_h26x_high_sei_set_timing_nframes(util_h26x_sei_tim_t* phst) noexcept {
    static constexpr quillane::Where kHere = UTIL_HERE;  // a constant: built only when it speaks
    const UTIL_S32 fps = whole_fps(phst);
    if (phst->init_flag >= 0) {
        if (phst->config_param.setTimeCode_callback != nullptr) {
            phst->config_param.setTimeCode_callback(phst);
        } else if (is_h264(phst)) {
            advance_cpb_removal_delay(phst, fps, kHere);
        }
        if (is_h264(phst) || is_h265(phst)) {
            if (phst->init_flag == 0) {
                // The first synchronised frame keeps the time just read.
                phst->init_flag = 1;
                UTIL_TRACE("no add one frame\n");
            } else {
                with_time_code(phst, [](auto& tc) { tc.n_frames = tc.n_frames + 1; });
            }
        }
    }
    if (phst->init_flag >= 0 && phst->config_param.timDiffCal_enable == 1) {
        Func_h26x_high_correct_tv_sei_sync_local_time_diffence_func(phst);
    }
    with_time_code(phst, [fps](auto& tc) { carry(tc, fps); });
    if (is_h264(phst)) {
        phst->h264_sei.ct_type = 0;
    }
    const UTIL_S32 dropped = Func_h26x_high_sei_timing_get_dropped_nframes_func(phst);
    if (dropped >= 0) {
        // Drop-frame rates: cnt_dropped_flag marks exactly the frame that
        // follows the skipped counts and is clear on every other frame.
        with_time_code(phst, [dropped](auto& tc) {
            tc.counting_type = 4;
            tc.cnt_dropped_flag = dropped > 0 ? 1 : 0;
            if (dropped > 0) tc.n_frames = static_cast<unsigned>(dropped);
        });
    }
    return 0;
}

namespace {

UTIL_S32 Func_h26x_high_sei_timing_nframes_start_function(util_h26x_sei_tim_t* phst,
                                                          util_h26x_frame_buf_info_t* phfbi) noexcept {
    if (phst == nullptr || phfbi == nullptr) {
        UTIL_TRACE("error: phst or phfbi is NULL!\n");
        return -1;
    }
    phst->idr_flag = UTIL_FALSE;
    // The record has room for 8 entries: V1 fills at most 7 units and the
    // terminator, but a caller may build the record itself, so its count is
    // held to the 8 entries and never read past them.
    constexpr int kEntries =
        static_cast<int>(sizeof(util_h26x_frame_buf_info_t::list) / sizeof(util_h26x_frame_buf_info_t::list[0]));
    const int count = phfbi->count < 0 ? 0 : (phfbi->count > kEntries ? kEntries : phfbi->count);
    for (int k = 0; k < count; ++k) {
        if (is_random_access(phst, phfbi->list[k].nalu)) {
            phst->idr_flag = UTIL_TRUE;
            break;
        }
    }
    if (phst->config_param.ntp_enable == UTIL_FALSE) {
        with_time_code(phst, [](auto& tc) { tc.clock_timestamp_flag = 0; });
        return 0;
    }
    if (phst->init_flag == -1) {
        phst->init_flag = Func_h26x_high_sei_sync_local_time(phst);
        if (phst->idr_flag == UTIL_FALSE) {
            phst->init_flag = -1;
        } else if (phst->init_flag == 0) {
            const ClockView v = view_time_code(phst);
            UTIL_TRACE("sync system time:%02d:%02d:%02d.%02d, flag=%d\n", v.hours, v.minutes, v.seconds, v.frames,
                       static_cast<int>(phst->idr_flag));
        }
    }
    Func_h26x_high_sei_set_timing_nframes(phst);
    return 0;
}

}  // namespace

// ---- the SEI NAL unit ----

namespace {

struct Field {
    UTIL_U32 value;
    int width;
};

// Writes fields most significant bit first into data[first..len-1]; a field
// that would run past the end is cut there. Only configurations with a field
// wider than 32 bits come this way.
class PayloadWriter {
public:
    PayloadWriter(UTIL_UCHAR* data, int first, int len) noexcept : data_(data), first_(first), len_(len) {}

    // Returns the byte index at which the field was cut, or -1 when it fit.
    int put(Field f) noexcept {
        for (int b = f.width - 1; b >= 0; --b) {
            const int index = first_ + bits_ / 8;
            if (index >= len_) {
                return index;
            }
            const unsigned bit = b < 32 ? (f.value >> b) & 1u : 0u;
            const auto mask = static_cast<UTIL_UCHAR>(0x80u >> (bits_ % 8));
            data_[index] = static_cast<UTIL_UCHAR>(bit != 0 ? (data_[index] | mask) : (data_[index] & ~mask));
            ++bits_;
        }
        return -1;
    }

    int bits() const noexcept { return bits_; }

private:
    UTIL_UCHAR* data_;
    int first_;
    int len_;
    int bits_ = 0;
};

inline void store_be32(UTIL_UCHAR* out, std::uint32_t v) noexcept {
    if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
    std::memcpy(out, &v, sizeof v);
}

// Packs fields of at most 32 bits most significant bit first, four whole
// bytes at a time: the fields of one message cost a few shifts each.
class BitPacker {
public:
    explicit BitPacker(UTIL_UCHAR* out) noexcept : out_(out) {}

    // `value` has no bits set at or above `width`.
    void put(std::uint32_t value, int width) noexcept {
        acc_ = (acc_ << width) | value;
        pending_ += width;
        if (pending_ >= 32) {
            pending_ -= 32;
            store_be32(out_, static_cast<std::uint32_t>(acc_ >> pending_));
            out_ += 4;
        }
    }

    // Fills the last byte with zero bits, appends `trailer` and writes out
    // what is left; nothing past the trailer is touched.
    void finish(UTIL_UCHAR trailer) noexcept {
        const int pad = -pending_ & 7;
        acc_ <<= pad;
        pending_ += pad;
        put(trailer, 8);
        while (pending_ > 0) {
            pending_ -= 8;
            *out_++ = static_cast<UTIL_UCHAR>(acc_ >> pending_);
        }
    }

private:
    UTIL_UCHAR* out_;
    std::uint64_t acc_ = 0;  // the low `pending_` bits are still to be written
    int pending_ = 0;        // below 32 between calls
};

// The low `width` bits of `value` (width 0 to 32).
inline std::uint32_t low_bits(std::uint32_t value, int width) noexcept {
    return width >= 32 ? value : value & ((1u << width) - 1u);
}

// ---- the H.264 picture timing payload, described once ----
//
// Its fields in the order they are written. The two delays and time_offset
// take their widths from the configuration; every other width is fixed and
// is that of the bit-field holding the value, so those values need no
// masking. Fields marked `clock` are there only with clock_timestamp_flag.
// Both writers follow this table: the packer for widths of at most 32 bits,
// the bit-by-bit writer beyond.
using H264Timing = util_h264_sei_timing_t;

enum Configured : int { kFixed, kCpbWidth, kDpbWidth, kOffsetWidth };

struct H264Field {
    const char* name;
    int width;  // for kFixed
    Configured configured;
    bool clock;
    UTIL_U32 (*value)(const H264Timing&) noexcept;
};

constexpr H264Field kH264PicTiming[] = {
    {"cpb_removal_delay", 0, kCpbWidth, false,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.cpb_removal_delay; }},
    {"dpb_output_delay", 0, kDpbWidth, false,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.dpb_output_delay; }},
    {"pic_struct", 4, kFixed, false,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.pic_struct; }},
    {"clock_timestamp_flag", 1, kFixed, false,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.clock_timestamp_flag; }},
    {"ct_type", 2, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.ct_type; }},
    {"nuit_field_based_flag", 1, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.nuit_field_based_flag; }},
    {"counting_type", 5, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.counting_type; }},
    {"full_timestamp_flag", 1, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.full_timestamp_flag; }},
    {"discontinuity_flag", 1, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.discontinuity_flag; }},
    {"cnt_dropped_flag", 1, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.cnt_dropped_flag; }},
    {"n_frames", 8, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.n_frames; }},
    {"seconds_value", 6, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.seconds_value; }},
    {"minutes_value", 6, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.minutes_value; }},
    {"hours_value", 5, kFixed, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.hours_value; }},
    {"time_offset", 0, kOffsetWidth, true,
     [](const H264Timing& t) noexcept -> UTIL_U32 { return t.time_offset; }},
};

constexpr std::size_t kH264Fields = std::size(kH264PicTiming);

// The configured widths (the configuration stores each less one).
struct H264Widths {
    int cpb;
    int dpb;
    int offset;

    explicit H264Widths(const util_h26x_sei_tim_config_param_t& c) noexcept
        : cpb(c.h264_cpb_removal_delay_length + 1),
          dpb(c.h264_dpb_output_delay_length + 1),
          offset(c.h264_time_offset_length + 1) {}
    int of(Configured c) const noexcept { return c == kCpbWidth ? cpb : c == kDpbWidth ? dpb : offset; }
    bool packable() const noexcept { return cpb <= 32 && dpb <= 32 && offset <= 32; }
};

constexpr bool present(const H264Field& f, bool clock) noexcept { return clock || !f.clock; }

// Calls fn(field) for every field of the table, each with a constant index,
// so that the table folds away.
template <class Fn>
[[gnu::always_inline]] inline void each_h264_field(Fn&& fn) noexcept {
    [&]<std::size_t... I>(std::index_sequence<I...>) { (fn(std::integral_constant<std::size_t, I>{}), ...); }(
        std::make_index_sequence<kH264Fields>{});
}

// The payload's bits, with or without the clock timestamp.
template <bool Clock>
int h264_payload_bits(const H264Widths& w) noexcept {
    int bits = 0;
    each_h264_field([&](auto i) {
        constexpr H264Field f = kH264PicTiming[i];
        if constexpr (present(f, Clock)) bits += f.configured == kFixed ? f.width : w.of(f.configured);
    });
    return bits;
}

// What the packer puts at once: a configured field alone, or a run of fixed
// fields side by side in one word of at most 32 bits (the most put() takes).
struct H264Run {
    std::size_t first;
    std::size_t last;  // one past
    int width;         // for a run of fixed fields
};

struct H264Runs {
    H264Run run[kH264Fields];
    std::size_t n;
};

template <bool Clock>
constexpr H264Runs h264_runs() noexcept {
    H264Runs out{};
    for (std::size_t i = 0; i < kH264Fields; ++i) {
        const H264Field& f = kH264PicTiming[i];
        if (!present(f, Clock)) continue;
        H264Run* back = out.n > 0 ? &out.run[out.n - 1] : nullptr;
        const bool joins = f.configured == kFixed && back != nullptr && back->last == i &&
                           kH264PicTiming[back->first].configured == kFixed && back->width + f.width <= 32;
        if (joins) {
            back->last = i + 1;
            back->width += f.width;
        } else {
            out.run[out.n++] = {i, i + 1, f.configured == kFixed ? f.width : 0};
        }
    }
    return out;
}

template <bool Clock>
inline constexpr H264Runs kH264Runs = h264_runs<Clock>();

template <bool Clock, std::size_t R>
[[gnu::always_inline]] inline void pack_h264_run(BitPacker& p, const H264Timing& t, const H264Widths& w) noexcept {
    constexpr H264Run run = kH264Runs<Clock>.run[R];
    constexpr H264Field head = kH264PicTiming[run.first];
    if constexpr (head.configured != kFixed) {
        const int width = w.of(head.configured);
        p.put(low_bits(head.value(t), width), width);
    } else {
        std::uint32_t word = 0;
        [&]<std::size_t... I>(std::index_sequence<I...>) {
            ((word = word << kH264PicTiming[run.first + I].width | kH264PicTiming[run.first + I].value(t)), ...);
        }(std::make_index_sequence<run.last - run.first>{});
        p.put(word, run.width);
    }
}

template <bool Clock>
void pack_h264_as(UTIL_UCHAR* d, const H264Timing& t, const H264Widths& w) noexcept {
    BitPacker p(d + 7);
    [&]<std::size_t... R>(std::index_sequence<R...>) { (pack_h264_run<Clock, R>(p, t, w), ...); }(
        std::make_index_sequence<kH264Runs<Clock>.n>{});
    p.finish(0x80);
}

// H.264 picture timing payload and trailing byte from data[7], for widths
// the packer takes.
void pack_h264(UTIL_UCHAR* d, const H264Timing& t, const H264Widths& w) noexcept {
    if (t.clock_timestamp_flag != 0) {
        pack_h264_as<true>(d, t, w);
    } else {
        pack_h264_as<false>(d, t, w);
    }
}

// The H.264 payload's fields one by one, for the bit-by-bit writer.
int h264_rows(const util_h26x_sei_tim_t* pstSei, Field* rows) noexcept {
    const H264Timing& t = pstSei->h264_sei;
    const H264Widths w(pstSei->config_param);
    int n = 0;
    for (const H264Field& f : kH264PicTiming) {
        if (present(f, t.clock_timestamp_flag != 0)) {
            rows[n++] = {f.value(t), f.configured == kFixed ? f.width : w.of(f.configured)};
        }
    }
    return n;
}

// H.265 time code payload and trailing byte from data[8].
void pack_h265(UTIL_UCHAR* d, const util_h265_sei_time_code_t& t) noexcept {
    BitPacker p(d + 8);
    p.put(static_cast<std::uint32_t>(t.num_clock_ts) << 1 | t.clock_timestamp_flag, 3);
    if (t.clock_timestamp_flag != 0) {
        p.put(static_cast<std::uint32_t>(t.nuits_field_based_flag) << 17 |
                  static_cast<std::uint32_t>(t.counting_type) << 12 |
                  static_cast<std::uint32_t>(t.full_timestamp_flag) << 11 |
                  static_cast<std::uint32_t>(t.discontinuity_flag) << 10 | t.cnt_dropped_flag << 9 | t.n_frames,
              18);
        p.put(t.seconds_value << 16 | t.minutes_value << 10 | t.hours_value << 5 | t.time_offset_length, 22);
        const int w_offset = static_cast<int>(t.time_offset_length);
        p.put(low_bits(t.time_offset_value, w_offset), w_offset);
    }
    p.finish(0x80);
}

// Start code and NAL unit header; the byte after the header (payloadSize for
// H.264, payloadType for H.265) is part of the eight as well.
using quillane::nal::kStartCode;
constexpr UTIL_UCHAR kH264Head[8] = {kStartCode[0], kStartCode[1], kStartCode[2], kStartCode[3],
                                     quillane::nal::h264::kSeiHeader, ENUM_UTIL_H264_FRAME_SEI_PAYLOAD_TYPE_PIC_TIMING,
                                     0, 0};
constexpr UTIL_UCHAR kH265Head[8] = {
    kStartCode[0], kStartCode[1], kStartCode[2], kStartCode[3], quillane::nal::h265::kSeiHeader[0],
    quillane::nal::h265::kSeiHeader[1], static_cast<UTIL_UCHAR>(ENUM_UTIL_H265_FRAME_PREFIX_SEI_PAYLOAD_TYPE_TIME_CODE),
    0};

// Bits of the H.265 message's fixed fields: num_clock_ts and
// clock_timestamp_flag, then the rest of the clock timestamp without
// time_offset_value.
constexpr int kH265Head3 = 3;
constexpr int kH265Clock = 40;

// The head of the message and its payloadSize cell, per codec.
struct SeiLayout {
    int size_cell;  // offset of payloadSize
    bool clock;
    int total;  // bits of the payload's fields
};

template <bool H264>
[[gnu::always_inline]] inline SeiLayout lay_out_head(util_h26x_sei_tim_t* pstSei) noexcept {
    UTIL_UCHAR* d = pstSei->data;
    if constexpr (H264) {
        std::memcpy(d, kH264Head, sizeof kH264Head);
        const bool clock = pstSei->h264_sei.clock_timestamp_flag != 0;
        const H264Widths w(pstSei->config_param);
        return {6, clock, clock ? h264_payload_bits<true>(w) : h264_payload_bits<false>(w)};
    } else {
        util_h265_sei_time_code_t& t = pstSei->h265_sei;
        t.time_offset_length = t.counting_type != 0 ? 21 : 0;
        std::memcpy(d, kH265Head, sizeof kH265Head);
        const bool clock = t.clock_timestamp_flag != 0;
        return {7, clock, kH265Head3 + (clock ? kH265Clock + static_cast<int>(t.time_offset_length) : 0)};
    }
}

// The H.264 payload bit by bit, for widths above 32 bits, where payloadSize
// wraps and fields are cut at the message's end; returns the bits written.
// A cut is reported on behalf of the operation `where` names.
[[gnu::cold, gnu::noinline]] int write_h264_rows(util_h26x_sei_tim_t* pstSei, int size_cell, int payload_size,
                                                 const quillane::Where& where) noexcept {
    UTIL_UCHAR* d = pstSei->data;
    // Bits past the last field stay zero, so a frame's bytes never depend
    // on what the previous frame left in the buffer.
    std::memset(d + size_cell + 1, 0, static_cast<std::size_t>(payload_size));
    Field rows[kH264Fields];
    const int nrows = h264_rows(pstSei, rows);
    PayloadWriter writer(d, size_cell + 1, pstSei->data_len);
    for (int r = 0; r < nrows; ++r) {
        const int cut_at = writer.put(rows[r]);
        if (cut_at >= 0) {
            UTIL_TRACE_AT(where, "error: outrange data array, index=%d, len=%d\n", cut_at, pstSei->data_len);
        }
    }
    d[pstSei->data_len - 1] = 0x80;  // rbsp stop bit
    return writer.bits();
}

// The whole message of one codec, written apart for each so that every
// step folds to that codec's constants; traces speak for `where`.
template <bool H264>
void write_message(util_h26x_sei_tim_t* pstSei, const quillane::Where& where) noexcept {
    const SeiLayout m = lay_out_head<H264>(pstSei);
    const int sum = m.total & 0xFF;  // the payloadSize cell is one byte
    if (m.clock && sum % 8 != 0) {
        UTIL_TRACE_AT(where, "warning, not alin of 8, pstSei->data[%d]=%d\n", m.size_cell, sum);
    }
    const int payload_size = (sum + 7) / 8;
    pstSei->data[m.size_cell] = static_cast<UTIL_UCHAR>(payload_size);
    pstSei->data_len = payload_size + m.size_cell + 2;

    int bits_written = m.total;
    if constexpr (!H264) {
        pack_h265(pstSei->data, pstSei->h265_sei);
    } else if (const H264Widths w(pstSei->config_param); w.packable()) {
        // At most 137 bits: the payloadSize cell holds the whole count.
        pack_h264(pstSei->data, pstSei->h264_sei, w);
    } else {
        bits_written = write_h264_rows(pstSei, m.size_cell, payload_size, where);
    }
    if (m.clock && (bits_written % 8 != 0 || bits_written != payload_size * 8)) {
        UTIL_TRACE_AT(where, "error, bits=%d\n", bits_written);
    }
}

}  // namespace

UTIL_S32 Func_h26x_high_sei_getDataFromSeiTiming(util_h26x_sei_tim_t* pstSei) noexcept {
    // A constant, so that no frame spends time on it unless it traces.
    static constexpr quillane::Where kHere = UTIL_HERE;
    if (is_h264(pstSei)) {
        write_message<true>(pstSei, kHere);
    } else if (is_h265(pstSei)) {
        write_message<false>(pstSei, kHere);
    }
    return 0;
}

namespace {

using quillane::load16;
using quillane::Mask16;

// Records k unless a 03 goes in front of the byte before it: that 03 breaks
// the run of zeros in front of k.
inline void add_point(int k, int& last, int* points, int& n) noexcept {
    if (k != last + 1) points[n++] = last = k;
}

}  // namespace

int quillane::sei_emulation_points(const UTIL_UCHAR* d, int len, int* points) noexcept {
    // Byte k needs a 03 in front when it is 00 to 03 and bytes k-2 and k-1
    // are 00. The start code's own zeros do not count, so k begins at 6.
    // Sixteen candidates at a time: byte k beside the bytes one and two
    // places before it, read as shifted blocks.
    int n = 0;
    int last = -2;
    int k = 6;
    for (; k < len && k + 16 <= kSeiDataSize; k += 16) {
        const Mask16 hit =
            ((load16(d + k) & 0xFC) == 0) & (load16(d + k - 1) == 0) & (load16(d + k - 2) == 0);
        std::uint64_t half[2];
        std::memcpy(half, &hit, sizeof half);
        // Lanes at or past the end of the message do not count.
        const int lanes = len - k;
        if (lanes < 16) {
            if (lanes <= 8) {
                half[0] &= lanes == 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * lanes)) - 1;
                half[1] = 0;
            } else {
                half[1] &= (std::uint64_t{1} << (8 * (lanes - 8))) - 1;
            }
        }
        for (int h = 0; h < 2; ++h) {
            std::uint64_t bits = half[h] & 0x8080808080808080ull;  // one bit per lane
            while (bits != 0) {
                add_point(k + 8 * h + __builtin_ctzll(bits) / 8, last, points, n);
                bits &= bits - 1;
            }
        }
    }
    // The last few bytes of a full buffer, where a block would reach past it.
    for (; k < len; ++k) {
        if (d[k] <= 3 && d[k - 1] == 0 && d[k - 2] == 0) add_point(k, last, points, n);
    }
    return n;
}

UTIL_S32 Func_h26x_high_sei_get_tim_buf_data(util_h26x_sei_tim_t* pstSei) noexcept {
    if (pstSei == nullptr) {
        return -1;
    }
    Func_h26x_high_sei_getDataFromSeiTiming(pstSei);
    // Emulation prevention over everything after the start code: no two zero
    // bytes may be followed by 00, 01, 02 or 03 inside a NAL unit. The 03s go
    // in from the back, so every byte moves once and only when it must.
    const int len = pstSei->data_len < kSeiDataSize ? pstSei->data_len : kSeiDataSize;
    int points[kSeiDataSize / 2];
    const int count = quillane::sei_emulation_points(pstSei->data, len, points);
    if (count == 0) {
        pstSei->data_len = len < 4 ? 4 : len;
        return pstSei->data_len;
    }
    if (len + count > kSeiDataSize) {
        return -1;
    }
    UTIL_UCHAR* d = pstSei->data;
    int end = len;
    for (int e = count - 1; e >= 0; --e) {
        const int k = points[e];
        std::memmove(d + k + e + 1, d + k, static_cast<std::size_t>(end - k));
        d[k + e] = 0x03;
        end = k;
    }
    pstSei->data_len = len + count;
    return pstSei->data_len;
}

namespace {

UTIL_S32 Func_h26x_high_sei_video_fill_timecode_function(util_h26x_sei_tim_t* phst) noexcept {
    const UTIL_S32 rc = Func_h26x_high_sei_get_tim_buf_data(phst);
    if (rc >= 0) {
        return rc;
    }
    UTIL_TRACE("error, Func_h26x_high_sei_get_tim_buf_data:%d\n", rc);
    return -1;
}

// ---- the list of contexts ----

// The callbacks that init_list calls may adjust their fresh context but not
// release or rebuild the list being made, whose array init_list still fills:
// such a call is refused with -1, in the name of the operation at `at`.
bool refused_from_callback(quillane::Where at, const util_list_h26x_sei_tim_t* phstList) noexcept {
    if (!quillane::reentry::covered(phstList)) return false;
    UTIL_TRACE_AT(at, "error: phstList is in use by a setTimeCode_callback!\n");
    return true;
}

UTIL_S32 Func_h26x_high_sei_timing_exit_list_function(util_list_h26x_sei_tim_t* phstList) noexcept {
    if (phstList == nullptr) {
        UTIL_TRACE("error: phstList is NULL!\n");
        return -1;
    }
    if (refused_from_callback(UTIL_HERE, phstList)) return -1;
    // A context owns nothing beyond itself.
    return quillane::entry_list::release(UTIL_HERE, phstList->ph26xSeiTim, phstList->h26xSeiTimMax,
                                         [](util_h26x_sei_tim_t*, UTIL_S32) {});
}

UTIL_S32 Func_h26x_high_sei_timing_init_list_function(util_list_h26x_sei_tim_t* phstList,
                                                      util_h26x_sei_tim_config_param_t* phstcp,
                                                      UTIL_S32 hstcpMax) noexcept {
    if (phstList == nullptr || phstcp == nullptr || hstcpMax <= 0) {
        UTIL_TRACE("error: phstList or phstcp is NULL, max:%d!!!\n", hstcpMax);
        return -1;
    }
    if (refused_from_callback(UTIL_HERE, phstList)) return -1;
    if (phstList->ph26xSeiTim != nullptr) {
        Func_h26x_high_sei_timing_exit_list_function(phstList);
    }
    util_h26x_sei_tim_t* contexts = quillane::entry_list::allocate(UTIL_HERE, phstList->ph26xSeiTim,
                                                                   phstList->h26xSeiTimMax, hstcpMax, "stcp");
    if (contexts == nullptr) return -1;
    const quillane::reentry::Scope busy(phstList);
    for (UTIL_S32 i = 0; i < hstcpMax; ++i) {
        util_h26x_sei_tim_t& ctx = contexts[i];
        ctx.config_param = phstcp[i];
        ctx.init_flag = -1;
        ctx.idr_flag = UTIL_FALSE;
        init_h264(ctx.h264_sei);
        init_h265(ctx.h265_sei);
        ctx.timDiffCal.wait_frame_cnts = phstcp[i].init_wait_frame_cnts;
        if (ctx.config_param.setTimeCode_callback != nullptr) {
            UTIL_TRACE("setTimeCode_callback[%d];%p\n", i, reinterpret_cast<void*>(ctx.config_param.setTimeCode_callback));
            ctx.config_param.setTimeCode_callback(&ctx);
        }
    }
    return 0;
}

}  // namespace

util_ops_h26x_high_seiTimeCode_fun_t util_ops_h26x_high_seiTimeCode_fun = {
    Func_h26x_high_sei_video_fill_timecode_function,
    Func_h26x_high_sei_timing_nframes_start_function,
    Func_h26x_high_sei_timing_init_list_function,
    Func_h26x_high_sei_timing_exit_list_function,
};
