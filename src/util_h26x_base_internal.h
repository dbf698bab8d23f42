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
std::int64_t find_start_code(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept;

}  // namespace quillane

extern util_ops_h26x_base_fun_t util_ops_h26x_base_fun;
