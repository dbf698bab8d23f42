// Pieces of the H.26x stream base that other modules and the white-box
// tests reach directly.
#pragma once

#include <cstdint>

#include "util_h26x_base_function.h"

namespace quillane {

// Index of the first four-byte start code (00 00 00 01) at or after `from`
// whose following header byte still lies inside the frame, or -1 if none.
std::int64_t find_start_code(const UTIL_UCHAR* buf, std::int64_t from, std::int64_t size) noexcept;

}  // namespace quillane

extern util_ops_h26x_base_fun_t util_ops_h26x_base_fun;
