// Fuzzes the hexadecimal reader on arbitrary bytes, held in an exactly sized
// heap block, against a plain strtoul-based reading; and the writer's text
// read back, for the input's first four bytes as a number. The writers
// themselves are held against the standard library by the regular tests.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "util_function.h"

namespace {

const util_ops_common_base_fun_t& ops() { return *util_ops_pfun->common_base; }

bool is_x(std::uint8_t c) { return c == 'x' || c == 'X'; }

// The reading the text should get: an optional "-0x" or "0x" prefix, then
// hexadecimal digits only, of which the last eight survive the 32-bit wrap.
bool expected_htoi(const std::uint8_t* s, std::size_t n, std::int32_t* out) {
    if (n == 0) return false;
    std::size_t pos = 0;
    const bool negative = s[0] == '-';
    if (negative && (n < 4 || s[1] != '0' || !is_x(s[2]))) return false;
    if (negative || (n > 2 && s[0] == '0' && is_x(s[1]))) pos = negative ? 3 : 2;
    std::string digits(reinterpret_cast<const char*>(s) + pos, n - pos);
    for (unsigned char c : digits) {
        if (c >= 0x80 || !std::isxdigit(c)) return false;
    }
    if (digits.size() > 8) digits = digits.substr(digits.size() - 8);
    const auto v = static_cast<std::uint32_t>(digits.empty() ? 0 : std::strtoul(digits.c_str(), nullptr, 16));
    *out = static_cast<std::int32_t>(negative ? 0u - v : v);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::Block text(data, size, false);
    constexpr std::int32_t kUntouched = 0x5EED5EED;
    std::int32_t num = kUntouched, want = 0;
    const UTIL_S32 rc = ops().htoi(text.get(), &num, static_cast<UTIL_S32>(size));
    const bool valid = expected_htoi(data, size, &want);
    CHECK(rc == (valid ? 0 : -1));
    CHECK(num == (valid ? want : kUntouched));
    CHECK(size == 0 || std::memcmp(text.get(), data, size) == 0);
    if (size >= 4) {
        std::int32_t n;
        std::memcpy(&n, data, 4);
        const fuzz::Block hex(12);
        const UTIL_S32 len = ops().itoh(n, hex.get());
        CHECK(ops().htoi(hex.get(), &num, len) == 0 && num == n);
    }
    return 0;
}
