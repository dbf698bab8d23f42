// SEI time code: the bytes of both messages, the context list, and the
// per-frame counting. The wall clock is interposed (fake_clock.h), so clock
// synchronisation and the drift check run deterministically, without sleeping.
#include <sys/time.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>

#include "fake_clock.h"
#include "test_support.h"

using namespace qtest;

namespace {

util_ops_h26x_high_seiTimeCode_fun_t* sei() { return util_ops_pfun->h26x_high_seiTimeCode; }

std::string hex(const UTIL_UCHAR* d, int n) {
    std::string s;
    char buf[4];
    for (int i = 0; i < n; ++i) {
        std::snprintf(buf, sizeof buf, "%s%02X", i ? " " : "", d[i]);
        s += buf;
    }
    return s;
}

util_h26x_sei_tim_config_param_t config(int type, int fps_x100 = 2500) {
    util_h26x_sei_tim_config_param_t c{};
    c.ntp_enable = UTIL_TRUE;
    c.max_fps_x100 = fps_x100;
    c.h26x_type = type;
    c.h264_cpb_removal_delay_length = 23;
    c.h264_dpb_output_delay_length = 23;
    c.h264_time_offset_length = 6;
    return c;
}

// A context list of one stream, traces going to a file of the test's own.
class SeiTest : public DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        log_ = use_log("sei.log");
        setenv("TZ", "UTC0", 1);
        tzset();
        fake_clock::enabled = true;
        set_clock(2026, 11, 23, 12, 34, 56, 0);
    }
    void TearDown() override {
        fake_clock::enabled = false;
        sei()->exit_list(&list_);
        DebugRecordTest::TearDown();
    }
    util_h26x_sei_tim_t* make(util_h26x_sei_tim_config_param_t c) {
        EXPECT_EQ(sei()->init_list(&list_, &c, 1), 0);
        return &list_.ph26xSeiTim[0];
    }
    static void set_clock(int y, int mo, int d, int h, int mi, int s, long usec) {
        fake_clock::set_utc(y, mo, d, h, mi, s, usec);
    }
    static void advance_us(long us) { fake_clock::advance_us(us); }
    // One frame through `running`: a random-access frame or a P frame.
    static void frame(util_h26x_sei_tim_t* ctx, bool random_access) {
        util_h26x_frame_buf_info_t units{};
        units.count = 1;
        const bool h264 = ctx->config_param.h26x_type == 264;
        units.list[0].nalu = random_access ? (h264 ? 0x65 : 0x26) : (h264 ? 0x41 : 0x02);
        ASSERT_EQ(sei()->running(ctx, &units), 0);
    }
    // The time code of the stream's codec, as text or set from numbers.
    static std::string tc(const util_h26x_sei_tim_t* ctx) {
        char buf[32];
        auto print = [&buf](const auto& t) {
            std::snprintf(buf, sizeof buf, "%02u:%02u:%02u.%02u", unsigned(t.hours_value), unsigned(t.minutes_value),
                          unsigned(t.seconds_value), unsigned(t.n_frames));
        };
        ctx->config_param.h26x_type == 264 ? print(ctx->h264_sei) : print(ctx->h265_sei);
        return buf;
    }
    static void set_tc(util_h26x_sei_tim_t* ctx, unsigned h, unsigned m, unsigned s, unsigned f) {
        auto set = [&](auto& t) {
            t.hours_value = h;
            t.minutes_value = m;
            t.seconds_value = s;
            t.n_frames = f;
        };
        ctx->config_param.h26x_type == 264 ? set(ctx->h264_sei) : set(ctx->h265_sei);
    }
    std::string log_text() { return read_file(log_); }

    util_list_h26x_sei_tim_t list_{};
    std::string log_;
};

// Two messages worked out by hand; every other layout is held to the
// bit-by-bit builder of the white-box tests.
TEST_F(SeiTest, WorkedExamplesAreBitExact) {
    util_h26x_sei_tim_t* h265 = make(config(265));
    set_tc(h265, 12, 34, 56, 7);
    h265->h265_sei.counting_type = 4;
    EXPECT_EQ(sei()->get_data(h265), 17);
    EXPECT_EQ(hex(h265->data, h265->data_len), "00 00 00 01 4E 01 88 08 62 40 3F 11 32 A0 00 00 80");
    EXPECT_EQ(sei()->get_data(h265), 17);  // the same frame gives the same bytes
    EXPECT_EQ(hex(h265->data, h265->data_len), "00 00 00 01 4E 01 88 08 62 40 3F 11 32 A0 00 00 80");

    util_h26x_sei_tim_t* h264 = make(config(264));
    h264->h264_sei.cpb_removal_delay = 60;
    set_tc(h264, 12, 34, 56, 7);
    h264->h264_sei.counting_type = 4;
    EXPECT_EQ(sei()->get_data(h264), 21);
    EXPECT_EQ(hex(h264->data, h264->data_len), "00 00 00 01 06 01 0C 00 00 3C 00 00 03 02 08 24 07 E2 26 01 80");
    EXPECT_EQ(log_text().find("warning"), std::string::npos);
    EXPECT_EQ(sei()->get_data(nullptr), -1);
    EXPECT_THAT(log_text(), ::testing::HasSubstr("] error, Func_h26x_high_sei_get_tim_buf_data:-1\n"));
}

int g_callback_calls = 0;
UTIL_S32 check_fresh_context(util_h26x_sei_tim_t* ctx) {
    ++g_callback_calls;
    EXPECT_EQ(ctx->init_flag, -1);
    EXPECT_EQ(ctx->h264_sei.dpb_output_delay, 2u);
    EXPECT_EQ(ctx->h264_sei.time_offset, 1u);
    EXPECT_EQ(ctx->h265_sei.num_clock_ts, 1u);
    EXPECT_EQ(ctx->timDiffCal.wait_frame_cnts, 77u);
    ctx->h265_sei.hours_value = 9;  // callers may adjust the template
    return 123;
}

TEST_F(SeiTest, ContextListLifecycle) {
    util_h26x_sei_tim_config_param_t cs[2] = {config(265), config(264)};
    cs[0].setTimeCode_callback = check_fresh_context;
    cs[0].init_wait_frame_cnts = 77;
    g_callback_calls = 0;
    ASSERT_EQ(sei()->init_list(&list_, cs, 2), 0);
    EXPECT_EQ(g_callback_calls, 1);
    EXPECT_EQ(list_.h26xSeiTimMax, 2);
    EXPECT_EQ(list_.ph26xSeiTim[0].h265_sei.hours_value, 9u);
    ASSERT_EQ(sei()->init_list(&list_, cs + 1, 1), 0);  // releases the first array
    EXPECT_EQ(g_callback_calls, 1);
    EXPECT_EQ(sei()->init_list(&list_, cs, 0), -1);
    EXPECT_EQ(sei()->init_list(nullptr, cs, 1), -1);
    EXPECT_EQ(list_.h26xSeiTimMax, 1);
    EXPECT_EQ(sei()->exit_list(&list_), 0);
    EXPECT_EQ(sei()->exit_list(&list_), 0);
    EXPECT_EQ(sei()->exit_list(nullptr), -1);
    EXPECT_EQ(list_.ph26xSeiTim, nullptr);
    const std::string log = log_text();
    EXPECT_THAT(log, ::testing::HasSubstr("init_list_function] error: phstList or phstcp is NULL, max:0!!!\n"));
    EXPECT_THAT(log, ::testing::HasSubstr("init_list_function] error: phstList or phstcp is NULL, max:1!!!\n"));
    EXPECT_THAT(log, ::testing::HasSubstr("exit_list_function] error: phstList is NULL!\n"));
}

// A setTimeCode_callback may change its fresh context, but not release or
// rebuild the list whose array init_list is filling.
util_list_h26x_sei_tim_t* g_building = nullptr;
int g_reentry[2];
UTIL_S32 release_own_list(util_h26x_sei_tim_t*) {
    util_h26x_sei_tim_config_param_t c{};
    g_reentry[0] = sei()->exit_list(g_building);
    g_reentry[1] = sei()->init_list(g_building, &c, 1);
    return 0;
}

TEST_F(SeiTest, CallbackCannotReleaseTheListBeingBuilt) {
    util_h26x_sei_tim_config_param_t cs[2] = {config(264), config(265)};
    cs[0].setTimeCode_callback = release_own_list;
    g_building = &list_;
    ASSERT_EQ(sei()->init_list(&list_, cs, 2), 0);
    EXPECT_EQ(g_reentry[0], -1);
    EXPECT_EQ(g_reentry[1], -1);
    EXPECT_EQ(list_.h26xSeiTimMax, 2);
    EXPECT_EQ(list_.ph26xSeiTim[1].config_param.h26x_type, 265);
    const std::string refused = "] error: phstList is in use by a setTimeCode_callback!\n";
    EXPECT_THAT(log_text(), ::testing::HasSubstr("exit_list_function" + refused));
    EXPECT_THAT(log_text(), ::testing::HasSubstr("init_list_function" + refused));
}

TEST_F(SeiTest, WithoutNetworkTimeNothingIsCounted) {
    auto c = config(264);
    c.ntp_enable = UTIL_FALSE;
    util_h26x_sei_tim_t* ctx = make(c);
    for (int i = 0; i < 5; ++i) frame(ctx, i == 0);
    EXPECT_EQ(ctx->h264_sei.clock_timestamp_flag, 0u);
    EXPECT_EQ(ctx->h264_sei.cpb_removal_delay, 0u);
    EXPECT_EQ(ctx->h264_sei.n_frames, 0u);
    EXPECT_EQ(ctx->init_flag, -1);
    EXPECT_EQ(sei()->running(nullptr, nullptr), -1);
}

TEST_F(SeiTest, SynchronisesAtTheFirstRandomAccessFrame) {
    util_h26x_sei_tim_t* ctx = make(config(265));
    set_clock(2026, 11, 23, 8, 15, 30, 480000);  // 0.48 s: frame 12 at 25 fps
    frame(ctx, false);
    EXPECT_EQ(ctx->init_flag, -1);
    EXPECT_EQ(tc(ctx), "08:15:30.12");
    EXPECT_EQ(ctx->h264_sei.n_frames, 12u);  // both records follow the clock
    advance_us(40000);
    frame(ctx, false);
    EXPECT_EQ(tc(ctx), "08:15:30.13");  // reloaded, not counted
    advance_us(40000);
    // A parameter set makes the frame one to start at, like the picture.
    util_h26x_frame_buf_info_t units{};
    units.count = 2;
    units.list[0].nalu = 0x42;  // SPS
    units.list[1].nalu = 0x02;
    ASSERT_EQ(sei()->running(ctx, &units), 0);
    EXPECT_EQ(ctx->init_flag, 1);
    EXPECT_EQ(tc(ctx), "08:15:30.14");  // the random-access frame keeps the clock time
    frame(ctx, false);
    EXPECT_EQ(tc(ctx), "08:15:30.15");
    EXPECT_THAT(log_text(), ::testing::HasSubstr("nframes_start_function] sync system time:08:15:30.14, flag=1\n"));
    EXPECT_THAT(log_text(), ::testing::HasSubstr("set_timing_nframes] no add one frame\n"));

    // A clock still in 1970 keeps the stream unsynchronised.
    ctx = make(config(264));
    set_clock(1970, 1, 1, 0, 0, 5, 0);
    frame(ctx, true);
    EXPECT_EQ(ctx->init_flag, -1);
    EXPECT_EQ(tc(ctx), "00:00:05.00");
}

// One P frame after the given time code: the carries, and drop-frame
// counting at 29.97 and 59.94 (two or four counts skipped at each minute but
// every tenth, the flag on exactly the frame after the skip).
TEST_F(SeiTest, CountingTable) {
    const struct {
        int fps_x100, type;
        unsigned h, m, s, f;
        const char* after;
        unsigned dropped, counting_type;
    } rows[] = {
        {2500, 264, 10, 59, 59, 24, "11:00:00.00", 0, 1}, {2500, 265, 23, 59, 59, 24, "00:00:00.00", 0, 1},
        {2500, 264, 23, 59, 59, 23, "23:59:59.24", 0, 1}, {3000, 265, 0, 0, 59, 29, "00:01:00.00", 0, 1},
        {2997, 264, 0, 0, 59, 29, "00:01:00.02", 1, 4},   {2997, 265, 0, 0, 59, 29, "00:01:00.02", 1, 4},
        {5994, 264, 0, 0, 59, 59, "00:01:00.04", 1, 4},   {5994, 265, 0, 0, 59, 59, "00:01:00.04", 1, 4},
        {2997, 264, 0, 1, 0, 2, "00:01:00.03", 0, 4},     {5994, 265, 0, 1, 0, 4, "00:01:00.05", 0, 4},
        {2997, 265, 0, 9, 59, 29, "00:10:00.00", 0, 4},   {5994, 264, 0, 9, 59, 59, "00:10:00.00", 0, 4},
    };
    for (const auto& r : rows) {
        util_h26x_sei_tim_t* ctx = make(config(r.type, r.fps_x100));
        frame(ctx, true);
        set_tc(ctx, r.h, r.m, r.s, r.f);
        frame(ctx, false);
        const unsigned dropped = r.type == 264 ? ctx->h264_sei.cnt_dropped_flag : ctx->h265_sei.cnt_dropped_flag;
        const unsigned counting = r.type == 264 ? ctx->h264_sei.counting_type : ctx->h265_sei.counting_type;
        EXPECT_EQ(tc(ctx), r.after) << r.fps_x100 << " " << r.type << " " << r.after;
        EXPECT_EQ(dropped, r.dropped) << r.fps_x100 << " " << r.type << " " << r.after;
        EXPECT_EQ(counting, r.counting_type) << r.fps_x100 << " " << r.type << " " << r.after;
    }
}

TEST_F(SeiTest, H264BufferingDelaysFollowTheRandomAccessFrames) {
    util_h26x_sei_tim_t* ctx = make(config(264, 3000));
    std::vector<unsigned> cpb;
    for (int i = 0; i < 61; ++i) {
        frame(ctx, i % 30 == 0);
        cpb.push_back(ctx->h264_sei.cpb_removal_delay);
    }
    EXPECT_EQ(cpb[0], 60u);
    EXPECT_EQ(cpb[1], 2u);
    EXPECT_EQ(cpb[29], 58u);
    EXPECT_EQ(cpb[30], 60u);
    EXPECT_EQ(cpb[60], 60u);
    EXPECT_EQ(ctx->h264_sei.dpb_output_delay, 2u);
    EXPECT_EQ(log_text().find("outRange"), std::string::npos);
    for (int i = 0; i < 9; ++i) frame(ctx, false);
    frame(ctx, true);  // early random-access frame at 20
    EXPECT_EQ(ctx->h264_sei.cpb_removal_delay, 60u);
    EXPECT_THAT(log_text(), ::testing::HasSubstr("] warning, outRange, idr_flag=1, cpb=20, max=60!\n"));
    // A late one: the counter wraps to max on a P frame, which is reported
    // but left as it is.
    for (int i = 0; i < 30; ++i) frame(ctx, false);
    EXPECT_EQ(ctx->h264_sei.cpb_removal_delay, 60u);
    EXPECT_THAT(log_text(), ::testing::HasSubstr("] warning, outRange, idr_flag=0, cpb=60, max=60!\n"));
}

// The drift check after a random-access frame at 12:34:56 and `frames` P
// frames, the clock moving `us` per frame: in step, the next check comes
// later the smaller the drift; out of step (from +1.5 frames, or -2.5), the
// time code is reloaded from the clock and a new period starts now. Values
// nobody configures (rates at the ends of the int, drift state the caller
// overwrote) stay defined: the sanitizer build turns an overflow into a
// failure.
TEST_F(SeiTest, DriftCheckTable) {
    constexpr UTIL_U64 kReloaded = 25 * 1800;
    const struct {
        const char* what;
        int fps_x100, type;
        UTIL_U64 wait_before;
        void (*change)(util_h26x_sei_tim_t*);
        int frames;
        long us;
        const char* after;
        UTIL_U64 real, wait;  // the check's counters after the last frame
    } rows[] = {
        {"exactly 10 s", 2500, 265, 250, nullptr, 250, 40000, "12:35:06.00", 250, 250 + kReloaded},
        {"drift -2.4", 2500, 265, 250, nullptr, 250, 40384, "12:35:06.00", 250, 250 + 25},
        {"drift +1.5", 2500, 265, 250, nullptr, 250, 39760, "12:35:05.23", 0, kReloaded},
        {"drift +2", 2500, 264, 250, nullptr, 250, 39680, "12:35:05.23", 0, kReloaded},
        // Whole rate 21474836: in step, the next check 600 s of frames later.
        {"INT_MAX", INT_MAX, 264, 1, nullptr, 1, 0, "12:34:56.01", 1, 1 + 21474836ull * 600},
        // Whole rates below 1 carry a second on every frame; the wait wraps.
        {"INT_MIN", INT_MIN, 265, 1, nullptr, 1, 0, "12:34:58.00", 1, 1 + UTIL_U64(-21474835ll * 600)},
        {"rate 49", 49, 264, 1, nullptr, 1, 0, "12:34:58.00", 1, 1},
        // A drift beyond any int is out of step.
        {"start INT64_MIN", 2500, 265, 1, [](util_h26x_sei_tim_t* c) { c->timDiffCal.latest_time.tv_sec = INT64_MIN; },
         1, 0, "12:34:56.00", 0, kReloaded},
        {"start INT64_MAX", 2500, 264, 1,
         [](util_h26x_sei_tim_t* c) { c->timDiffCal.latest_time = {INT64_MAX, LONG_MIN}; }, 1, 0, "12:34:56.00", 0,
         kReloaded},
        {"count 2^63", 2500, 265, 1, [](util_h26x_sei_tim_t* c) { c->timDiffCal.real_frame_cnt = 1ull << 63; }, 1, 0,
         "12:34:56.00", 0, kReloaded},
    };
    for (const auto& r : rows) {
        set_clock(2026, 11, 23, 12, 34, 56, 0);
        auto c = config(r.type, r.fps_x100);
        c.timDiffCal_enable = 1;
        c.init_wait_frame_cnts = r.wait_before;
        util_h26x_sei_tim_t* ctx = make(c);
        frame(ctx, true);  // synchronised; the measuring period begins here
        if (r.change != nullptr) r.change(ctx);
        for (int i = 0; i < r.frames; ++i) {
            advance_us(r.us);
            frame(ctx, false);
        }
        EXPECT_EQ(tc(ctx), r.after) << r.what;
        EXPECT_EQ(ctx->timDiffCal.real_frame_cnt, r.real) << r.what;
        EXPECT_EQ(ctx->timDiffCal.wait_frame_cnts, r.wait) << r.what;
        if (r.real == 0) {  // a new period from now
            EXPECT_EQ(ctx->timDiffCal.latest_time.tv_sec, fake_clock::now.tv_sec) << r.what;
            EXPECT_EQ(ctx->timDiffCal.latest_time.tv_usec, fake_clock::now.tv_usec) << r.what;
        }
        const int len = sei()->get_data(ctx);
        EXPECT_TRUE(len > 8 && len <= 64) << r.what << " " << len;
    }
    EXPECT_EQ(log_text().find("data: cnt"), std::string::npos);  // no marker, no trace

    if (geteuid() != 0) GTEST_SKIP() << "the marker file in /dev needs root";
    MachineWideFile marker("/dev/util_h26x_high_seiTimeCode");
    write_file(marker.path(), "");
    auto c = config(265);
    c.timDiffCal_enable = 1;
    c.init_wait_frame_cnts = 250;
    util_h26x_sei_tim_t* ctx = make(c);
    frame(ctx, true);
    for (int i = 0; i < 250; ++i) {
        advance_us(40000 - 96);  // 0.024 s short: drift 0.6 frames
        frame(ctx, false);
    }
    marker.remove();
    // x = 0.6 * 1200 = 720 (in float: 719 or 720), so the wait is about 1080 s.
    EXPECT_THAT(log_text(), FullyMatches(R"([\s\S]*\] data: cnt:250, diff:1, ###=:0\.600, wait:10(80|81)s\n)"));
    EXPECT_GE(ctx->timDiffCal.wait_frame_cnts, 250u + 25u * 1080u);
    EXPECT_LE(ctx->timDiffCal.wait_frame_cnts, 250u + 25u * 1081u);
}

}  // namespace
