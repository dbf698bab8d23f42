// SEI time code through the public table, frame by frame on an interposed wall clock (fake_clock.h).
#include <cctype>
#include <cmath>
#include <climits>
#include <cstdlib>
#include <ctime>

#include "fake_clock.h"
#include "test_support.h"

using namespace qtest;
using ::testing::AllOf, ::testing::HasSubstr;

namespace {

util_ops_h26x_high_seiTimeCode_fun_t* sei() { return util_ops_pfun->h26x_high_seiTimeCode; }

// Frames from a script such as "I29P": I random access, P any other, S a P behind a parameter set;
// a count repeats the next letter. The clock moves `us` after every frame.
void run(util_h26x_sei_tim_t* ctx, const char* script, long us) {
    const bool h264 = ctx->config_param.h26x_type == 264;
    for (const char* p = script; *p != '\0'; ++p) {
        const long n = std::isdigit(*p) ? std::strtol(p, const_cast<char**>(&p), 10) : 1;
        for (long i = 0; i < n; ++i) {
            util_h26x_frame_buf_info_t units{};
            units.count = *p == 'S' ? 2 : 1;
            units.list[0].nalu = *p == 'I' ? (h264 ? 0x65 : 0x26) : *p == 'S' ? (h264 ? 0x67 : 0x42) : 2;
            ASSERT_EQ(sei()->running(ctx, &units), 0);
            fake_clock::advance_us(us);
        }
    }
}

// init_flag, time code, counting_type/cnt_dropped_flag, cpb_removal_delay, the drift check's counters.
std::string state(const util_h26x_sei_tim_t* ctx) {
    char buf[64];
    auto show = [&](const auto& t) {
        std::snprintf(buf, sizeof buf, "%d %02u:%02u:%02u.%02u %u/%u%s", ctx->init_flag, unsigned(t.hours_value),
                      unsigned(t.minutes_value), unsigned(t.seconds_value), unsigned(t.n_frames),
                      unsigned(t.counting_type), unsigned(t.cnt_dropped_flag),
                      t.clock_timestamp_flag != 0 ? "" : " noclock");
    };
    ctx->config_param.h26x_type == 264 ? show(ctx->h264_sei) : show(ctx->h265_sei);
    std::string s = buf;
    if (ctx->config_param.h26x_type == 264) s += " cpb=" + std::to_string(ctx->h264_sei.cpb_removal_delay);
    if (const auto& d = ctx->timDiffCal; ctx->config_param.timDiffCal_enable == 1) {
        const long long since = (fake_clock::now.tv_sec - d.latest_time.tv_sec) * 1000000LL +
                                fake_clock::now.tv_usec - d.latest_time.tv_usec;
        s += " real=" + std::to_string(d.real_frame_cnt) + " wait=" + std::to_string(d.wait_frame_cnts) +
             " since=" + std::to_string(since);
    }
    return s;
}

// Changes made to a fresh stream before its first frame; the first gives the worked messages' time code.
void worked(util_h26x_sei_tim_t* c) {
    auto set = [](auto& t) { t.hours_value = 12, t.minutes_value = 34, t.seconds_value = 56, t.n_frames = 7; };
    set(c->h264_sei);
    set(c->h265_sei);
    c->h264_sei.counting_type = c->h265_sei.counting_type = 4;
    c->h264_sei.cpb_removal_delay = 60;
}
void far_future(util_h26x_sei_tim_t* c) { c->timDiffCal.latest_time = {INT64_MAX, LONG_MIN}; }
void in_1970(util_h26x_sei_tim_t*) { fake_clock::set_utc(1970, 1, 1, 0, 0, 5, 0); }
void no_ntp(util_h26x_sei_tim_t* c) { c->config_param.ntp_enable = UTIL_FALSE; }

class SeiTest : public DebugRecordTest {};  // traces go to a log file of the test's own

// Synchronisation, carries, drop-frame counting, the H.264 buffering delay and the drift check (in step,
// the smaller the drift the later the next check; out of step from +1.5 or -2.5 frames, a reload).
TEST_F(SeiTest, FrameTable) {
    const struct {
        int type, fps_x100;  // type 0: the stream of the row before goes on
        UTIL_U64 drift_wait;  // 0: no drift check
        double clock;         // seconds into the day at the first frame
        long us;              // the clock moves this after every frame
        const char *script, *state, *log = nullptr;
        void (*setup)(util_h26x_sei_tim_t*) = nullptr;
        bool marker = false;  // the drift check explains itself while the marker exists
        const char* bytes = nullptr;  // the SEI message of the frame, when worked out by hand
    } rows[] = {
        {265, 2500, 0, 0, 0, "", "-1 12:34:56.07 4/0", nullptr, worked, false,
         "00 00 00 01 4E 01 88 08 62 40 3F 11 32 A0 00 00 80"},
        {264, 2500, 0, 0, 0, "", "-1 12:34:56.07 4/0 cpb=60", nullptr, worked, false,
         "00 00 00 01 06 01 0C 00 00 3C 00 00 03 02 08 24 07 E2 26 01 80"},
        {265, 2500, 0, 8 * 3600 + 15 * 60 + 30.48, 40000, "PP", "-1 08:15:30.13 1/0"},  // not counted
        {0, 0, 0, 0, 40000, "SP", "1 08:15:30.15 1/0", "] sync system time:08:15:30.14, flag=1\n"},
        {264, 2500, 0, 11 * 3600 - 0.04, 40000, "IP", "1 11:00:00.00 1/0 cpb=2", "] no add one frame\n"},
        {265, 2500, 0, 86400 - 0.04, 40000, "IP", "1 00:00:00.00 1/0"},
        {264, 2997, 0, 60 - 0.5 / 30, 1, "IP", "1 00:01:00.02 4/1 cpb=2"},
        {265, 5994, 0, 60 - 0.5 / 60, 1, "IP", "1 00:01:00.04 4/1"},
        {264, 2997, 0, 60 + 2.5 / 30, 1, "IP", "1 00:01:00.03 4/0 cpb=2"},
        {265, 2997, 0, 600 - 0.5 / 30, 1, "IP", "1 00:10:00.00 4/0"},
        {264, 3000, 0, 0, 1, "I28P", "1 00:00:00.28 1/0 cpb=56"},
        {0, 0, 0, 0, 1, "PI29PI", "1 00:00:02.00 1/0 cpb=60"},
        {0, 0, 0, 0, 1, "9PI", "1 00:00:02.10 1/0 cpb=60", "] warning, outRange, idr_flag=1, cpb=20, max=60!\n"},
        {0, 0, 0, 0, 1, "30P", "1 00:00:03.10 1/0 cpb=60", "] warning, outRange, idr_flag=0, cpb=60, max=60!\n"},
        {265, 2500, 250, 45296, 40000, "I250P", "1 12:35:06.00 1/0 real=250 wait=45250 since=10040000"},
        {265, 2500, 250, 45296, 40384, "I250P", "1 12:35:06.00 1/0 real=250 wait=275 since=10136384"},
        {265, 2500, 250, 45296, 39760, "I250P", "1 12:35:05.23 1/0 real=0 wait=45000 since=39760"},
        // Half a frame ahead: 1200 s to the next check, said in the trace while the marker exists.
        {265, 2500, 250, 45296, 39920, "I250P", "1 12:35:06.00 1/0 real=250 wait=30250 since=10019920",
         "] data: cnt:250, diff:1, ###=:0.500, wait:1200s\n", nullptr, true},
        // Rates nobody configures stay defined (the sanitizer build fails an overflow); below 1 the wait wraps.
        {264, INT_MAX, 1, 45296, 0, "IP", "1 12:34:56.01 1/0 cpb=2 real=1 wait=12884901601 since=0"},
        {265, INT_MIN, 1, 45296, 0, "IP", "1 12:34:58.00 1/0 real=1 wait=18446744060824650617 since=0"},
        // A drift beyond any int is out of step, a 1970 clock unsynchronised; without network time no count.
        {264, 2500, 1, 45296, 0, "IP", "1 12:34:56.01 1/0 cpb=2 real=1 wait=45000 since=0", nullptr, far_future},
        {264, 2500, 0, 0, 0, "I", "-1 00:00:05.00 1/0 cpb=0", nullptr, in_1970},
        {264, 2500, 0, 0, 40000, "I4P", "-1 00:00:00.00 1/0 noclock cpb=0", nullptr, no_ntp},
    };
    const std::string log_path = use_log("sei.log");
    setenv("TZ", "UTC0", 1);
    tzset();
    fake_clock::enabled = true;
    util_list_h26x_sei_tim_t list{};
    util_h26x_sei_tim_t* ctx = nullptr;
    const MachineWideFile marker("/dev/util_h26x_high_seiTimeCode");  // also removes one left behind
    for (const auto& r : rows) {
        if (r.marker && geteuid() != 0) continue;  // the marker in /dev needs root
        if (r.marker) write_file(marker.path(), "");
        if (r.type != 0) {  // a fresh stream with network time, 2026-11-23 at r.clock
            util_h26x_sei_tim_config_param_t c{
                .ntp_enable = UTIL_TRUE, .max_fps_x100 = r.fps_x100, .video_format = 0, .h26x_type = r.type,
                .timDiffCal_enable = r.drift_wait != 0, .h264_cpb_removal_delay_length = 23,
                .h264_dpb_output_delay_length = 23, .h264_time_offset_length = 6,
                .init_wait_frame_cnts = r.drift_wait, .setTimeCode_callback = nullptr};
            ASSERT_EQ(sei()->init_list(&list, &c, 1), 0);
            ctx = &list.ph26xSeiTim[0];
            const auto s = static_cast<int>(r.clock);
            fake_clock::set_utc(2026, 11, 23, s / 3600, s / 60 % 60, s % 60, std::lround((r.clock - s) * 1e6));
        }
        if (r.setup != nullptr) r.setup(ctx);
        const std::size_t seen = read_file(log_path).size();
        run(ctx, r.script, r.us);
        EXPECT_EQ(state(ctx), r.state) << r.script;
        const std::string log = read_file(log_path).substr(seen);
        EXPECT_THAT(log, HasSubstr(r.log != nullptr ? r.log : "")) << r.state;
        EXPECT_EQ(log.find("data: cnt") != std::string::npos, r.marker) << r.state;
        marker.remove();
        const int len = sei()->get_data(ctx);
        char hex[3 * 64 + 1] = "";
        for (int i = 0; i < std::min(len, 64); ++i) std::snprintf(hex + 3 * i, 4, " %02X", ctx->data[i]);
        EXPECT_STREQ(r.bytes != nullptr ? hex + 1 : nullptr, r.bytes);
    }
    EXPECT_EQ(sei()->running(nullptr, nullptr), -1);
    EXPECT_EQ(sei()->get_data(nullptr), -1);
    EXPECT_THAT(read_file(log_path), AllOf(HasSubstr("nframes_start_function] error: phst or phfbi is NULL!\n"),
                                           HasSubstr("] error, Func_h26x_high_sei_get_tim_buf_data:-1\n")));
    EXPECT_EQ(sei()->exit_list(&list), 0);
    fake_clock::enabled = false;
}

}  // namespace
