#include "h26x_syntax.h"

#include <algorithm>

#include "h26x/nal.h"
#include "util_function.h"

namespace tcstamp {

namespace {

// Reads an RBSP through the library's own bit reader. Reading past the end
// marks the reader failed and yields zeros, so a cut-short structure is
// noticed once, at the end, instead of at every field.
class Bits {
public:
    explicit Bits(std::span<const std::uint8_t> rbsp) : d_(rbsp) {}
    bool ok() const { return ok_; }
    std::size_t position() const { return pos_; }
    std::uint32_t u(int n) {
        if (n == 0 || !ok_) return 0;
        if (pos_ + static_cast<std::size_t>(n) > d_.size() * 8) {
            // Past the end: fail quietly, without asking the library's reader
            // (which would report it on the console).
            ok_ = false;
            return 0;
        }
        UTIL_U32 v = 0;
        const int byte = static_cast<int>(pos_ / 8);
        const auto bit = static_cast<UTIL_S8>(7 - pos_ % 8);
        if (util_ops_pfun->h26x_base->readBitsToU32(const_cast<UTIL_U8*>(d_.data()), byte, bit,
                                                    static_cast<int>(d_.size()), static_cast<UTIL_U8>(n), &v) != 0) {
            ok_ = false;
            return 0;
        }
        pos_ += static_cast<std::size_t>(n);
        return v;
    }
    bool flag() { return u(1) != 0; }
    std::uint32_t ue() {
        int zeros = 0;
        while (ok_ && u(1) == 0) {
            if (++zeros > 31) ok_ = false;
        }
        if (!ok_) return 0;
        return zeros == 0 ? 0 : static_cast<std::uint32_t>((std::uint64_t{1} << zeros) - 1 + u(zeros));
    }
    // ue() for values that index tables or count loops: anything above
    // `max` marks the structure broken.
    int ue_max(std::uint32_t max) {
        const std::uint32_t v = ue();
        if (v > max) ok_ = false;
        return ok_ ? static_cast<int>(v) : 0;
    }
    std::int32_t se() {
        const std::uint32_t k = ue();
        return (k & 1) ? static_cast<std::int32_t>((k + 1) / 2) : -static_cast<std::int32_t>(k / 2);
    }
    void skip(int n) {
        while (n > 0 && ok_) {
            const int step = std::min(n, 32);
            u(step);
            n -= step;
        }
    }

private:
    std::span<const std::uint8_t> d_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

// Parameter sets and slice headers are short; a generous cap keeps a broken
// unit from costing more than its header's worth.
constexpr std::size_t kHeaderBytes = 4096;

void h264_scaling_list(Bits& b, int size) {
    int last_scale = 8;
    int next_scale = 8;
    for (int j = 0; j < size && b.ok(); ++j) {
        if (next_scale != 0) {
            const std::int32_t delta_scale = b.se();
            // Modulo 256 in unsigned arithmetic: a broken SPS may code a
            // delta far outside -128..127.
            next_scale = static_cast<std::uint8_t>(static_cast<std::uint32_t>(last_scale) +
                                                   static_cast<std::uint32_t>(delta_scale));
        }
        last_scale = next_scale == 0 ? last_scale : next_scale;
    }
}

struct HrdLengths {
    int cpb_removal_delay_length_minus1 = 23;
    int dpb_output_delay_length_minus1 = 23;
    int time_offset_length = 24;
};

HrdLengths h264_hrd_parameters(Bits& b) {
    HrdLengths h;
    const int cpb_cnt_minus1 = b.ue_max(31);
    b.u(4);  // bit_rate_scale
    b.u(4);  // cpb_size_scale
    for (int i = 0; i <= cpb_cnt_minus1 && b.ok(); ++i) {
        b.ue();  // bit_rate_value_minus1
        b.ue();  // cpb_size_value_minus1
        b.u(1);  // cbr_flag
    }
    b.u(5);  // initial_cpb_removal_delay_length_minus1
    h.cpb_removal_delay_length_minus1 = static_cast<int>(b.u(5));
    h.dpb_output_delay_length_minus1 = static_cast<int>(b.u(5));
    h.time_offset_length = static_cast<int>(b.u(5));
    return h;
}

// Fields both standards' VUI begin with.
void vui_aspect_overscan_signal_chroma(Bits& b) {
    if (b.flag()) {                    // aspect_ratio_info_present_flag
        if (b.u(8) == 255) b.skip(32);  // aspect_ratio_idc Extended_SAR: sar_width, sar_height
    }
    if (b.flag()) b.u(1);  // overscan_info_present_flag, overscan_appropriate_flag
    if (b.flag()) {        // video_signal_type_present_flag
        b.u(3);            // video_format
        b.u(1);            // video_full_range_flag
        if (b.flag()) b.skip(24);  // colour_description_present_flag: primaries, transfer, matrix
    }
    if (b.flag()) {  // chroma_loc_info_present_flag
        b.ue();      // chroma_sample_loc_type_top_field
        b.ue();      // chroma_sample_loc_type_bottom_field
    }
}

VuiTiming vui_timing(Bits& b) {
    VuiTiming t;
    t.present = b.flag();
    if (t.present) {
        t.num_units_in_tick = b.u(32);
        t.time_scale = b.u(32);
    }
    return t;
}

void h264_vui_parameters(Bits& b, H264Sps& s) {
    vui_aspect_overscan_signal_chroma(b);
    s.timing = vui_timing(b);
    if (s.timing.present) b.u(1);  // fixed_frame_rate_flag
    s.nal_hrd_parameters_present_flag = b.flag();
    HrdLengths lengths;
    if (s.nal_hrd_parameters_present_flag) lengths = h264_hrd_parameters(b);
    s.vcl_hrd_parameters_present_flag = b.flag();
    if (s.vcl_hrd_parameters_present_flag) {
        const HrdLengths vcl = h264_hrd_parameters(b);
        if (!s.nal_hrd_parameters_present_flag) lengths = vcl;
    }
    s.cpb_removal_delay_length_minus1 = lengths.cpb_removal_delay_length_minus1;
    s.dpb_output_delay_length_minus1 = lengths.dpb_output_delay_length_minus1;
    s.time_offset_length = lengths.time_offset_length;
    if (s.hrd()) b.u(1);  // low_delay_hrd_flag
    s.pic_struct_present_flag = b.flag();
    s.bitstream_restriction_flag = b.flag();
    if (s.bitstream_restriction_flag) {
        b.u(1);  // motion_vectors_over_pic_boundaries_flag
        b.ue();  // max_bytes_per_pic_denom
        b.ue();  // max_bits_per_mb_denom
        b.ue();  // log2_max_mv_length_horizontal
        b.ue();  // log2_max_mv_length_vertical
        s.max_num_reorder_frames = b.ue_max(16);
        b.ue();  // max_dec_frame_buffering
    }
}

bool h264_high_profile(int profile_idc) {
    constexpr int kHigh[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::ranges::find(kHigh, profile_idc) != std::end(kHigh);
}

// profile_tier_level(1, sps_max_sub_layers_minus1)
void h265_profile_tier_level(Bits& b, int max_sub_layers_minus1) {
    // general_profile_space .. general_inbld/reserved flag: 88 bits, then
    // general_level_idc.
    b.skip(88);
    b.u(8);
    bool sub_layer_profile_present[8] = {};
    bool sub_layer_level_present[8] = {};
    for (int i = 0; i < max_sub_layers_minus1; ++i) {
        sub_layer_profile_present[i] = b.flag();
        sub_layer_level_present[i] = b.flag();
    }
    if (max_sub_layers_minus1 > 0) {
        for (int i = max_sub_layers_minus1; i < 8; ++i) b.u(2);  // reserved_zero_2bits
    }
    for (int i = 0; i < max_sub_layers_minus1; ++i) {
        if (sub_layer_profile_present[i]) b.skip(88);
        if (sub_layer_level_present[i]) b.u(8);  // sub_layer_level_idc
    }
}

void h265_scaling_list_data(Bits& b) {
    for (int size_id = 0; size_id < 4 && b.ok(); ++size_id) {
        for (int matrix_id = 0; matrix_id < 6 && b.ok(); matrix_id += size_id == 3 ? 3 : 1) {
            if (!b.flag()) {  // scaling_list_pred_mode_flag
                b.ue();       // scaling_list_pred_matrix_id_delta
                continue;
            }
            const int coef_num = std::min(64, 1 << (4 + (size_id << 1)));
            if (size_id > 1) b.se();  // scaling_list_dc_coef_minus8
            for (int i = 0; i < coef_num && b.ok(); ++i) b.se();  // scaling_list_delta_coef
        }
    }
}

// st_ref_pic_set(idx) as coded in the SPS; returns its NumDeltaPocs, which
// a later set predicted from it needs.
int h265_st_ref_pic_set(Bits& b, int idx, const std::vector<int>& num_delta_pocs) {
    const bool inter_ref_pic_set_prediction_flag = idx != 0 && b.flag();
    if (inter_ref_pic_set_prediction_flag) {
        b.u(1);  // delta_rps_sign
        b.ue();  // abs_delta_rps_minus1
        // In the SPS the reference is always the set just before.
        const int ref = num_delta_pocs[static_cast<std::size_t>(idx - 1)];
        int count = 0;
        for (int j = 0; j <= ref && b.ok(); ++j) {
            const bool used_by_curr_pic_flag = b.flag();
            const bool use_delta_flag = used_by_curr_pic_flag || b.flag();
            count += use_delta_flag ? 1 : 0;
        }
        return count;
    }
    const int num_negative_pics = b.ue_max(16);
    const int num_positive_pics = b.ue_max(16);
    for (int i = 0; i < num_negative_pics + num_positive_pics && b.ok(); ++i) {
        b.ue();  // delta_poc_s0_minus1 / delta_poc_s1_minus1
        b.u(1);  // used_by_curr_pic_s0_flag / used_by_curr_pic_s1_flag
    }
    return num_negative_pics + num_positive_pics;
}

void h265_vui_parameters(Bits& b, H265Sps& s) {
    vui_aspect_overscan_signal_chroma(b);
    b.u(1);  // neutral_chroma_indication_flag
    s.field_seq_flag = b.flag();
    b.u(1);            // frame_field_info_present_flag
    if (b.flag()) {    // default_display_window_flag
        for (int i = 0; i < 4; ++i) b.ue();  // def_disp_win_*_offset
    }
    s.timing = vui_timing(b);
    // The rest (HRD, bitstream restriction) is not needed for stamping.
}

}  // namespace

std::vector<std::uint8_t> unescape(std::span<const std::uint8_t> nal, std::size_t limit) {
    std::vector<std::uint8_t> out;
    out.reserve(std::min(nal.size(), limit));
    quillane::nal::unescape(nal.data(), nal.size(), limit, [&out](std::uint8_t b) { out.push_back(b); });
    return out;
}

void escape_into(std::span<const std::uint8_t> rbsp, std::vector<std::uint8_t>& out) {
    quillane::nal::escape(rbsp.data(), rbsp.size(), [&out](std::uint8_t b) { out.push_back(b); });
}

std::optional<H264Sps> parse_h264_sps(std::span<const std::uint8_t> nal) {
    if (nal.size() < 4) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(1), kHeaderBytes);
    Bits b(rbsp);
    H264Sps s;
    s.profile_idc = static_cast<int>(b.u(8));
    b.u(8);  // constraint_set0..5_flag, reserved_zero_2bits
    b.u(8);  // level_idc
    s.seq_parameter_set_id = b.ue_max(31);
    if (h264_high_profile(s.profile_idc)) {
        const int chroma_format_idc = b.ue_max(3);
        if (chroma_format_idc == 3) s.separate_colour_plane_flag = b.flag();
        b.ue();  // bit_depth_luma_minus8
        b.ue();  // bit_depth_chroma_minus8
        b.u(1);  // qpprime_y_zero_transform_bypass_flag
        if (b.flag()) {  // seq_scaling_matrix_present_flag
            for (int i = 0; i < (chroma_format_idc != 3 ? 8 : 12) && b.ok(); ++i) {
                if (b.flag()) h264_scaling_list(b, i < 6 ? 16 : 64);  // seq_scaling_list_present_flag[i]
            }
        }
    }
    s.log2_max_frame_num = b.ue_max(12) + 4;
    s.pic_order_cnt_type = b.ue_max(2);
    if (s.pic_order_cnt_type == 0) {
        s.log2_max_pic_order_cnt_lsb = b.ue_max(12) + 4;
    } else if (s.pic_order_cnt_type == 1) {
        b.u(1);  // delta_pic_order_always_zero_flag
        b.se();  // offset_for_non_ref_pic
        b.se();  // offset_for_top_to_bottom_field
        const int num_ref_frames_in_pic_order_cnt_cycle = b.ue_max(255);
        for (int i = 0; i < num_ref_frames_in_pic_order_cnt_cycle && b.ok(); ++i) b.se();  // offset_for_ref_frame
    }
    b.ue();  // max_num_ref_frames
    b.u(1);  // gaps_in_frame_num_value_allowed_flag
    b.ue();  // pic_width_in_mbs_minus1
    b.ue();  // pic_height_in_map_units_minus1
    s.frame_mbs_only_flag = b.flag();
    if (!s.frame_mbs_only_flag) b.u(1);  // mb_adaptive_frame_field_flag
    b.u(1);                              // direct_8x8_inference_flag
    if (b.flag()) {                      // frame_cropping_flag
        for (int i = 0; i < 4; ++i) b.ue();  // frame_crop_*_offset
    }
    if (b.flag()) h264_vui_parameters(b, s);  // vui_parameters_present_flag
    if (!b.ok()) return std::nullopt;
    return s;
}

std::optional<H264Pps> parse_h264_pps(std::span<const std::uint8_t> nal) {
    if (nal.size() < 2) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(1), 16);
    Bits b(rbsp);
    H264Pps p;
    p.pic_parameter_set_id = b.ue_max(255);
    p.seq_parameter_set_id = b.ue_max(31);
    b.u(1);  // entropy_coding_mode_flag
    p.bottom_field_pic_order_in_frame_present_flag = b.flag();
    if (!b.ok()) return std::nullopt;
    return p;
}

std::optional<int> h264_slice_pps_id(std::span<const std::uint8_t> nal) {
    if (nal.size() < 2) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(1), 16);
    Bits b(rbsp);
    b.ue();  // first_mb_in_slice
    b.ue();  // slice_type
    const int id = b.ue_max(255);
    if (!b.ok()) return std::nullopt;
    return id;
}

std::optional<H264SliceHeader> parse_h264_slice_header(std::span<const std::uint8_t> nal, const H264Pps& pps,
                                                       const H264Sps& sps) {
    if (nal.size() < 2) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(1), 64);
    Bits b(rbsp);
    H264SliceHeader h;
    h.nal_ref_idc = (nal[0] >> 5) & 3;
    h.idr = quillane::nal::h264::type(nal[0]) == quillane::nal::h264::kIdr;
    h.first_mb_in_slice = static_cast<int>(b.ue());
    h.slice_type = b.ue_max(9);
    h.pic_parameter_set_id = b.ue_max(255);
    if (sps.separate_colour_plane_flag) b.u(2);  // colour_plane_id
    h.frame_num = static_cast<int>(b.u(sps.log2_max_frame_num));
    if (!sps.frame_mbs_only_flag) {
        h.field_pic_flag = b.flag();
        if (h.field_pic_flag) h.bottom_field_flag = b.flag();
    }
    if (h.idr) b.ue();  // idr_pic_id
    if (sps.pic_order_cnt_type == 0) {
        h.pic_order_cnt_lsb = static_cast<int>(b.u(sps.log2_max_pic_order_cnt_lsb));
        if (pps.bottom_field_pic_order_in_frame_present_flag && !h.field_pic_flag) {
            h.delta_pic_order_cnt_bottom = b.se();
        }
    }
    if (!b.ok()) return std::nullopt;
    return h;
}

int h264_num_clock_ts(int pic_struct) {
    constexpr int kNumClockTs[9] = {1, 1, 1, 2, 2, 3, 3, 2, 3};
    return pic_struct >= 0 && pic_struct < 9 ? kNumClockTs[pic_struct] : 0;
}

namespace {

// clock_timestamp() after its flag, the same in both standards but for
// H.264's ct_type in front and the width of n_frames.
ClockTimestamp clock_timestamp(Bits& b, bool h264, int time_offset_length) {
    ClockTimestamp c;
    if (h264) c.ct_type = static_cast<int>(b.u(2));
    c.field_based = b.flag();
    c.counting_type = static_cast<int>(b.u(5));
    c.full_timestamp = b.flag();
    c.discontinuity = b.flag();
    c.cnt_dropped = b.flag();
    c.n_frames = static_cast<int>(b.u(h264 ? 8 : 9));
    if (c.full_timestamp) {
        c.seconds = static_cast<int>(b.u(6));
        c.minutes = static_cast<int>(b.u(6));
        c.hours = static_cast<int>(b.u(5));
    } else if (b.flag()) {  // seconds_flag
        c.seconds = static_cast<int>(b.u(6));
        if (b.flag()) {  // minutes_flag
            c.minutes = static_cast<int>(b.u(6));
            if (b.flag()) c.hours = static_cast<int>(b.u(5));  // hours_flag
        }
    }
    if (!h264) time_offset_length = static_cast<int>(b.u(5));
    b.skip(time_offset_length);  // time_offset / time_offset_value
    return c;
}

}  // namespace

std::optional<H264PicTiming> parse_h264_pic_timing(std::span<const std::uint8_t> payload, const H264Sps& sps) {
    Bits b(payload);
    H264PicTiming t;
    if (sps.hrd()) {
        t.cpb_removal_delay = b.u(sps.cpb_removal_delay_length_minus1 + 1);
        t.dpb_output_delay = b.u(sps.dpb_output_delay_length_minus1 + 1);
    }
    if (sps.pic_struct_present_flag) {
        t.pic_struct = static_cast<int>(b.u(4));
        const int num_clock_ts = h264_num_clock_ts(*t.pic_struct);
        for (int i = 0; i < num_clock_ts && b.ok() && !t.clock; ++i) {
            if (b.flag()) t.clock = clock_timestamp(b, true, sps.time_offset_length);  // clock_timestamp_flag[i]
        }
        if (t.clock) t.ct_type = t.clock->ct_type;
    }
    if (!b.ok()) return std::nullopt;
    return t;
}

std::optional<ClockTimestamp> parse_h265_time_code(std::span<const std::uint8_t> payload) {
    Bits b(payload);
    const int num_clock_ts = static_cast<int>(b.u(2));
    std::optional<ClockTimestamp> first;
    for (int i = 0; i < num_clock_ts && b.ok(); ++i) {
        if (!b.flag()) continue;  // clock_timestamp_flag[i]
        const ClockTimestamp c = clock_timestamp(b, false, 0);
        if (!first) first = c;
    }
    if (!b.ok()) return std::nullopt;
    return first;
}

// Reads the syntax elements in the order the SPS carries them, up to the
// ones stamping needs; cut into pieces it would no longer read as one table.
std::optional<H265Sps> parse_h265_sps(std::span<const std::uint8_t> nal) {
    if (nal.size() < 4) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(2), kHeaderBytes);
    Bits b(rbsp);
    H265Sps s;
    b.u(4);  // sps_video_parameter_set_id
    const int sps_max_sub_layers_minus1 = static_cast<int>(b.u(3));
    b.u(1);  // sps_temporal_id_nesting_flag
    h265_profile_tier_level(b, sps_max_sub_layers_minus1);
    s.sps_seq_parameter_set_id = b.ue_max(15);
    const int chroma_format_idc = b.ue_max(3);
    if (chroma_format_idc == 3) s.separate_colour_plane_flag = b.flag();
    b.ue();          // pic_width_in_luma_samples
    b.ue();          // pic_height_in_luma_samples
    if (b.flag()) {  // conformance_window_flag
        for (int i = 0; i < 4; ++i) b.ue();  // conf_win_*_offset
    }
    b.ue();  // bit_depth_luma_minus8
    b.ue();  // bit_depth_chroma_minus8
    s.log2_max_pic_order_cnt_lsb = b.ue_max(12) + 4;
    const bool sps_sub_layer_ordering_info_present_flag = b.flag();
    for (int i = sps_sub_layer_ordering_info_present_flag ? 0 : sps_max_sub_layers_minus1;
         i <= sps_max_sub_layers_minus1 && b.ok(); ++i) {
        b.ue();  // sps_max_dec_pic_buffering_minus1
        s.sps_max_num_reorder_pics = b.ue_max(16);
        b.ue();  // sps_max_latency_increase_plus1
    }
    b.ue();  // log2_min_luma_coding_block_size_minus3
    b.ue();  // log2_diff_max_min_luma_coding_block_size
    b.ue();  // log2_min_luma_transform_block_size_minus2
    b.ue();  // log2_diff_max_min_luma_transform_block_size
    b.ue();  // max_transform_hierarchy_depth_inter
    b.ue();  // max_transform_hierarchy_depth_intra
    if (b.flag()) {                             // scaling_list_enabled_flag
        if (b.flag()) h265_scaling_list_data(b);  // sps_scaling_list_data_present_flag
    }
    b.u(1);          // amp_enabled_flag
    b.u(1);          // sample_adaptive_offset_enabled_flag
    if (b.flag()) {  // pcm_enabled_flag
        b.u(4);      // pcm_sample_bit_depth_luma_minus1
        b.u(4);      // pcm_sample_bit_depth_chroma_minus1
        b.ue();      // log2_min_pcm_luma_coding_block_size_minus3
        b.ue();      // log2_diff_max_min_pcm_luma_coding_block_size
        b.u(1);      // pcm_loop_filter_disabled_flag
    }
    const int num_short_term_ref_pic_sets = b.ue_max(64);
    std::vector<int> num_delta_pocs;
    for (int i = 0; i < num_short_term_ref_pic_sets && b.ok(); ++i) {
        num_delta_pocs.push_back(h265_st_ref_pic_set(b, i, num_delta_pocs));
    }
    if (b.flag()) {  // long_term_ref_pics_present_flag
        const int num_long_term_ref_pics_sps = b.ue_max(32);
        for (int i = 0; i < num_long_term_ref_pics_sps && b.ok(); ++i) {
            b.u(s.log2_max_pic_order_cnt_lsb);  // lt_ref_pic_poc_lsb_sps
            b.u(1);                             // used_by_curr_pic_lt_sps_flag
        }
    }
    b.u(1);                                   // sps_temporal_mvp_enabled_flag
    b.u(1);                                   // strong_intra_smoothing_enabled_flag
    if (b.flag()) h265_vui_parameters(b, s);  // vui_parameters_present_flag
    if (!b.ok()) return std::nullopt;
    return s;
}

std::optional<H265Pps> parse_h265_pps(std::span<const std::uint8_t> nal) {
    if (nal.size() < 3) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(2), 16);
    Bits b(rbsp);
    H265Pps p;
    p.pps_pic_parameter_set_id = b.ue_max(63);
    p.pps_seq_parameter_set_id = b.ue_max(15);
    p.dependent_slice_segments_enabled_flag = b.flag();
    p.output_flag_present_flag = b.flag();
    p.num_extra_slice_header_bits = static_cast<int>(b.u(3));
    if (!b.ok()) return std::nullopt;
    return p;
}

std::optional<int> h265_slice_pps_id(std::span<const std::uint8_t> nal) {
    if (nal.size() < 3) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(2), 16);
    Bits b(rbsp);
    const int type = quillane::nal::h265::type(nal[0]);
    b.u(1);                       // first_slice_segment_in_pic_flag
    if (quillane::nal::h265::is_irap(type)) b.u(1);  // no_output_of_prior_pics_flag
    const int id = b.ue_max(63);
    if (!b.ok()) return std::nullopt;
    return id;
}

std::optional<H265SliceHeader> parse_h265_slice_header(std::span<const std::uint8_t> nal, const H265Pps& pps,
                                                       const H265Sps& sps) {
    if (nal.size() < 3) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(2), 64);
    Bits b(rbsp);
    H265SliceHeader h;
    h.nal_unit_type = quillane::nal::h265::type(nal[0]);
    h.temporal_id = (nal[1] & 7) - 1;
    h.first_slice_segment_in_pic_flag = b.flag();
    if (quillane::nal::h265::is_irap(h.nal_unit_type)) b.u(1);  // no_output_of_prior_pics_flag
    h.slice_pic_parameter_set_id = b.ue_max(63);
    // Only a picture's first segment is read: it has neither
    // dependent_slice_segment_flag nor slice_segment_address.
    if (!h.first_slice_segment_in_pic_flag) return std::nullopt;
    b.skip(pps.num_extra_slice_header_bits);  // slice_reserved_flag[i]
    h.slice_type = b.ue_max(2);
    if (pps.output_flag_present_flag) h.pic_output_flag = b.flag();
    if (sps.separate_colour_plane_flag) b.u(2);  // colour_plane_id
    if (!quillane::nal::h265::is_idr(h.nal_unit_type)) h.slice_pic_order_cnt_lsb = static_cast<int>(b.u(sps.log2_max_pic_order_cnt_lsb));
    if (!b.ok() || h.temporal_id < 0) return std::nullopt;
    return h;
}

std::optional<std::vector<SeiMessage>> parse_sei_messages(std::span<const std::uint8_t> rbsp) {
    std::vector<SeiMessage> messages;
    std::size_t i = 0;
    // The last byte holding a one bit is the RBSP stop bit's.
    std::size_t end = rbsp.size();
    while (end > 0 && rbsp[end - 1] == 0) --end;
    if (end == 0) return std::nullopt;
    --end;
    while (i < end) {
        SeiMessage m;
        m.begin = i;
        std::size_t type = 0;
        while (i < end && rbsp[i] == 0xFF) type += rbsp[i++];
        if (i >= end) return std::nullopt;
        type += rbsp[i++];
        std::size_t size = 0;
        while (i < end && rbsp[i] == 0xFF) size += rbsp[i++];
        if (i >= end) return std::nullopt;
        size += rbsp[i++];
        if (size > end - i) return std::nullopt;
        m.payload_type = static_cast<int>(std::min<std::size_t>(type, 1u << 20));
        m.payload = i;
        m.end = i + size;
        i = m.end;
        messages.push_back(m);
    }
    return messages;
}

}  // namespace tcstamp
