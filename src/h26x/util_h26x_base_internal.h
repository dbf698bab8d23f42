// Pieces of the H.26x stream base that other modules and the white-box
// tests reach directly.
#pragma once

#include <cstdint>
#include <cstring>

#include "util_h26x_base_function.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the byte searches read lane masks little-endian");

namespace quillane {

// 16 bytes, compiled to SSE2 on x86-64 and NEON on aarch64; comparisons give
// 0 or -1 per lane.
typedef UTIL_UCHAR Bytes16 __attribute__((vector_size(16)));
typedef signed char Mask16 __attribute__((vector_size(16)));

inline Bytes16 load16(const UTIL_UCHAR* p) noexcept {
    Bytes16 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Index of the first four-byte start code (00 00 00 01) at or after `from`
// whose following header byte still lies inside the frame, or -1 if none.
using StartCodeSearch = std::int64_t (*)(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept;

// The instruction sets the search is built for. The widest one the CPU has
// is chosen at the first search; QUILLANE_SCAN_ISA (one of the names below)
// forces another for tests and benchmarks, and is ignored when the CPU or
// the build lacks it.
enum class ScanIsa : int { plain, sse2, avx2, avx512, neon };
inline constexpr ScanIsa kAllScanIsas[] = {ScanIsa::plain, ScanIsa::sse2, ScanIsa::avx2, ScanIsa::avx512,
                                           ScanIsa::neon};

const char* scan_isa_name(ScanIsa isa) noexcept;
// The search on `isa`, or null when this build or this CPU cannot run it.
StartCodeSearch start_code_search_for(ScanIsa isa) noexcept;
// `forced` if it names a search this CPU runs, else the widest one.
ScanIsa choose_scan_isa(const char* forced) noexcept;
// The instruction set every scanner uses in this process.
ScanIsa active_scan_isa() noexcept;

// The search on the active instruction set.
std::int64_t find_start_code(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept;

}  // namespace quillane

