// Writes a fixed set of files from fixed inputs through the library's public
// table, as an application on the camera would produce them: the SEI units of
// long frame sequences (both codecs, drop-frame rates, midnight, a drifting
// clock), the stamped streams as the stream writers dump them, the scanners'
// unit lists, a timestamped trace log with its rotation, a rewritten
// configuration file, and what the text and number helpers make of every
// byte value. Run natively and under emulation, the outputs must be equal
// byte for byte: nothing may depend on the host's char signedness, its
// bit-field layout or its floating-point contraction.
//
//   quillane_byte_identity OUT_DIR
//
// The wall clock is this program's own (it defines gettimeofday, which the
// library calls), so clock synchronisation, drift checks and log timestamps
// are the same on every run.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdarg>
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

// Text output that never depends on how the host prints a char.
class Text {
public:
    void line(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
        char buf[1024];
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(buf, sizeof buf, fmt, ap);
        va_end(ap);
        text_ += buf;
        text_ += '\n';
    }
    // Bytes as two hexadecimal digits each: the text itself may hold anything.
    static std::string hex(const void* data, std::size_t n) {
        static const char digits[] = "0123456789abcdef";
        std::string s;
        const auto* p = static_cast<const unsigned char*>(data);
        for (std::size_t i = 0; i < n; ++i) {
            s += digits[p[i] >> 4];
            s += digits[p[i] & 15];
        }
        return s.empty() ? "-" : s;
    }
    static std::string hex(const char* s) { return s == nullptr ? "(null)" : hex(s, std::strlen(s)); }
    void save(const std::string& path) const { write_bytes(path, std::vector<unsigned char>(text_.begin(), text_.end())); }

private:
    std::string text_;
};

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
    std::uint64_t stream_budget;  // byte budget of the buffered dump
};

// The clock runs at the frame rate except where a drift is wanted.
const Scenario kScenarios[] = {
    {"h264_2997", 264, 2997, 23, 23, 0, "2026-11-23 00:00:58", 0, 33367, 4000, 30, 45, 60000},
    {"h264_2500_narrow", 264, 2500, 6, 9, 31, "2026-12-31 23:59:50", 480000, 40000, 600, 25, -1, 1u << 30},
    {"h264_5994_drift", 264, 5994, 15, 15, 4, "2026-11-23 09:59:59", 0, 17500, 5000, 60, -1, 20000},
    {"h265_2997", 265, 2997, 0, 0, 0, "2026-11-23 00:09:58", 250000, 33367, 4000, 30, -1, 1u << 30},
    {"h265_5994", 265, 5994, 0, 0, 0, "2026-11-23 23:58:58", 0, 16683, 5400, 60, -1, 70000},
    {"h265_3000_drift", 265, 3000, 0, 0, 0, "2027-02-28 01:59:59", 999999, 31000, 3000, 30, 77, 1u << 30},
};

void run_scenario(const Scenario& s, Text& units_text) {
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
    const std::string buffered_name = name + ".dump";
    const std::string fd_name = name + ".fd.dump";
    util_h26xBaseSaveStreamToFile_t buffered{};
    buffered.file_name = buffered_name.c_str();
    buffered.max_size = s.stream_budget;
    util_h26xBaseSaveStreamToFile_t by_fd{};
    by_fd.file_name = fd_name.c_str();
    by_fd.max_size = s.stream_budget / 2;

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
        if (f < 2) {
            for (int k = 0; k <= units.count && k < 8; ++k) {
                units_text.line("%s frame %d unit %d: position %" PRIu64 " nalu %d length %" PRIu64, s.name, f, k,
                                static_cast<std::uint64_t>(units.list[k].position), units.list[k].nalu,
                                static_cast<std::uint64_t>(units.list[k].length));
            }
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
        util_ops_pfun->h26x_base->fw_save_stream_bySize(reinterpret_cast<UTIL_CHAR*>(au.data()),
                                                        static_cast<UTIL_S32>(au.size()), &buffered);
        util_ops_pfun->h26x_base->w_save_stream_bySize(reinterpret_cast<UTIL_CHAR*>(au.data()),
                                                       static_cast<UTIL_S32>(au.size()), &by_fd);
        advance_us(s.usec_per_frame);
    }
    if (buffered.fp != nullptr) std::fclose(buffered.fp);
    if (by_fd.fd > 2) close(by_fd.fd);
    write_bytes(name + ".sei", sei_units);
    write_bytes(name + ".stamped", stamped);
    units_text.line("%s: drift check after %" PRIu64 " of %" PRIu64 " frames", s.name,
                    static_cast<std::uint64_t>(ctx.timDiffCal.real_frame_cnt),
                    static_cast<std::uint64_t>(ctx.timDiffCal.wait_frame_cnts));

    // Every unit of the stamped stream, through the heap array and the chain.
    const int window = static_cast<int>(std::min<std::size_t>(stamped.size(), 4096));
    util_list_h26x_frame_buf_info_t array{};
    array.frame_addr = stamped.data();
    array.frame_size = window;
    check(util_ops_pfun->h26x_base->V2_init_list(&array, 1) == 0, "V2_init_list");
    util_link_h26x_frame_buf_info_t chain{};
    chain.frame_addr = stamped.data();
    chain.frame_size = window;
    check(util_ops_pfun->h26x_base->V3_init_list(&chain, 1) == 0, "V3_init_list");
    const util_h26x_frame_buf_info_one_node_t* node = chain.head;
    for (int k = 0; k < array.hfbiMax; ++k) {
        const util_h26x_frame_buf_info_one_t& u = array.phfbi[k];
        const bool same = node != nullptr && node->hfbi.position == u.position && node->hfbi.nalu == u.nalu &&
                          node->hfbi.length == u.length;
        check(same, "V3_init_list agreeing with V2_init_list");
        units_text.line("%s unit %d: position %" PRIu64 " nalu 0x%02x length %" PRIu64 "%s", s.name, k,
                        static_cast<std::uint64_t>(u.position), static_cast<unsigned>(u.nalu),
                        static_cast<std::uint64_t>(u.length), same ? "" : " (chain differs)");
        if (node != nullptr) node = node->next;
    }
    util_ops_pfun->h26x_base->V2_exit_list(&array);
    util_ops_pfun->h26x_base->V3_exit_list(&chain);
    util_ops_pfun->h26x_high_seiTimeCode->exit_list(&list);
}

// Messages with every byte value, in every timestamp format, through a log
// small enough to rotate.
void trace_bytes() {
    util_dbgout_t* dbg = util_ops_pfun->dbgout->pstDebugAttr->get();
    char all[256];
    for (int b = 1; b < 256; ++b) all[b - 1] = static_cast<char>(b);
    all[255] = '\0';
    const int formats[] = {255, 254, 126, 63, 0};
    const signed char sc = -23;
    const char plain = static_cast<char>(0xE9);
    for (int bits : formats) {
        util_ops_pfun->dbgout->pstDebugAttr->set_extraInfo_attr(-28800, bits == 126 ? 1 : 0, static_cast<UTIL_U32>(bits));
        advance_us(123457);
        util_ops_pfun->dbgout->traceout(dbg, "bits %d: %s|%c|%d|%u|%x|%.3f|%hhd|%hhu\n", bits, "caf\xC3\xA9 \xFF\x80",
                                        plain, sc, 0xFFFFFFFFu, -1, -2.0 / 3.0, plain, plain);
        util_ops_pfun->dbgout->traceout(dbg, "%s\n", all + (bits % 128));  // cut at 223 characters
    }
    UTIL_U8 cmd[256];
    for (int b = 0; b < 256; ++b) cmd[b] = static_cast<UTIL_U8>(b);
    util_ops_pfun->dbgout->cmdPrint(cmd, 32);
    util_ops_pfun->dbgout->cmdPrint(cmd + 224, 32);
}

void text_helpers(Text& t) {
    util_ops_common_base_fun_t* base = util_ops_pfun->common_base;
    for (int b = 1; b < 256; ++b) {
        const char c = static_cast<char>(b);
        char one[2] = {c, '\0'};
        char inner[8] = {'a', c, 'b', '\0'};
        char padded[16] = {' ', '\t', c, 'x', c, ' ', '\n', '\0'};
        char* trimmed = base->strTrim(padded);
        UTIL_S32 num = 0;
        const int hex_rc = base->htoi(one, &num, 1);
        char value[2] = {c, '\0'};
        char enum_rule[8] = {'0', '#', 'z', '#', c, '#', '\0'};
        const int in_enum = base->judgeSubStrWithinRange(value, enum_rule);
        const int in_class = base->judgeSubStrWithinRange(value, "3#^[[:alnum:]]$#");
        UTIL_U8 src[2] = {0x81, static_cast<UTIL_U8>(b)};
        const UTIL_U8 wild[2] = {0x81, 0xFF};
        const UTIL_U8 mid[2] = {0x81, 0x80};
        t.line("byte %02x: utf8len %d one %d inner %d trim %s htoi %d/%d enum %d class %d visca %d %d", b,
               base->getUtf8CharByteNum(static_cast<UTIL_UCHAR>(b)), base->isUtf8Format(one), base->isUtf8Format(inner),
               Text::hex(trimmed).c_str(), hex_rc, num, in_enum, in_class, base->command_visca_memcmp(src, 2, wild, 2),
               base->command_visca_memcmp(src, 2, mid, 2));
    }
    const char* utf8[] = {"caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x8E\xA5 ok", "\xC3", "\xFF\xFE", "a\x80"};
    for (const char* s : utf8) {
        std::string copy = s;
        UTIL_S32 cnt[3] = {0, 0, 0};
        const int len = base->getUtf8Length(copy.data(), cnt);
        t.line("utf8 %s: format %d length %d counts %d %d %d", Text::hex(s).c_str(), base->isUtf8Format(s), len, cnt[0],
               cnt[1], cnt[2]);
    }
    const char* hex_texts[] = {"0x7fffffff", "FFFFFFFF", "-0x80000000", "0xAbC", "0x\xC1", "12\xFF"};
    for (const char* h : hex_texts) {
        std::string copy = h;
        UTIL_S32 num = 0;
        const int rc = base->htoi(copy.data(), &num, static_cast<UTIL_S32>(copy.size()));
        t.line("htoi %s: %d %d", Text::hex(h).c_str(), rc, num);
    }
    const UTIL_S32 numbers[] = {0, 1, -1, 255, -256, 65535, INT_MAX, INT_MIN};
    for (UTIL_S32 n : numbers) {
        char a[40], h[40], b1[40], b2[40];
        const int la = base->itoa(n, a), lh = base->itoh(n, h), lb = base->itob(n, b1), lb2 = base->itob2(n, b2);
        t.line("number %d: %d %s %d %s %d %s %d %s", n, la, a, lh, h, lb, b1, lb2, b2);
    }
    // Floating-point results carry the same bits everywhere.
    for (int i = 0; i < 64; ++i) {
        const UTIL_FLOAT x = 0.001f + static_cast<UTIL_FLOAT>(i) * static_cast<UTIL_FLOAT>(i) * 37.25f;
        const UTIL_FLOAT r[4] = {base->err_rSqrt(x), base->err_sqrt(x), base->err_rSqrt2(x, 3), base->err_sqrt2(x, 2)};
        t.line("sqrt %s: %s", Text::hex(&x, sizeof x).c_str(), Text::hex(r, sizeof r).c_str());
    }
    for (int rgb = 0; rgb < 512; rgb += 37) {
        UTIL_S32 y = 0, u = 0, v = 0;
        base->rgb2yuv_By_CCIR_601(rgb % 256, (rgb * 7) % 256, 255 - rgb % 256, &y, &u, &v);
        t.line("yuv %d: %d %d %d", rgb, y, u, v);
    }
    UTIL_S32 sorted[] = {5, -3, INT_MIN, 127, -128, 0, INT_MAX, 255, -1};
    base->bubbleSort(sorted, 9);
    t.line("sorted: %d %d %d %d %d %d %d %d %d", sorted[0], sorted[1], sorted[2], sorted[3], sorted[4], sorted[5],
           sorted[6], sorted[7], sorted[8]);
    t.line("gcd %d %d clamp %d %d", base->calc_gcd(1920, 1080), base->calc_gcd(INT_MIN, -1),
           base->limitValueRange(-128, -200, 127), base->limitValueRange(0, 300, 255));

    UTIL_U8 cmd[256];
    for (int b = 0; b < 256; ++b) cmd[b] = static_cast<UTIL_U8>(b);
    for (int at = 0; at < 256; at += 32) {
        char dump[6 * 32 + 8];
        const int rc = util_ops_pfun->dbgout->cmdToStr(cmd + at, 32, dump);
        t.line("cmd %d: %d %s", at, rc, dump);
    }

    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    char dir[256], name[256];
    high->parsePathName("/m\xC3\xA9" "dia/\xFF\x80/clip\xE9.264", dir, name);
    t.line("path: %s %s", Text::hex(dir).c_str(), Text::hex(name).c_str());
    char first_path[] = "first_line.txt", number_path[] = "number.txt";
    write_bytes(first_path, {' ', 0xC3, 0xA9, 't', 0xE9, '\r', '\n', '2', '\n'});
    char first[64] = {};
    const int first_rc = high->readTextFirstLineStr(first_path, first, sizeof first);
    t.line("first line: %d %s", first_rc, Text::hex(first).c_str());
    write_bytes(number_path, {' ', '-', '4', '2', 0xB2, '\n'});
    UTIL_S32 num = 0;
    const int num_rc = high->readTextNum(number_path, &num);
    t.line("number file: %d %d", num_rc, num);
}

// A settings file with high bytes and a line end of each kind, rewritten
// several times.
void rewrite_settings(Text& t) {
    const std::string conf = "settings.conf";
    const char content[] =
        "# r\xC3\xA9glages \xFF\n"
        "title = \"Cam\xE9ra\"\r\n"
        "exposure=10\n"
        "name\xE9=\"x\"\n"
        "fps = \"25\"\n"
        "exposure_max=99";
    write_bytes(conf, std::vector<unsigned char>(content, content + sizeof content - 1));
    util_ops_common_high_fun_t* high = util_ops_pfun->common_high;
    char path[32];
    std::snprintf(path, sizeof path, "%s", conf.c_str());
    char title[] = "title", value[] = "Cam\xC3\xA9ra \xF0\x9F\x8E\xA5", quoted[] = "%s = \"%s\"";
    char exposure[] = "exposure", plain_int[] = "%s=%d", quoted_int[] = "%s = \"%d\"";
    char high_key[] = "name\xE9", high_line[] = "name\xE9=\"\xFF\xFE\x80\"";
    char fps[] = "fps", absent[] = "\xA0none";
    t.line("conf str %d", high->update_line_conf_str(path, title, value, quoted));
    t.line("conf int %d", high->update_line_conf_int(path, exposure, -12, plain_int));
    t.line("conf quoted int %d", high->update_line_conf_int(path, fps, 2997, quoted_int));
    t.line("conf line %d", high->update_line_conf(path, high_key, high_line));
    t.line("conf absent %d", high->update_line_conf(path, absent, absent));
    std::string long_line(300, static_cast<char>(0xC9));
    t.line("conf too long %d", high->update_line_conf(path, fps, long_line.data()));
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
    // Files that are appended to start afresh. (util_init is left out: it
    // traces the version text, whose build stamp differs between builds.)
    unlink("trace.log");
    unlink("trace.log_bak");
    for (const Scenario& s : kScenarios) unlink((std::string(s.name) + ".fd.dump").c_str());

    Text units;
    for (const Scenario& s : kScenarios) run_scenario(s, units);
    units.save("units.txt");
    trace_bytes();
    Text text;
    text_helpers(text);
    rewrite_settings(text);
    text.save("text.txt");

    util_ops_pfun->util_exit();
    util_ops_pfun->dbgout->pstDebugAttr->fclose_dbglog_fp();
    return g_failures == 0 ? 0 : 1;
}
