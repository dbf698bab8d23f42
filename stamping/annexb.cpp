#include "annexb.h"

#include <algorithm>

#include "h26x/nal.h"

namespace tcstamp {

namespace nal = quillane::nal;

namespace {

// What a unit's header says, for either codec.
struct Header {
    int type;
    bool vcl;
    bool first_slice;  // a slice that begins a new picture
};

// The header of the unit whose first byte is at `begin`; the flag that
// marks a picture's first slice is the top bit of the next byte in H.264
// (first_mb_in_slice == 0) and of the byte after the two-byte header in
// H.265 (first_slice_segment_in_pic_flag).
Header read_header(std::span<const std::uint8_t> s, std::size_t begin, Codec codec) {
    const bool h264 = codec == Codec::h264;
    Header h{};
    h.type = h264 ? nal::h264::type(s[begin]) : nal::h265::type(s[begin]);
    h.vcl = h264 ? nal::h264::is_vcl(h.type) : nal::h265::is_vcl(h.type);
    const std::size_t flag_at = begin + (h264 ? 1 : 2);
    h.first_slice = h.vcl && flag_at < s.size() && (s[flag_at] & 0x80) != 0;
    return h;
}

// Whether a unit begins a new access unit when a picture is already under
// way: a picture's first slice, or a unit that may only come before one.
bool starts_access_unit(const Header& h, Codec codec) {
    if (h.vcl) return h.first_slice;
    return codec == Codec::h264 ? nal::h264::starts_access_unit(h.type) : nal::h265::starts_access_unit(h.type);
}

std::size_t next_start_code(std::span<const std::uint8_t> s, std::size_t from) {
    return nal::find_start_code3(s.data(), s.size(), from);
}

}  // namespace

std::vector<Nal> split_nal_units(std::span<const std::uint8_t> s, Codec codec) {
    std::vector<Nal> nals;
    split_nal_units(s, codec, nals);
    return nals;
}

void split_nal_units(std::span<const std::uint8_t> s, Codec codec, std::vector<Nal>& nals, bool stop_at_picture) {
    nals.clear();
    std::size_t prev_end = 0;
    for (std::size_t i = next_start_code(s, 0); i < s.size();) {
        const std::size_t begin = i + 3;
        // A zero right before 00 00 01 belongs to a four-byte start code.
        const std::size_t sc_begin = (i > prev_end && s[i - 1] == 0) ? i - 1 : i;
        if (begin >= s.size()) break;  // a start code with nothing behind it
        const Header h = read_header(s, begin, codec);
        Nal n{sc_begin, begin, 0, h.type, h.vcl, h.first_slice};
        if (stop_at_picture && n.vcl) {
            // The slice data behind the first picture is never walked.
            n.size = s.size() - begin;
            nals.push_back(n);
            return;
        }
        const std::size_t next = next_start_code(s, begin);
        std::size_t end = next;
        while (end > begin && s[end - 1] == 0) --end;  // trailing zeros and the next code's leading zero
        i = next;
        if (end == begin) continue;
        prev_end = end;
        n.size = end - begin;
        nals.push_back(n);
    }
}

std::vector<AccessUnit> group_access_units(const std::vector<Nal>& nals, Codec codec) {
    std::vector<AccessUnit> aus;
    std::size_t begin = 0;
    bool has_picture = false;
    for (std::size_t k = 0; k < nals.size(); ++k) {
        const Nal& n = nals[k];
        const bool starts_new = has_picture && starts_access_unit({n.type, n.vcl, n.first_slice}, codec);
        if (starts_new) {
            aus.push_back({begin, k});
            begin = k;
            has_picture = false;
        }
        has_picture = has_picture || n.vcl;
    }
    if (begin < nals.size()) aus.push_back({begin, nals.size()});
    return aus;
}

std::optional<Codec> codec_of(std::span<const std::uint8_t> s, const std::vector<Nal>& nals) {
    for (const Nal& n : nals) {
        const std::uint8_t b0 = s[n.offset];
        const std::uint8_t b1 = n.size > 1 ? s[n.offset + 1] : 0;
        // An H.265 header's second byte carries nuh_temporal_id_plus1 >= 1
        // and (for base-layer streams) a zero layer id; parameter sets,
        // delimiters and SEI units of one standard read as nothing valid in
        // the other.
        const int h265_type = nal::h265::type(b0);
        if ((b0 & 0x81) == 0 && b1 >= 1 && b1 <= 7 && h265_type >= nal::h265::kVps && h265_type <= 40) {
            return Codec::h265;
        }
        const int h264_type = nal::h264::type(b0);
        if ((b0 & 0x80) == 0 && h264_type >= nal::h264::kSei && h264_type <= nal::h264::kAud) return Codec::h264;
    }
    return std::nullopt;
}

void AccessUnitSplitter::feed(std::span<const std::uint8_t> bytes) {
    if (au_begin_ > 0) {
        // What was handed out is gone: keep only the access unit under way.
        buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(au_begin_));
        scan_ -= au_begin_;
        au_begin_ = 0;
    }
    buf_.insert(buf_.end(), bytes.begin(), bytes.end());
}

std::optional<std::span<const std::uint8_t>> AccessUnitSplitter::next() {
    const std::span<const std::uint8_t> s(buf_);
    for (;;) {
        const std::size_t i = next_start_code(s, scan_);
        if (i == s.size()) {
            if (at_end_ && au_begin_ < s.size()) {
                const std::size_t begin = au_begin_;
                au_begin_ = scan_ = s.size();
                return s.subspan(begin);
            }
            // A start code may straddle the end of what has arrived.
            scan_ = std::max(scan_, s.size() >= 2 ? s.size() - 2 : 0);
            return std::nullopt;
        }
        const std::size_t header = i + 3;
        const std::size_t wanted = header + (codec_ == Codec::h264 ? 2 : 3);
        if (wanted > s.size() && !at_end_) {
            scan_ = i;
            return std::nullopt;
        }
        scan_ = header;
        if (header >= s.size()) continue;
        const Header h = read_header(s, header, codec_);
        const bool starts_new = has_picture_ && starts_access_unit(h, codec_);
        if (starts_new) {
            // A zero right before 00 00 01 belongs to a four-byte start code.
            const std::size_t sc_begin = i > au_begin_ && s[i - 1] == 0 ? i - 1 : i;
            const std::size_t begin = au_begin_;
            au_begin_ = sc_begin;
            has_picture_ = h.vcl;
            return s.subspan(begin, sc_begin - begin);
        }
        has_picture_ = has_picture_ || h.vcl;
    }
}

}  // namespace tcstamp
