// Numeric and number-text helpers against plain references, and the text
// helpers' contract cases. The hexadecimal reader and the UTF-8 checks are
// judged against their references by the fuzz targets' corpus replays.
#include <bit>
#include <bitset>
#include <climits>
#include <cmath>
#include <cstring>
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

TEST(CommonBaseNumeric, FastSquareRootsCarryTheReferenceBits) {
    EXPECT_EQ(bits(cb().err_rSqrt(4.0f)), bits(0.49999997f));
    EXPECT_EQ(bits(cb().err_sqrt(4.0f)), bits(2.0000002f));
    for (float zero : {0.0f, -0.0f}) EXPECT_EQ(bits(cb().err_sqrt(zero)) | bits(cb().err_sqrt2(zero, 5)), 0u);
    for (int steps : {1, 0, -7, INT_MIN}) EXPECT_EQ(bits(cb().err_rSqrt2(4.0f, steps)), bits(0.49915406f)) << steps;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> exponent(-30.0f, 30.0f);
    for (int round = 0; round < 2000; ++round) {
        const float x = std::pow(10.0f, exponent(rng));
        const int steps = 1 + round % 40;
        ASSERT_EQ(bits(cb().err_rSqrt2(x, steps)), bits(rsqrt_reference(x, steps))) << x << " " << steps;
        ASSERT_EQ(bits(cb().err_sqrt2(x, steps)), bits(1.0f / rsqrt_reference(x, steps)));
        ASSERT_EQ(bits(cb().err_rSqrt(x)), bits(rsqrt_reference(x, 3)));
        // Long runs settle into a fixed point or a two-value cycle: a huge
        // count answers at once, with the bits of the matching parity.
        ASSERT_EQ(bits(cb().err_rSqrt2(x, INT_MAX)), bits(rsqrt_reference(x, 1001))) << x;
        ASSERT_EQ(bits(cb().err_rSqrt2(x, INT_MAX - 1)), bits(rsqrt_reference(x, 1000))) << x;
    }
}

TEST(CommonBaseNumeric, GcdClampAndColourConversion) {
    // The sign follows the truncating remainder; INT_MIN % -1 would trap.
    const int gcd[][3] = {{1920, 1080, 120}, {7, 0, 7},   {0, 0, 0},           {0, 5, 5},
                          {-12, 18, 6},      {12, -18, -6}, {INT_MIN, -1, -1}, {INT_MIN, 0, INT_MIN}};
    for (const auto& g : gcd) EXPECT_EQ(cb().calc_gcd(g[0], g[1]), g[2]) << g[0] << " " << g[1];
    const int clamp[][4] = {{10, 15, 0, 10},       {0, -3, 10, 0},  {0, 5, 10, 5},  {0, 10, 10, 10},
                            {INT_MAX, INT_MIN, INT_MIN, INT_MIN}, {INT_MAX, INT_MAX, INT_MIN, INT_MAX}};
    for (const auto& l : clamp) EXPECT_EQ(cb().limitValueRange(l[0], l[1], l[2]), l[3]) << l[1];

    // Beyond the 32-bit range the components saturate.
    const int yuv[][6] = {{255, 255, 255, 255, 128, 128}, {0, 0, 0, 0, 128, 128},     {255, 0, 0, 76, 84, 255},
                          {0, 0, 255, 29, 255, 107},      {-300, 0, 0, -89, 178, -22},
                          {INT_MIN, INT_MIN, INT_MAX, -1657857376, INT_MAX, -349180713},
                          {INT_MAX, INT_MAX, INT_MAX, INT_MAX, 128, 127}};
    for (const auto& c : yuv) {
        int y = 1, u = 1, v = 1;
        EXPECT_EQ(cb().rgb2yuv_By_CCIR_601(c[0], c[1], c[2], &y, &u, &v), 0);
        EXPECT_EQ(std::vector<int>({y, u, v}), std::vector<int>({c[3], c[4], c[5]})) << c[0] << " " << c[2];
    }
    int y = 7, u = 7;
    EXPECT_EQ(cb().rgb2yuv_By_CCIR_601(1, 2, 3, &y, &u, nullptr), -1);
    EXPECT_EQ(cb().rgb2yuv_By_CCIR_601(1, 2, 3, nullptr, &u, &y), -1);
    EXPECT_EQ(y + u, 14);  // nothing written when a cell is missing
}

TEST(CommonBaseNumeric, BothSortsAgreeWithStdSort) {
    std::mt19937 rng(17);
    for (auto sort : {cb().bubbleSort, cb().bubbleSort2}) {
        for (int round = 0; round < 600; ++round) {
            const int n = round % 41;
            // Narrow ranges for duplicates, the full range for the extremes;
            // guard cells on both sides catch a step past either end.
            std::uniform_int_distribution<int> value(round % 2 ? -5 : INT_MIN, round % 2 ? 5 : INT_MAX);
            std::vector<int> padded(n + 2, 0x5A5A5A5A);
            for (int i = 1; i <= n; ++i) padded[i] = value(rng);
            std::vector<int> want(padded);
            std::sort(want.begin() + 1, want.end() - 1);
            sort(padded.data() + 1, n);
            ASSERT_EQ(padded, want) << "n " << n;
        }
        int two[2] = {9, -9};
        sort(two, -3);
        sort(two, 1);
        sort(nullptr, 5);
        EXPECT_EQ(two[0], 9);
    }
}

TEST(CommonBaseText, TrimsInPlace) {
    // {input (8 bytes, shown as written), trim kind, result is the buffer, bytes after}
    struct Row {
        const char* in;
        int kind;  // 0 both, 1 right, 2 left
        bool same;
        const char* out;
    } rows[] = {
        {"  ab \t\n", 0, true, "ab\0b\0\0\0\0"},
        {"   \0\0\0\0", 0, false, "\0\0\0\0\0\0\0\0"},
        {"\0zzzzzz", 1, false, "\0zzzzzz"},
        {"\0zzzzzz", 2, false, "\0zzzzzz"},
        // Every trailing blank becomes a terminator, not just the first.
        {"x \v\f\r\t\n", 1, true, "x\0\0\0\0\0\0\0"},
        // The rest moves to the front with its terminator; the tail is left.
        {"\t\n\v ab\0z", 2, true, "ab\0 ab\0z"},
        {"abc \0zz", 2, true, "abc \0zz"},
        // Bytes from 0x80 up (no-break space, next line) are never white space.
        {"\xA0x\x85\0zzz", 0, true, "\xA0x\x85\0zzz"},
    };
    for (const Row& r : rows) {
        char buf[8];
        std::memcpy(buf, r.in, 8);
        auto fn = r.kind == 0 ? cb().strTrim : r.kind == 1 ? cb().strTrimRight : cb().strTrimLeft;
        EXPECT_EQ(fn(buf), r.same ? buf : nullptr) << r.in;
        EXPECT_EQ(std::string(buf, 8), std::string(r.out, 8)) << r.in;
    }
    EXPECT_EQ(cb().strTrim(nullptr), nullptr);
}

TEST(CommonBaseText, ViscaCompareHonoursTheWildcard) {
    unsigned char src[] = {0x81, 0x01, 0x04};
    const unsigned char wild[] = {0x81, 0xFF, 0x04}, other[] = {0x81, 0x02, 0x04}, low[] = {0x01, 0x09};
    unsigned char high[] = {0xFE, 0x01};
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, wild, 3), 0);
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, other, 3), -1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, other, 4), -1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 4, other, 3), 1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 0, other, 0), 0);
    EXPECT_EQ(cb().command_visca_memcmp(nullptr, 0, nullptr, 0), 0);
    // Bytes compare as 0..255 whatever the sign of char.
    EXPECT_EQ(cb().command_visca_memcmp(high, 2, low, 2), 0xFE - 0x01);
    EXPECT_EQ(cb().command_visca_memcmp(src, 1, high, 1), 0x81 - 0xFE);
    EXPECT_EQ(cb().command_visca_memcmp(nullptr, 3, wild, 3), -1);
    EXPECT_EQ(cb().command_visca_memcmp(src, 3, nullptr, 3), -1);
}

// Writes through `fn` into a buffer of exactly `size` bytes between guard
// bytes, and checks that the guards survive.
template <typename Fn>
std::string write_guarded(Fn fn, std::size_t size, int* result) {
    std::vector<char> buf(size + 16, '\x5A');
    *result = fn(buf.data() + 8);
    EXPECT_EQ(std::string(buf.data(), 8) + std::string(buf.data() + 8 + size, 8), std::string(16, '\x5A'));
    EXPECT_NE(std::memchr(buf.data() + 8, '\0', size), nullptr);
    return buf.data() + 8;
}

TEST(CommonBaseText, NumberWritersAgreeWithTheStandardLibrary) {
    // Zero is "0" for every writer; the most negative value keeps its exact
    // magnitude ("-2147483648", "-0x80000000", 11 characters).
    std::vector<int> values = {0, 1, -1, 9, 10, 15, 16, -15, -16, INT_MAX, INT_MIN, INT_MIN + 1, -305, 255, -255};
    for (int shift = 0; shift < 31; ++shift) values.insert(values.end(), {1 << shift, (1 << shift) - 1, -(1 << shift)});
    std::mt19937 rng(3);
    for (int i = 0; i < 3000; ++i) values.push_back(static_cast<int>(rng()));
    for (int n : values) {
        int rc = 0;
        ASSERT_EQ(write_guarded([&](char* b) { return cb().itoa(n, b); }, 12, &rc), std::to_string(n));
        ASSERT_EQ(rc, 0);
        char want[16];
        std::snprintf(want, sizeof want, n < 0 ? "-0x%X" : "%X", n < 0 ? 0u - static_cast<unsigned>(n) : n);
        const std::string hex = write_guarded([&](char* b) { return cb().itoh(n, b); }, 12, &rc);
        ASSERT_EQ(hex, want);
        ASSERT_EQ(rc, static_cast<int>(hex.size()));
        const std::string bin = std::bitset<32>(static_cast<unsigned>(n)).to_string();
        ASSERT_EQ(write_guarded([&](char* b) { return cb().itob(n, b); }, 33, &rc), bin);
        ASSERT_EQ(rc, 32);
        const std::string bin2 = n < 0 ? bin : n == 0 ? "0" : bin.substr(bin.find('1'));
        ASSERT_EQ(write_guarded([&](char* b) { return cb().itob2(n, b); }, 33, &rc), bin2);
        ASSERT_EQ(rc, static_cast<int>(bin2.size()));
    }
    EXPECT_EQ(cb().itoa(INT_MIN, nullptr) + cb().itoh(1, nullptr) + cb().itob(1, nullptr) + cb().itob2(1, nullptr), -4);
}

TEST(CommonBaseText, ReadersRefuseMissingArgumentsAndReadOnlySize) {
    // Exactly `size` characters are read: the rest of the text is no part of it.
    char text[] = "1234";
    int num = 0x7777;
    EXPECT_EQ(cb().htoi(text, &num, 2), 0);
    EXPECT_EQ(num, 0x12);
    num = 0x7777;
    for (int size : {0, -4}) EXPECT_EQ(cb().htoi(text, &num, size), -1);
    EXPECT_EQ(cb().htoi(nullptr, &num, 2), -1);
    EXPECT_EQ(cb().htoi(text, nullptr, 2), -1);
    EXPECT_EQ(num, 0x7777);
    int cnt[3] = {-1, 0, 0};
    EXPECT_EQ(cb().isUtf8Format(nullptr), 0);
    EXPECT_EQ(cb().getUtf8Length(nullptr, cnt), 0);
    EXPECT_EQ(cnt[0], -1);
}

}  // namespace
