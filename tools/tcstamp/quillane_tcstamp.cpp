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
#include "au_stamper.h"
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
    std::optional<int> hrd[3];
    std::optional<tcstamp::TimeCode> start;
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
            int n[3];
            const auto p1 = v.find(',');
            const auto p2 = p1 == std::string::npos ? p1 : v.find(',', p1 + 1);
            if (p2 == std::string::npos || !parse_int(v.substr(0, p1), n[0], 0, 31) ||
                !parse_int(v.substr(p1 + 1, p2 - p1 - 1), n[1], 0, 31) || !parse_int(v.substr(p2 + 1), n[2], 0, 31)) {
                die("--hrd-lengths takes three numbers from 0 to 31, e.g. 23,23,23");
            }
            for (int k = 0; k < 3; ++k) o.hrd[k] = n[k];
        } else if (a == "--start") {
            o.start = tcstamp::parse_time_code(value());
            if (!o.start) die("--start takes HH:MM:SS:FF (or HH:MM:SS;FF)");
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

struct OutFile {
    FILE* fp;
    ~OutFile() {
        if (fp != nullptr) std::fclose(fp);
    }
    void write(std::span<const std::uint8_t> bytes) {
        if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), fp);
    }
};

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

    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
    if (opt.trace.empty()) {
        attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    } else {
        attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, opt.trace.c_str(), 1ULL << 30);
    }

    tcstamp::StamperConfig config;
    config.codec = codec;
    config.fps_x100 = opt.fps_x100;
    config.cpb_removal_delay_length = opt.hrd[0];
    config.dpb_output_delay_length = opt.hrd[1];
    config.time_offset_length = opt.hrd[2];
    config.start = opt.start;  // a file is read far faster than real time: no drift check
    tcstamp::AccessUnitStamper stamper;
    if (!stamper.start(config)) die("out of memory");

    OutFile out{std::fopen(opt.out.c_str(), "wb")};
    if (out.fp == nullptr) die("cannot write " + opt.out + ": " + std::strerror(errno));

    const bool progress = isatty(STDERR_FILENO) != 0 && aus.size() >= 500;
    std::size_t frames = 0;
    std::string first_tc;
    std::string last_tc;
    bool warned = false;
    if (!nals.empty()) out.write(s.first(nals.front().sc_begin));  // whatever precedes the first unit
    for (std::size_t a = 0; a < aus.size(); ++a) {
        const std::size_t begin = nals[aus[a].begin].sc_begin;
        const std::size_t end = a + 1 < aus.size() ? nals[aus[a + 1].begin].sc_begin : s.size();
        const std::span<const std::uint8_t> au = s.subspan(begin, end - begin);
        const tcstamp::StampPlan plan = stamper.stamp(au);
        if (!warned && !stamper.stream_warning().empty()) {
            std::fprintf(stderr, "quillane-tcstamp: warning: %s\n", stamper.stream_warning().c_str());
            warned = true;
        }
        if (!plan.picture) {  // no picture: passed through unstamped
            out.write(au);
            continue;
        }
        out.write(au.first(plan.insert_at));
        out.write(plan.sei);
        out.write(au.subspan(plan.insert_at));
        last_tc = stamper.time_code_text();
        if (frames == 0) first_tc = last_tc;
        ++frames;
        if (opt.list) std::printf("%zu %s\n", frames - 1, last_tc.c_str());
        if (progress && frames % 250 == 0) std::fprintf(stderr, "\r%zu / %zu frames", frames, aus.size());
    }
    if (progress) std::fputc('\n', stderr);
    if (std::ferror(out.fp) != 0 || std::fclose(out.fp) != 0) {
        out.fp = nullptr;
        die("cannot write " + opt.out + ": " + std::strerror(errno));
    }
    out.fp = nullptr;
    if (frames == 0) die(opt.in + ": no pictures found");
    std::printf("%s: %zu frames stamped (%s, %d.%02d fps), first %s, last %s\n", opt.out.c_str(), frames,
                codec == Codec::h264 ? "H.264" : "H.265", opt.fps_x100 / 100, opt.fps_x100 % 100, first_tc.c_str(),
                last_tc.c_str());
    return 0;
}
