// Common base utilities: arithmetic, text and number-text helpers, string
// lists and the range validator for textual parameter values.
//
// Text is handled as bytes 0..255 throughout: plain char is unsigned on the
// camera and signed on development hosts, and results must not differ.
#include "util_common_base_function.h"

#include <regex.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "core/util_alloc.h"
#include "common/util_common_base_internal.h"
#include "core/util_msg.h"
#include "core/util_text.h"

namespace {

using Byte = unsigned char;

inline const Byte* bytes(const UTIL_CHAR* s) noexcept { return reinterpret_cast<const Byte*>(s); }

// ---- numeric helpers ----

UTIL_S32 Func_calc_gcd(UTIL_S32 w, UTIL_S32 h) noexcept {
    UTIL_S32 a = w;
    UTIL_S32 b = h;
    while (b != 0) {
        // INT32_MIN % -1 traps on x86-64 (its quotient overflows); any
        // number divided by -1 leaves no remainder.
        const UTIL_S32 r = b == -1 ? 0 : a % b;
        a = b;
        b = r;
    }
    return a;
}

// Bit-level first guess of 1/sqrt(x). Done in unsigned arithmetic so that
// negative inputs, outside the approximation's range, still have defined
// behaviour.
inline UTIL_FLOAT rsqrt_guess(UTIL_FLOAT x) noexcept {
    const auto i = static_cast<std::uint32_t>(std::bit_cast<std::int32_t>(x) >> 1);
    return std::bit_cast<UTIL_FLOAT>(0x5F375A86u - i);
}

// One Newton step in exactly this multiplication order: the results must
// carry the same bits on every platform (the build forbids fused
// multiply-adds for the same reason).
inline UTIL_FLOAT rsqrt_newton(UTIL_FLOAT y, UTIL_FLOAT xhalf) noexcept { return (1.5f - (y * xhalf) * y) * y; }

inline bool same_bits(UTIL_FLOAT a, UTIL_FLOAT b) noexcept {
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b);
}

UTIL_FLOAT Func_err_rSqrt(UTIL_FLOAT x) noexcept {
    const UTIL_FLOAT xhalf = 0.5f * x;
    UTIL_FLOAT y = rsqrt_guess(x);
    y = rsqrt_newton(y, xhalf);
    y = rsqrt_newton(y, xhalf);
    y = rsqrt_newton(y, xhalf);
    return y;
}

UTIL_FLOAT Func_err_rSqrt2(UTIL_FLOAT x, UTIL_S32 newton_step) noexcept {
    const UTIL_FLOAT xhalf = 0.5f * x;
    UTIL_FLOAT y = rsqrt_newton(rsqrt_guess(x), xhalf);
    // Each step depends on y alone, so once y returns to a value it held one
    // or two steps earlier the remaining steps only repeat that cycle and
    // the answer is known: a huge step count costs no more than the few
    // steps it takes to converge, and gives the same bits as running them all.
    UTIL_FLOAT before = y;
    bool have_before = false;
    while (newton_step > 1) {
        const UTIL_FLOAT next = rsqrt_newton(y, xhalf);
        --newton_step;
        if (same_bits(next, y)) return next;
        if (have_before && same_bits(next, before)) {
            // The values now alternate next, y, next, ... for the
            // newton_step - 1 steps still to come.
            return (newton_step - 1) % 2 == 0 ? next : y;
        }
        before = y;
        have_before = true;
        y = next;
    }
    return y;
}

UTIL_FLOAT Func_err_sqrt(UTIL_FLOAT x) noexcept { return x == 0.0f ? 0.0f : 1.0f / Func_err_rSqrt(x); }

UTIL_FLOAT Func_err_sqrt2(UTIL_FLOAT x, UTIL_S32 newton_step) noexcept {
    return x == 0.0f ? 0.0f : 1.0f / Func_err_rSqrt2(x, newton_step);
}

void Func_bubbleSort(UTIL_S32* arr, UTIL_S32 n) noexcept {
    if (arr == nullptr || n < 2) return;
    for (UTIL_S32 pass = 0; pass < n - 1; ++pass) {
        for (UTIL_S32 j = 0; j < n - 1 - pass; ++j) {
            if (arr[j] > arr[j + 1]) std::swap(arr[j], arr[j + 1]);
        }
    }
}

void Func_bubbleSort2(UTIL_S32* arr, UTIL_S32 n) noexcept {
    if (arr == nullptr || n < 2) return;
    UTIL_S32 left = 0;
    UTIL_S32 right = n - 1;
    while (left < right) {
        for (UTIL_S32 j = left; j < right; ++j) {
            if (arr[j] > arr[j + 1]) std::swap(arr[j], arr[j + 1]);
        }
        --right;
        for (UTIL_S32 j = right; j > left; --j) {
            if (arr[j] < arr[j - 1]) std::swap(arr[j - 1], arr[j]);
        }
        ++left;
    }
}

UTIL_S32 Func_limitValueRange(UTIL_S32 limitV1, UTIL_S32 val, UTIL_S32 limitV2) noexcept {
    const UTIL_S32 lo = limitV1 < limitV2 ? limitV1 : limitV2;
    const UTIL_S32 hi = limitV1 < limitV2 ? limitV2 : limitV1;
    if (val < lo) return lo;
    if (val > hi) return hi;
    return val;
}

// Truncation toward zero. Components of inputs near the 32-bit limits lie
// beyond them, where the plain conversion is undefined: they saturate.
inline UTIL_S32 truncate_to_s32(UTIL_DOUBLE v) noexcept {
    if (v <= -2147483649.0) return INT32_MIN;
    if (v >= 2147483648.0) return INT32_MAX;
    return static_cast<UTIL_S32>(v);
}

UTIL_S32 Func_RGB2YUV_By_CCIR_601(UTIL_S32 R, UTIL_S32 G, UTIL_S32 B, UTIL_S32* Y, UTIL_S32* U,
                                  UTIL_S32* V) noexcept {
    if (Y == nullptr || U == nullptr || V == nullptr) return -1;
    const UTIL_DOUBLE r = R;
    const UTIL_DOUBLE g = G;
    const UTIL_DOUBLE b = B;
    // Summed left to right, as written: the order decides the last bit.
    *Y = truncate_to_s32(0.299 * r + 0.587 * g + 0.114 * b);
    *U = truncate_to_s32(-0.1687 * r - 0.3313 * g + 0.5 * b + 128);
    *V = truncate_to_s32(0.5 * r - 0.4187 * g - 0.0813 * b + 128);
    return 0;
}

// ---- text helpers ----

// White space of the POSIX locale, whatever locale the process runs in:
// blank, tab, line feed, vertical tab, form feed, carriage return.
inline bool is_space(Byte c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

UTIL_CHAR* Func_strTrimRight(UTIL_CHAR* pstr) noexcept {
    if (pstr == nullptr || pstr[0] == '\0') return nullptr;
    std::size_t n = std::strlen(pstr);
    while (n > 0 && is_space(static_cast<Byte>(pstr[n - 1]))) pstr[--n] = '\0';
    return pstr;
}

UTIL_CHAR* Func_strTrimLeft(UTIL_CHAR* pstr) noexcept {
    if (pstr == nullptr || pstr[0] == '\0') return nullptr;
    std::size_t skip = 0;
    while (is_space(static_cast<Byte>(pstr[skip]))) ++skip;
    if (skip == 0) return pstr;
    std::memmove(pstr, pstr + skip, std::strlen(pstr + skip) + 1);
    return pstr;
}

UTIL_S32 Func_command_visca_memcmp(void* srcCmd, UTIL_U32 srcCmdSize, const void* dstCmd,
                                   UTIL_U32 dstCmdSize) noexcept {
    if (srcCmdSize != dstCmdSize) return static_cast<UTIL_S32>(srcCmdSize - dstCmdSize);
    if (dstCmdSize == 0) return 0;
    // A missing command matches nothing.
    if (srcCmd == nullptr || dstCmd == nullptr) return -1;
    const Byte* src = static_cast<const Byte*>(srcCmd);
    const Byte* dst = static_cast<const Byte*>(dstCmd);
    for (UTIL_U32 i = 0; i < dstCmdSize; ++i) {
        // 0xFF in the reference command is a wildcard (a camera address,
        // a speed, a parameter value).
        if (dst[i] != 0xFF && src[i] != dst[i]) return static_cast<UTIL_S32>(src[i]) - static_cast<UTIL_S32>(dst[i]);
    }
    return 0;
}

// Digit value of a hexadecimal character, -1 for anything else. Letters
// beyond f are refused: a typo must not turn into a number.
inline int hex_value(Byte c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

inline bool is_x(Byte c) noexcept { return c == 'x' || c == 'X'; }

UTIL_S32 Func_htoi(UTIL_CHAR* hstr, UTIL_S32* num, UTIL_S32 size) noexcept {
    // Exactly `size` characters are read; the text need not be terminated.
    if (hstr == nullptr || num == nullptr || size < 1) return -1;
    const Byte* s = bytes(hstr);
    bool negative = false;
    UTIL_S32 pos = 0;
    if (s[0] == '-') {
        if (size < 4 || s[1] != '0' || !is_x(s[2])) return -1;
        negative = true;
        pos = 3;
    } else if (size > 2 && s[0] == '0' && is_x(s[1])) {
        pos = 2;
    }
    // 32-bit arithmetic that wraps: eight digits F read as -1.
    UTIL_U32 value = 0;
    for (; pos < size; ++pos) {
        const int digit = hex_value(s[pos]);
        if (digit < 0) return -1;
        value = value * 16u + static_cast<UTIL_U32>(digit);
    }
    *num = static_cast<UTIL_S32>(negative ? 0u - value : value);
    return 0;
}

// The magnitude of n in unsigned arithmetic, where that of INT32_MIN fits.
inline UTIL_U32 magnitude(UTIL_S32 n) noexcept {
    return n < 0 ? 0u - static_cast<UTIL_U32>(n) : static_cast<UTIL_U32>(n);
}

// Writes the digits of v in the given base, most significant first, with no
// leading zeros ("0" for zero), and a terminator; returns the digit count.
std::size_t write_digits(UTIL_U32 v, UTIL_U32 base, UTIL_CHAR* out) noexcept {
    char reversed[32];
    std::size_t n = 0;
    do {
        reversed[n++] = quillane::kHexDigitsUpper[v % base];
        v /= base;
    } while (v != 0);
    for (std::size_t i = 0; i < n; ++i) out[i] = reversed[n - 1 - i];
    out[n] = '\0';
    return n;
}

UTIL_S32 Func_itoh(UTIL_S32 n, UTIL_CHAR* hstr) noexcept {
    if (hstr == nullptr) return -1;
    std::size_t len = 0;
    if (n < 0) {
        hstr[len++] = '-';
        hstr[len++] = '0';
        hstr[len++] = 'x';
    }
    len += write_digits(magnitude(n), 16, hstr + len);
    return static_cast<UTIL_S32>(len);
}

UTIL_S32 Func_itob(UTIL_S32 n, UTIL_CHAR* bstr) noexcept {
    if (bstr == nullptr) return -1;
    const auto bits = static_cast<UTIL_U32>(n);
    for (int i = 0; i < 32; ++i) bstr[i] = ((bits >> (31 - i)) & 1u) != 0 ? '1' : '0';
    bstr[32] = '\0';
    return 32;
}

UTIL_S32 Func_itob2(UTIL_S32 n, UTIL_CHAR* bstr) noexcept {
    if (bstr == nullptr) return -1;
    if (n < 0) return Func_itob(n, bstr);
    return static_cast<UTIL_S32>(write_digits(static_cast<UTIL_U32>(n), 2, bstr));
}

UTIL_S32 Func_getUtf8CharByteNum(UTIL_UCHAR ch) noexcept {
    if (ch < 0x80) return 1;
    if (ch < 0xC0) return 0;
    if (ch < 0xE0) return 2;
    if (ch < 0xF0) return 3;
    if (ch < 0xF8) return 4;
    if (ch < 0xFC) return 5;
    if (ch < 0xFE) return 6;
    return 0;
}

UTIL_S32 Func_isUtf8Format(const UTIL_CHAR* str) noexcept {
    if (str == nullptr) return 0;
    int expected = 0;
    for (const Byte* p = bytes(str); *p != 0; ++p) {
        if (expected == 0) {
            const int len = Func_getUtf8CharByteNum(*p);
            if (len == 0) return 0;
            expected = len - 1;
        } else {
            if ((*p & 0xC0) != 0x80) return 0;
            --expected;
        }
    }
    return expected == 0 ? 1 : 0;
}

UTIL_S32 Func_getUtf8Length(UTIL_CHAR* str, UTIL_S32* cnt) noexcept {
    if (str == nullptr) return 0;
    const Byte* p = bytes(str);
    UTIL_S32 count = 0;
    while (*p != 0) {
        const int len = Func_getUtf8CharByteNum(*p);
        if (len == 0) return 0;
        // A sequence cut short by the terminator is as broken as a bad lead
        // byte: stepping over it would read past the text.
        for (int k = 1; k < len; ++k) {
            if (p[k] == 0) return 0;
        }
        if (cnt != nullptr) {
            if (len == 1) ++cnt[1];
            if (len == 3) ++cnt[2];
        }
        p += len;
        ++count;
    }
    if (cnt != nullptr) cnt[0] = count;
    return count;
}

// ---- string lists ----

UTIL_S32 Func_strList_malloc(util_string_list_t* pbuf, UTIL_S32 mblock, UTIL_S32 size) noexcept {
    if (pbuf == nullptr) {
        UTIL_DBG_ERR("error: pbuf is NULL!!!\n");
        return -1;
    }
    // Whatever the record held is forgotten first, so that after any failure
    // strList_free sees either nothing or exactly what was built.
    pbuf->strList = nullptr;
    pbuf->size = 0;
    if (mblock <= 0 || size <= 0) {
        UTIL_DBG_ERR("error: count:%d and size:%d must be positive!!!\n", mblock, size);
        return -1;
    }
    auto* list = static_cast<util_string_t*>(
        quillane::mem_calloc(static_cast<std::size_t>(mblock), sizeof(util_string_t)));
    if (list == nullptr) {
        UTIL_DBG_ERR("error: malloc faild!!! buffer:%s, type:%s, count:%d\n", "pbuf->strList", "util_string_t",
                     mblock);
        return -1;
    }
    pbuf->strList = list;
    pbuf->size = mblock;
    for (UTIL_S32 i = 0; i < mblock; ++i) {
        auto* text = static_cast<UTIL_CHAR*>(quillane::mem_calloc(static_cast<std::size_t>(size), 1));
        if (text == nullptr) {
            // The entries built so far stay; strList_free releases them.
            UTIL_DBG_ERR("error: malloc faild!!! buffer:%s, type:%s, count:%d\n", "pbuf->strList[index].string",
                         "char", size);
            return -1;
        }
        list[i].string = text;
        list[i].length = size;
    }
    return 0;
}

// ---- range validation ----

// What a check found; the named operation turns it into its message and
// result code, so that every message carries that operation's name.
enum class Verdict {
    admitted,
    out_of_range,
    empty_value,
    list_not_digital,
    no_maximum,
    bound_overflow,
    min_above_max,
    value_not_digital,
    format_wrong,
    pattern_too_long,
    regcomp_failed,
    regexec_failed,
};

// Kind 0: items lie between consecutive separators, from the one at
// position 1 on; text after the last separator is no item.
Verdict judge_enum(const UTIL_CHAR* value, const UTIL_CHAR* list) noexcept {
    const char sep = list[1];
    const std::size_t value_len = std::strlen(value);
    const char* start = list + 1;
    for (;;) {
        const char* next = std::strchr(start + 1, sep);
        if (next == nullptr) return Verdict::out_of_range;
        if (static_cast<std::size_t>(next - start - 1) == value_len &&
            std::memcmp(start + 1, value, value_len) == 0) {
            return Verdict::admitted;
        }
        start = next;
    }
}

struct Decimal {
    bool open = false;      // "*" in front: no bound on this side
    bool overflow = false;  // beyond the signed 32-bit range
    std::int64_t value = 0;
};

// Reads an optional "-" (or, for a bound, "*") and decimal digits up to the
// terminator or a `stop` byte after the first position. Returns where it
// stopped, or null when it met anything else or nothing at all.
const Byte* read_decimal(const Byte* p, Byte stop, bool star_allowed, Decimal& out) noexcept {
    const Byte* q = p;
    bool negative = false;
    if (*q == '-') {
        negative = true;
        ++q;
    } else if (star_allowed && *q == '*') {
        out.open = true;
        ++q;
    } else if (*q == '\0') {
        return nullptr;
    }
    // Stops growing past 2^31: only whether the number fits matters beyond.
    std::int64_t magnitude = 0;
    for (; *q != '\0' && !(*q == stop && q != p); ++q) {
        if (!quillane::is_decimal_digit(*q)) return nullptr;
        magnitude = quillane::push_digit(magnitude, *q, std::int64_t{1} << 31);
    }
    out.value = negative ? -magnitude : magnitude;
    out.overflow = out.value < INT32_MIN || out.value > INT32_MAX;
    return q;
}

// Kind 1: S min S max [S anything].
Verdict judge_min_max(const UTIL_CHAR* value, const UTIL_CHAR* list) noexcept {
    if (value[0] == '\0') return Verdict::empty_value;
    const Byte sep = static_cast<Byte>(list[1]);
    Decimal min;
    Decimal max;
    Decimal number;
    const Byte* after_min = read_decimal(bytes(list) + 2, sep, true, min);
    if (after_min == nullptr) return Verdict::list_not_digital;
    if (*after_min == '\0') return Verdict::no_maximum;
    if (read_decimal(after_min + 1, sep, true, max) == nullptr) return Verdict::list_not_digital;
    if ((!min.open && min.overflow) || (!max.open && max.overflow)) return Verdict::bound_overflow;
    if (read_decimal(bytes(value), 0, false, number) == nullptr) return Verdict::value_not_digital;
    if (!min.open && !max.open && min.value > max.value) return Verdict::min_above_max;
    // The value describes a 32-bit parameter: one that cannot be stored is
    // out of range even when both sides are open.
    if (number.overflow) return Verdict::out_of_range;
    if (!min.open && number.value < min.value) return Verdict::out_of_range;
    if (!max.open && number.value > max.value) return Verdict::out_of_range;
    return Verdict::admitted;
}

constexpr std::size_t kRegexErrorSize = 256;
constexpr std::size_t kPatternBufferSize = 128;

// What a pattern may cost. The C library compiles a repetition by copying
// its operand (x{2,5} becomes x x (x (x x?)?)?, x+ becomes x x*), so nested
// intervals multiply, and it matches with a lazily built automaton that may
// add a state, a 256-entry transition table and a set of pattern nodes, for
// every byte of the value. Both are bounded here, by measurement on the
// worst patterns that pass: a compiled size of 512 nodes and values of at
// most 1024 bytes keep one pattern under 16 MB and 100 ms on the camera.
// Parameter values and their rules are far smaller ("^[0-9]{1,3}(\.[0-9]
// {1,3}){3}$" is about 70 nodes).
//
// Size alone does not bound the compilation, though. The compiler follows
// every way a part of the pattern can match nothing, and a loop or the
// anchor in front makes it follow them again from each copy: with optional
// operands inside optional intervals the ways multiply. "((a?){,3}){10,}"
// is 110 nodes and has 4^10 ways through ten copies; it took 9 s to
// compile, "(a?){,160}" 0.2 s and 26 MB behind the anchor, and
// "((a?)?){,120}" 242 MB. So the screen also counts, for every part, the
// ways it can match the empty text, and admits at most 32: "(a?){,31}"
// compiles in about 2 ms. Rules that validate real values never come near
// it; an optional operand inside an optional interval is always written
// more simply without the nesting.
constexpr std::uint64_t kMaxPatternNodes = 512;
constexpr std::uint64_t kMaxEmptyWays = 32;
constexpr std::size_t kMaxPatternValue = 1024;
constexpr std::uint64_t kCostCeiling = std::uint64_t{1} << 40;
// The library's own limit on an interval count.
constexpr std::uint64_t kMaxIntervalCount = 0x7fff;

inline std::uint64_t capped_add(std::uint64_t a, std::uint64_t b) noexcept {
    return a + b > kCostCeiling ? kCostCeiling : a + b;
}
inline std::uint64_t capped_mul(std::uint64_t a, std::uint64_t b) noexcept {
    return b != 0 && a > kCostCeiling / b ? kCostCeiling : a * b;
}

// Index of the last character of the bracket expression opening at p[i].
std::size_t bracket_end(const char* p, std::size_t i) noexcept {
    std::size_t j = i + 1;
    if (p[j] == '^') ++j;
    if (p[j] == ']') ++j;  // a leading ']' is a member
    while (p[j] != '\0' && p[j] != ']') {
        const char kind = p[j + 1];
        if (p[j] == '[' && (kind == ':' || kind == '.' || kind == '=')) {
            std::size_t k = j + 2;
            while (p[k] != '\0' && !(p[k] == kind && p[k + 1] == ']')) ++k;
            j = p[k] == '\0' ? k : k + 2;
        } else {
            ++j;
        }
    }
    return p[j] == '\0' ? j - 1 : j;
}

// A repetition's bounds: `*` is {0,}, `?` {0,1}, `+` {1,}.
struct Interval {
    std::uint64_t min = 0;
    std::uint64_t max = 0;
    bool unbounded = false;

    // The copies the library makes of the operand (m, m + 1, n, n and 1;
    // never less than 1, which only overstates "{0}").
    std::uint64_t copies() const noexcept {
        const std::uint64_t n = unbounded ? min + 1 : max;
        return n == 0 ? 1 : n;
    }
};

// Reads an interval opening at p[i]: "{m}", "{m,}", "{m,n}", and also "{,n}"
// and "{,}", which the library reads with a minimum of 0; `end` gets the
// index of the "}". False when it is no interval.
bool read_interval(const char* p, std::size_t i, Interval& out, std::size_t& end) noexcept {
    std::size_t j = i + 1;
    std::uint64_t numbers[2] = {0, 0};
    bool digits[2] = {false, false};
    bool comma = false;
    for (;; ++j) {
        const Byte c = static_cast<Byte>(p[j]);
        if (quillane::is_decimal_digit(c)) {
            std::uint64_t& n = numbers[comma ? 1 : 0];
            // Past the library's limit every count is refused alike.
            n = static_cast<std::uint64_t>(
                quillane::push_digit(static_cast<std::int64_t>(n), c, kMaxIntervalCount));
            digits[comma ? 1 : 0] = true;
        } else if (c == ',' && !comma) {
            comma = true;
        } else {
            break;
        }
    }
    if (p[j] != '}' || !(digits[0] || comma)) return false;
    out.min = numbers[0];
    out.unbounded = comma && !digits[1];
    out.max = !comma ? numbers[0] : numbers[1];
    end = j;
    return true;
}

// The ways a repetition of an operand with `ways` empty matches can match
// the empty text: each of the first `min` copies matches it, then the
// optional copies stop after any of them (a loop counts as one more).
std::uint64_t repeated_empty_ways(std::uint64_t ways, const Interval& rep) noexcept {
    std::uint64_t required = 1;
    for (std::uint64_t k = 0; k < rep.min && required != 0 && required < kCostCeiling; ++k) {
        required = capped_mul(required, ways);
    }
    std::uint64_t optional = 1;
    if (rep.unbounded) {
        optional = capped_add(1, ways);
    } else if (ways == 1 && rep.max >= rep.min) {
        optional = rep.max - rep.min + 1;
    } else if (ways > 1) {
        for (std::uint64_t k = rep.min, power = 1; k < rep.max && optional < kCostCeiling; ++k) {
            power = capped_mul(power, ways);
            optional = capped_add(optional, power);
        }
    }
    return capped_mul(required, optional);
}

// What the screen learns of a pattern: 0 when it may go to the compiler,
// else the compiler's error code that describes the refusal; and, per
// position, the characters that the search form must write otherwise.
enum class Mark : Byte { none, stray_close, line_start };
struct Screen {
    int refusal = 0;
    Mark marks[kPatternBufferSize] = {};
};

// Measures a pattern as it is read, one group level per open parenthesis.
// Nodes: one per character, anchor and alternative, three per bracket
// expression or class escape (a set for single bytes, one for multibyte
// characters and a choice between them), and a repeated operand times its
// copies plus one choice node per copy. Empty ways: none for a character,
// one for an anchor, the product along a branch, the sum over alternatives.
class PatternMeter {
public:
    bool open_group() noexcept {
        if (depth_ + 1 == kPatternBufferSize) return false;
        levels_[++depth_] = Level{};
        return true;
    }
    bool in_group() const noexcept { return depth_ > 0; }
    void close_group() noexcept {
        const Level& l = levels_[depth_];
        const std::uint64_t nodes = capped_add(l.alternatives, l.branch);
        const std::uint64_t ways = capped_add(l.alternative_ways, l.branch_ways);
        --depth_;
        add(nodes == 0 ? 1 : nodes, ways);
    }
    void alternative() noexcept {
        Level& l = levels_[depth_];
        l.alternatives = capped_add(l.alternatives, capped_add(l.branch, 1));
        l.alternative_ways = capped_add(l.alternative_ways, l.branch_ways);
        l = Level{l.alternatives, l.alternative_ways};
    }
    void add(std::uint64_t nodes, std::uint64_t ways) noexcept {
        Level& l = levels_[depth_];
        l.before = l.branch_ways;
        l.branch = capped_add(l.branch, nodes);
        l.last = nodes;
        l.last_ways = ways;
        set_branch_ways(l, capped_mul(l.before, ways));
    }
    void repeat(const Interval& rep) noexcept {
        Level& l = levels_[depth_];
        l.branch -= l.last;
        l.last = capped_mul(l.last + 1, rep.copies());
        l.branch = capped_add(l.branch, l.last);
        l.last_ways = repeated_empty_ways(l.last_ways, rep);
        worst_ways_ = std::max(worst_ways_, l.last_ways);
        set_branch_ways(l, capped_mul(l.before, l.last_ways));
    }
    int refusal() noexcept {
        while (depth_ > 0) close_group();
        const Level& top = levels_[0];
        const bool too_big = capped_add(top.alternatives, top.branch) > kMaxPatternNodes;
        const bool too_ambiguous = std::max(worst_ways_, capped_add(top.alternative_ways, top.branch_ways)) >
                                   kMaxEmptyWays;
        return too_big || too_ambiguous ? REG_ESIZE : 0;
    }

private:
    struct Level {
        std::uint64_t alternatives = 0;      // nodes of the finished branches
        std::uint64_t alternative_ways = 0;  // their empty ways, summed
        std::uint64_t branch = 0;            // nodes of the branch being read
        std::uint64_t branch_ways = 1;       // its empty ways (an empty branch has one)
        std::uint64_t before = 1;            // the same, before its last part
        std::uint64_t last = 0;              // nodes of the last atom or group
        std::uint64_t last_ways = 0;         // and its empty ways, for a repetition
    };
    void set_branch_ways(Level& l, std::uint64_t ways) noexcept {
        l.branch_ways = ways;
        worst_ways_ = std::max(worst_ways_, ways);
    }

    Level levels_[kPatternBufferSize] = {};
    std::size_t depth_ = 0;
    std::uint64_t worst_ways_ = 0;
};

// Reads the repetition symbol at p[i], if it is one; `end` gets its last index.
bool read_repetition(const char* p, std::size_t i, Interval& rep, std::size_t& end) noexcept {
    end = i;
    switch (p[i]) {
        case '*':
            rep = Interval{0, 0, true};
            return true;
        case '?':
            rep = Interval{0, 1, false};
            return true;
        case '+':
            rep = Interval{1, 0, true};
            return true;
        case '{':
            return read_interval(p, i, rep, end);
        default:
            return false;
    }
}

// Measures the atom, group mark or alternative at p[i] (moving i to its last
// character) and notes what the search form writes otherwise; 0, or the
// error code of a refusal. Back-references are refused: the C library
// accepts them at a matching time that can grow exponentially with the
// value's length.
int measure_at(const char* p, std::size_t& i, PatternMeter& meter, Screen& out) noexcept {
    switch (p[i]) {
        case '\\':
            if (p[i + 1] >= '1' && p[i + 1] <= '9') return REG_ESUBREG;
            if (p[i + 1] != '\0') ++i;
            if (std::strchr("wWsS", p[i]) != nullptr) {
                meter.add(3, 0);
            } else {
                meter.add(1, std::strchr("bB<>`'", p[i]) != nullptr ? 1 : 0);  // anchors match empty
            }
            return 0;
        case '[':
            i = bracket_end(p, i);
            meter.add(3, 0);
            return 0;
        case '(':
            return meter.open_group() ? 0 : REG_ESIZE;
        case ')':
            if (meter.in_group()) {
                meter.close_group();
            } else {  // closes nothing: an ordinary character
                out.marks[i] = Mark::stray_close;
                meter.add(1, 0);
            }
            return 0;
        case '|':
            meter.alternative();
            return 0;
        case '^':
            out.marks[i] = Mark::line_start;
            meter.add(1, 1);
            return 0;
        default:
            meter.add(1, p[i] == '$' ? 1 : 0);
            return 0;
    }
}

// Adjacent repetition symbols ("a??+") are refused too: POSIX extended
// expressions leave them undefined, and the C library compiles them in a
// time that grows exponentially with their number.
Screen screen_pattern(const char* p) noexcept {
    Screen out;
    PatternMeter meter;
    bool after_repetition = false;
    for (std::size_t i = 0; p[i] != '\0'; ++i) {
        Interval rep;
        std::size_t end = i;
        const bool repetition = read_repetition(p, i, rep, end);
        if (repetition && after_repetition) {
            out.refusal = REG_BADRPT;
            return out;
        }
        after_repetition = repetition;
        if (repetition) {
            meter.repeat(rep);
            i = end;
        } else if (const int refusal = measure_at(p, i, meter, out); refusal != 0) {
            out.refusal = refusal;
            return out;
        }
    }
    out.refusal = meter.refusal();
    return out;
}

// "^.*(pattern)": the same search run as one pass over the value. Searching
// for the bare pattern restarts the automaton at every byte of the value,
// which costs time in the square of the value's length and a fresh set of
// automaton states per start; anchored behind ".*" (which takes every byte
// here, line feeds included) every byte is read once. Two characters are
// written otherwise: a ")" that closes nothing becomes "\)", so that it
// cannot close the wrapping group, and "^" becomes "\`", the start of the
// value. Without REG_NEWLINE they mean the same, but the library's automaton
// lets "^" match after any line feed it has stepped over, and ".*" steps
// over the ones in front of a match.
constexpr std::size_t kSearchBufferSize = 4 + 2 * kPatternBufferSize + 2;

void search_form(const char* pattern, const Screen& screen, char* out) noexcept {
    std::size_t n = 0;
    for (const char* head = "^.*("; *head != '\0'; ++head) out[n++] = *head;
    for (std::size_t i = 0; pattern[i] != '\0'; ++i) {
        switch (screen.marks[i]) {
            case Mark::stray_close:
                out[n++] = '\\';
                out[n++] = ')';
                break;
            case Mark::line_start:
                out[n++] = '\\';
                out[n++] = '`';
                break;
            case Mark::none:
                out[n++] = pattern[i];
                break;
        }
    }
    out[n++] = ')';
    out[n] = '\0';
}

// Kind 3: S p1 S S p2 S ... [S]; the value must match every pattern.
// `detail` receives the regular-expression library's text on failure.
Verdict judge_patterns(const UTIL_CHAR* value, const UTIL_CHAR* list, char* detail) noexcept {
    const char sep = list[1];
    const std::size_t len = std::strlen(list);
    const std::size_t value_len = std::strlen(value);
    std::size_t i = 1;
    while (i < len) {
        // Text after a closing separator must open the next pattern.
        if (list[i] != sep) return Verdict::format_wrong;
        if (i == len - 1) return Verdict::admitted;
        const char* close = std::strchr(list + i + 1, sep);
        if (close == nullptr) return Verdict::format_wrong;
        const auto end = static_cast<std::size_t>(close - list);
        if (end - i < 2) return Verdict::format_wrong;
        if (end - i > kPatternBufferSize - 2) return Verdict::pattern_too_long;
        char pattern[kPatternBufferSize] = {};
        std::memcpy(pattern, list + i + 1, end - i - 1);
        // The pattern is compiled as written first, so that a faulty one is
        // reported with the library's own words; the search form is only
        // built from a pattern known to be sound.
        const Screen screen = screen_pattern(pattern);
        regex_t re{};
        int rc = screen.refusal;
        if (rc == 0) rc = regcomp(&re, pattern, REG_EXTENDED | REG_NOSUB);
        if (rc == 0) {
            regfree(&re);
            char search[kSearchBufferSize];
            search_form(pattern, screen, search);
            rc = regcomp(&re, search, REG_EXTENDED | REG_NOSUB);
        }
        if (rc != 0) {
            regerror(rc, &re, detail, kRegexErrorSize);
            return Verdict::regcomp_failed;
        }
        // A longer value is refused as the search would be, had it run out
        // of memory.
        rc = value_len > kMaxPatternValue ? REG_ESPACE : regexec(&re, value, 0, nullptr, 0);
        if (rc != 0) regerror(rc, &re, detail, kRegexErrorSize);
        regfree(&re);
        if (rc != 0) return Verdict::regexec_failed;
        i = end + 1;
    }
    return Verdict::admitted;
}

// What each verdict answers: its result code and its console message,
// which the regular-expression verdicts complete with the library's text.
struct VerdictReport {
    UTIL_S32 result;
    const char* text;
    bool with_detail;
};
static_assert(kPatternBufferSize == 128, "the pattern length message names the limit");
constexpr VerdictReport report_of(Verdict v) noexcept {
    switch (v) {
        case Verdict::admitted:
            return {UTIL_STR_COMPARE_RETURN_ERR_NONE, nullptr, false};
        case Verdict::out_of_range:
            return {UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_OUTRANGE, "error: outRange##########warn", false};
        case Verdict::empty_value:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: subStr_size is 0!!!!\n", false};
        case Verdict::list_not_digital:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: listStr is not digital!!!!\n", false};
        case Verdict::no_maximum:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: listStr has no max value!!!!\n", false};
        case Verdict::bound_overflow:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: listStr value is beyond 32 bits!!!!\n", false};
        case Verdict::min_above_max:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: listStr value: min is greater than max!!!!\n", false};
        case Verdict::value_not_digital:
            return {UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_FORMAT, "error: subStr is not digital!!!!\n", false};
        case Verdict::format_wrong:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: listStr format is wrong(NULL)", false};
        case Verdict::pattern_too_long:
            return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, "error: listStr must be less than 127(reg_str_size - 1)", false};
        case Verdict::regcomp_failed:
            return {UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_FORMAT, "error: regcomp failed ", true};
        case Verdict::regexec_failed:
            return {UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_FORMAT, "error: regexec failed ", true};
    }
    return {UTIL_STR_COMPARE_RETURN_ERR_OTHER, nullptr, false};
}

// The kind is the rule's first character; kinds 0, 1 and 3 are judged by
// their own readers, kind 2 admits everything.
Verdict judge_by_kind(int kind, const UTIL_CHAR* value, const UTIL_CHAR* list, char* detail) noexcept {
    switch (kind) {
        case UTIL_TYPE_COMPARE_STRING_LIST_ENUM_RANGE:
            return judge_enum(value, list);
        case UTIL_TYPE_COMPARE_DIGITAL_MIN_MAX_RANGE:
            return judge_min_max(value, list);
        default:
            return judge_patterns(value, list, detail);
    }
}

UTIL_S32 Func_judgeSubStrWithinRange(UTIL_CHAR* subStr, const UTIL_CHAR* listStr) noexcept {
    if (subStr == nullptr) {
        UTIL_DBG_ERR("###########error: the subStr is NULL!!!!\n");
        return UTIL_STR_COMPARE_RETURN_ERR_SUBSTR_ISNULL;
    }
    if (listStr == nullptr) {
        UTIL_DBG_ERR("error: listStr is NULL!!!\n");
        return UTIL_STR_COMPARE_RETURN_ERR_OTHER;
    }
    const int kind = static_cast<Byte>(listStr[0]) - '0';
    if (kind < 0 || kind >= UTIL_TYPE_COMPARE_RANGE_NUM_MAX) {
        UTIL_DBG_ERR("error: no support compare_type:%d!!!!\n", kind);
        return UTIL_STR_COMPARE_RETURN_ERR_OTHER;
    }
    if (kind == UTIL_TYPE_COMPARE_NONE_RANGE) return UTIL_STR_COMPARE_RETURN_ERR_NONE;
    // At least four characters, tested without measuring the whole rule.
    if (listStr[1] == '\0' || listStr[2] == '\0' || listStr[3] == '\0') {
        UTIL_DBG_ERR("error: listStr_size less  than 4!!!\n");
        return UTIL_STR_COMPARE_RETURN_ERR_OTHER;
    }
    char detail[kRegexErrorSize];
    detail[0] = '\0';
    const Verdict verdict = judge_by_kind(kind, subStr, listStr, detail);
    if (verdict == Verdict::admitted) return UTIL_STR_COMPARE_RETURN_ERR_NONE;  // the common case, kept short
    const VerdictReport report = report_of(verdict);
    if (report.with_detail) {
        UTIL_DBG_ERR("%s%s\n", report.text, detail);
    } else if (report.text != nullptr) {
        UTIL_DBG_ERR("%s", report.text);
    }
    return report.result;
}

}  // namespace

// ---- called directly by other modules ----

UTIL_CHAR* Func_strTrim(UTIL_CHAR* pstr) noexcept { return Func_strTrimLeft(Func_strTrimRight(pstr)); }

UTIL_S32 Func_itoa(UTIL_S32 n, UTIL_CHAR* astr) noexcept {
    if (astr == nullptr) return -1;
    std::size_t len = 0;
    if (n < 0) astr[len++] = '-';
    write_digits(magnitude(n), 10, astr + len);
    return 0;
}

UTIL_S32 Func_strList_free(util_string_list_t buf) noexcept {
    if (buf.strList == nullptr) return -1;
    for (UTIL_S32 i = 0; i < buf.size; ++i) {
        quillane::mem_free(buf.strList[i].string);
        buf.strList[i].string = nullptr;
        buf.strList[i].length = 0;
    }
    quillane::mem_free(buf.strList);
    return 0;
}

util_ops_common_base_fun_t util_ops_common_base_fun = {
    Func_calc_gcd,
    Func_err_rSqrt,
    Func_err_rSqrt2,
    Func_err_sqrt,
    Func_err_sqrt2,
    Func_bubbleSort,
    Func_bubbleSort2,
    Func_limitValueRange,
    Func_strTrimRight,
    Func_strTrimLeft,
    Func_strTrim,
    Func_command_visca_memcmp,
    Func_strList_malloc,
    Func_strList_free,
    Func_judgeSubStrWithinRange,
    Func_htoi,
    Func_itoa,
    Func_itoh,
    Func_itob,
    Func_itob2,
    Func_RGB2YUV_By_CCIR_601,
    Func_getUtf8CharByteNum,
    Func_isUtf8Format,
    Func_getUtf8Length,
};
