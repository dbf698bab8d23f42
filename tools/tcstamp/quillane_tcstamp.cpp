// quillane-tcstamp: stamps every frame of an H.264 or H.265 Annex B stream
// with a time-code SEI message, through the library's per-frame pipeline
// (scan the frame, advance the time code, build the SEI unit).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "annexb.h"
#include "util_function.h"

using tcstamp::Codec;

namespace {

const char* kUsage =
    "usage: quillane-tcstamp IN OUT [options]\n"
    "\n"
    "Stamps every frame of the H.264 or H.265 Annex B stream IN with a clock\n"
    "time code (H.264 picture timing SEI, H.265 time code SEI) and writes OUT.\n"
    "\n"
    "options:\n"
    "  --fps N              frame rate x 100 (2500, 2997, 3000, 5994, ...); default 2500\n"
    "                       2997 and 5994 count drop-frame time code\n"
    "  --codec h264|h265    stream type; guessed from the stream when absent\n"
    "  --hrd-lengths C,D,T  H.264: cpb_removal_delay_length_minus1, dpb_output_delay_length_minus1\n"
    "                       and time offset width minus one; read from the SPS when absent\n"
    "  --start HH:MM:SS:FF  time code of the first frame; the local clock when absent\n"
    "  --list               print every frame's time code\n"
    "  --trace FILE         write the library's trace output to FILE\n"
    "  --help               this text\n";

struct Options {
    std::string in;
    std::string out;
    int fps_x100 = 2500;
    std::optional<Codec> codec;
    std::optional<tcstamp::HrdLengths> hrd;
    std::optional<int> start[4];
    bool has_start = false;
    bool list = false;
    std::string trace;
};

[[noreturn]] void die(const std::string& msg) {
    std::fprintf(stderr, "quillane-tcstamp: %s\n", msg.c_str());
    std::exit(1);
}

bool parse_int(const std::string& s, int& v, int lo, int hi) {
    if (s.empty() || s.size() > 9) return false;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
    }
    v = std::atoi(s.c_str());
    return v >= lo && v <= hi;
}

Options parse_args(int argc, char** argv) {
    Options o;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) die("option " + a + " needs a value (see --help)");
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--fps") {
            if (!parse_int(value(), o.fps_x100, 100, 100000)) die("--fps takes the frame rate x 100, e.g. 2997");
        } else if (a == "--codec") {
            const std::string c = value();
            if (c == "h264") {
                o.codec = Codec::h264;
            } else if (c == "h265") {
                o.codec = Codec::h265;
            } else {
                die("--codec takes h264 or h265");
            }
        } else if (a == "--hrd-lengths") {
            const std::string v = value();
            int c = 0, d = 0, t = 0;
            const auto p1 = v.find(',');
            const auto p2 = p1 == std::string::npos ? p1 : v.find(',', p1 + 1);
            if (p2 == std::string::npos || !parse_int(v.substr(0, p1), c, 0, 31) ||
                !parse_int(v.substr(p1 + 1, p2 - p1 - 1), d, 0, 31) || !parse_int(v.substr(p2 + 1), t, 0, 31)) {
                die("--hrd-lengths takes three numbers from 0 to 31, e.g. 23,23,23");
            }
            o.hrd = tcstamp::HrdLengths{c, d, t + 1, true, true};
        } else if (a == "--start") {
            const std::string v = value();
            int f[4];
            const char* bad = "--start takes HH:MM:SS:FF (or HH:MM:SS;FF)";
            if (v.size() != 11 || v[2] != ':' || v[5] != ':' || (v[8] != ':' && v[8] != ';')) die(bad);
            const int limits[4] = {23, 59, 59, 511};
            for (int k = 0; k < 4; ++k) {
                if (!parse_int(v.substr(static_cast<std::size_t>(k) * 3, 2), f[k], 0, limits[k])) die(bad);
                o.start[k] = f[k];
            }
            o.has_start = true;
        } else if (a == "--list") {
            o.list = true;
        } else if (a == "--trace") {
            o.trace = value();
        } else if (!a.empty() && a[0] == '-' && a != "-") {
            die("unknown option " + a + " (see --help)");
        } else {
            positional.push_back(a);
        }
    }
    if (positional.size() != 2) die("expects IN and OUT (see --help)");
    o.in = positional[0];
    o.out = positional[1];
    return o;
}

std::vector<std::uint8_t> read_all(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) die("cannot read " + path + ": " + std::strerror(errno));
    std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) die("cannot read " + path);
    return data;
}

template <typename TimeCode>
void load_start(TimeCode& tc, const Options& o) {
    tc.hours_value = static_cast<unsigned>(*o.start[0]);
    tc.minutes_value = static_cast<unsigned>(*o.start[1]);
    tc.seconds_value = static_cast<unsigned>(*o.start[2]);
    tc.n_frames = static_cast<unsigned>(*o.start[3]);
}

std::string time_code_text(const util_h26x_sei_tim_t& ctx) {
    unsigned h, m, s, f, drop;
    if (ctx.config_param.h26x_type == ENUM_UTIL_H264_STREAM_TYPE) {
        const auto& t = ctx.h264_sei;
        h = t.hours_value, m = t.minutes_value, s = t.seconds_value, f = t.n_frames, drop = t.counting_type == 4;
    } else {
        const auto& t = ctx.h265_sei;
        h = t.hours_value, m = t.minutes_value, s = t.seconds_value, f = t.n_frames, drop = t.counting_type == 4;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02u:%02u:%02u%c%02u", h, m, s, drop ? ';' : ':', f);
    return buf;
}

// The frame in the form the scanner reads: every unit behind a four-byte
// start code.
void build_frame(std::span<const std::uint8_t> stream, const std::vector<tcstamp::Nal>& nals, tcstamp::AccessUnit au,
                 std::vector<std::uint8_t>& frame, std::vector<std::size_t>& unit_at) {
    frame.clear();
    unit_at.clear();
    for (std::size_t k = au.begin; k < au.end; ++k) {
        unit_at.push_back(frame.size());
        frame.insert(frame.end(), {0, 0, 0, 1});
        frame.insert(frame.end(), stream.begin() + static_cast<std::ptrdiff_t>(nals[k].offset),
                     stream.begin() + static_cast<std::ptrdiff_t>(nals[k].offset + nals[k].size));
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parse_args(argc, argv);
    const std::vector<std::uint8_t> stream = read_all(opt.in);
    const std::span<const std::uint8_t> s(stream);

    const bool annexb = (s.size() >= 4 && s[0] == 0 && s[1] == 0 && s[2] == 0 && s[3] == 1) ||
                        (s.size() >= 3 && s[0] == 0 && s[1] == 0 && s[2] == 1);
    if (!annexb) die(opt.in + ": not an Annex B H.264/H.265 stream (it does not begin with a start code)");
    std::vector<tcstamp::Nal> nals = tcstamp::split_nal_units(s, opt.codec.value_or(Codec::h264));
    const Codec codec = opt.codec ? *opt.codec : tcstamp::guess_codec(s, nals);
    if (codec == Codec::h265) nals = tcstamp::split_nal_units(s, codec);
    const std::vector<tcstamp::AccessUnit> aus = tcstamp::group_access_units(nals, codec);

    // The picture timing message must use the widths the SPS announces.
    tcstamp::HrdLengths hrd;
    if (opt.hrd) {
        hrd = *opt.hrd;
    } else if (codec == Codec::h264) {
        for (const auto& n : nals) {
            if (n.type != 7) continue;
            if (auto found = tcstamp::parse_h264_sps_hrd(s.subspan(n.offset, n.size))) hrd = *found;
            break;
        }
        if (!hrd.hrd_present || !hrd.pic_struct_present) {
            std::fprintf(stderr,
                         "quillane-tcstamp: warning: the SPS signals no %s; decoders will not read the picture "
                         "timing (encode with HRD parameters and pic_struct, or give --hrd-lengths)\n",
                         hrd.hrd_present ? "pic_struct" : "HRD parameters");
        }
    }

    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
    if (opt.trace.empty()) {
        attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    } else {
        attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, opt.trace.c_str(), 1ULL << 30);
    }

    util_h26x_sei_tim_config_param_t config{};
    config.ntp_enable = UTIL_TRUE;
    config.max_fps_x100 = opt.fps_x100;
    config.h26x_type = codec == Codec::h264 ? ENUM_UTIL_H264_STREAM_TYPE : ENUM_UTIL_H265_STREAM_TYPE;
    config.timDiffCal_enable = 0;  // a file is read far faster than real time
    config.h264_cpb_removal_delay_length = static_cast<UTIL_U8>(hrd.cpb_removal_delay_length_minus1);
    config.h264_dpb_output_delay_length = static_cast<UTIL_U8>(hrd.dpb_output_delay_length_minus1);
    config.h264_time_offset_length = static_cast<UTIL_U8>(hrd.time_offset_length > 0 ? hrd.time_offset_length - 1 : 0);
    util_list_h26x_sei_tim_t list{};
    if (util_ops_pfun->h26x_high_seiTimeCode->init_list(&list, &config, 1) != 0) die("out of memory");
    util_h26x_sei_tim_t& ctx = list.ph26xSeiTim[0];

    FILE* out = std::fopen(opt.out.c_str(), "wb");
    if (out == nullptr) die("cannot write " + opt.out + ": " + std::strerror(errno));

    const bool progress = isatty(STDERR_FILENO) != 0 && aus.size() >= 500;
    std::vector<std::uint8_t> frame;
    std::vector<std::size_t> unit_at;
    std::size_t frames = 0;
    std::string first_tc;
    std::string last_tc;
    const UTIL_H26X_STREAM_TYPE_ENUM type =
        codec == Codec::h264 ? ENUM_UTIL_H264_STREAM_TYPE : ENUM_UTIL_H265_STREAM_TYPE;
    for (const tcstamp::AccessUnit& au : aus) {
        build_frame(s, nals, au, frame, unit_at);
        std::size_t first_vcl = au.end;
        for (std::size_t k = au.begin; k < au.end; ++k) {
            if (nals[k].vcl) {
                first_vcl = k;
                break;
            }
        }
        if (first_vcl == au.end) {  // no picture: passed through unstamped
            std::fwrite(frame.data(), 1, frame.size(), out);
            continue;
        }
        // The scanner lists the units up to the first picture. It only knows
        // some picture types (not, say, an H.265 CRA), and at most seven
        // units; then the list is made here from the stream's own parse.
        util_h26x_frame_buf_info_t units{};
        const std::size_t insert_unit = first_vcl - au.begin;
        const int pic = nals[first_vcl].type;
        const bool scanner_knows_it = (codec == Codec::h264 ? (pic == 1 || pic == 5) : (pic == 1 || pic == 19)) &&
                                      insert_unit < 7 && frame.size() - unit_at[insert_unit] > 8;
        if (!scanner_knows_it ||
            util_ops_pfun->h26x_base->V1_get_hfbi(&units, frame.data(), static_cast<UTIL_S32>(frame.size()), type, 0) !=
                0 ||
            units.list[units.count - 1].position != unit_at[insert_unit]) {
            units = {};
            const std::size_t n = insert_unit + 1 < 7 ? insert_unit + 1 : 7;
            for (std::size_t k = 0; k < n; ++k) {
                const std::size_t u = insert_unit + 1 - n + k;
                units.list[k].position = unit_at[u];
                units.list[k].nalu = frame[unit_at[u] + 4];
            }
            units.count = static_cast<UTIL_S32>(n);
        }
        const bool synced = ctx.init_flag == 1;
        util_ops_pfun->h26x_high_seiTimeCode->running(&ctx, &units);
        if (opt.has_start && !synced) {
            load_start(ctx.h264_sei, opt);
            load_start(ctx.h265_sei, opt);
        }
        const UTIL_S32 len = util_ops_pfun->h26x_high_seiTimeCode->get_data(&ctx);
        const std::size_t at = unit_at[insert_unit];
        std::fwrite(frame.data(), 1, at, out);
        if (len > 0) std::fwrite(ctx.data, 1, static_cast<std::size_t>(len), out);
        std::fwrite(frame.data() + at, 1, frame.size() - at, out);

        last_tc = time_code_text(ctx);
        if (frames == 0) first_tc = last_tc;
        ++frames;
        if (opt.list) std::printf("%zu %s\n", frames - 1, last_tc.c_str());
        if (progress && frames % 250 == 0) std::fprintf(stderr, "\r%zu / %zu frames", frames, aus.size());
    }
    if (progress) std::fputc('\n', stderr);
    util_ops_pfun->h26x_high_seiTimeCode->exit_list(&list);
    if (std::fclose(out) != 0) die("cannot write " + opt.out + ": " + std::strerror(errno));
    if (frames == 0) die(opt.in + ": no pictures found");
    std::printf("%s: %zu frames stamped (%s, %d.%02d fps), first %s, last %s\n", opt.out.c_str(), frames,
                codec == Codec::h264 ? "H.264" : "H.265", opt.fps_x100 / 100, opt.fps_x100 % 100, first_tc.c_str(),
                last_tc.c_str());
    return 0;
}
