// Fuzzes the H.26x stream base: the bit reader against a bit-by-bit model,
// the three NAL unit scanners against each other and against a plain
// byte-by-byte start-code scan, and every start-code search this CPU runs
// (each vector width and the plain one) against that same scan.
//
// Input layout: kControlBytes bytes that pick the reader's arguments and the
// scanners' non-zero flag, then the frame. Every buffer handed to the library
// is a heap block of exactly the size it is told about, so AddressSanitizer
// reports any read past it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_check.h"
#include "util_function.h"
#include "h26x/nal.h"
#include "h26x/util_h26x_base_internal.h"
#include "h26x_reference.h"

namespace {

constexpr std::size_t kControlBytes = 8;

const util_ops_h26x_base_fun_t& ops() { return *util_ops_pfun->h26x_base; }

// An exact-sized heap copy: the tail of the fuzz input would let a reader
// wander into the control bytes unnoticed.
struct HeapCopy {
    fuzz::Block block;
    UTIL_UCHAR* p;
    HeapCopy(const std::uint8_t* src, std::size_t n)
        : block(src, n, false), p(reinterpret_cast<UTIL_UCHAR*>(block.get())) {}
};

// ---- bit reader ----

struct ReaderArgs {
    std::int32_t start;
    std::int8_t bit;
    std::int32_t end;
    std::uint8_t bits;
    bool null_data;
    bool null_result;
};

ReaderArgs reader_args(const std::uint8_t* c, std::int32_t frame_size) {
    ReaderArgs a{};
    const std::uint32_t s = c[1] | (c[2] << 8);
    const std::uint32_t e = c[3] | (c[4] << 8);
    // The start may lie one before the frame or anywhere up to one past the
    // end; the end never lies past the real buffer.
    a.start = static_cast<std::int32_t>(s % static_cast<std::uint32_t>(frame_size + 3)) - 1;
    a.end = frame_size - static_cast<std::int32_t>(e % static_cast<std::uint32_t>(frame_size + 1));
    // Mostly a valid bit index, sometimes one too large or negative.
    if (c[5] & 0x80)
        a.bit = static_cast<std::int8_t>(c[5]);
    else if (c[5] & 0x40)
        a.bit = static_cast<std::int8_t>(c[5] & 0x0F);
    else
        a.bit = static_cast<std::int8_t>(c[5] & 7);
    a.bits = c[6] < 0xF0 ? static_cast<std::uint8_t>(c[6] % 34) : c[6];
    a.null_data = (c[7] & 0x01) != 0 && (c[7] & 0x02) != 0;
    a.null_result = (c[7] & 0x04) != 0 && (c[7] & 0x08) != 0;
    return a;
}

void fuzz_reader(const std::uint8_t* frame, const ReaderArgs& a) {
    // Only [lo, end) is allocated and the pointer handed over is shifted so
    // that index lo lands on the block's first byte: a read before the start
    // byte hits the left redzone, one at or past the end the right one.
    const std::int32_t lo = a.start < 0 ? 0 : (a.start > a.end ? a.end : a.start);
    HeapCopy region(frame + lo, static_cast<std::size_t>(a.end - lo));
    const UTIL_UCHAR* pdata = a.null_data ? nullptr : region.p - lo;

    const bool args_ok =
        a.bit >= 0 && a.bit <= 7 && a.bits <= 32 && a.start >= 0 && !a.null_result && (!a.null_data || a.bits == 0);
    // The first bit read is bit `bit` (7 = most significant) of byte `start`.
    const std::int64_t first = static_cast<std::int64_t>(a.start) * 8 + (7 - a.bit);
    const bool fits = first + a.bits <= static_cast<std::int64_t>(a.end) * 8;

    constexpr UTIL_U32 kUntouched = 0xDEADBEEFu;
    UTIL_U32 result = kUntouched;
    const UTIL_S32 rc = ops().readBitsToU32(pdata, a.start, a.bit, a.end, a.bits, a.null_result ? nullptr : &result);
    if (!(args_ok && fits)) {
        CHECK(rc == -1);
        CHECK(result == kUntouched);
        return;
    }
    CHECK(rc == 0);
    UTIL_U32 want = 0;
    for (std::int64_t n = first; n < first + a.bits; ++n) {
        want = (want << 1) | ((frame[n / 8] >> (7 - n % 8)) & 1u);
    }
    CHECK(result == want);
}

// ---- NAL unit scanners ----

struct Unit {
    std::int64_t position;
    std::int32_t nalu;
    std::uint64_t length;
    bool operator==(const Unit&) const = default;
};

enum class Outcome { Fail, Ok, Either };

struct Expected {
    Outcome outcome;
    std::vector<Unit> units;
};

struct Scan {
    UTIL_S32 rc;
    std::vector<Unit> units;
};

// The plain definition of a start code, one byte at a time.
using qtest::ref_start_codes;

constexpr bool picture_h264(int b) { return quillane::nal::h264::is_picture(b); }
constexpr bool picture_h265(int b) { return quillane::nal::h265::is_picture(b); }
constexpr bool picture_any(int b) { return quillane::nal::is_picture_any(b); }
constexpr bool picture_none(int) { return false; }

// The units a scan should report: every start code when analysing the whole
// frame, else those up to and including the first picture unit. A picture
// whose start code sits in the frame's last eight bytes may or may not count
// as found, so that case only constrains the units.
Expected expected_scan(const UTIL_UCHAR* buf, std::int64_t size, const std::vector<std::int64_t>& codes,
                       bool analyze_all, bool (*picture)(int)) {
    std::size_t n = codes.size();
    Outcome outcome = n > 0 ? Outcome::Ok : Outcome::Fail;
    if (!analyze_all) {
        std::size_t k = 0;
        while (k < n && !picture(buf[codes[k] + 4])) ++k;
        if (k == n) return {Outcome::Fail, {}};
        n = k + 1;
        outcome = codes[k] + 8 < size ? Outcome::Ok : Outcome::Either;
    }
    Expected e{outcome, {}};
    for (std::size_t k = 0; k < n; ++k) {
        const std::int64_t next = k + 1 < n ? codes[k + 1] : size;
        e.units.push_back({codes[k], buf[codes[k] + 4], static_cast<std::uint64_t>(next - codes[k])});
    }
    return e;
}

void check_against(const Scan& got, const Expected& want) {
    CHECK(got.rc == 0 || got.rc == -1);
    if (want.outcome == Outcome::Fail) CHECK(got.rc == -1);
    if (want.outcome == Outcome::Ok) CHECK(got.rc == 0);
    if (got.rc == 0) CHECK(got.units == want.units);
}

// What every successful scan must hold on its own, whatever the flag.
void check_units(const UTIL_UCHAR* buf, std::int64_t size, const std::vector<Unit>& units) {
    CHECK(!units.empty());
    for (std::size_t k = 0; k < units.size(); ++k) {
        const Unit& u = units[k];
        CHECK(u.position >= 0 && u.position + 4 < size);
        CHECK(buf[u.position] == 0 && buf[u.position + 1] == 0 && buf[u.position + 2] == 0 && buf[u.position + 3] == 1);
        CHECK(u.nalu == buf[u.position + 4]);
        const std::int64_t next = k + 1 < units.size() ? units[k + 1].position : size;
        CHECK(u.position < next);
        CHECK(u.position + static_cast<std::int64_t>(u.length) == next);
    }
}

Scan run_v1(UTIL_UCHAR* buf, std::int32_t size, UTIL_H26X_STREAM_TYPE_ENUM type, UTIL_S32 flag) {
    util_h26x_frame_buf_info_t info;
    std::memset(&info, 0xA5, sizeof info);
    Scan s{ops().V1_get_hfbi(&info, buf, size, type, flag), {}};
    if (s.rc != 0) return s;
    CHECK(info.count >= 1 && info.count <= 7);
    for (int k = 0; k < info.count; ++k) {
        const util_h26x_frame_buf_info_one_t& u = info.list[k];
        s.units.push_back({static_cast<std::int64_t>(u.position), u.nalu, u.length});
    }
    CHECK(info.list[info.count].position == static_cast<UTIL_U64>(size));
    CHECK(info.list[info.count].length == 0);
    check_units(buf, size, s.units);
    return s;
}

std::vector<Unit> v2_units(const util_list_h26x_frame_buf_info_t& list) {
    std::vector<Unit> units;
    for (int k = 0; k < list.hfbiMax; ++k) {
        const util_h26x_frame_buf_info_one_t& u = list.phfbi[k];
        units.push_back({static_cast<std::int64_t>(u.position), u.nalu, u.length});
    }
    return units;
}

Scan run_v2(UTIL_UCHAR* buf, std::int32_t size, UTIL_S32 flag) {
    util_list_h26x_frame_buf_info_t list{};
    list.frame_addr = buf;
    list.frame_size = size;
    Scan s{ops().V2_init_list(&list, flag), {}};
    if (s.rc == 0) {
        CHECK(list.phfbi != nullptr && list.hfbiMax >= 1);
        s.units = v2_units(list);
        check_units(buf, size, s.units);
    }
    // A second scan into the same record must release the first array itself
    // (LeakSanitizer reports it otherwise) and give the same answer.
    CHECK(ops().V2_init_list(&list, flag) == s.rc);
    if (s.rc == 0) CHECK(v2_units(list) == s.units);
    CHECK(ops().V2_exit_list(&list) == 0);
    CHECK(list.phfbi == nullptr && list.hfbiMax == 0);
    return s;
}

// The chain's units, checking that it holds exactly `count` of them and then
// a terminator at the frame's end.
std::vector<Unit> v3_units(const util_link_h26x_frame_buf_info_t& link, std::int32_t size) {
    std::vector<Unit> units;
    CHECK(link.count >= 1);
    const util_h26x_frame_buf_info_one_node_t* node = link.head;
    for (int k = 0; k < link.count; ++k) {
        CHECK(node != nullptr);
        units.push_back({static_cast<std::int64_t>(node->hfbi.position), node->hfbi.nalu, node->hfbi.length});
        node = node->next;
    }
    CHECK(node != nullptr && node->next == nullptr);
    CHECK(node->hfbi.position == static_cast<UTIL_U64>(size) && node->hfbi.length == 0);
    return units;
}

Scan run_v3(UTIL_UCHAR* buf, std::int32_t size, UTIL_S32 flag) {
    util_link_h26x_frame_buf_info_t link{};
    link.frame_addr = buf;
    link.frame_size = size;
    Scan s{ops().V3_init_list(&link, flag), {}};
    if (s.rc == 0) {
        s.units = v3_units(link, size);
        check_units(buf, size, s.units);
    }
    // Scanning again without an exit in between must free the old chain,
    // including the partial one a failed scan leaves behind.
    CHECK(ops().V3_init_list(&link, flag) == s.rc);
    if (s.rc == 0) CHECK(v3_units(link, size) == s.units);
    CHECK(ops().V3_exit_list(&link) == 0);
    CHECK(link.head == nullptr && link.count == 0);
    return s;
}

void fuzz_scanners(UTIL_UCHAR* buf, std::int32_t size, UTIL_S32 flag_on) {
    const std::vector<std::int64_t> codes = ref_start_codes(buf, size);
    const UTIL_S32 flags[2] = {0, flag_on};
    for (const UTIL_S32 flag : flags) {
        const bool all = flag != 0;
        const Scan v2 = run_v2(buf, size, flag);
        const Scan v3 = run_v3(buf, size, flag);
        CHECK(v2.rc == v3.rc);
        CHECK(v2.units == v3.units);
        check_against(v2, expected_scan(buf, size, codes, all, picture_any));

        struct Codec {
            UTIL_H26X_STREAM_TYPE_ENUM type;
            bool (*picture)(int);
        };
        // A type that is neither codec never recognises a picture.
        const Codec codecs[3] = {{ENUM_UTIL_H264_STREAM_TYPE, picture_h264},
                                 {ENUM_UTIL_H265_STREAM_TYPE, picture_h265},
                                 {static_cast<UTIL_H26X_STREAM_TYPE_ENUM>(0), picture_none}};
        for (const Codec& c : codecs) {
            const Scan v1 = run_v1(buf, size, c.type, flag);
            Expected want = expected_scan(buf, size, codes, all, c.picture);
            // V1's fixed list holds seven units and the terminator.
            if (want.units.size() > 7) want = {Outcome::Fail, {}};
            check_against(v1, want);
            // Over the whole frame the codec plays no part, so V1 and V2
            // agree whenever V1 has room for the units.
            if (all && v1.rc == 0) {
                CHECK(v2.rc == 0);
                CHECK(v1.units == v2.units);
            }
        }
    }
}

// Each search path, resumed after every start code and from one arbitrary
// point, finds exactly the plain scan's start codes.
void check_search_paths(const UTIL_UCHAR* buf, std::int64_t size, std::int64_t from_any) {
    const std::vector<std::int64_t> codes = ref_start_codes(buf, size);
    std::size_t first_after = 0;
    while (first_after < codes.size() && codes[first_after] < from_any) ++first_after;
    const std::int64_t want_any = first_after < codes.size() ? codes[first_after] : -1;
    for (const quillane::ScanIsa isa : quillane::kAllScanIsas) {
        const quillane::StartCodeSearch search = quillane::start_code_search_for(isa);
        if (search == nullptr) continue;
        std::int64_t from = 0;
        for (const std::int64_t code : codes) {
            CHECK(search(buf, from, size) == code);
            from = code + 4;
        }
        CHECK(search(buf, from, size) == -1);
        CHECK(search(buf, from_any, size) == want_any);
    }
}

// Seeds are short, and a short frame never reaches the wide loops: the
// frame is also searched repeated to 700 bytes or more, at a skew that moves
// its start codes across the vector boundaries.
void fuzz_search_paths(const UTIL_UCHAR* buf, std::int32_t size, const std::uint8_t* control) {
    const std::int64_t from_any = (control[1] | (control[2] << 8)) % (static_cast<std::int64_t>(size) + 2) - 1;
    check_search_paths(buf, size, from_any);
    if (size == 0 || size >= 700) return;
    const std::size_t skew = control[7] % 64;
    const std::size_t copies = (700 + static_cast<std::size_t>(size) - 1) / static_cast<std::size_t>(size);
    const std::size_t total = copies * static_cast<std::size_t>(size);
    fuzz::Block block(skew + total);
    auto* longer = reinterpret_cast<UTIL_UCHAR*>(block.get()) + skew;
    for (std::size_t k = 0; k < copies; ++k) {
        std::memcpy(longer + k * static_cast<std::size_t>(size), buf, static_cast<std::size_t>(size));
    }
    check_search_paths(longer, static_cast<std::int64_t>(total), from_any * static_cast<std::int64_t>(copies) / 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint8_t control[kControlBytes] = {};
    const std::size_t n = size < kControlBytes ? size : kControlBytes;
    if (n > 0) std::memcpy(control, data, n);
    const std::int32_t frame_size = static_cast<std::int32_t>(size - n);
    HeapCopy frame(data + n, static_cast<std::size_t>(frame_size));

    fuzz_reader(frame.p, reader_args(control, frame_size));

    // Any non-zero value must mean "the whole frame", negative ones included.
    const UTIL_S32 flag_on = control[0] == 0 ? 1 : static_cast<UTIL_S32>(control[0] * 0x01010101u);
    fuzz_scanners(frame.p, frame_size, flag_on);
    fuzz_search_paths(frame.p, frame_size, control);
    return 0;
}
