// Fuzzes the H.26x stream base: the bit reader against a bit-by-bit model,
// and the three NAL unit scanners and every start-code search this CPU runs
// (each vector width and the plain one) against the plain byte-by-byte scan
// the tests share.
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
#include <string>

#include "fuzz_check.h"
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

// ---- scanners and searches, against the plain scan ----

// Seeds are short, and a short frame never reaches the wide loops: the
// frame is also searched repeated to 700 bytes or more, at a skew that moves
// its start codes across the vector boundaries.
void fuzz_search_paths(const UTIL_UCHAR* buf, std::int32_t size, const std::uint8_t* control) {
    const std::int64_t from_any = (control[1] | (control[2] << 8)) % (static_cast<std::int64_t>(size) + 2) - 1;
    CHECK(qtest::check_searches(buf, size, from_any).empty());
    if (size == 0 || size >= 700) return;
    const std::size_t skew = control[7] % 64;
    const std::size_t copies = (700 + static_cast<std::size_t>(size) - 1) / static_cast<std::size_t>(size);
    const std::size_t total = copies * static_cast<std::size_t>(size);
    fuzz::Block block(skew + total);
    auto* longer = reinterpret_cast<UTIL_UCHAR*>(block.get()) + skew;
    for (std::size_t k = 0; k < copies; ++k) {
        std::memcpy(longer + k * static_cast<std::size_t>(size), buf, static_cast<std::size_t>(size));
    }
    CHECK(qtest::check_searches(longer, static_cast<std::int64_t>(total),
                                from_any * static_cast<std::int64_t>(copies) / 2)
              .empty());
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
    const std::string scan = qtest::check_scanners(frame.p, frame_size, flag_on);
    if (!scan.empty()) fuzz::fail(__FILE__, __LINE__, scan.c_str());
    fuzz_search_paths(frame.p, frame_size, control);
    return 0;
}
