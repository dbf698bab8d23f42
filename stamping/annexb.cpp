#include "annexb.h"

#include <cstring>

#include "util_function.h"

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

// Reads bits through the library's own bit reader.
class Bits {
public:
    explicit Bits(const std::vector<std::uint8_t>& rbsp) : d_(rbsp) {}
    bool ok() const { return ok_; }
    std::uint32_t u(int n) {
        UTIL_U32 v = 0;
        // Past the end the SPS is cut short: fail quietly, without asking
        // the library's reader (which would report it on the console).
        if (pos_ + static_cast<std::size_t>(n) > d_.size() * 8) ok_ = false;
        const int byte = static_cast<int>(pos_ / 8);
        const auto bit = static_cast<UTIL_S8>(7 - pos_ % 8);
        if (!ok_ || util_ops_pfun->h26x_base->readBitsToU32(d_.data(), byte, bit, static_cast<int>(d_.size()),
                                                            static_cast<UTIL_U8>(n), &v) != 0) {
            ok_ = false;
            return 0;
        }
        pos_ += static_cast<std::size_t>(n);
        return v;
    }
    std::uint32_t ue() {
        int zeros = 0;
        while (ok_ && u(1) == 0) {
            if (++zeros > 31) ok_ = false;
        }
        if (!ok_) return 0;
        return zeros == 0 ? 0 : (1u << zeros) - 1 + u(zeros);
    }
    std::int32_t se() {
        const std::uint32_t k = ue();
        return (k & 1) ? static_cast<std::int32_t>((k + 1) / 2) : -static_cast<std::int32_t>(k / 2);
    }

private:
    const std::vector<std::uint8_t>& d_;
    std::size_t pos_ = 0;
    bool ok_ = true;
};

std::vector<std::uint8_t> unescape(std::span<const std::uint8_t> nal) {
    std::vector<std::uint8_t> out;
    out.reserve(nal.size());
    int zeros = 0;
    for (std::uint8_t b : nal) {
        if (zeros >= 2 && b == 3) {
            zeros = 0;
            continue;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

void skip_scaling_list(Bits& b, int size) {
    int last = 8;
    int next = 8;
    for (int j = 0; j < size && b.ok(); ++j) {
        // Modulo 256 in unsigned arithmetic: a broken SPS may code a delta
        // far outside -128..127.
        if (next != 0) next = static_cast<std::uint8_t>(static_cast<std::uint32_t>(last) + static_cast<std::uint32_t>(b.se()));
        last = next == 0 ? last : next;
    }
}

void read_hrd(Bits& b, HrdLengths& h) {
    const std::uint32_t cpb_cnt = b.ue() + 1;
    b.u(4);  // bit_rate_scale
    b.u(4);  // cpb_size_scale
    for (std::uint32_t i = 0; i < cpb_cnt && i < 32 && b.ok(); ++i) {
        b.ue();
        b.ue();
        b.u(1);
    }
    b.u(5);  // initial_cpb_removal_delay_length_minus1
    h.cpb_removal_delay_length_minus1 = static_cast<int>(b.u(5));
    h.dpb_output_delay_length_minus1 = static_cast<int>(b.u(5));
    h.time_offset_length = static_cast<int>(b.u(5));
    h.hrd_present = true;
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

Codec guess_codec(std::span<const std::uint8_t> s, const std::vector<Nal>& nals) {
    for (const Nal& n : nals) {
        const std::uint8_t b0 = s[n.offset];
        const std::uint8_t b1 = n.size > 1 ? s[n.offset + 1] : 0;
        const int h265_type = (b0 >> 1) & 0x3F;
        // An H.265 header's second byte carries nuh_temporal_id_plus1 >= 1
        // and (for base-layer streams) a zero layer id.
        if ((b0 & 0x81) == 0 && b1 >= 1 && b1 <= 7 && h265_type >= 32 && h265_type <= 40) return Codec::h265;
        const int h264_type = b0 & 0x1F;
        if ((b0 & 0x80) == 0 && h264_type >= 6 && h264_type <= 9) return Codec::h264;
    }
    return Codec::h264;
}

std::optional<HrdLengths> parse_h264_sps_hrd(std::span<const std::uint8_t> nal) {
    if (nal.size() < 4) return std::nullopt;
    const std::vector<std::uint8_t> rbsp = unescape(nal.subspan(1));
    Bits b(rbsp);
    HrdLengths h;
    const std::uint32_t profile = b.u(8);
    b.u(8);  // constraint flags
    b.u(8);  // level
    b.ue();  // sps id
    if (profile == 100 || profile == 110 || profile == 122 || profile == 244 || profile == 44 || profile == 83 ||
        profile == 86 || profile == 118 || profile == 128 || profile == 138 || profile == 139 || profile == 134 ||
        profile == 135) {
        const std::uint32_t chroma = b.ue();
        if (chroma == 3) b.u(1);
        b.ue();
        b.ue();
        b.u(1);
        if (b.u(1)) {  // seq_scaling_matrix_present_flag
            for (int i = 0; i < (chroma != 3 ? 8 : 12) && b.ok(); ++i) {
                if (b.u(1)) skip_scaling_list(b, i < 6 ? 16 : 64);
            }
        }
    }
    b.ue();  // log2_max_frame_num_minus4
    const std::uint32_t poc_type = b.ue();
    if (poc_type == 0) {
        b.ue();
    } else if (poc_type == 1) {
        b.u(1);
        b.se();
        b.se();
        const std::uint32_t cycle = b.ue();
        for (std::uint32_t i = 0; i < cycle && i < 256 && b.ok(); ++i) b.se();
    }
    b.ue();  // max_num_ref_frames
    b.u(1);
    b.ue();
    b.ue();
    if (!b.u(1)) b.u(1);  // frame_mbs_only_flag, mb_adaptive_frame_field_flag
    b.u(1);
    if (b.u(1)) {  // frame_cropping_flag
        b.ue();
        b.ue();
        b.ue();
        b.ue();
    }
    if (b.u(1)) {  // vui_parameters_present_flag
        if (b.u(1) && b.u(8) == 255) b.u(32);
        if (b.u(1)) b.u(1);
        if (b.u(1)) {
            b.u(4);
            if (b.u(1)) b.u(24);
        }
        if (b.u(1)) {
            b.ue();
            b.ue();
        }
        if (b.u(1)) {
            b.u(32);
            b.u(32);
            b.u(1);
        }
        const bool nal_hrd = b.u(1) != 0;
        if (nal_hrd) read_hrd(b, h);
        const bool vcl_hrd = b.u(1) != 0;
        if (vcl_hrd) {
            HrdLengths vcl;
            read_hrd(b, vcl);
            if (!nal_hrd) h = vcl;
        }
        if (nal_hrd || vcl_hrd) b.u(1);  // low_delay_hrd_flag
        h.pic_struct_present = b.u(1) != 0;
    }
    if (!b.ok()) return std::nullopt;
    return h;
}

}  // namespace tcstamp
