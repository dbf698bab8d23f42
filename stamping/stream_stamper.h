// Stamps a whole H.264/H.265 stream, access unit by access unit, with the
// library's time-code SEI, so that each picture carries the time of its
// place in presentation order.
//
// Access units go in and come out in decode order. In between, pictures are
// held until the stream's reorder window says which one is shown next (the
// picture order count of the slice headers, bumped as a decoder's output
// buffer does); the library's per-frame pipeline then runs on them in
// display order. Everything but the time code stays as the encoder wrote it:
// an existing picture-timing (H.264) or time-code (H.265) message is
// replaced, its delays, pic_struct and ct_type kept, so stamping a stamped
// stream again gives the same bytes.
//
// What cannot be stamped right is refused: push() or finish() returns false
// and error() says why, in a sentence a user can act on. The stamper then
// takes nothing more.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "annexb.h"
#include "au_stamper.h"

namespace tcstamp {

struct StreamOptions {
    // When set, the stream must be of this codec.
    std::optional<Codec> codec;
    // Frame rate x 100. When set, it must agree with the rate the stream's
    // timing information gives (if it gives one); a stream without timing
    // information needs it.
    std::optional<int> fps_x100;
    // Label of the first stamped picture; the local clock at that picture
    // when absent (or the label pushed with that picture, see push()).
    std::optional<TimeCode> start;
    // The start label was written with ';': it asks for drop-frame counting,
    // which the rate must then use.
    bool start_drop_frame = false;
    bool drift_check = false;
    std::uint64_t frames_before_first_check = 0;
};

// What the stream says about its timing, once its first picture was seen.
struct StreamTiming {
    Codec codec = Codec::h264;
    int fps_x100 = 0;         // the counting rate: 2997 and 5994 count drop frames
    bool from_stream = false;  // false: the rate was given, the stream has none
    int reorder_window = 0;    // pictures held at most before the first is shown
};

struct StampedUnit {
    std::vector<std::uint8_t> bytes;  // the access unit as it goes out
    std::uint64_t tag = 0;            // the caller's tag given with push()
    bool stamped = false;             // false: passed through as it came
    TimeCode label;                   // the picture's time code, when stamped
    bool drop_frame = false;          // the label counts drop frames (";")
    std::uint64_t display_index = 0;  // the picture's place among stamped pictures, when stamped
};

// "HH:MM:SS:FF", or "HH:MM:SS;FF" for drop-frame counting.
std::string time_code_text(const TimeCode& t, bool drop_frame);

// Whether the label exists at the rate: frames below the whole rate, and
// not one of the counts drop-frame counting skips.
bool label_exists(const TimeCode& t, int fps_x100);

class StreamStamper {
public:
    explicit StreamStamper(const StreamOptions& options);
    ~StreamStamper();
    StreamStamper(const StreamStamper&) = delete;
    StreamStamper& operator=(const StreamStamper&) = delete;

    // Takes one access unit (copied) in decode order. `first_label`, when
    // given, is this picture's own time (e.g. its capture time): if the
    // picture turns out to be the first one stamped, counting starts from it
    // instead of options.start or the local clock.
    bool push(std::span<const std::uint8_t> au, std::uint64_t tag = 0,
              std::optional<TimeCode> first_label = std::nullopt);
    // End of the stream: every held picture is ordered and stamped.
    bool finish();
    // The next access unit in decode order that is ready, if any.
    std::optional<StampedUnit> pop();

    const std::string& error() const;
    // Known once the first picture was pushed.
    const std::optional<StreamTiming>& timing() const;
    // Access units taken but not yet popped.
    std::size_t held() const;
    // Pictures passed through unstamped because they come before the first
    // random-access picture in display order, or are never shown.
    std::uint64_t unstamped_pictures() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tcstamp
