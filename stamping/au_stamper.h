// Drives the library's per-frame pipeline for one stream, one picture at a
// time: lists the picture's units for the random-access test, advances the
// stream's time code (`running`) and builds the SEI unit (`get_data`).
// The stream stamper calls it in display order and patches the context's
// time-code record between the two steps with what the stream itself says
// (pic_struct, ct_type, delays).
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
    bool operator==(const TimeCode&) const = default;
};

// "HH:MM:SS:FF" or "HH:MM:SS;FF"; nothing when malformed or out of range.
// `drop_frame`, when given, receives whether ';' was used.
std::optional<TimeCode> parse_time_code(const std::string& text, bool* drop_frame = nullptr);

struct StamperConfig {
    Codec codec = Codec::h264;
    int fps_x100 = 2500;
    bool drift_check = false;
    std::uint64_t frames_before_first_check = 0;
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

    // Advances the time code to one picture: `nals` are the units of its
    // access unit `au`, `picture` the index of its first slice. With a
    // label, the picture gets that label and counting goes on from it.
    void count(std::span<const std::uint8_t> au, const std::vector<Nal>& nals, std::size_t picture,
               const std::optional<TimeCode>& label);
    // Whether the time code is counting (synchronised with the clock or
    // started from a label).
    bool counting() const { return started() && list_.ph26xSeiTim[0].init_flag == 1; }
    // The SEI unit of the last counted picture, start code included; valid
    // until the next call.
    std::span<const std::uint8_t> build();

    util_h26x_sei_tim_t& context() { return list_.ph26xSeiTim[0]; }
    const util_h26x_sei_tim_t& context() const { return list_.ph26xSeiTim[0]; }
    TimeCode label() const;
    bool drop_frame() const;

private:
    StamperConfig config_;
    util_list_h26x_sei_tim_t list_{};
};

}  // namespace tcstamp
