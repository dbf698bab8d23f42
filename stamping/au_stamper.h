// Stamps access units, one at a time, with the library's time-code SEI:
// finds where the SEI unit goes (before the first slice, after any access
// unit delimiter, parameter sets and other SEI), lists the frame's units for
// the library, advances the stream's time code and builds the SEI unit.
// Shared by the command-line tool and the GStreamer element.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "annexb.h"
#include "util_function.h"

namespace tcstamp {

struct TimeCode {
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    int frames = 0;
};

// "HH:MM:SS:FF" or "HH:MM:SS;FF"; nothing when malformed or out of range.
std::optional<TimeCode> parse_time_code(const std::string& text);

struct StamperConfig {
    Codec codec = Codec::h264;
    int fps_x100 = 2500;
    // H.264 field widths (minus one, as the SPS codes them; the time offset
    // as its width minus one); each taken from the stream's SPS when absent.
    std::optional<int> cpb_removal_delay_length;
    std::optional<int> dpb_output_delay_length;
    std::optional<int> time_offset_length;
    bool drift_check = false;
    std::uint64_t frames_before_first_check = 0;
    // A fixed time code for the first frame instead of the local clock.
    std::optional<TimeCode> start;
};

struct StampPlan {
    bool picture = false;           // false: no picture unit, pass the unit through
    std::size_t insert_at = 0;      // offset in the access unit where the SEI unit goes
    std::span<const std::uint8_t> sei;  // the SEI unit, start code included
};

class AccessUnitStamper {
public:
    AccessUnitStamper() = default;
    ~AccessUnitStamper();
    AccessUnitStamper(const AccessUnitStamper&) = delete;
    AccessUnitStamper& operator=(const AccessUnitStamper&) = delete;

    // Creates the stream's context; false when the library refuses.
    bool start(const StamperConfig& config);
    bool started() const { return list_.ph26xSeiTim != nullptr; }

    // Runs one access unit through the per-frame pipeline. The returned SEI
    // bytes stay valid until the next call.
    StampPlan stamp(std::span<const std::uint8_t> au);

    // The time code of the last stamped frame, "HH:MM:SS:FF" (";" before the
    // frame count when counting drops frames).
    std::string time_code_text() const;
    const util_h26x_sei_tim_t& context() const { return list_.ph26xSeiTim[0]; }

    // Set once an H.264 SPS was seen that lacks what decoders need to read
    // picture timing (HRD parameters, pic_struct); empty otherwise.
    const std::string& stream_warning() const { return warning_; }

private:
    void learn_from_sps(std::span<const std::uint8_t> sps);
    void fill_units(std::span<const std::uint8_t> au, std::size_t picture, util_h26x_frame_buf_info_t& units) const;

    StamperConfig config_;
    util_list_h26x_sei_tim_t list_{};
    std::vector<Nal> nals_;
    std::vector<std::uint8_t> last_sps_;  // encoders repeat the SPS at every key frame
    std::string warning_;
};

}  // namespace tcstamp
