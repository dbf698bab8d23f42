#include "au_stamper.h"

#include <algorithm>
#include <cstdio>

namespace tcstamp {

namespace {

bool parse_two_digits(const std::string& t, std::size_t at, int max, int& out) {
    if (at + 2 > t.size() || t[at] < '0' || t[at] > '9' || t[at + 1] < '0' || t[at + 1] > '9') return false;
    out = (t[at] - '0') * 10 + (t[at + 1] - '0');
    return out <= max;
}

// The picture types the library's scanner stops at.
bool scanner_picture(Codec codec, int type) {
    return codec == Codec::h264 ? (type == 1 || type == 5) : (type == 1 || type == 19);
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

std::optional<TimeCode> parse_time_code(const std::string& t) {
    TimeCode tc;
    if (t.size() != 11 || t[2] != ':' || t[5] != ':' || (t[8] != ':' && t[8] != ';')) return std::nullopt;
    if (!parse_two_digits(t, 0, 23, tc.hours) || !parse_two_digits(t, 3, 59, tc.minutes) ||
        !parse_two_digits(t, 6, 59, tc.seconds) || !parse_two_digits(t, 9, 99, tc.frames)) {
        return std::nullopt;
    }
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
    // Until an SPS says otherwise, the widths x264 and most hardware
    // encoders use with HRD parameters.
    c.h264_cpb_removal_delay_length = static_cast<UTIL_U8>(config.cpb_removal_delay_length.value_or(23));
    c.h264_dpb_output_delay_length = static_cast<UTIL_U8>(config.dpb_output_delay_length.value_or(23));
    c.h264_time_offset_length = static_cast<UTIL_U8>(config.time_offset_length.value_or(0));
    return util_ops_pfun->h26x_high_seiTimeCode->init_list(&list_, &c, 1) == 0;
}

void AccessUnitStamper::learn_from_sps(std::span<const std::uint8_t> sps) {
    // The same SPS again teaches nothing new; skipping it keeps the per-frame
    // path free of the parser's allocations.
    if (std::ranges::equal(sps, last_sps_)) return;
    last_sps_.assign(sps.begin(), sps.end());
    const std::optional<HrdLengths> hrd = parse_h264_sps_hrd(sps);
    if (!hrd) return;
    util_h26x_sei_tim_config_param_t& c = list_.ph26xSeiTim[0].config_param;
    if (!config_.cpb_removal_delay_length) c.h264_cpb_removal_delay_length = static_cast<UTIL_U8>(hrd->cpb_removal_delay_length_minus1);
    if (!config_.dpb_output_delay_length) c.h264_dpb_output_delay_length = static_cast<UTIL_U8>(hrd->dpb_output_delay_length_minus1);
    // A time_offset_length of 0 means no offset field at all; the library
    // always writes at least one bit, which readers skip as trailing payload.
    if (!config_.time_offset_length) {
        c.h264_time_offset_length = static_cast<UTIL_U8>(hrd->time_offset_length > 0 ? hrd->time_offset_length - 1 : 0);
    }
    if (warning_.empty() && (!hrd->hrd_present || !hrd->pic_struct_present)) {
        warning_ = std::string("the SPS signals no ") + (hrd->hrd_present ? "pic_struct" : "HRD parameters") +
                   "; decoders will not read the picture timing (encode with HRD parameters and pic_struct)";
    }
}

// The units up to the first picture, for the random-access test: from the
// library's scanner where it can see them (four-byte start codes, a picture
// type it knows, at most seven units), else from the split made here.
void AccessUnitStamper::fill_units(std::span<const std::uint8_t> au, std::size_t picture,
                                   util_h26x_frame_buf_info_t& units) const {
    const Nal& pic = nals_[picture];
    const std::size_t scan_end = std::min(au.size(), pic.offset + 16);  // the slice data is not the scanner's business
    const UTIL_H26X_STREAM_TYPE_ENUM type =
        config_.codec == Codec::h264 ? ENUM_UTIL_H264_STREAM_TYPE : ENUM_UTIL_H265_STREAM_TYPE;
    const bool four_byte_code = pic.offset - pic.sc_begin == 4;
    if (four_byte_code && scanner_picture(config_.codec, pic.type) && picture < 7 && scan_end - pic.sc_begin > 8 &&
        util_ops_pfun->h26x_base->V1_get_hfbi(&units, const_cast<UTIL_UCHAR*>(au.data()),
                                              static_cast<UTIL_S32>(scan_end), type, 0) == 0 &&
        units.list[units.count - 1].position == pic.sc_begin) {
        return;
    }
    units = {};
    const std::size_t n = std::min<std::size_t>(picture + 1, 7);
    for (std::size_t k = 0; k < n; ++k) {
        const Nal& u = nals_[picture + 1 - n + k];
        units.list[k].position = u.sc_begin;
        units.list[k].nalu = au[u.offset];
    }
    units.count = static_cast<UTIL_S32>(n);
}

StampPlan AccessUnitStamper::stamp(std::span<const std::uint8_t> au) {
    StampPlan plan;
    split_nal_units(au, config_.codec, nals_, true);
    std::size_t picture = nals_.size();
    for (std::size_t k = 0; k < nals_.size(); ++k) {
        if (nals_[k].vcl) {
            picture = k;
        } else if (config_.codec == Codec::h264 && nals_[k].type == 7) {
            learn_from_sps(au.subspan(nals_[k].offset, nals_[k].size));
        }
    }
    if (picture == nals_.size() || !started()) return plan;

    util_h26x_frame_buf_info_t units{};
    fill_units(au, picture, units);
    util_h26x_sei_tim_t& ctx = list_.ph26xSeiTim[0];
    const bool was_counting = ctx.init_flag == 1;
    util_ops_pfun->h26x_high_seiTimeCode->running(&ctx, &units);
    if (config_.start && !was_counting) {
        // Until the stream is synchronised, and at that frame, the time code
        // is the configured start instead of the clock's.
        load(ctx.h264_sei, *config_.start);
        load(ctx.h265_sei, *config_.start);
    }
    const UTIL_S32 len = util_ops_pfun->h26x_high_seiTimeCode->get_data(&ctx);
    plan.picture = true;
    plan.insert_at = nals_[picture].sc_begin;
    if (len > 0) plan.sei = std::span<const std::uint8_t>(ctx.data, static_cast<std::size_t>(len));
    return plan;
}

std::string AccessUnitStamper::time_code_text() const {
    if (!started()) return {};
    const util_h26x_sei_tim_t& ctx = context();
    unsigned h, m, s, f, drop;
    if (config_.codec == Codec::h264) {
        const auto& t = ctx.h264_sei;
        h = t.hours_value, m = t.minutes_value, s = t.seconds_value, f = t.n_frames, drop = t.counting_type == 4;
    } else {
        const auto& t = ctx.h265_sei;
        h = t.hours_value, m = t.minutes_value, s = t.seconds_value, f = t.n_frames, drop = t.counting_type == 4;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02u:%02u:%02u%c%02u", h, m, s, drop ? ';' : ':', f);
    return buf;
}

}  // namespace tcstamp
