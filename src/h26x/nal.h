// What the library knows about NAL units, in one place: the header types it
// names, which of them are pictures, random-access points or the start of an
// access unit, the start codes and emulation prevention.
//
// Header-only and built on the standard library alone, so that the stamping
// component outside the library, the tests and the fuzz targets read the
// same definitions the scanners and the SEI writer use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quillane::nal {

namespace h264 {

inline constexpr int kSlice = 1;  // a non-IDR picture's slice
inline constexpr int kIdr = 5;
inline constexpr int kSei = 6;
inline constexpr int kSps = 7;
inline constexpr int kPps = 8;
inline constexpr int kAud = 9;
inline constexpr int kEndOfSequence = 10;
inline constexpr int kEndOfStream = 11;

// nal_unit_type from the header byte.
constexpr int type(int header) noexcept { return header & 0x1F; }
constexpr bool is_vcl(int t) noexcept { return t >= 1 && t <= 5; }
// The units the scanners stop at.
constexpr bool is_picture_type(int t) noexcept { return t == kSlice || t == kIdr; }
constexpr bool is_picture(int header) noexcept { return is_picture_type(type(header)); }
// Parameter sets and IDR pictures: a decoder can start here.
constexpr bool is_random_access_type(int t) noexcept { return t == kSps || t == kPps || t == kIdr; }
constexpr bool is_random_access(int header) noexcept { return is_random_access_type(type(header)); }
// Units that may only come before the first slice of a picture, and so begin
// a new access unit when a picture is already under way.
constexpr bool starts_access_unit(int t) noexcept {
    return (t >= kSei && t <= kAud) || (t >= 14 && t <= 18);
}
constexpr bool ends_sequence(int t) noexcept { return t == kEndOfSequence || t == kEndOfStream; }
// The SEI header byte: nal_ref_idc 0.
constexpr std::uint8_t kSeiHeader = kSei;

}  // namespace h264

namespace h265 {

inline constexpr int kTrailR = 1;  // a non-IDR picture's slice
inline constexpr int kIdrWRadl = 19;
inline constexpr int kIdrNLp = 20;
inline constexpr int kVps = 32;
inline constexpr int kSps = 33;
inline constexpr int kPps = 34;
inline constexpr int kAud = 35;
inline constexpr int kEndOfSequence = 36;
inline constexpr int kEndOfBitstream = 37;
inline constexpr int kPrefixSei = 39;

// nal_unit_type from the first header byte.
constexpr int type(int header) noexcept { return (header >> 1) & 0x3F; }
constexpr bool is_vcl(int t) noexcept { return t >= 0 && t <= 31; }
// The units the scanners stop at. Only these two: IDR_N_LP and CRA
// keyframes are not among them.
constexpr bool is_picture_type(int t) noexcept { return t == kTrailR || t == kIdrWRadl; }
constexpr bool is_picture(int header) noexcept { return is_picture_type(type(header)); }
// Parameter sets and IDR_W_RADL pictures (the IDR type the library names).
constexpr bool is_random_access_type(int t) noexcept {
    return t == kVps || t == kSps || t == kPps || t == kIdrWRadl;
}
constexpr bool is_random_access(int header) noexcept { return is_random_access_type(type(header)); }
// Intra random-access pictures, and the IDR ones among them.
constexpr bool is_irap(int t) noexcept { return t >= 16 && t <= 23; }
constexpr bool is_idr(int t) noexcept { return t == kIdrWRadl || t == kIdrNLp; }
constexpr bool starts_access_unit(int t) noexcept {
    return (t >= kVps && t <= kAud) || t == kPrefixSei || (t >= 41 && t <= 44) || (t >= 48 && t <= 55);
}
constexpr bool ends_sequence(int t) noexcept { return t == kEndOfSequence || t == kEndOfBitstream; }
// The prefix SEI header: layer 0, nuh_temporal_id_plus1 1.
constexpr std::uint8_t kSeiHeader[2] = {kPrefixSei << 1, 0x01};

}  // namespace h265

// The scanners that are not told the codec stop at a picture of either.
constexpr bool is_picture_any(int header) noexcept { return h264::is_picture(header) || h265::is_picture(header); }

// ---- start codes ----

inline constexpr std::uint8_t kStartCode[4] = {0x00, 0x00, 0x00, 0x01};

// A four-byte start code at p, read as one word.
inline bool start_code4_at(const std::uint8_t* p) noexcept {
    std::uint32_t w;
    std::uint32_t code;
    std::memcpy(&w, p, sizeof w);
    std::memcpy(&code, kStartCode, sizeof code);
    return w == code;
}

// Index of the next 00 00 01 in s[from, size), or size. memchr finds the 01
// bytes, so long slice payloads are skipped at memory speed.
inline std::size_t find_start_code3(const std::uint8_t* s, std::size_t size, std::size_t from) noexcept {
    for (std::size_t j = from + 2; j < size; ++j) {
        const void* hit = std::memchr(s + j, 1, size - j);
        if (hit == nullptr) break;
        j = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - s);
        if (s[j - 1] == 0 && s[j - 2] == 0) return j - 2;
    }
    return size;
}

// ---- emulation prevention ----

// Inside a NAL unit, two zero bytes may not be followed by 00 to 03: a 03
// goes in front of such a byte, and the 03 breaks the run of zeros.
constexpr bool needs_escape(int zeros, std::uint8_t byte) noexcept { return zeros >= 2 && byte <= 3; }

// Hands the escaped form of in[0, n) to put(byte).
template <class Put>
void escape(const std::uint8_t* in, std::size_t n, Put&& put) {
    int zeros = 0;
    for (std::size_t k = 0; k < n; ++k) {
        if (needs_escape(zeros, in[k])) {
            put(std::uint8_t{3});
            zeros = 0;
        }
        put(in[k]);
        zeros = in[k] == 0 ? zeros + 1 : 0;
    }
}

// Hands at most `limit` bytes of the unescaped form of in[0, n) to
// put(byte): every 03 that follows two zero bytes is dropped.
template <class Put>
void unescape(const std::uint8_t* in, std::size_t n, std::size_t limit, Put&& put) {
    int zeros = 0;
    std::size_t out = 0;
    for (std::size_t k = 0; k < n && out < limit; ++k) {
        if (zeros >= 2 && in[k] == 3) {
            zeros = 0;
            continue;
        }
        put(in[k]);
        ++out;
        zeros = in[k] == 0 ? zeros + 1 : 0;
    }
}

}  // namespace quillane::nal
