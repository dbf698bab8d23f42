// Writes a fixed set of files from fixed inputs through the library's public
// table, as an application on the camera would produce them: the SEI units of
// long frame sequences (both codecs, drop-frame rates, midnight, a drifting
// clock), the streams stamped with them, the drift check's counters and the
// timestamped trace log. Run natively and under emulation, the outputs must be
// equal byte for byte: nothing may depend on the host's char signedness, its
// bit-field layout or its floating-point contraction. (Each module's own
// tests, run on every architecture and with unsigned char, pin the rest.)
//
//   quillane_byte_identity OUT_DIR
//
// The wall clock is this program's own (it defines gettimeofday, which the
// library calls), so clock synchronisation, drift checks and log timestamps
// are the same on every run.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "../fake_clock.h"
#include "util_function.h"

namespace {

// Sets the clock to a UTC time "YYYY-MM-DD HH:MM:SS" and microseconds.
void set_clock(const char* utc, long usec) {
    struct tm tm {};
    strptime(utc, "%Y-%m-%d %H:%M:%S", &tm);
    qtest::fake_clock::set_utc(tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, usec);
}

void advance_us(long us) { qtest::fake_clock::advance_us(us); }

int g_failures = 0;

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "byte_identity: %s failed\n", what);
        ++g_failures;
    }
}

void write_bytes(const std::string& path, const std::vector<unsigned char>& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    check(f != nullptr, path.c_str());
    if (f == nullptr) return;
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

// Deterministic payload bytes, never zero (no accidental start codes), with
// every high byte value among them.
class Payload {
public:
    unsigned char next() {
        state_ = state_ * 1103515245u + 12345u;
        const unsigned char b = static_cast<unsigned char>(state_ >> 16);
        return b == 0 ? 0x80 : b;
    }

private:
    std::uint32_t state_ = 20260101u;
};

void put_unit(std::vector<unsigned char>& au, std::initializer_list<unsigned char> header, Payload& p, int payload) {
    au.insert(au.end(), {0, 0, 0, 1});
    au.insert(au.end(), header);
    for (int i = 0; i < payload; ++i) au.push_back(p.next());
}

// One access unit: parameter sets and a key picture, or a predicted picture.
std::vector<unsigned char> access_unit(bool h264, bool key, Payload& p) {
    std::vector<unsigned char> au;
    if (h264) {
        if (key) {
            put_unit(au, {0x67, 0x64, 0x00, 0x1F}, p, 12);  // SPS
            put_unit(au, {0x68, 0xEB}, p, 4);               // PPS
            put_unit(au, {0x65, 0x88}, p, 40);              // IDR slice
        } else {
            put_unit(au, {0x41, 0x9A}, p, 24);  // P slice
        }
    } else {
        if (key) {
            put_unit(au, {0x40, 0x01}, p, 10);  // VPS
            put_unit(au, {0x42, 0x01}, p, 14);  // SPS
            put_unit(au, {0x44, 0x01}, p, 4);   // PPS
            put_unit(au, {0x26, 0x01}, p, 40);  // IDR_N_LP slice
        } else {
            put_unit(au, {0x02, 0x01}, p, 24);  // TRAIL_R slice
        }
    }
    return au;
}

struct Scenario {
    const char* name;
    int codec;
    int fps_x100;
    int cpb_length, dpb_length, time_offset_length;
    const char* start;     // the clock at the first frame, UTC
    long start_usec;
    long usec_per_frame;   // how far the clock moves per frame
    int frames;
    int key_interval;      // a key frame every so many frames
    int stray_key;         // one more key frame here (-1: none), off the H.264 delay cycle
};

// The clock runs at the frame rate except where a drift is wanted.
const Scenario kScenarios[] = {
    {"h264_2997", 264, 2997, 23, 23, 0, "2026-11-23 00:00:58", 0, 33367, 4000, 30, 45},
    {"h264_2500_narrow", 264, 2500, 6, 9, 31, "2026-12-31 23:59:50", 480000, 40000, 600, 25, -1},
    {"h264_5994_drift", 264, 5994, 15, 15, 4, "2026-11-23 09:59:59", 0, 17500, 5000, 60, -1},
    {"h265_2997", 265, 2997, 0, 0, 0, "2026-11-23 00:09:58", 250000, 33367, 4000, 30, -1},
    {"h265_5994", 265, 5994, 0, 0, 0, "2026-11-23 23:58:58", 0, 16683, 5400, 60, -1},
    {"h265_3000_drift", 265, 3000, 0, 0, 0, "2027-02-28 01:59:59", 999999, 31000, 3000, 30, 77},
};

void run_scenario(const Scenario& s, FILE* counters) {
    const bool h264 = s.codec == 264;
    util_h26x_sei_tim_config_param_t cfg{};
    cfg.ntp_enable = UTIL_TRUE;
    cfg.max_fps_x100 = s.fps_x100;
    cfg.h26x_type = s.codec;
    cfg.timDiffCal_enable = 1;
    cfg.init_wait_frame_cnts = 300;
    cfg.h264_cpb_removal_delay_length = static_cast<UTIL_U8>(s.cpb_length);
    cfg.h264_dpb_output_delay_length = static_cast<UTIL_U8>(s.dpb_length);
    cfg.h264_time_offset_length = static_cast<UTIL_U8>(s.time_offset_length);
    util_list_h26x_sei_tim_t list{};
    check(util_ops_pfun->h26x_high_seiTimeCode->init_list(&list, &cfg, 1) == 0, "init_list");
    if (list.ph26xSeiTim == nullptr) return;
    util_h26x_sei_tim_t& ctx = list.ph26xSeiTim[0];

    set_clock(s.start, s.start_usec);
    const std::string name = s.name;

    Payload payload;
    std::vector<unsigned char> sei_units;
    std::vector<unsigned char> stamped;
    const UTIL_H26X_STREAM_TYPE_ENUM type = h264 ? ENUM_UTIL_H264_STREAM_TYPE : ENUM_UTIL_H265_STREAM_TYPE;
    for (int f = 0; f < s.frames; ++f) {
        const bool key = f % s.key_interval == 0 || f == s.stray_key;
        std::vector<unsigned char> au = access_unit(h264, key, payload);
        util_h26x_frame_buf_info_t units{};
        if (util_ops_pfun->h26x_base->V1_get_hfbi(&units, au.data(), static_cast<UTIL_S32>(au.size()), type, 0) != 0) {
            check(false, "V1_get_hfbi");
            break;
        }
        check(util_ops_pfun->h26x_high_seiTimeCode->running(&ctx, &units) == 0, "running");
        const UTIL_S32 n = util_ops_pfun->h26x_high_seiTimeCode->get_data(&ctx);
        check(n > 0 && n <= 64, "get_data");
        if (n <= 0 || n > 64) break;
        sei_units.insert(sei_units.end(), ctx.data, ctx.data + n);
        // The SEI unit goes right before the picture, as an encoder's
        // output would carry it.
        const auto picture = static_cast<std::size_t>(units.list[units.count - 1].position);
        au.insert(au.begin() + static_cast<std::ptrdiff_t>(picture), ctx.data, ctx.data + n);
        stamped.insert(stamped.end(), au.begin(), au.end());
        advance_us(s.usec_per_frame);
    }
    write_bytes(name + ".sei", sei_units);
    write_bytes(name + ".stamped", stamped);
    std::fprintf(counters, "%s: drift check after %" PRIu64 " of %" PRIu64 " frames\n", s.name,
                    static_cast<std::uint64_t>(ctx.timDiffCal.real_frame_cnt),
                    static_cast<std::uint64_t>(ctx.timDiffCal.wait_frame_cnts));

    util_ops_pfun->h26x_high_seiTimeCode->exit_list(&list);
}

}  // namespace


int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: quillane_byte_identity OUT_DIR\n");
        return 2;
    }
    mkdir(argv[1], 0755);
    // Relative names from here on: the log path must fit its 64 bytes.
    if (chdir(argv[1]) != 0) {
        std::perror(argv[1]);
        return 2;
    }
    setenv("TZ", "UTC0", 1);
    tzset();
    qtest::fake_clock::enabled = true;
    set_clock("2026-11-23 12:00:00", 0);

    util_ops_pfun->dbgout->pstDebugAttr->set_dbglog_attr(
        UTIL_DBGOUT_DBGLOG_ENABLE | UTIL_DBGOUT_DBGLOG_BACKUP | UTIL_DBGOUT_DBGLOG_TIMESTAMP, "trace.log", 16384);
    util_ops_pfun->dbgout->pstDebugAttr->set_extraInfo_attr(0, 0, 255);
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_DBGLOG;
    // The log is appended to: it starts afresh. (util_init is left out: it
    // traces the version text, whose build stamp differs between builds.)
    unlink("trace.log");
    unlink("trace.log_bak");

    FILE* counters = std::fopen("drift.txt", "w");
    check(counters != nullptr, "drift.txt");
    for (const Scenario& s : kScenarios) {
        if (counters != nullptr) run_scenario(s, counters);
    }
    if (counters != nullptr) std::fclose(counters);

    util_ops_pfun->util_exit();
    util_ops_pfun->dbgout->pstDebugAttr->fclose_dbglog_fp();
    return g_failures == 0 ? 0 : 1;
}
