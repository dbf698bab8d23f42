// Annex B byte streams as the tool sees them: NAL units with three- or
// four-byte start codes, grouped into access units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
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

// The codec that a unit's header shows beyond doubt, if any does.
std::optional<Codec> codec_of(std::span<const std::uint8_t> stream, const std::vector<Nal>& nals);

// Cuts a byte stream that arrives in pieces into access units, holding no
// more than the access unit under way and the piece last fed.
class AccessUnitSplitter {
public:
    explicit AccessUnitSplitter(Codec codec) : codec_(codec) {}
    // Appends bytes; access units handed out by next() are invalid after it.
    void feed(std::span<const std::uint8_t> bytes);
    // No more bytes will come: the rest is the last access unit.
    void finish() { at_end_ = true; }
    // The next whole access unit, with any bytes before the stream's first
    // start code; nothing until more bytes (or the end) arrive.
    std::optional<std::span<const std::uint8_t>> next();

private:
    Codec codec_;
    std::vector<std::uint8_t> buf_;
    std::size_t au_begin_ = 0;  // where the access unit under way begins
    std::size_t scan_ = 0;      // where the search for the next start code resumes
    bool has_picture_ = false;
    bool at_end_ = false;
};

}  // namespace tcstamp
