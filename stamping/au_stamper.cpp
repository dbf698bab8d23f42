#include "au_stamper.h"

#include <algorithm>

#include "h26x/nal.h"

namespace tcstamp {

namespace {

bool parse_two_digits(const std::string& t, std::size_t at, int max, int& out) {
    if (at + 2 > t.size() || t[at] < '0' || t[at] > '9' || t[at + 1] < '0' || t[at + 1] > '9') return false;
    out = (t[at] - '0') * 10 + (t[at + 1] - '0');
    return out <= max;
}

// The units the library's random-access test looks for: parameter sets and
// IDR pictures.
bool library_random_access(Codec codec, int type) {
    return codec == Codec::h264 ? quillane::nal::h264::is_random_access_type(type)
                                : quillane::nal::h265::is_random_access_type(type);
}

template <typename TC>
void load(TC& tc, const TimeCode& t) {
    tc.hours_value = static_cast<unsigned>(t.hours);
    tc.minutes_value = static_cast<unsigned>(t.minutes);
    tc.seconds_value = static_cast<unsigned>(t.seconds);
    tc.n_frames = static_cast<unsigned>(t.frames);
    // The start frame follows no skipped counts, whatever the clock's time
    // was when the library flagged it.
    tc.cnt_dropped_flag = 0;
}

}  // namespace

std::optional<TimeCode> parse_time_code(const std::string& t, bool* drop_frame) {
    TimeCode tc;
    if (t.size() != 11 || t[2] != ':' || t[5] != ':' || (t[8] != ':' && t[8] != ';')) return std::nullopt;
    if (!parse_two_digits(t, 0, 23, tc.hours) || !parse_two_digits(t, 3, 59, tc.minutes) ||
        !parse_two_digits(t, 6, 59, tc.seconds) || !parse_two_digits(t, 9, 99, tc.frames)) {
        return std::nullopt;
    }
    if (drop_frame != nullptr) *drop_frame = t[8] == ';';
    return tc;
}

AccessUnitStamper::~AccessUnitStamper() {
    if (started()) util_ops_pfun->h26x_high_seiTimeCode->exit_list(&list_);
}

bool AccessUnitStamper::start(const StamperConfig& config) {
    config_ = config;
    util_h26x_sei_tim_config_param_t c{};
    c.ntp_enable = UTIL_TRUE;
    c.max_fps_x100 = config.fps_x100;
    c.h26x_type = config.codec == Codec::h264 ? ENUM_UTIL_H264_STREAM_TYPE : ENUM_UTIL_H265_STREAM_TYPE;
    c.timDiffCal_enable = config.drift_check ? 1 : 0;
    c.init_wait_frame_cnts = config.frames_before_first_check;
    c.h264_cpb_removal_delay_length = 23;
    c.h264_dpb_output_delay_length = 23;
    c.h264_time_offset_length = 0;
    return util_ops_pfun->h26x_high_seiTimeCode->init_list(&list_, &c, 1) == 0;
}

void AccessUnitStamper::count(std::span<const std::uint8_t> au, const std::vector<Nal>& nals, std::size_t picture,
                              const std::optional<TimeCode>& label) {
    // The list the library's random-access test walks: the units before the
    // picture that the test looks for, then the picture itself, so that a
    // long run of SEI units cannot push the parameter sets out of the list.
    util_h26x_frame_buf_info_t units{};
    const std::size_t capacity = sizeof units.list / sizeof units.list[0];
    std::size_t n = 0;
    for (std::size_t k = 0; k < picture && n + 1 < capacity; ++k) {
        if (!library_random_access(config_.codec, nals[k].type)) continue;
        units.list[n].position = nals[k].sc_begin;
        units.list[n].nalu = au[nals[k].offset];
        ++n;
    }
    units.list[n].position = nals[picture].sc_begin;
    units.list[n].nalu = au[nals[picture].offset];
    units.count = static_cast<UTIL_S32>(n + 1);

    util_h26x_sei_tim_t& ctx = context();
    util_ops_pfun->h26x_high_seiTimeCode->running(&ctx, &units);
    if (label) {
        load(ctx.h264_sei, *label);
        load(ctx.h265_sei, *label);
        // Counting goes on from the label even where the clock was never
        // set (a camera before its first network time).
        ctx.init_flag = 1;
    }
}

std::span<const std::uint8_t> AccessUnitStamper::build() {
    util_h26x_sei_tim_t& ctx = context();
    const UTIL_S32 len = util_ops_pfun->h26x_high_seiTimeCode->get_data(&ctx);
    if (len <= 0) return {};
    return {ctx.data, static_cast<std::size_t>(len)};
}

TimeCode AccessUnitStamper::label() const {
    const util_h26x_sei_tim_t& ctx = context();
    if (config_.codec == Codec::h264) {
        const auto& t = ctx.h264_sei;
        return {t.hours_value, t.minutes_value, t.seconds_value, t.n_frames};
    }
    const auto& t = ctx.h265_sei;
    return {static_cast<int>(t.hours_value), static_cast<int>(t.minutes_value), static_cast<int>(t.seconds_value),
            static_cast<int>(t.n_frames)};
}

bool AccessUnitStamper::drop_frame() const {
    const util_h26x_sei_tim_t& ctx = context();
    return (config_.codec == Codec::h264 ? ctx.h264_sei.counting_type : ctx.h265_sei.counting_type) == 4;
}

}  // namespace tcstamp
