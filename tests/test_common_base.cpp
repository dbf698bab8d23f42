// Numeric helpers against plain references; the text helpers' contract cases (the rest is fuzzed).
#include <bit>
#include <climits>
#include <cmath>
#include <random>

#include "test_support.h"

namespace {

util_ops_common_base_fun_t& cb() { return *util_ops_pfun->common_base; }

std::uint32_t bits(float f) { return std::bit_cast<std::uint32_t>(f); }

float rsqrt_reference(float x, int steps) {
    const auto half = static_cast<std::uint32_t>(std::bit_cast<std::int32_t>(x) >> 1);
    float y = std::bit_cast<float>(0x5F375A86u - half);
    for (int i = 0; i < std::max(steps, 1); ++i) y = (1.5f - (y * (0.5f * x)) * y) * y;
    return y;
}

TEST(CommonBaseNumeric, FastRootsAndSortsMatchPlainReferences) {
    for (float zero : {0.0f, -0.0f}) EXPECT_EQ(bits(cb().err_sqrt(zero)) | bits(cb().err_sqrt2(zero, 5)), 0u);
    std::mt19937 rng(5);
    for (int round = 0; round < 2000; ++round) {
        const float x = std::pow(10.0f, std::uniform_real_distribution<float>(-30.0f, 30.0f)(rng));
        const int steps = round % 42 - 1;  // counts below one take one step
        ASSERT_EQ(bits(cb().err_rSqrt2(x, steps)), bits(rsqrt_reference(x, steps))) << x << " " << steps;
        ASSERT_EQ(bits(cb().err_sqrt2(x, steps)), bits(1.0f / rsqrt_reference(x, steps)));
        ASSERT_EQ(bits(cb().err_rSqrt(x)), bits(rsqrt_reference(x, 3)));
        ASSERT_EQ(bits(cb().err_sqrt(x)), bits(1.0f / rsqrt_reference(x, 3)));
        // A huge count costs a few steps: runs end in a fixed point or a two-value cycle.
        ASSERT_EQ(bits(cb().err_rSqrt2(x, INT_MAX)), bits(rsqrt_reference(x, 1001))) << x;
    }
    // Narrow values give duplicates; a guard cell moves if a step passes either end.
    for (auto sort : {cb().bubbleSort, cb().bubbleSort2}) {
        for (int round = 0; round < 600; ++round) {
            const int n = round % 43 - 1;
            std::uniform_int_distribution<int> value(round % 2 ? -5 : INT_MIN, round % 2 ? 5 : INT_MAX);
            std::vector<int> padded{INT_MAX};
            for (int i = 0; i < n; ++i) padded.push_back(value(rng));
            padded.push_back(INT_MIN);
            std::vector<int> want(padded);
            std::sort(want.begin() + 1, want.end() - 1);
            sort(padded.data() + 1, n);
            ASSERT_EQ(padded, want) << "n " << n;
        }
        sort(nullptr, 5);
    }
}

TEST(CommonBaseNumeric, GcdClampAndColourConversion) {
    // The sign follows the truncating remainder; INT_MIN % -1 would trap.
    const int gcd[][3] = {{1920, 1080, 120}, {7, 0, 7}, {0, 0, 0}, {0, 5, 5}, {-12, 18, 6}, {12, -18, -6},
                          {INT_MIN, -1, -1}, {INT_MIN, 0, INT_MIN}};
    for (const auto& g : gcd) EXPECT_EQ(cb().calc_gcd(g[0], g[1]), g[2]) << g[0] << " " << g[1];
    const int clamp[][4] = {{10, 15, 0, 10}, {0, -3, 10, 0}, {0, 5, 10, 5}, {0, 10, 10, 10},
                            {INT_MAX, INT_MIN, INT_MIN, INT_MIN}, {INT_MAX, INT_MAX, INT_MIN, INT_MAX}};
    for (const auto& l : clamp) EXPECT_EQ(cb().limitValueRange(l[0], l[1], l[2]), l[3]) << l[1];
    // Beyond the 32-bit range the components saturate; nothing is written when a cell is missing.
    const int yuv[][6] = {{255, 255, 255, 255, 128, 128}, {255, 0, 0, 76, 84, 255}, {0, 0, 255, 29, 255, 107},
                          {-300, 0, 0, -89, 178, -22}, {INT_MAX, INT_MAX, INT_MAX, INT_MAX, 128, 127},
                          {INT_MIN, INT_MIN, INT_MAX, -1657857376, INT_MAX, -349180713}};
    const auto to_yuv = cb().rgb2yuv_By_CCIR_601;
    for (const auto& c : yuv) {
        int y = 1, u = 1, v = 1;
        EXPECT_EQ(to_yuv(c[0], c[1], c[2], &y, &u, &v), 0);
        EXPECT_EQ(std::vector<int>({y, u, v}), std::vector<int>({c[3], c[4], c[5]})) << c[0] << " " << c[2];
    }
    int y = 7, u = 7;
    EXPECT_EQ(to_yuv(1, 2, 3, &y, &u, nullptr) + to_yuv(1, 2, 3, nullptr, &u, &y) + y + u, 12);
}

TEST(CommonBaseText, TrimsCompareAndMissingArguments) {
    // {8 bytes in, the trim, the buffer comes back, 8 bytes after}
    const auto both = cb().strTrim, right = cb().strTrimRight, left = cb().strTrimLeft;
    const std::tuple<const char*, decltype(both), bool, const char*> trims[] = {
        {"  ab \t\n", both, true, "ab\0b\0\0\0\0"}, {"   \0\0\0\0", both, false, "\0\0\0\0\0\0\0\0"},
        {"\0zzzzzz", right, false, "\0zzzzzz"}, {"\0zzzzzz", left, false, "\0zzzzzz"},
        {"x \v\f\r\t\n", right, true, "x\0\0\0\0\0\0\0"}, {"\t\n\v ab\0z", left, true, "ab\0 ab\0z"},
        {"\xA0x\x85\0zzz", both, true, "\xA0x\x85\0zzz"}};
    for (const auto& [in, trim, same, out] : trims) {
        std::string buf(in, 8);
        EXPECT_EQ(trim(buf.data()), same ? buf.data() : nullptr) << in;
        EXPECT_EQ(buf, std::string(out, 8)) << in;
    }
    // Command bytes compare as 0..255 whatever the sign of char; 0xFF in the reference matches any.
    const auto compare = cb().command_visca_memcmp;
    std::string src = "\x81\x01\x04";
    const std::tuple<std::string, std::string, int> compares[] = {
        {src, "\x81\xFF\x04", 0}, {src, "\x81\x02\x04", -1}, {src, std::string("\x81\x02\x04", 4), -1},
        {src + '\0', "\x81\x02\x04", 1}, {"", "", 0}, {"\xFE\x01", "\x01\x09", 0xFE - 0x01},
        {"\x81", "\xFE", 0x81 - 0xFE}};
    for (auto [a, b, want] : compares) EXPECT_EQ(compare(a.data(), a.size(), b.data(), b.size()), want) << b;
    EXPECT_EQ(compare(nullptr, 3, src.data(), 3) + compare(src.data(), 3, nullptr, 3), -2);

    // Missing arguments and lengths below one are refused without a write.
    EXPECT_EQ(cb().strTrim(nullptr), nullptr);
    char text[] = "1234";
    int num = 0x7777, cnt[3] = {-1, 0, 0};
    EXPECT_EQ(cb().htoi(text, &num, 0) + cb().htoi(text, &num, -4) + cb().htoi(nullptr, &num, 2), -3);
    EXPECT_EQ(cb().htoi(text, nullptr, 2) + cb().itoa(1, nullptr) + cb().itoh(1, nullptr), -3);
    EXPECT_EQ(cb().itob(1, nullptr) + cb().itob2(1, nullptr) + cb().isUtf8Format(nullptr), -2);
    EXPECT_EQ(cb().getUtf8Length(nullptr, cnt) + num + cnt[0], 0x7777 - 1);
}

}  // namespace
