// Small text facts shared by the modules that read and print numbers themselves.
#pragma once

#include <cstdint>

namespace quillane {

constexpr bool is_decimal_digit(unsigned char c) noexcept { return c >= '0' && c <= '9'; }

// `value` with the decimal digit c appended while it is at most `limit`;
// past that it stops growing: the readers only need to know that a number
// is too big, never by how much. Nothing overflows for limits below 2^59.
constexpr std::int64_t push_digit(std::int64_t value, unsigned char c, std::int64_t limit) noexcept {
    return value <= limit ? value * 10 + (c - '0') : value;
}

// Digits of a byte dump ("0x1F") and of numbers printed in bases up to 16.
inline constexpr char kHexDigitsUpper[] = "0123456789ABCDEF";

}  // namespace quillane
