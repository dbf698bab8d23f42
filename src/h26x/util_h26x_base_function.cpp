// H.26x stream base: the start-code search, the bit reader, the three NAL
// unit scanners and the stream-to-file writers.
#include "util_h26x_base_function.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

#include "core/util_alloc.h"
#include "h26x/nal.h"
#include "h26x/util_h26x_base_internal.h"
#include "core/util_msg.h"

namespace quillane {

namespace {

inline bool start_code_at(const UTIL_UCHAR* buf, std::int64_t i) noexcept { return nal::start_code4_at(buf + i); }

// Positions from..last one at a time.
inline std::int64_t scan_bytes(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t last) noexcept {
    for (std::int64_t i = from; i <= last; ++i) {
        if (start_code_at(buf, i)) return i;
    }
    return -1;
}

// ---- sixteen positions exactly, for the first bytes after a start code ----

// Lanes j where byte j is 01 and byte j-1 is 00: the tail of any start code.
inline Mask16 tail_mask(const UTIL_UCHAR* p) noexcept {
    const Bytes16 cur = load16(p);
    const Bytes16 prev = load16(p - 1);
    return (cur == 1) & (prev == 0);
}

// Start codes at i .. i+15; the caller makes sure that i + 20 <= size.
// Delimiters and parameter sets are a few bytes long, so most units of a
// frame are found here without setting up the wide search.
inline std::int64_t probe16(const UTIL_UCHAR* buf, std::int64_t i) noexcept {
    const Mask16 m = tail_mask(buf + i + 3);
    std::uint64_t half[2];
    std::memcpy(half, &m, sizeof half);
    for (int h = 0; h < 2; ++h) {
        for (std::uint64_t bits = half[h] & 0x8080808080808080ull; bits != 0; bits &= bits - 1) {
            const std::int64_t at = i + h * 8 + __builtin_ctzll(bits) / 8;
            if (start_code_at(buf, at)) return at;
        }
    }
    return -1;
}

// ---- the wide search ----
//
// Three zero bytes always hold a zero pair that starts at an even distance
// from any chosen byte: a block [c, c+n) tested two bytes at a time, at c,
// c+2, ..., holds the pair of every start code at c-1 .. c+n-2. Payload
// bytes rarely make such a pair (an encoder escapes 00 00 followed by 00 to
// 03), so the loop tests one 16-bit lane per two bytes and leaves it only at
// a pair, where the two start codes that pair can belong to are checked.
//
// Each instruction set supplies a block width, a mask of the zero pairs of
// one block (any bit layout; offset() turns its lowest bit into the pair's
// byte offset) and a yes/no for four consecutive blocks.

// The start codes a block's zero pairs can belong to, first one first.
template <class Isa>
inline std::int64_t resolve(const UTIL_UCHAR* buf, std::int64_t c, std::uint64_t pairs, std::int64_t from,
                            std::int64_t last) noexcept {
    for (; pairs != 0; pairs &= pairs - 1) {
        const std::int64_t k = c + Isa::offset(pairs);
        if (k - 1 > last) break;
        // 00 [00 00] 01 or [00 00] 00 01.
        if (k - 1 >= from && start_code_at(buf, k - 1)) return k - 1;
        if (k >= from && k <= last && start_code_at(buf, k)) return k;
    }
    return -1;
}

template <class Isa>
[[gnu::always_inline]] inline std::int64_t search_wide(const UTIL_UCHAR* buf, std::int64_t from,
                                                       std::int64_t size) noexcept {
    if (from < 0) from = 0;
    const std::int64_t last = size - 5;  // the header byte must lie inside the frame
    if (from > last) return -1;
    std::int64_t done = from;  // no start code at from .. done-1
    if (done + 20 <= size) {
        const std::int64_t i = probe16(buf, done);
        if (i >= 0) return i;
        done += 16;
    }
    constexpr std::int64_t W = Isa::kWidth;
    std::int64_t c = done + 1;  // the block at c answers from c-1 = done on
    if (c + W > size) {
        // Less than one block left.
        for (; done + 20 <= size; done += 16) {
            const std::int64_t i = probe16(buf, done);
            if (i >= 0) return i;
        }
        return scan_bytes(buf, done, last);
    }
    if (const std::int64_t i = resolve<Isa>(buf, c, Isa::pairs(buf + c), from, last); i >= 0) return i;
    c += W;
    // Back to a block boundary: the blocks from here on read whole cache
    // lines, and the bytes stepped back over were answered already.
    c -= static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(buf + c) % W);
    for (; c + 4 * W <= size; c += 4 * W) {
        if (!Isa::any_pair4(buf + c)) continue;
        for (int q = 0; q < 4; ++q) {
            const std::int64_t b = c + q * W;
            if (const std::int64_t i = resolve<Isa>(buf, b, Isa::pairs(buf + b), from, last); i >= 0) return i;
        }
    }
    for (; c + W <= size; c += W) {
        if (const std::int64_t i = resolve<Isa>(buf, c, Isa::pairs(buf + c), from, last); i >= 0) return i;
    }
    if (c - 1 > last) return -1;
    // The frame's last bytes: one block ending at the frame's end, which
    // overlaps what was answered already.
    return resolve<Isa>(buf, size - W, Isa::pairs(buf + size - W), from, last);
}

std::int64_t search_plain(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept {
    return scan_bytes(buf, from < 0 ? 0 : from, size - 5);
}

#if defined(__x86_64__)

// movemask gives two bits per 16-bit lane; the even ones stand for the lanes.
constexpr std::uint64_t kEvenBits = 0x5555555555555555ull;

struct Sse2 {
    static constexpr std::int64_t kWidth = 16;
    static int offset(std::uint64_t pairs) noexcept { return __builtin_ctzll(pairs); }
    static std::uint64_t pairs(const UTIL_UCHAR* p) noexcept {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi16(v, _mm_setzero_si128()))) & kEvenBits;
    }
    // p is 16-byte aligned.
    static bool any_pair4(const UTIL_UCHAR* p) noexcept {
        const __m128i z = _mm_setzero_si128();
        const __m128i* q = reinterpret_cast<const __m128i*>(p);
        const __m128i hit = _mm_or_si128(
            _mm_or_si128(_mm_cmpeq_epi16(_mm_load_si128(q), z), _mm_cmpeq_epi16(_mm_load_si128(q + 1), z)),
            _mm_or_si128(_mm_cmpeq_epi16(_mm_load_si128(q + 2), z), _mm_cmpeq_epi16(_mm_load_si128(q + 3), z)));
        return _mm_movemask_epi8(hit) != 0;
    }
};

// The helpers take and return no vectors, so that they may stay out of line
// in an unoptimised build without a vector crossing into baseline code.
struct Avx2 {
    static constexpr std::int64_t kWidth = 32;
    static int offset(std::uint64_t pairs) noexcept { return __builtin_ctzll(pairs); }
    __attribute__((target("avx2"))) static std::uint64_t pairs(const UTIL_UCHAR* p) noexcept {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi16(v, _mm256_setzero_si256()))) &
               kEvenBits;
    }
    // The smallest of four lanes is 0 when any of them is.
    __attribute__((target("avx2"))) static bool any_pair4(const UTIL_UCHAR* p) noexcept {
        const __m256i* q = reinterpret_cast<const __m256i*>(p);
        const __m256i low = _mm256_min_epu16(_mm256_min_epu16(_mm256_load_si256(q), _mm256_load_si256(q + 1)),
                                             _mm256_min_epu16(_mm256_load_si256(q + 2), _mm256_load_si256(q + 3)));
        return _mm256_movemask_epi8(_mm256_cmpeq_epi16(low, _mm256_setzero_si256())) != 0;
    }
};

struct Avx512 {
    static constexpr std::int64_t kWidth = 64;
    // One mask bit per 16-bit lane.
    static int offset(std::uint64_t pairs) noexcept { return 2 * __builtin_ctzll(pairs); }
    __attribute__((target("avx512bw"))) static std::uint64_t pairs(const UTIL_UCHAR* p) noexcept {
        const __m512i v = _mm512_loadu_si512(p);
        return _mm512_testn_epi16_mask(v, v);
    }
    __attribute__((target("avx512bw"))) static bool any_pair4(const UTIL_UCHAR* p) noexcept {
        const __m512i* q = reinterpret_cast<const __m512i*>(p);
        const __m512i low = _mm512_min_epu16(_mm512_min_epu16(_mm512_load_si512(q), _mm512_load_si512(q + 1)),
                                             _mm512_min_epu16(_mm512_load_si512(q + 2), _mm512_load_si512(q + 3)));
        return _mm512_testn_epi16_mask(low, low) != 0;
    }
};

std::int64_t search_sse2(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept {
    return search_wide<Sse2>(buf, from, size);
}

__attribute__((target("avx2"))) std::int64_t search_avx2(const UTIL_UCHAR* buf, std::int64_t from,
                                                         std::int64_t size) noexcept {
    return search_wide<Avx2>(buf, from, size);
}

__attribute__((target("avx512bw"))) std::int64_t search_avx512(const UTIL_UCHAR* buf, std::int64_t from,
                                                               std::int64_t size) noexcept {
    return search_wide<Avx512>(buf, from, size);
}

#elif defined(__aarch64__)

struct Neon {
    static constexpr std::int64_t kWidth = 16;
    // Narrowed, each 16-bit lane is one byte of the mask; its low bit stands
    // for the lane.
    static int offset(std::uint64_t pairs) noexcept { return __builtin_ctzll(pairs) / 4; }
    static std::uint64_t pairs(const UTIL_UCHAR* p) noexcept {
        const uint16x8_t zero = vceqzq_u16(vreinterpretq_u16_u8(vld1q_u8(p)));
        return vget_lane_u64(vreinterpret_u64_u8(vmovn_u16(zero)), 0) & 0x0101010101010101ull;
    }
    static bool any_pair4(const UTIL_UCHAR* p) noexcept {
        const uint16x8_t low01 = vminq_u16(vreinterpretq_u16_u8(vld1q_u8(p)), vreinterpretq_u16_u8(vld1q_u8(p + 16)));
        const uint16x8_t low23 =
            vminq_u16(vreinterpretq_u16_u8(vld1q_u8(p + 32)), vreinterpretq_u16_u8(vld1q_u8(p + 48)));
        return vminvq_u16(vminq_u16(low01, low23)) == 0;
    }
};

std::int64_t search_neon(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept {
    return search_wide<Neon>(buf, from, size);
}

#endif

// The search built for `isa` in this build, whether or not the CPU has it.
StartCodeSearch built_search(ScanIsa isa) noexcept {
    switch (isa) {
        case ScanIsa::plain:
            return search_plain;
#if defined(__x86_64__)
        case ScanIsa::sse2:
            return search_sse2;
        case ScanIsa::avx2:
            return search_avx2;
        case ScanIsa::avx512:
            return search_avx512;
#elif defined(__aarch64__)
        case ScanIsa::neon:
            return search_neon;
#endif
        default:
            return nullptr;
    }
}

bool cpu_runs(ScanIsa isa) noexcept {
#if defined(__x86_64__)
    __builtin_cpu_init();
    if (isa == ScanIsa::avx2) return __builtin_cpu_supports("avx2");
    if (isa == ScanIsa::avx512) return __builtin_cpu_supports("avx512bw");
#endif
    (void)isa;
    return true;  // plain and the architecture's baseline
}

}  // namespace

ScanIsa choose_scan_isa(const char* forced) noexcept {
    if (forced != nullptr) {
        for (const ScanIsa isa : kAllScanIsas) {
            if (std::strcmp(forced, scan_isa_name(isa)) == 0 && start_code_search_for(isa) != nullptr) return isa;
        }
    }
    for (const ScanIsa isa : {ScanIsa::avx512, ScanIsa::avx2, ScanIsa::neon, ScanIsa::sse2}) {
        if (start_code_search_for(isa) != nullptr) return isa;
    }
    return ScanIsa::plain;
}

const char* scan_isa_name(ScanIsa isa) noexcept {
    switch (isa) {
        case ScanIsa::plain:
            return "plain";
        case ScanIsa::sse2:
            return "sse2";
        case ScanIsa::avx2:
            return "avx2";
        case ScanIsa::avx512:
            return "avx512";
        case ScanIsa::neon:
            return "neon";
    }
    return "?";
}

StartCodeSearch start_code_search_for(ScanIsa isa) noexcept {
    const StartCodeSearch search = built_search(isa);
    return search != nullptr && cpu_runs(isa) ? search : nullptr;
}

ScanIsa active_scan_isa() noexcept {
    static const ScanIsa chosen = choose_scan_isa(std::getenv("QUILLANE_SCAN_ISA"));
    return chosen;
}

std::int64_t find_start_code(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept {
    // Chosen once per process: every scan of a stream takes the same path.
    static const StartCodeSearch search = start_code_search_for(active_scan_isa());
    return search(buf, from, size);
}

}  // namespace quillane

using quillane::find_start_code;
namespace nal = quillane::nal;

// The public header names the types the library stops at; they are the
// NAL layer's.
static_assert(nal::h264::kSlice == ENUM_UTIL_H264_FRAME_NALU_TYPE_P && nal::h264::kIdr == ENUM_UTIL_H264_FRAME_NALU_TYPE_IDR &&
              nal::h264::kSps == ENUM_UTIL_H264_FRAME_NALU_TYPE_SPS && nal::h264::kPps == ENUM_UTIL_H264_FRAME_NALU_TYPE_PPS);
static_assert(nal::h265::kTrailR == ENUM_UTIL_H265_FRAME_NALU_TYPE_P &&
              nal::h265::kIdrWRadl == ENUM_UTIL_H265_FRAME_NALU_TYPE_IDR &&
              nal::h265::kVps == ENUM_UTIL_H265_FRAME_NALU_TYPE_VPS &&
              nal::h265::kSps == ENUM_UTIL_H265_FRAME_NALU_TYPE_SPS &&
              nal::h265::kPps == ENUM_UTIL_H265_FRAME_NALU_TYPE_PPS);

namespace {

// V1 knows its codec; a type that is neither never finds a picture.
struct CodecPicture {
    UTIL_H26X_STREAM_TYPE_ENUM type;
    bool operator()(int header) const noexcept {
        switch (type) {
            case ENUM_UTIL_H264_STREAM_TYPE:
                return nal::h264::is_picture(header);
            case ENUM_UTIL_H265_STREAM_TYPE:
                return nal::h265::is_picture(header);
            default:
                return false;
        }
    }
};

// V2 and V3 are not told the codec and stop at a picture of either.
struct AnyPicture {
    bool operator()(int header) const noexcept { return nal::is_picture_any(header); }
};

// Whether a scan that was to stop at a picture failed to: it ran out of
// start codes, or the picture's start code lies so close to the end that the
// scan position had already reached the last four bytes.
bool missed_picture(UTIL_S32 analyzeAllFlag, bool stopped, std::int64_t pos, std::int64_t frame_size) noexcept {
    return analyzeAllFlag == 0 && (!stopped || pos >= frame_size - 4);
}

// The one walk over a frame's units. V1, V2 and V3 list the same units and
// differ only in where they keep them (the caller's fixed record, one array
// of the exact size, a chain of nodes): each hands the walk a sink whose
// take(position, header byte) keeps a unit, or writes its message and
// answers false when it cannot.
//
// From `from` on, every unit goes to the sink, up to the first picture
// unless analyzeAllFlag is set. Returns the number of units, or -1 when the
// sink refused one, or when there was no unit or not the picture looked for
// (said on behalf of the operation `where` names).
template <class Sink, class IsPicture>
[[gnu::always_inline]] inline int walk_units(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size,
                                             UTIL_S32 analyzeAllFlag, IsPicture is_picture, Sink& sink,
                                             const quillane::Where& where) noexcept {
    int count = 0;
    std::int64_t pos = from;
    bool stopped = false;
    for (std::int64_t i; (i = find_start_code(buf, pos, size)) >= 0;) {
        const UTIL_UCHAR header = buf[i + 4];
        if (!sink.take(i, header)) return -1;
        ++count;
        pos = i + 4;
        if (analyzeAllFlag == 0 && is_picture(header)) {
            stopped = true;
            break;
        }
    }
    if (missed_picture(analyzeAllFlag, stopped, pos, size) || count == 0) {
        UTIL_DBG_ERR_AT(where, "error: no IDR or P frame nalu type!!!");
        return -1;
    }
    return count;
}

// V1: the caller's record holds seven units and the terminator; the eighth
// unit fails the scan.
struct RecordSink {
    static constexpr int kMax = 8;
    util_h26x_frame_buf_info_t* rec;
    const quillane::Where& where;
    int count = 0;
    std::int64_t last = 0;

    bool take(std::int64_t i, UTIL_UCHAR header) noexcept {
        util_h26x_frame_buf_info_one_t& unit = rec->list[count];
        unit.position = static_cast<UTIL_U64>(i);
        if (count > 0) rec->list[count - 1].length = static_cast<UTIL_U64>(i - last);
        unit.nalu = header;
        last = i;
        if (++count >= kMax) {
            UTIL_DBG_ERR_AT(where, "error: max is out of range!!! max=%d", kMax);
            return false;
        }
        return true;
    }
};

// V2's first pass: every unit counted, the first kLocal of them remembered
// on the stack, so that a frame of up to kLocal units is read only once and
// the array is still allocated once, at its exact size, after counting.
struct StackSink {
    static constexpr int kLocal = 512;
    std::uint32_t pos[kLocal];
    UTIL_UCHAR header[kLocal];
    int n = 0;

    bool take(std::int64_t i, UTIL_UCHAR h) noexcept {
        if (n < kLocal) {
            pos[n] = static_cast<std::uint32_t>(i);
            header[n] = h;
        }
        ++n;
        return true;
    }
};

// V2's array, filled from unit `n` on; the unit before it is in place.
struct ArraySink {
    util_h26x_frame_buf_info_one_t* units;
    int n;

    bool take(std::int64_t i, UTIL_UCHAR header) noexcept {
        units[n].position = static_cast<UTIL_U64>(i);
        if (n > 0) units[n - 1].length = static_cast<UTIL_U64>(i) - units[n - 1].position;
        units[n].nalu = header;
        ++n;
        return true;
    }
};

// V3: each unit fills the node at the end of the chain and hangs a fresh,
// empty one behind it, which the terminator fills.
struct ChainSink {
    using Node = util_h26x_frame_buf_info_one_node_t;
    util_link_h26x_frame_buf_info_t* link;
    const quillane::Where& where;
    Node* cur;
    Node* prev = nullptr;

    bool take(std::int64_t i, UTIL_UCHAR header) noexcept {
        cur->hfbi.position = static_cast<UTIL_U64>(i);
        if (prev != nullptr) prev->hfbi.length = static_cast<UTIL_U64>(i) - prev->hfbi.position;
        cur->hfbi.nalu = header;
        ++link->count;
        cur->next = static_cast<Node*>(quillane::mem_calloc(1, sizeof(Node)));
        if (cur->next == nullptr) {
            UTIL_DBG_ERR_AT(where, "error: link next malloc failed!!!!!");
            return false;
        }
        prev = cur;
        cur = cur->next;
        return true;
    }
};

UTIL_S32 Func_h26x_base_readBitsToU32(const UTIL_UCHAR* pdata, UTIL_S32 startByteIndex, UTIL_S8 startBitIndex,
                                      UTIL_S32 endByteIndex, UTIL_U8 readBits, UTIL_U32* result) noexcept {
    if (startBitIndex < 0 || startBitIndex > 7 || readBits > 32) {
        return -1;
    }
    const std::int64_t available =
        (static_cast<std::int64_t>(endByteIndex) - startByteIndex) * 8 - (7 - startBitIndex);
    if (available < readBits) {
        UTIL_DBG_ERR("error: readBits outrange data array");
        return -1;
    }
    // Nothing to read from or nowhere to put it: refused like a bad bit index.
    if (result == nullptr || startByteIndex < 0 || (pdata == nullptr && readBits > 0)) {
        return -1;
    }
    UTIL_U32 value = 0;
    for (int n = 0; n < readBits; ++n) {
        const std::int64_t byte = startByteIndex + (7 - startBitIndex + n) / 8;
        if (byte >= endByteIndex) {
            UTIL_DBG_ERR("error: outrange data array, curI=%d, endI=%d", static_cast<int>(byte), endByteIndex);
            break;
        }
        const int bit = ((startBitIndex - n) % 8 + 8) % 8;
        value = (value << 1) | ((pdata[byte] >> bit) & 1u);
    }
    *result = value;
    return 0;
}


UTIL_S32 Func_V1_get_h26x_frame_buf_info_function(util_h26x_frame_buf_info_t* phfbi, UTIL_UCHAR* frame_buf,
                                                  UTIL_S32 frame_size, UTIL_H26X_STREAM_TYPE_ENUM frame_type,
                                                  UTIL_S32 analyzeAllFlag) noexcept {
    if (phfbi == nullptr || frame_buf == nullptr) {
        UTIL_DBG_ERR("error: phfbi or frame_buf is NULL, frame_size:%d!!!", frame_size);
        return -1;
    }
    static constexpr quillane::Where kHere = UTIL_HERE;  // a constant: built only when it speaks
    RecordSink sink{phfbi, kHere};
    const int count = walk_units(frame_buf, 0, frame_size, analyzeAllFlag, CodecPicture{frame_type}, sink, kHere);
    if (count < 0) return -1;
    phfbi->list[count - 1].length = static_cast<UTIL_U64>(frame_size - sink.last);
    phfbi->list[count].position = static_cast<UTIL_U64>(frame_size);
    phfbi->list[count].length = 0;
    phfbi->count = count;
    return 0;
}

UTIL_S32 Func_V2_exit_list_h26x_frame_buf_info_function(util_list_h26x_frame_buf_info_t* phfbiList) noexcept {
    if (phfbiList == nullptr) {
        UTIL_DBG_ERR("error: phfbiList is NULL!");
        return -1;
    }
    quillane::mem_free(phfbiList->phfbi);
    phfbiList->phfbi = nullptr;
    phfbiList->hfbiMax = 0;
    return 0;
}

UTIL_S32 Func_V2_init_list_h26x_frame_buf_info_function(util_list_h26x_frame_buf_info_t* phfbiList,
                                                        UTIL_S32 analyzeAllFlag) noexcept {
    if (phfbiList == nullptr || phfbiList->frame_addr == nullptr || phfbiList->frame_size <= 0) {
        // Without a record there is no size to show; 0 stands in.
        UTIL_DBG_ERR("error: phfbiList or frame_buf is NULL, frame_size:%d!!!",
                     phfbiList != nullptr ? phfbiList->frame_size : 0);
        return -1;
    }
    const UTIL_UCHAR* buf = phfbiList->frame_addr;
    const std::int64_t size = phfbiList->frame_size;
    static constexpr quillane::Where kHere = UTIL_HERE;
    StackSink seen;
    const int total = walk_units(buf, 0, size, analyzeAllFlag, AnyPicture{}, seen, kHere);
    if (total < 0) return -1;

    if (phfbiList->phfbi != nullptr) {
        Func_V2_exit_list_h26x_frame_buf_info_function(phfbiList);
    }
    auto* units = static_cast<util_h26x_frame_buf_info_one_t*>(
        quillane::mem_malloc(sizeof(util_h26x_frame_buf_info_one_t) * static_cast<std::size_t>(total)));
    if (units == nullptr) {
        UTIL_DBG_ERR("error: malloc failed!!!!!");
        return -1;
    }
    phfbiList->phfbi = units;
    phfbiList->hfbiMax = total;
    ArraySink fill{units, 0};
    const int remembered = total < StackSink::kLocal ? total : StackSink::kLocal;
    for (int n = 0; n < remembered; ++n) fill.take(seen.pos[n], seen.header[n]);
    if (total > remembered) {
        // The units past the remembered ones, walked again from the last of
        // those: the same walk ends at the same unit.
        walk_units(buf, seen.pos[remembered - 1] + 4, size, analyzeAllFlag, AnyPicture{}, fill, kHere);
    }
    units[total - 1].length = static_cast<UTIL_U64>(size) - units[total - 1].position;
    return 0;
}

UTIL_S32 Func_V3_exit_link_h26x_frame_buf_info_function(util_link_h26x_frame_buf_info_t* phfbiLink) noexcept {
    if (phfbiLink == nullptr) {
        UTIL_DBG_ERR("error: phfbiLink is NULL!");
        return -1;
    }
    util_h26x_frame_buf_info_one_node_t* node = phfbiLink->head;
    while (node != nullptr) {
        util_h26x_frame_buf_info_one_node_t* next = node->next;
        quillane::mem_free(node);
        node = next;
    }
    phfbiLink->head = nullptr;
    phfbiLink->count = 0;
    return 0;
}

UTIL_S32 Func_V3_init_link_h26x_frame_buf_info_function(util_link_h26x_frame_buf_info_t* phfbiLink,
                                                        UTIL_S32 analyzeAllFlag) noexcept {
    if (phfbiLink == nullptr || phfbiLink->frame_addr == nullptr || phfbiLink->frame_size < 1) {
        UTIL_DBG_ERR("error: phfbiLink or frame_buf is NULL, frame_size:%d!!!",
                     phfbiLink != nullptr ? phfbiLink->frame_size : 0);
        return -1;
    }
    if (phfbiLink->head != nullptr || phfbiLink->count != 0) {
        UTIL_DBG_ERR("warning: phfbiLink head is not NULL or count is not 0!");
        Func_V3_exit_link_h26x_frame_buf_info_function(phfbiLink);
    }
    using Node = util_h26x_frame_buf_info_one_node_t;
    phfbiLink->head = static_cast<Node*>(quillane::mem_calloc(1, sizeof(Node)));
    if (phfbiLink->head == nullptr) {
        UTIL_DBG_ERR("error: link head malloc failed!!!!!");
        return -1;
    }
    const std::int64_t size = phfbiLink->frame_size;
    static constexpr quillane::Where kHere = UTIL_HERE;
    ChainSink chain{phfbiLink, kHere, phfbiLink->head};
    if (walk_units(phfbiLink->frame_addr, 0, size, analyzeAllFlag, AnyPicture{}, chain, kHere) < 0) return -1;
    chain.prev->hfbi.length = static_cast<UTIL_U64>(size) - chain.prev->hfbi.position;
    chain.cur->hfbi.position = static_cast<UTIL_U64>(size);
    chain.cur->hfbi.length = 0;
    return 0;
}

// ---- stream-to-file writers ----

UTIL_S32 Func_SAMPLE_COMM_VENC_SaveH264(FILE* fpH264File, const UTIL_CHAR* pData, UTIL_S32 nLength) noexcept {
    if (fpH264File == nullptr) {
        return -1;
    }
    return static_cast<UTIL_S32>(std::fwrite(pData, 1, static_cast<std::size_t>(nLength), fpH264File));
}

// A chunk the writers can take: bytes to read, a size that is not negative.
bool chunk_ok(const UTIL_CHAR* pstStream, UTIL_S32 frame_size) noexcept {
    return frame_size >= 0 && (pstStream != nullptr || frame_size == 0);
}

void Func_h26x_base_fw_save_stream_bySize(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                          util_h26xBaseSaveStreamToFile_t* pst) noexcept {
    if (pst == nullptr || !chunk_ok(pstStream, frame_size)) {
        return;
    }
    if (pst->write_size >= pst->max_size) {
        if (pst->fp != nullptr) {
            std::fclose(pst->fp);
            pst->fp = nullptr;
        }
        return;
    }
    if (pst->fp == nullptr) {
        pst->fp = pst->file_name != nullptr ? std::fopen(pst->file_name, "wb+e") : nullptr;
        if (pst->fp == nullptr) {
            UTIL_DBG_ERR("error: fopen failed");
            return;
        }
    }
    Func_SAMPLE_COMM_VENC_SaveH264(pst->fp, pstStream, frame_size);
    pst->write_size += static_cast<UTIL_U64>(frame_size);
}

void Func_h26x_base_w_save_stream_bySize(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                         util_h26xBaseSaveStreamToFile_t* pst) noexcept {
    if (pst == nullptr || !chunk_ok(pstStream, frame_size)) {
        return;
    }
    if (pst->write_size >= pst->max_size) {
        if (pst->fd > 2) {
            close(pst->fd);
            pst->fd = -1;
        }
        return;
    }
    if (pst->fd <= 2) {
        // Created like the buffered writers' files: 0666 less the umask.
        pst->fd = pst->file_name != nullptr
                      ? open(pst->file_name, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666)
                      : -1;
        if (pst->fd < 0) {
            UTIL_DBG_ERR("error: open failed");
            return;
        }
    }
    // A short or failed write still counts against the budget.
    [[maybe_unused]] const ssize_t written = write(pst->fd, pstStream, static_cast<std::size_t>(frame_size));
    pst->write_size += static_cast<UTIL_U64>(frame_size);
}

bool file_exists(const UTIL_CHAR* path) noexcept { return path != nullptr && access(path, F_OK) == 0; }

void Func_h26x_base_fw_save_stream_byFlag(UTIL_CHAR* pstStream, UTIL_S32 frame_size,
                                          util_h26xBaseSaveStreamToFileByFlag_t* pst) noexcept {
    if (pst == nullptr) {
        return;
    }
    const bool started = file_exists(pst->startFileFlag);
    if (file_exists(pst->endFileFlag)) {
        // The stop flag ends a recording and consumes both flags.
        std::remove(pst->endFileFlag);
        if (started) std::remove(pst->startFileFlag);
        if (pst->save.fp != nullptr) {
            std::fclose(pst->save.fp);
            pst->save.fp = nullptr;
        }
        return;
    }
    if (started) {
        Func_h26x_base_fw_save_stream_bySize(pstStream, frame_size, &pst->save);
    }
}

}  // namespace

util_ops_h26x_base_fun_t util_ops_h26x_base_fun = {
    Func_h26x_base_readBitsToU32,
    Func_V1_get_h26x_frame_buf_info_function,
    Func_V2_init_list_h26x_frame_buf_info_function,
    Func_V2_exit_list_h26x_frame_buf_info_function,
    Func_V3_init_link_h26x_frame_buf_info_function,
    Func_V3_exit_link_h26x_frame_buf_info_function,
    Func_h26x_base_fw_save_stream_bySize,
    Func_h26x_base_w_save_stream_bySize,
    Func_h26x_base_fw_save_stream_byFlag,
};
