#include "annexb.h"

#include <algorithm>
#include <cstring>


namespace tcstamp {

namespace {

bool h264_vcl(int type) { return type >= 1 && type <= 5; }
bool h265_vcl(int type) { return type >= 0 && type <= 31; }

// Units that may only come before the first slice of a picture, and so
// start a new access unit when a picture is already under way.
bool h264_starts_access_unit(int type) { return type == 6 || type == 7 || type == 8 || type == 9 || (type >= 14 && type <= 18); }
bool h265_starts_access_unit(int type) {
    return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
}

}  // namespace

std::vector<Nal> split_nal_units(std::span<const std::uint8_t> s, Codec codec) {
    std::vector<Nal> nals;
    split_nal_units(s, codec, nals);
    return nals;
}

namespace {

// Index of the next 00 00 01 at or after `from`, or s.size(): memchr finds
// the 01 bytes, so long slice payloads are skipped at memory speed.
std::size_t next_start_code(std::span<const std::uint8_t> s, std::size_t from) {
    std::size_t j = from + 2;
    while (j < s.size()) {
        const void* hit = std::memchr(s.data() + j, 1, s.size() - j);
        if (hit == nullptr) break;
        j = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - s.data());
        if (s[j - 1] == 0 && s[j - 2] == 0) return j - 2;
        ++j;
    }
    return s.size();
}

}  // namespace

void split_nal_units(std::span<const std::uint8_t> s, Codec codec, std::vector<Nal>& nals, bool stop_at_picture) {
    nals.clear();
    std::size_t prev_end = 0;
    for (std::size_t i = next_start_code(s, 0); i < s.size();) {
        const std::size_t begin = i + 3;
        // A zero right before 00 00 01 belongs to a four-byte start code.
        const std::size_t sc_begin = (i > prev_end && s[i - 1] == 0) ? i - 1 : i;
        if (begin >= s.size()) break;  // a start code with nothing behind it
        Nal n{sc_begin, begin, 0, 0, false, false};
        if (codec == Codec::h264) {
            n.type = s[begin] & 0x1F;
            n.vcl = h264_vcl(n.type);
            n.first_slice = n.vcl && begin + 1 < s.size() && (s[begin + 1] & 0x80) != 0;  // first_mb_in_slice == 0
        } else {
            n.type = (s[begin] >> 1) & 0x3F;
            n.vcl = h265_vcl(n.type);
            // first_slice_segment_in_pic_flag
            n.first_slice = n.vcl && begin + 2 < s.size() && (s[begin + 2] & 0x80) != 0;
        }
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
        const bool starts_new = has_picture && ((n.vcl && n.first_slice) ||
                                                (!n.vcl && (codec == Codec::h264 ? h264_starts_access_unit(n.type)
                                                                                 : h265_starts_access_unit(n.type))));
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
        const int h265_type = (b0 >> 1) & 0x3F;
        if ((b0 & 0x81) == 0 && b1 >= 1 && b1 <= 7 && h265_type >= 32 && h265_type <= 40) return Codec::h265;
        const int h264_type = b0 & 0x1F;
        if ((b0 & 0x80) == 0 && h264_type >= 6 && h264_type <= 9) return Codec::h264;
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
        const int type = codec_ == Codec::h264 ? s[header] & 0x1F : (s[header] >> 1) & 0x3F;
        const bool vcl = codec_ == Codec::h264 ? h264_vcl(type) : h265_vcl(type);
        const std::size_t flag_at = header + (codec_ == Codec::h264 ? 1 : 2);
        const bool first_slice = vcl && flag_at < s.size() && (s[flag_at] & 0x80) != 0;
        const bool starts_new = has_picture_ && ((vcl && first_slice) ||
                                                 (!vcl && (codec_ == Codec::h264 ? h264_starts_access_unit(type)
                                                                                 : h265_starts_access_unit(type))));
        if (starts_new) {
            // A zero right before 00 00 01 belongs to a four-byte start code.
            const std::size_t sc_begin = i > au_begin_ && s[i - 1] == 0 ? i - 1 : i;
            const std::size_t begin = au_begin_;
            au_begin_ = sc_begin;
            has_picture_ = vcl;
            return s.subspan(begin, sc_begin - begin);
        }
        has_picture_ = has_picture_ || vcl;
    }
}

}  // namespace tcstamp
