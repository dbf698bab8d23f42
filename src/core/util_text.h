// Small text facts shared by the modules that print numbers themselves.
#pragma once

namespace quillane {

// Digits of a byte dump ("0x1F") and of numbers printed in bases up to 16.
inline constexpr char kHexDigitsUpper[] = "0123456789ABCDEF";

}  // namespace quillane
