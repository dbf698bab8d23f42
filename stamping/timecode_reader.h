// Reads the time codes of an H.264/H.265 stream back, picture by picture in
// presentation order, and checks them: every picture has one, labels advance
// by one frame at the stream's rate, drop-frame counting skips what it must
// and nothing else, and jumps are flagged as discontinuities. It orders the
// pictures and reads the parameter sets with the same code that stamps them.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "annexb.h"
#include "au_stamper.h"
#include "h26x_syntax.h"

namespace tcstamp {

struct FrameTimeCode {
    std::uint64_t index = 0;  // place in presentation order
    char type = '?';          // 'I', 'P' or 'B'
    std::optional<TimeCode> label;
    std::optional<ClockTimestamp> clock;  // the fields of the first clock timestamp
    int messages = 0;                     // time-code messages the picture carries
    std::vector<std::string> findings;
};

class TimeCodeReader {
public:
    explicit TimeCodeReader(std::optional<Codec> codec);
    ~TimeCodeReader();
    TimeCodeReader(const TimeCodeReader&) = delete;
    TimeCodeReader& operator=(const TimeCodeReader&) = delete;

    // One access unit, in decode order. False when the stream cannot be put
    // in display order; error() says why.
    bool push(std::span<const std::uint8_t> au);
    bool finish();
    // The next picture in presentation order whose checks are done.
    std::optional<FrameTimeCode> pop();

    const std::string& error() const;
    std::optional<Codec> codec() const;
    // The frame rate x 100 the SPS timing gives, once a picture was read.
    std::optional<int> fps_x100() const;
    std::uint64_t findings() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace tcstamp
