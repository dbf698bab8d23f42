// The context list when memory runs out, and the SEI message builder and
// its emulation prevention against a plain bit-by-bit version of the steps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "alloc_failure.h"
#include "core/util_tables.h"
#include "dbgout/util_dbgout_internal.h"
#include "sei/util_h26x_high_seiTimeCode_internal.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

TEST(SeiContextList, OutOfMemoryLeavesAnEmptyList) {
    util_h26x_sei_tim_config_param_t c[3] = {};
    for (auto& one : c) one.h26x_type = ENUM_UTIL_H265_STREAM_TYPE;
    util_list_h26x_sei_tim_t list{};
    // Traces are not the point here; keep them away from the device log.
    util_dbgout_t* dbg = util_ops_dbgout_fun.pstDebugAttr->get();
    const UTIL_U32 saved_type = dbg->enType;
    dbg->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    auto& ops = util_ops_h26x_high_seiTimeCode_fun;
    ASSERT_EQ(ops.init_list(&list, c, 1), 0);
    int rc;
    std::string err;
    {
        FailAllocationsAfter guard(0);
        CaptureStderr();
        rc = ops.init_list(&list, c, 3);
        err = GetCapturedStderr();
    }
    EXPECT_EQ(rc, -1);
    EXPECT_THAT(err, ::testing::MatchesRegex("DBG_ERR:util_h26x_high_seiTimeCode_function.cpp "
                                             "Func_h26x_high_sei_timing_init_list_function.[0-9]+. "
                                             "error: malloc failed!!!!!"));
    // The old array went first, so nothing is left and nothing leaks.
    EXPECT_EQ(list.ph26xSeiTim, nullptr);
    EXPECT_EQ(list.h26xSeiTimMax, 0);
    ASSERT_EQ(ops.init_list(&list, c, 2), 0);
    EXPECT_EQ(list.h26xSeiTimMax, 2);
    ops.exit_list(&list);
    dbg->enType = saved_type;
}

// ---- the message against a plain version ----

std::vector<std::string>* g_traces = nullptr;

// Keeps "function] text" of every trace, without file and line.
UTIL_S32 keep_trace(util_dbgout_t*, const UTIL_CHAR* fmt, ...) {
    if (g_traces == nullptr) return 0;
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    std::string text(buf);
    text.erase(0, text.find(' ', text.find('+')));
    text.erase(0, text.find_first_not_of(' '));
    g_traces->push_back(text);
    return 0;
}

struct Built {
    std::array<UTIL_UCHAR, 64> data;
    int data_len;
    int rc;
    unsigned h265_offset_length;
    std::vector<std::string> traces;
};

std::string trace(const char* fmt, int a, int b = 0) {
    char buf[128];
    std::snprintf(buf, sizeof buf, fmt, a, b);
    return std::string("Func_h26x_high_sei_getDataFromSeiTiming] ") + buf;
}

// The message built one bit at a time from the field tables, then escaped
// one byte at a time into a second buffer.
Built plain_build(util_h26x_sei_tim_t ctx) {
    Built r{};
    UTIL_UCHAR* d = ctx.data;
    const int type = ctx.config_param.h26x_type;
    if (type == 264 || type == 265) {
        struct Row {
            std::uint32_t value;
            int width;
        };
        std::vector<Row> rows;
        int cell;
        bool clock;
        if (type == 264) {
            const auto& t = ctx.h264_sei;
            const auto& c = ctx.config_param;
            const UTIL_UCHAR head[] = {0, 0, 0, 1, 0x06, 0x01};
            std::memcpy(d, head, sizeof head);
            cell = 6;
            clock = t.clock_timestamp_flag != 0;
            rows = {{t.cpb_removal_delay, c.h264_cpb_removal_delay_length + 1},
                    {t.dpb_output_delay, c.h264_dpb_output_delay_length + 1},
                    {t.pic_struct, 4},
                    {t.clock_timestamp_flag, 1}};
            if (clock) {
                rows.insert(rows.end(), {{t.ct_type, 2}, {t.nuit_field_based_flag, 1}, {t.counting_type, 5},
                                         {t.full_timestamp_flag, 1}, {t.discontinuity_flag, 1},
                                         {t.cnt_dropped_flag, 1}, {t.n_frames, 8}, {t.seconds_value, 6},
                                         {t.minutes_value, 6}, {t.hours_value, 5},
                                         {t.time_offset, c.h264_time_offset_length + 1}});
            }
        } else {
            auto& t = ctx.h265_sei;
            t.time_offset_length = t.counting_type != 0 ? 21 : 0;
            const UTIL_UCHAR head[] = {0, 0, 0, 1, 0x4E, 0x01, 0x88};
            std::memcpy(d, head, sizeof head);
            cell = 7;
            clock = t.clock_timestamp_flag != 0;
            rows = {{t.num_clock_ts, 2}, {t.clock_timestamp_flag, 1}};
            if (clock) {
                rows.insert(rows.end(), {{t.nuits_field_based_flag, 1}, {t.counting_type, 5},
                                         {t.full_timestamp_flag, 1}, {t.discontinuity_flag, 1},
                                         {t.cnt_dropped_flag, 1}, {t.n_frames, 9}, {t.seconds_value, 6},
                                         {t.minutes_value, 6}, {t.hours_value, 5}, {t.time_offset_length, 5},
                                         {t.time_offset_value, static_cast<int>(t.time_offset_length)}});
            }
        }
        int sum = 0;
        for (const Row& row : rows) sum += row.width;
        sum &= 0xFF;
        if (clock && sum % 8 != 0) {
            r.traces.push_back(trace(cell == 6 ? "warning, not alin of 8, pstSei->data[6]=%d\n"
                                               : "warning, not alin of 8, pstSei->data[7]=%d\n",
                                     sum));
        }
        const int payload = (sum + 7) / 8;
        d[cell] = static_cast<UTIL_UCHAR>(payload);
        ctx.data_len = payload + cell + 2;
        std::memset(d + cell + 1, 0, static_cast<std::size_t>(payload));  // uncovered bits stay zero
        int bits = 0;
        for (const Row& row : rows) {
            for (int b = row.width - 1; b >= 0; --b) {
                const int index = cell + 1 + bits / 8;
                if (index >= ctx.data_len) {
                    r.traces.push_back(trace("error: outrange data array, index=%d, len=%d\n", index, ctx.data_len));
                    break;
                }
                const int bit = b < 32 ? (row.value >> b) & 1 : 0;
                const int mask = 0x80 >> (bits % 8);
                d[index] = static_cast<UTIL_UCHAR>(bit ? d[index] | mask : d[index] & ~mask);
                ++bits;
            }
        }
        if (clock && (bits % 8 != 0 || bits != payload * 8)) r.traces.push_back(trace("error, bits=%d\n", bits));
        d[ctx.data_len - 1] = 0x80;
    }
    r.h265_offset_length = ctx.h265_sei.time_offset_length;
    // Emulation prevention; a message that would not fit leaves everything
    // as it was built.
    const int len = std::min(ctx.data_len, 64);
    UTIL_UCHAR out[64];
    std::memcpy(out, d, 4);
    int n = 4;
    int zeros = 0;
    r.rc = 0;
    for (int k = 4; k < len && r.rc == 0; ++k) {
        if (zeros >= 2 && d[k] <= 3) {
            if (n >= 64) {
                r.rc = -1;
                break;
            }
            out[n++] = 0x03;
            zeros = 0;
        }
        if (n >= 64) {
            r.rc = -1;
            break;
        }
        out[n++] = d[k];
        zeros = d[k] == 0 ? zeros + 1 : 0;
    }
    if (r.rc == 0) {
        std::memcpy(d, out, static_cast<std::size_t>(n));
        ctx.data_len = n;
        r.rc = n;
    }
    std::memcpy(r.data.data(), d, 64);
    r.data_len = ctx.data_len;
    return r;
}

Built library_build(util_h26x_sei_tim_t ctx) {
    Built r{};
    g_traces = &r.traces;
    r.rc = Func_h26x_high_sei_get_tim_buf_data(&ctx);
    g_traces = nullptr;
    std::memcpy(r.data.data(), ctx.data, 64);
    r.data_len = ctx.data_len;
    r.h265_offset_length = ctx.h265_sei.time_offset_length;
    return r;
}

// Field values biased towards zero and the small values that need escaping.
std::uint32_t random_value(std::mt19937& rng, int bits) {
    std::uint32_t v;
    switch (rng() % 4) {
        case 0: v = 0; break;
        case 1: v = rng() % 4; break;
        default: v = static_cast<std::uint32_t>(rng()); break;
    }
    return bits >= 32 ? v : v & ((1u << bits) - 1u);
}

// The clock timestamp fields both codecs' records have.
template <typename TimeCode>
void random_clock(std::mt19937& rng, TimeCode& t, int frame_bits) {
    t.clock_timestamp_flag = rng() % 4 != 0;
    t.counting_type = random_value(rng, 5);
    t.full_timestamp_flag = random_value(rng, 1);
    t.discontinuity_flag = random_value(rng, 1);
    t.cnt_dropped_flag = random_value(rng, 1);
    t.n_frames = random_value(rng, frame_bits);
    t.seconds_value = random_value(rng, 6);
    t.minutes_value = random_value(rng, 6);
    t.hours_value = random_value(rng, 5);
}

UTIL_U8 random_length(std::mt19937& rng) {
    const unsigned pick = rng() % 20;
    if (pick < 2) return static_cast<UTIL_U8>(32 + rng() % 224);  // wider than a value: written bit by bit
    if (pick < 6) return 23;
    return static_cast<UTIL_U8>(rng() % 32);
}

// Routes the library's traces to keep_trace for one scope.
struct KeepTraces {
    KeepTraces() : saved(util_ops_dbgout_fun) { util_ops_dbgout_fun.traceout = keep_trace; }
    ~KeepTraces() { util_ops_dbgout_fun = saved; }
    util_ops_dbgout_fun_t saved;
};

TEST(SeiMessage, SameBytesAndTracesAsThePlainSteps) {
    KeepTraces keep;
    std::mt19937 rng(7);
    for (int round = 0; round < 60000; ++round) {
        util_h26x_sei_tim_t ctx{};
        // Leftovers of an earlier frame in the buffer, mostly zeros.
        for (auto& b : ctx.data) b = static_cast<UTIL_UCHAR>(rng() % 3 == 0 ? rng() % 256 : rng() % 2);
        const unsigned kind = rng() % 10;
        ctx.config_param.h26x_type = kind < 5 ? 264 : kind < 9 ? 265 : 266;
        ctx.data_len = static_cast<int>(rng() % 76) - 6;  // only an unknown codec keeps it
        ctx.config_param.h264_cpb_removal_delay_length = random_length(rng);
        ctx.config_param.h264_dpb_output_delay_length = random_length(rng);
        ctx.config_param.h264_time_offset_length = random_length(rng);
        auto& a = ctx.h264_sei;
        a.cpb_removal_delay = random_value(rng, 32);
        a.dpb_output_delay = random_value(rng, 32);
        a.pic_struct = random_value(rng, 4);
        a.ct_type = random_value(rng, 2);
        a.nuit_field_based_flag = random_value(rng, 1);
        random_clock(rng, a, 8);
        a.time_offset = random_value(rng, 32);
        auto& b = ctx.h265_sei;
        b.num_clock_ts = random_value(rng, 2);
        b.nuits_field_based_flag = random_value(rng, 1);
        random_clock(rng, b, 9);
        b.time_offset_length = random_value(rng, 5);
        b.time_offset_value = random_value(rng, 32);

        const Built want = plain_build(ctx);
        const Built got = library_build(ctx);
        ASSERT_EQ(got.rc, want.rc) << "round " << round;
        ASSERT_EQ(got.data_len, want.data_len) << "round " << round;
        ASSERT_EQ(got.data, want.data) << "round " << round;  // bytes past the message too
        ASSERT_EQ(got.h265_offset_length, want.h265_offset_length) << "round " << round;
        ASSERT_EQ(got.traces, want.traces) << "round " << round;
    }
}

// The escape scan reads whole blocks; it must still stay inside the 64-byte
// buffer (a heap block of exactly that size, for the sanitizers). All zeros:
// a 03 before every second byte from byte 6 on.
TEST(SeiMessage, EscapeScanStaysInsideTheBuffer) {
    std::vector<UTIL_UCHAR> buf(quillane::kSeiDataSize, 0);
    int points[quillane::kSeiDataSize / 2];
    for (int len = 0; len <= quillane::kSeiDataSize; ++len) {
        const int n = quillane::sei_emulation_points(buf.data(), len, points);
        ASSERT_EQ(n, len > 6 ? (len - 5) / 2 : 0) << len;
        for (int i = 0; i < n; ++i) ASSERT_EQ(points[i], 6 + 2 * i) << len;
    }
}

}  // namespace
