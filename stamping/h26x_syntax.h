// The few syntax structures of H.264 and H.265 that stamping depends on:
// parameter sets up to their timing information, slice headers up to the
// picture order count, and the messages of an SEI unit. Each reader names
// every field it reads, in the order the standards write them, and stops
// once it has what stamping needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tcstamp {

// A NAL unit's payload with the emulation prevention bytes taken out (at
// most `limit` bytes of it: slice headers need only their first bytes).
std::vector<std::uint8_t> unescape(std::span<const std::uint8_t> nal, std::size_t limit = SIZE_MAX);
// The reverse, appended to `out`: a 03 byte wherever two zero bytes would
// be followed by 00, 01, 02 or 03.
void escape_into(std::span<const std::uint8_t> rbsp, std::vector<std::uint8_t>& out);

// Timing information of the VUI (H.264 and H.265 alike).
struct VuiTiming {
    bool present = false;
    std::uint32_t num_units_in_tick = 0;
    std::uint32_t time_scale = 0;
};

struct H264Sps {
    int seq_parameter_set_id = 0;
    int profile_idc = 0;
    bool separate_colour_plane_flag = false;
    int log2_max_frame_num = 4;
    int pic_order_cnt_type = 0;
    int log2_max_pic_order_cnt_lsb = 4;
    bool frame_mbs_only_flag = true;
    VuiTiming timing;
    bool nal_hrd_parameters_present_flag = false;
    bool vcl_hrd_parameters_present_flag = false;
    // Of the NAL HRD parameters, or the VCL ones when only those are present.
    int cpb_removal_delay_length_minus1 = 23;
    int dpb_output_delay_length_minus1 = 23;
    int time_offset_length = 24;
    bool pic_struct_present_flag = false;
    bool bitstream_restriction_flag = false;
    int max_num_reorder_frames = -1;  // -1: not signalled
    bool hrd() const { return nal_hrd_parameters_present_flag || vcl_hrd_parameters_present_flag; }
};
std::optional<H264Sps> parse_h264_sps(std::span<const std::uint8_t> nal);

struct H264Pps {
    int pic_parameter_set_id = 0;
    int seq_parameter_set_id = 0;
    bool bottom_field_pic_order_in_frame_present_flag = false;
};
std::optional<H264Pps> parse_h264_pps(std::span<const std::uint8_t> nal);

struct H264SliceHeader {
    int nal_ref_idc = 0;
    bool idr = false;
    int first_mb_in_slice = 0;
    int slice_type = 0;  // 0..9; 2, 4, 7 and 9 are I and SI
    int pic_parameter_set_id = 0;
    int frame_num = 0;
    bool field_pic_flag = false;
    bool bottom_field_flag = false;
    int pic_order_cnt_lsb = 0;
    int delta_pic_order_cnt_bottom = 0;
    bool intra() const { return slice_type % 5 == 2 || slice_type % 5 == 4; }
};
// `lookup` finds the PPS and its SPS by the slice's pic_parameter_set_id.
std::optional<H264SliceHeader> parse_h264_slice_header(std::span<const std::uint8_t> nal, const H264Pps& pps,
                                                       const H264Sps& sps);
// The slice header's pic_parameter_set_id, read before the PPS is known.
std::optional<int> h264_slice_pps_id(std::span<const std::uint8_t> nal);

// The first clock timestamp of a picture-timing (H.264) or time-code
// (H.265) message.
struct ClockTimestamp {
    int ct_type = -1;          // H.264 only
    bool field_based = false;  // nuit_field_based_flag / units_field_based_flag
    int counting_type = 0;
    bool full_timestamp = false;
    bool discontinuity = false;
    bool cnt_dropped = false;
    int n_frames = 0;
    // Absent in the short form when not sent: the previous picture's value
    // holds.
    std::optional<int> seconds;
    std::optional<int> minutes;
    std::optional<int> hours;
};

// What a picture-timing message says about the picture.
struct H264PicTiming {
    std::optional<std::uint32_t> cpb_removal_delay;
    std::optional<std::uint32_t> dpb_output_delay;
    std::optional<int> pic_struct;
    std::optional<int> ct_type;  // of the first clock timestamp present
    std::optional<ClockTimestamp> clock;
};
std::optional<H264PicTiming> parse_h264_pic_timing(std::span<const std::uint8_t> payload, const H264Sps& sps);
// Clock timestamps in a picture-timing message with this pic_struct.
int h264_num_clock_ts(int pic_struct);

// The first clock timestamp of an H.265 time-code message, if it has one.
std::optional<ClockTimestamp> parse_h265_time_code(std::span<const std::uint8_t> payload);

struct H265Sps {
    int sps_seq_parameter_set_id = 0;
    bool separate_colour_plane_flag = false;
    int log2_max_pic_order_cnt_lsb = 4;
    int sps_max_num_reorder_pics = 0;  // of the highest sub-layer
    bool field_seq_flag = false;
    VuiTiming timing;
};
std::optional<H265Sps> parse_h265_sps(std::span<const std::uint8_t> nal);

struct H265Pps {
    int pps_pic_parameter_set_id = 0;
    int pps_seq_parameter_set_id = 0;
    bool dependent_slice_segments_enabled_flag = false;
    bool output_flag_present_flag = false;
    int num_extra_slice_header_bits = 0;
};
std::optional<H265Pps> parse_h265_pps(std::span<const std::uint8_t> nal);

struct H265SliceHeader {
    int nal_unit_type = 0;
    int temporal_id = 0;
    bool first_slice_segment_in_pic_flag = false;
    int slice_pic_parameter_set_id = 0;
    int slice_type = 0;  // 2 is I
    bool pic_output_flag = true;
    int slice_pic_order_cnt_lsb = 0;
};
std::optional<H265SliceHeader> parse_h265_slice_header(std::span<const std::uint8_t> nal, const H265Pps& pps,
                                                       const H265Sps& sps);
std::optional<int> h265_slice_pps_id(std::span<const std::uint8_t> nal);

// One message of an SEI unit, as byte ranges of the unit's RBSP (header
// bytes excluded): [begin, payload) holds the type and size bytes,
// [payload, end) the payload.
struct SeiMessage {
    int payload_type = 0;
    std::size_t begin = 0;
    std::size_t payload = 0;
    std::size_t end = 0;
};
// The messages of an SEI RBSP; nothing when it is malformed (a size past the
// end), so that a unit we cannot read is left as it is.
std::optional<std::vector<SeiMessage>> parse_sei_messages(std::span<const std::uint8_t> rbsp);

}  // namespace tcstamp
