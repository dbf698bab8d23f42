// Fuzzes the hexadecimal reader and the number writers against the standard library.
#include <algorithm>
#include <bitset>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "util_function.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto& ops = *util_ops_pfun->common_base;
    const fuzz::Block text(data, size, false);
    // An optional "-0x" or "0x", then hexadecimal digits only, of which the last eight survive the wrap.
    const std::string s(reinterpret_cast<const char*>(data), size);
    const bool negative = !s.empty() && s[0] == '-';
    const bool prefixed = s.size() > 2u + negative && s[negative] == '0' && (s[negative + 1] | 0x20) == 'x';
    const std::size_t pos = prefixed ? 2 + negative : 0;
    const bool valid = pos < s.size() && negative == (pos == 3) &&
                       s.find_first_not_of("0123456789abcdefABCDEF", pos) == s.npos;
    const std::string last8 = s.substr(s.size() - pos > 8 ? s.size() - 8 : pos);
    const auto v = static_cast<std::uint32_t>(std::strtoul(last8.c_str(), nullptr, 16));
    std::int32_t num = 0x5EED5EED;
    const std::int32_t want = valid ? static_cast<std::int32_t>(negative ? 0u - v : v) : num;
    CHECK(ops.htoi(text.get(), &num, static_cast<UTIL_S32>(size)) == (valid ? 0 : -1) && num == want);
    CHECK(size == 0 || std::memcmp(text.get(), data, size) == 0);
    if (size < 4) return 0;

    // The smallest buffers the writers are promised: 12 bytes, and 33 for the binary texts.
    std::int32_t n;
    std::memcpy(&n, data, 4);
    const auto u = static_cast<std::uint32_t>(n);
    const fuzz::Block dec(12), hex(12), bin(33), bin2(33);
    char want_hex[16];
    const int hex_size = std::snprintf(want_hex, sizeof want_hex, n < 0 ? "-0x%X" : "%X", n < 0 ? 0u - u : u);
    const std::string want_bin = std::bitset<32>(u).to_string();
    const std::string want_bin2 = want_bin.substr(n < 0 ? 0 : std::min(want_bin.find('1'), std::size_t{31}));
    CHECK(ops.itoa(n, dec.get()) == 0 && dec.get() == std::to_string(n));
    CHECK(ops.itoh(n, hex.get()) == hex_size && std::strcmp(hex.get(), want_hex) == 0);
    CHECK(ops.itob(n, bin.get()) == 32 && bin.get() == want_bin);
    CHECK(ops.itob2(n, bin2.get()) == static_cast<int>(want_bin2.size()) && bin2.get() == want_bin2);
    CHECK(ops.htoi(hex.get(), &num, hex_size) == 0 && num == n);
    return 0;
}
