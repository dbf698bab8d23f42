// Fuzzes the number-text helpers: htoi on arbitrary bytes against a
// strtoul-based reading, and the four writers on the input's first four
// bytes, each into a heap block of exactly its documented size so that
// AddressSanitizer reports a byte too many.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
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
    bool negative = false;
    if (s[0] == '-') {
        if (n < 4 || s[1] != '0' || !is_x(s[2])) return false;
        negative = true;
        pos = 3;
    } else if (n > 2 && s[0] == '0' && is_x(s[1])) {
        pos = 2;
    }
    std::string digits(reinterpret_cast<const char*>(s) + pos, n - pos);
    for (unsigned char c : digits) {
        if (c >= 0x80 || !std::isxdigit(c)) return false;
    }
    if (digits.size() > 8) digits = digits.substr(digits.size() - 8);
    const auto v = static_cast<std::uint32_t>(digits.empty() ? 0 : std::strtoul(digits.c_str(), nullptr, 16));
    *out = static_cast<std::int32_t>(negative ? 0u - v : v);
    return true;
}

void fuzz_reader(const std::uint8_t* data, std::size_t size) {
    const fuzz::Block text(data, size, false);
    constexpr std::int32_t kUntouched = 0x5EED5EED;
    std::int32_t num = kUntouched;
    const UTIL_S32 rc = ops().htoi(text.get(), &num, static_cast<UTIL_S32>(size));
    std::int32_t want = 0;
    if (expected_htoi(data, size, &want)) {
        CHECK(rc == 0);
        CHECK(num == want);
    } else {
        CHECK(rc == -1);
        CHECK(num == kUntouched);
    }
    CHECK(std::memcmp(text.get(), data, size) == 0);
}

void fuzz_writers(std::int32_t n) {
    const fuzz::Block dec(12);
    CHECK(ops().itoa(n, dec.get()) == 0);
    CHECK(std::to_string(n) == dec.get());

    const fuzz::Block hex(12);
    const UTIL_S32 hex_len = ops().itoh(n, hex.get());
    CHECK(hex_len >= 1 && hex_len <= 11 && static_cast<std::size_t>(hex_len) == std::strlen(hex.get()));
    std::int32_t back = 0;
    CHECK(ops().htoi(hex.get(), &back, hex_len) == 0);
    CHECK(back == n);

    const fuzz::Block bin(33);
    CHECK(ops().itob(n, bin.get()) == 32 && std::strlen(bin.get()) == 32);
    CHECK(static_cast<std::uint32_t>(std::strtoul(bin.get(), nullptr, 2)) == static_cast<std::uint32_t>(n));

    const fuzz::Block bin2(33);
    const UTIL_S32 bin2_len = ops().itob2(n, bin2.get());
    CHECK(bin2_len >= 1 && static_cast<std::size_t>(bin2_len) == std::strlen(bin2.get()));
    CHECK(static_cast<std::uint32_t>(std::strtoul(bin2.get(), nullptr, 2)) == static_cast<std::uint32_t>(n));
    CHECK(bin2_len == 1 || bin2.get()[0] == '1');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz_reader(data, size);
    if (size >= 4) {
        std::uint32_t n;
        std::memcpy(&n, data, 4);
        fuzz_writers(static_cast<std::int32_t>(n));
    }
    return 0;
}
