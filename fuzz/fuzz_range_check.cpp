// Fuzzes judgeSubStrWithinRange (value, zero byte, rule; exact heap blocks) against plain readings.
#include <regex.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "fuzz_check.h"
#include "util_function.h"

namespace {

constexpr auto npos = std::string::npos;

// The value is an item when it lies between two separators and holds none.
int expected_enum(const std::string& value, const std::string& list) {
    return value.find(list[1]) == npos && list.find(list[1] + value + list[1], 1) != npos ? 0 : 1;
}

// A "-" and decimal digits, growing no further past 32 bits; a bound may be "*", open (`star`).
std::optional<long long> read_number(const std::string& t, long long star = 0) {
    const std::size_t skip = !t.empty() && (t[0] == '-' || (star != 0 && t[0] == '*'));
    if (t.empty() || t.find_first_not_of("0123456789", skip) != npos) return std::nullopt;
    if (t[0] == '*') return star;
    long long v = 0;
    for (std::size_t i = skip; i < t.size(); ++i) v = std::min(v * 10 + t[i] - '0', 1LL << 33);
    return t[0] == '-' ? -v : v;
}
bool fits(long long v) { return v == static_cast<std::int32_t>(v); }

int expected_min_max(const std::string& value, const std::string& list) {
    const std::size_t min_end = list.find(list[1], 3), max_end = list.find(list[1], min_end + 2);
    if (value.empty() || min_end == npos) return -1;
    const auto min = read_number(list.substr(2, min_end - 2), INT32_MIN);
    const auto max = read_number(list.substr(min_end + 1, max_end - min_end - 1), INT32_MAX);
    if (!min || !max || !fits(*min) || !fits(*max)) return -1;
    const auto v = read_number(value);
    if (!v) return 2;
    return *min > *max ? -1 : !fits(*v) || *v < *min || *v > *max;
}

// Patterns in order: -1 for a malformed pair of separators, 2 at the first that does not match.
int expected_patterns(const std::string& value, const std::string& list) {
    for (std::size_t i = 1, close; i < list.size(); i = close + 1) {
        if (list[i] != list[1]) return -1;
        if (i + 1 == list.size()) return 0;
        close = list.find(list[1], i + 1);
        if (close == npos || close - i < 2 || close - i > 126) return -1;
        regex_t re;
        CHECK(regcomp(&re, list.substr(i + 1, close - i - 1).c_str(), REG_EXTENDED | REG_NOSUB) == 0);
        const int rc = regexec(&re, value.c_str(), 0, nullptr, 0);
        regfree(&re);
        if (rc != 0) return 2;
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string value = input.c_str(), list = value.size() == size ? "" : &input[value.size() + 1];
    const fuzz::Block v(value.data(), value.size(), true), l(list.data(), list.size(), true);
    const UTIL_S32 rc = util_ops_pfun->common_base->judgeSubStrWithinRange(v.get(), l.get());
    CHECK(value == v.get() && list == l.get());

    // A 2 may be the size screen's refusal; the plain search is slow; "^" after a line feed differs.
    const bool searched = rc != 2 && value.size() <= 32 && value.find('\n') == npos;
    const int kind = static_cast<unsigned char>(list[0]) - '0';  // an empty rule reads its terminator
    const int want = kind < 0 || kind > 3 || (kind != 2 && list.size() < 4) ? -1 : kind == 2 ? 0
                     : kind == 0 ? expected_enum(value, list) : kind == 1 ? expected_min_max(value, list)
                     : searched ? expected_patterns(value, list) : rc;
    CHECK(rc == want);
    return 0;
}
