// Annex B byte streams as the tool sees them: NAL units with three- or
// four-byte start codes, grouped into access units, and the few H.264
// sequence parameters the picture timing message depends on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace tcstamp {

enum class Codec { h264, h265 };

struct Nal {
    std::size_t sc_begin;  // first byte of the start code (its leading zero byte, if any)
    std::size_t offset;    // first byte after the start code
    std::size_t size;    // up to the next start code, trailing zeros dropped
    int type;
    bool vcl;
    bool first_slice;  // a slice that begins a new picture
};

std::vector<Nal> split_nal_units(std::span<const std::uint8_t> stream, Codec codec);
// The same into a vector the caller keeps, so a per-frame caller allocates
// once; with stop_at_picture the split ends after the first picture unit.
void split_nal_units(std::span<const std::uint8_t> stream, Codec codec, std::vector<Nal>& nals,
                     bool stop_at_picture = false);

// Index ranges [begin, end) of the NAL units of each access unit.
struct AccessUnit {
    std::size_t begin;
    std::size_t end;
};
std::vector<AccessUnit> group_access_units(const std::vector<Nal>& nals, Codec codec);

// Guesses the codec from the first NAL unit's header.
Codec guess_codec(std::span<const std::uint8_t> stream, const std::vector<Nal>& nals);

// The buffering-delay field widths of an H.264 SPS, as the picture timing
// message must use them.
struct HrdLengths {
    int cpb_removal_delay_length_minus1 = 23;
    int dpb_output_delay_length_minus1 = 23;
    int time_offset_length = 24;
    bool hrd_present = false;
    bool pic_struct_present = false;
};
std::optional<HrdLengths> parse_h264_sps_hrd(std::span<const std::uint8_t> nal);

}  // namespace tcstamp
