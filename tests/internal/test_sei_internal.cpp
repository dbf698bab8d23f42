// The context list's lifecycle and memory failure; the SEI message against a plain bit-by-bit builder.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "alloc_failure.h"
#include "core/util_tables.h"
#include "dbgout/util_dbgout_internal.h"
#include "sei/util_h26x_high_seiTimeCode_internal.h"

namespace {

// Collects the text of every trace after its "[file +line function] " prefix, for one scope.
struct KeepTraces {
    static inline std::vector<std::string>* into = nullptr;
    std::vector<std::string> traces;
    decltype(util_ops_dbgout_fun.traceout) saved = std::exchange(util_ops_dbgout_fun.traceout, keep);
    static UTIL_S32 keep(util_dbgout_t*, const UTIL_CHAR* fmt, ...) {
        char buf[512];
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        into->push_back(std::strstr(buf, "] ") + 2);
        return 0;
    }
    KeepTraces() { into = &traces; }
    ~KeepTraces() { util_ops_dbgout_fun.traceout = saved; }
};

auto& ops = util_ops_h26x_high_seiTimeCode_fun;
util_list_h26x_sei_tim_t g_list{};
int g_reentry[2];  // what exit_list and init_list answered inside the callback

// A callback may adjust its fresh context, but not release or rebuild the list being filled.
UTIL_S32 on_create(util_h26x_sei_tim_t* ctx) {
    g_reentry[0] = ops.exit_list(&g_list);
    g_reentry[1] = ops.init_list(&g_list, &ctx->config_param, 1);
    ctx->h265_sei.hours_value = 9;
    return 123;
}

TEST(SeiContextList, LifecycleRefusalsAndOutOfMemory) {
    const KeepTraces keep;
    util_h26x_sei_tim_config_param_t cs[3] = {};
    cs[0].setTimeCode_callback = on_create;
    ASSERT_EQ(ops.init_list(&g_list, cs, 2), 0);
    EXPECT_THAT(g_reentry, ::testing::ElementsAre(-1, -1));
    EXPECT_EQ(g_list.ph26xSeiTim[0].h265_sei.hours_value, 9u);
    ASSERT_EQ(ops.init_list(&g_list, cs + 1, 1), 0);  // releases the first array
    EXPECT_EQ(ops.init_list(&g_list, cs, 0), -1);
    EXPECT_EQ(ops.init_list(nullptr, cs, 1), -1);
    {
        FailAllocationsAfter guard(0);  // the old array goes first: nothing is left and nothing leaks
        EXPECT_EQ(ops.init_list(&g_list, cs, 3), -1);
    }
    EXPECT_EQ(g_list.ph26xSeiTim, nullptr);
    EXPECT_EQ(ops.exit_list(&g_list), 0);
    EXPECT_EQ(ops.exit_list(nullptr), -1);
    const std::string busy = "error: phstList is in use by a setTimeCode_callback!\n";
    EXPECT_THAT(keep.traces, ::testing::ElementsAre(
        "malloc succeed, stcp num;2\n", ::testing::StartsWith("setTimeCode_callback[0];"), busy, busy,
        "free succeed, num;2\n", "malloc succeed, stcp num;1\n",
        "error: phstList or phstcp is NULL, max:0!!!\n", "error: phstList or phstcp is NULL, max:1!!!\n",
        "free succeed, num;1\n", "error, malloc failed!!!\n", "free succeed, num;0\n", "error: phstList is NULL!\n"));
}

std::string text(const char* fmt, int a, int b = 0) {
    char buf[96];
    std::snprintf(buf, sizeof buf, fmt, a, b);
    return buf;
}

// The message built bit by bit from the field list and escaped byte by byte; returns the length or -1.
int plain_build(util_h26x_sei_tim_t& x, std::vector<std::string>& out) {
    UTIL_UCHAR* d = x.data;
    const auto& [a, b, c] = std::tie(x.h264_sei, x.h265_sei, x.config_param);
    if (c.h26x_type == 264 || c.h26x_type == 265) {
        const bool h264 = c.h26x_type == 264;
        const int cell = h264 ? 6 : 7;  // where payloadSize goes
        const UTIL_UCHAR head[] = {0, 0, 0, 1, UTIL_UCHAR(h264 ? 0x06 : 0x4E), 0x01, 0x88};
        std::memcpy(d, head, static_cast<std::size_t>(cell));
        if (!h264) b.time_offset_length = b.counting_type != 0 ? 21 : 0;
        // Fields that belong to the clock timestamp are 0 bits wide without it.
        const int on = (h264 ? a.clock_timestamp_flag : b.clock_timestamp_flag) != 0;
        struct Row { std::uint32_t value; int width; };
        std::vector<Row> rows;
        auto time = [&rows, on](const auto& t, int frame_bits) {
            rows.insert(rows.end(), {{t.counting_type, 5 * on}, {t.full_timestamp_flag, on},
                                     {t.discontinuity_flag, on}, {t.cnt_dropped_flag, on},
                                     {t.n_frames, frame_bits * on}, {t.seconds_value, 6 * on},
                                     {t.minutes_value, 6 * on}, {t.hours_value, 5 * on}});
        };
        if (h264) {
            rows = {{a.cpb_removal_delay, c.h264_cpb_removal_delay_length + 1},
                    {a.dpb_output_delay, c.h264_dpb_output_delay_length + 1}, {a.pic_struct, 4},
                    {a.clock_timestamp_flag, 1}, {a.ct_type, 2 * on}, {a.nuit_field_based_flag, on}};
            time(a, 8);
            rows.push_back({a.time_offset, (c.h264_time_offset_length + 1) * on});
        } else {
            rows = {{b.num_clock_ts, 2}, {b.clock_timestamp_flag, 1}, {b.nuits_field_based_flag, on}};
            time(b, 9);
            const int offset_bits = static_cast<int>(b.time_offset_length) * on;
            rows.insert(rows.end(), {{b.time_offset_length, 5 * on}, {b.time_offset_value, offset_bits}});
        }
        int sum = 0;  // the payloadSize cell is one byte
        for (const auto& row : rows) sum = (sum + row.width) & 0xFF;
        if (on && sum % 8 != 0) out.push_back(text("warning, not alin of 8, pstSei->data[%d]=%d\n", cell, sum));
        const int payload = (sum + 7) / 8;
        d[cell] = static_cast<UTIL_UCHAR>(payload);
        x.data_len = payload + cell + 2;
        std::memset(d + cell + 1, 0, static_cast<std::size_t>(payload));  // uncovered bits stay zero
        int bits = 0;
        for (const auto& [value, width] : rows) {
            for (int k = width - 1; k >= 0; --k, ++bits) {
                const int index = cell + 1 + bits / 8;
                if (index >= x.data_len) {
                    out.push_back(text("error: outrange data array, index=%d, len=%d\n", index, x.data_len));
                    break;
                }
                if (k < 32 && (value >> k & 1) != 0) d[index] |= static_cast<UTIL_UCHAR>(0x80 >> bits % 8);
            }
        }
        if (on && (bits % 8 != 0 || bits != payload * 8)) out.push_back(text("error, bits=%d\n", bits));
        d[x.data_len - 1] = 0x80;
    }
    std::vector<UTIL_UCHAR> esc(d, d + 4);
    for (int k = 4, zeros = 0; k < std::min(x.data_len, 64); ++k) {
        const bool escape = zeros >= 2 && d[k] <= 3;
        if (escape) esc.push_back(0x03);
        zeros = d[k] == 0 ? (escape ? 1 : zeros + 1) : 0;
        esc.push_back(d[k]);
    }
    if (esc.size() > 64) return -1;  // too long: the message stays as it was built
    std::memcpy(d, esc.data(), esc.size());
    return x.data_len = static_cast<int>(esc.size());
}

TEST(SeiMessage, SameBytesAndTracesAsThePlainSteps) {
    std::mt19937 rng(7);
    for (int round = 0; round < 60000; ++round) {
        util_h26x_sei_tim_t want;  // leftovers and fields biased towards zero and the bytes escaped
        auto* p = reinterpret_cast<unsigned char*>(&want);
        for (std::size_t i = 0; i < sizeof want; ++i) {
            const unsigned pick = rng() % 4;
            p[i] = static_cast<unsigned char>(pick == 0 ? 0 : pick == 1 ? rng() % 4 : rng());
        }
        want.h264_sei.clock_timestamp_flag = want.h265_sei.clock_timestamp_flag = rng() % 4 != 0;
        const unsigned kind = rng() % 10;
        want.config_param.h26x_type = kind < 5 ? 264 : kind < 9 ? 265 : 266;
        want.data_len = static_cast<int>(rng() % 76) - 6;  // only an unknown codec keeps it
        auto& c = want.config_param;
        for (UTIL_U8* length : {&c.h264_cpb_removal_delay_length, &c.h264_dpb_output_delay_length,
                                &c.h264_time_offset_length}) {
            const unsigned pick = rng() % 20;  // some wider than a value: written bit by bit
            *length = static_cast<UTIL_U8>(pick < 2 ? 32 + rng() % 224 : pick < 6 ? 23 : rng() % 32);
        }
        util_h26x_sei_tim_t got;
        std::memcpy(&got, &want, sizeof got);  // padding too
        std::vector<std::string> want_traces;
        const int want_rc = plain_build(want, want_traces);
        const KeepTraces keep;
        ASSERT_EQ(Func_h26x_high_sei_get_tim_buf_data(&got), want_rc) << "round " << round;
        ASSERT_EQ(std::memcmp(&got, &want, sizeof got), 0) << "round " << round;
        ASSERT_EQ(keep.traces, want_traces) << "round " << round;
    }
    // The escape scan reads 16-byte blocks but never past the buffer (a heap block of its size, for ASan).
    std::vector<UTIL_UCHAR> zeros(quillane::kSeiDataSize, 0);
    int points[quillane::kSeiDataSize / 2];
    for (int len = 0; len <= quillane::kSeiDataSize; ++len) {
        const int n = len > 6 ? (len - 5) / 2 : 0;  // a 03 before every second byte from byte 6 on
        ASSERT_EQ(quillane::sei_emulation_points(zeros.data(), len, points), n) << len;
    }
}

}  // namespace
