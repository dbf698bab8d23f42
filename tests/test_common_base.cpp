// Numeric, text and number-text helpers: exact bits, reference
// implementations over random inputs, and buffer bounds.
#include <bit>
#include <bitset>
#include <cmath>
#include <climits>
#include <cstring>
#include <memory>
#include <random>

#include "test_support.h"

namespace {

util_ops_common_base_fun_t& cb() { return *util_ops_pfun->common_base; }

std::uint32_t bits(float f) { return std::bit_cast<std::uint32_t>(f); }

// The plain algorithm, one step after another, as the shortcut must match.
float rsqrt_reference(float x, int steps) {
    const float xhalf = 0.5f * x;
    float y = std::bit_cast<float>(0x5F375A86u - static_cast<std::uint32_t>(std::bit_cast<std::int32_t>(x) >> 1));
    for (int i = 0; i < (steps < 1 ? 1 : steps); ++i) y = (1.5f - (y * xhalf) * y) * y;
    return y;
}

TEST(CommonBaseNumeric, FastSquareRootsCarryTheExactBits) {
    EXPECT_EQ(bits(cb().err_rSqrt(4.0f)), bits(0.49999997f));
    EXPECT_EQ(bits(cb().err_sqrt(4.0f)), bits(2.0000002f));
    EXPECT_EQ(bits(cb().err_sqrt(0.0f)), 0u);
    EXPECT_EQ(bits(cb().err_sqrt(-0.0f)), 0u);
    EXPECT_EQ(bits(cb().err_sqrt2(0.0f, 5)), 0u);
    for (int steps : {1, 0, -7, INT_MIN}) EXPECT_EQ(bits(cb().err_rSqrt2(4.0f, steps)), bits(0.49915406f)) << steps;
    EXPECT_EQ(bits(cb().err_rSqrt2(4.0f, 3)), bits(cb().err_rSqrt(4.0f)));

    std::mt19937 rng(5);
    std::uniform_real_distribution<float> exponent(-30.0f, 30.0f);
    for (int round = 0; round < 2000; ++round) {
        const float x = std::pow(10.0f, exponent(rng));
        const int steps = 1 + round % 40;
        ASSERT_EQ(bits(cb().err_rSqrt2(x, steps)), bits(rsqrt_reference(x, steps))) << x << " " << steps;
        EXPECT_EQ(bits(cb().err_sqrt2(x, steps)), bits(1.0f / rsqrt_reference(x, steps)));
        // Long runs settle into a fixed point or a two-value cycle: a huge
        // count answers at once, with the bits of the matching parity.
        ASSERT_EQ(bits(cb().err_rSqrt2(x, INT_MAX)), bits(rsqrt_reference(x, 1001))) << x;
        ASSERT_EQ(bits(cb().err_rSqrt2(x, INT_MAX - 1)), bits(rsqrt_reference(x, 1000))) << x;
    }
}

TEST(CommonBaseNumeric, GcdClampAndColourConversion) {
    EXPECT_EQ(cb().calc_gcd(1920, 1080), 120);
    EXPECT_EQ(cb().calc_gcd(7, 0), 7);
    EXPECT_EQ(cb().calc_gcd(0, 0), 0);
    EXPECT_EQ(cb().calc_gcd(0, 5), 5);
    // The sign follows the truncating remainder; it is not made positive.
    EXPECT_EQ(cb().calc_gcd(-12, 18), 6);
    EXPECT_EQ(cb().calc_gcd(12, -18), -6);
    // INT_MIN % -1 would trap.
    EXPECT_EQ(cb().calc_gcd(INT_MIN, -1), -1);
    EXPECT_EQ(cb().calc_gcd(INT_MIN, 0), INT_MIN);

    EXPECT_EQ(cb().limitValueRange(10, 15, 0), 10);
    EXPECT_EQ(cb().limitValueRange(0, -3, 10), 0);
    EXPECT_EQ(cb().limitValueRange(0, 5, 10), 5);
    EXPECT_EQ(cb().limitValueRange(INT_MAX, INT_MIN, INT_MIN), INT_MIN);
    EXPECT_EQ(cb().limitValueRange(INT_MAX, INT_MAX, INT_MIN), INT_MAX);

    struct Case {
        int r, g, b, y, u, v;
    } cases[] = {{255, 255, 255, 255, 128, 128},
                 {0, 0, 0, 0, 128, 128},
                 {255, 0, 0, 76, 84, 255},
                 {0, 0, 255, 29, 255, 107},
                 {-300, 0, 0, -89, 178, -22},
                 // Beyond the 32-bit range the components saturate.
                 {INT_MIN, INT_MIN, INT_MAX, -1657857376, INT_MAX, -349180713}};
    for (const Case& c : cases) {
        int y = 1, u = 1, v = 1;
        EXPECT_EQ(cb().rgb2yuv_By_CCIR_601(c.r, c.g, c.b, &y, &u, &v), 0);
        EXPECT_EQ(std::vector<int>({y, u, v}), std::vector<int>({c.y, c.u, c.v})) << c.r << " " << c.g << " " << c.b;
    }
    int y = 7, u = 7;
    EXPECT_EQ(cb().rgb2yuv_By_CCIR_601(1, 2, 3, &y, &u, nullptr), -1);
    EXPECT_EQ(y + u, 14);  // nothing written when a cell is missing
}

TEST(CommonBaseNumeric, BothSortsAgreeWithStdSort) {
    std::mt19937 rng(17);
    for (auto sort : {cb().bubbleSort, cb().bubbleSort2}) {
        for (int round = 0; round < 600; ++round) {
            const int n = round % 41;
            // Narrow ranges for duplicates, the full range for the extremes.
            std::uniform_int_distribution<int> value =
                round % 2 ? std::uniform_int_distribution<int>(-5, 5) : std::uniform_int_distribution<int>(INT_MIN, INT_MAX);
            std::vector<int> padded(n + 2, 0x5A5A5A5A);
            for (int i = 1; i <= n; ++i) padded[i] = value(rng);
            if (n > 2 && round % 5 == 0) padded[1 + round % n] = INT_MIN;
            std::vector<int> want(padded.begin() + 1, padded.end() - 1);
            std::sort(want.begin(), want.end());
            sort(padded.data() + 1, n);
            ASSERT_EQ(std::vector<int>(padded.begin() + 1, padded.end() - 1), want) << "n " << n;
            ASSERT_EQ(padded.front(), 0x5A5A5A5A);
            ASSERT_EQ(padded.back(), 0x5A5A5A5A);
        }
        int two[2] = {9, -9};
        sort(two, -3);
        sort(two, 1);
        EXPECT_EQ(two[0], 9);
        sort(nullptr, 5);
        int three[3] = {2, 3, 1};
        sort(three, 3);
        EXPECT_EQ(std::vector<int>(three, three + 3), std::vector<int>({1, 2, 3}));
    }
}

TEST(CommonBaseText, TrimsWorkInPlace) {
    char buf[32] = "  ab \t\n";
    EXPECT_EQ(cb().strTrim(buf), buf);
    EXPECT_STREQ(buf, "ab");

    std::strcpy(buf, "   ");
    EXPECT_EQ(cb().strTrim(buf), nullptr);
    EXPECT_STREQ(buf, "");
    char empty[1] = "";
    EXPECT_EQ(cb().strTrimRight(empty), nullptr);
    EXPECT_EQ(cb().strTrimLeft(empty), nullptr);
    EXPECT_EQ(cb().strTrim(empty), nullptr);
    EXPECT_EQ(cb().strTrim(nullptr), nullptr);

    // Every trailing blank becomes a terminator, not just the first.
    std::memcpy(buf, "x \v\f\r\t\n", 8);
    EXPECT_EQ(cb().strTrimRight(buf), buf);
    EXPECT_EQ(std::string(buf, 8), std::string("x\0\0\0\0\0\0\0", 8));

    // The rest moves to the front with its terminator; the tail is left.
    std::memcpy(buf, "\t\n\v\f\r abc\0zz", 13);
    EXPECT_EQ(cb().strTrimLeft(buf), buf);
    EXPECT_EQ(std::string(buf, 13), std::string("abc\0\r abc\0zz", 13));
    std::strcpy(buf, "abc ");
    EXPECT_EQ(cb().strTrimLeft(buf), buf);
    EXPECT_STREQ(buf, "abc ");

    // Bytes from 0x80 up (no-break space, next line) are never white space.
    std::strcpy(buf, "\xA0x\x85");
    EXPECT_EQ(cb().strTrim(buf), buf);
    EXPECT_STREQ(buf, "\xA0x\x85");
}

TEST(CommonBaseText, ViscaCompareHonoursTheWildcard) {
    unsigned char src[] = {0x81, 0x01, 0x04};
    const unsigned char wild[] = {0x81, 0xFF, 0x04};
    const unsigned char other[] = {0x81, 0x02, 0x04};
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, wild, 3), 0);
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, other, 3), -1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, other, 4), -1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 4, other, 3), 1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 0, other, 0), 0);
    // Bytes compare as 0..255 whatever the sign of char.
    unsigned char high[] = {0xFE, 0x01};
    const unsigned char low[] = {0x01, 0x09};
    EXPECT_EQ(cb().command_visca_memcmp(high, 2, low, 2), 0xFE - 0x01);
    EXPECT_EQ(cb().command_visca_memcmp(src, 1, high, 1), 0x81 - 0xFE);
    EXPECT_EQ(cb().command_visca_memcmp(nullptr, 3, wild, 3), -1);
}

// Writes through `fn` into a buffer of exactly `size` bytes with guard bytes
// on both sides, and checks that the guards survive.
template <typename Fn>
std::string write_guarded(Fn fn, std::size_t size, int* result) {
    std::vector<char> buf(size + 16, '\x5A');
    *result = fn(buf.data() + 8);
    for (std::size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(buf[i], '\x5A');
        EXPECT_EQ(buf[8 + size + i], '\x5A');
    }
    EXPECT_NE(std::memchr(buf.data() + 8, '\0', size), nullptr);
    return buf.data() + 8;
}

TEST(CommonBaseText, NumberTextRoundTrips) {
    // Zero is written as "0" by every writer, and the most negative value
    // keeps its exact magnitude ("-2147483648", "-0x80000000", 11 characters).
    std::vector<int> values = {0, 1, -1, 9, 10, 15, 16, -15, -16, INT_MAX, INT_MIN, INT_MIN + 1, -305, 255, -255};
    for (int shift = 0; shift < 31; ++shift) values.insert(values.end(), {1 << shift, (1 << shift) - 1, -(1 << shift)});
    std::mt19937 rng(3);
    for (int i = 0; i < 5000; ++i) values.push_back(static_cast<int>(rng()));

    for (int n : values) {
        int rc = 0;
        EXPECT_EQ(write_guarded([&](char* b) { return cb().itoa(n, b); }, 12, &rc), std::to_string(n));
        EXPECT_EQ(rc, 0);

        const unsigned mag = n < 0 ? 0u - static_cast<unsigned>(n) : static_cast<unsigned>(n);
        char want[16];
        std::snprintf(want, sizeof want, n < 0 ? "-0x%X" : "%X", mag);
        const std::string hex = write_guarded([&](char* b) { return cb().itoh(n, b); }, 12, &rc);
        EXPECT_EQ(hex, want);
        EXPECT_EQ(rc, static_cast<int>(hex.size()));
        int back = 0x12345;
        EXPECT_EQ(cb().htoi(const_cast<char*>(hex.data()), &back, rc), 0);
        EXPECT_EQ(back, n);

        const std::string bin = std::bitset<32>(static_cast<unsigned>(n)).to_string();
        EXPECT_EQ(write_guarded([&](char* b) { return cb().itob(n, b); }, 33, &rc), bin);
        EXPECT_EQ(rc, 32);
        const std::string bin2 = n < 0 ? bin : n == 0 ? "0" : bin.substr(bin.find('1'));
        EXPECT_EQ(write_guarded([&](char* b) { return cb().itob2(n, b); }, 33, &rc), bin2);
        EXPECT_EQ(rc, static_cast<int>(bin2.size()));
    }
    EXPECT_EQ(cb().itoa(INT_MIN, nullptr), -1);
    EXPECT_EQ(cb().itoh(1, nullptr), -1);
    EXPECT_EQ(cb().itob(1, nullptr), -1);
    EXPECT_EQ(cb().itob2(1, nullptr), -1);
}

TEST(CommonBaseText, HtoiFormsAndRefusals) {
    struct Case {
        const char* text;
        int size;
        int rc;
        int value;
    } cases[] = {
        {"0x1F", 4, 0, 31},       {"1f", 2, 0, 31},          {"-0x10", 5, 0, -16},     {"0X0a", 4, 0, 10},
        {"FFFFFFFF", 8, 0, -1},   {"100000000", 9, 0, 0},    {"-0x80000000", 11, 0, INT_MIN},
        {"-0xFFFFFFFF", 11, 0, 1}, {"1234", 2, 0, 0x12},     {"0", 1, 0, 0},           {"00x5", 4, -1, 0},
        {"-010", 4, -1, 0},       {"-0x", 3, -1, 0},         {"12#4", 4, -1, 0},       {"-0xA", 3, -1, 0},
        // "0x" is too short to be a prefix, and x is no digit.
        {"0x", 2, -1, 0},
        // Letters past f are refused rather than read as 16 and up.
        {"1g", 2, -1, 0},         {"Z", 1, -1, 0},           {"\xB1", 1, -1, 0},       {"1\0" "2", 3, -1, 0},
        {"12", 0, -1, 0},         {"12", -4, -1, 0},
    };
    for (const Case& c : cases) {
        int num = 0x7777;
        EXPECT_EQ(cb().htoi(const_cast<char*>(c.text), &num, c.size), c.rc) << c.text;
        EXPECT_EQ(num, c.rc == 0 ? c.value : 0x7777) << c.text;
    }
    // Exactly `size` bytes are read: no terminator is needed.
    auto raw = std::make_unique<char[]>(2);
    std::memcpy(raw.get(), "ab", 2);
    int num = 0;
    EXPECT_EQ(cb().htoi(raw.get(), &num, 2), 0);
    EXPECT_EQ(num, 0xAB);
    EXPECT_EQ(cb().htoi(nullptr, &num, 2), -1);
    EXPECT_EQ(cb().htoi(raw.get(), nullptr, 2), -1);
}

TEST(CommonBaseText, Utf8ChecksAndCounts) {
    const std::pair<const char*, int> texts[] = {
        {"\xE4\xB8\xAD", 1}, {"\xE4\xB8", 0}, {"\x80", 0},    {"\xFE\x80\x80\x80\x80\x80", 0},
        {"", 1},             {"a\xC3", 0},    {"\xC3" "a", 0}, {"\xFC\x80\x80\x80\x80\x80", 1}};
    for (auto [text, ok] : texts) EXPECT_EQ(cb().isUtf8Format(text), ok) << text;
    EXPECT_EQ(cb().isUtf8Format(nullptr), 0);

    // Counters 1 and 2 are added to; counter 0 is set.
    int cnt[3] = {-1, 10, 20};
    char mixed[] = "a\xE4\xB8\xAD\xC3\xA9\xF0\x9F\x98\x80" "b";
    EXPECT_EQ(cb().getUtf8Length(mixed, cnt), 5);
    EXPECT_EQ(std::vector<int>(cnt, cnt + 3), std::vector<int>({5, 12, 21}));
    EXPECT_EQ(cb().getUtf8Length(mixed, nullptr), 5);

    // A bad lead byte, and a last sequence cut short by the terminator: 0,
    // counter 0 untouched, nothing read past the exactly sized text.
    for (const char* bad : {"ab\x80", "a\xE4\xB8", "\xF0"}) {
        const std::size_t size = std::strlen(bad) + 1;
        auto text = std::make_unique<char[]>(size);
        std::memcpy(text.get(), bad, size);
        int c[3] = {-1, 0, 0};
        EXPECT_EQ(cb().getUtf8Length(text.get(), c), 0) << bad;
        EXPECT_EQ(c[0], -1);
        EXPECT_EQ(c[1], static_cast<int>(std::strspn(bad, "ab")));
    }
    EXPECT_EQ(cb().getUtf8Length(nullptr, cnt), 0);
    EXPECT_EQ(cnt[0], 5);
}

}  // namespace
