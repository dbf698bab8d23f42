// quillane-tcstamp: stamps every picture of an H.264 or H.265 Annex B
// stream with a time-code SEI message, through the library's per-frame
// pipeline, in presentation order. Streams it cannot stamp right are
// refused with the reason; nothing is left behind then.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "annexb.h"
#include "stream_stamper.h"
#include "timecode_reader.h"
#include "util_function.h"

using tcstamp::Codec;

namespace {

const char* kUsage =
    "usage: quillane-tcstamp IN OUT [options]\n"
    "       quillane-tcstamp --verify IN [--json] [--codec h264|h265]\n"
    "\n"
    "Stamps every picture of the H.264 or H.265 Annex B stream IN with a clock\n"
    "time code (H.264 picture timing SEI, H.265 time code SEI) and writes OUT.\n"
    "IN and OUT may be - for standard input and output. Each picture gets the\n"
    "time of its place in presentation order; an existing picture timing or\n"
    "time code message is replaced, everything else is kept as it was.\n"
    "\n"
    "The frame rate comes from the stream's SPS (VUI timing information).\n"
    "Pictures shown before the first random-access picture (a stream cut inside\n"
    "a group of pictures) are passed through without a time code. H.264 streams\n"
    "need HRD parameters and pic_struct in their SPS (x264: --nal-hrd vbr\n"
    "--pic-struct); streams that cannot be stamped right are refused.\n"
    "\n"
    "options:\n"
    "  --fps N              frame rate x 100 (2500, 2997, 3000, 5994, ...) for streams\n"
    "                       without timing information; must agree with the stream's own\n"
    "                       2997 and 5994 count drop-frame time code\n"
    "  --codec h264|h265    the codec the stream must be; detected when absent\n"
    "  --start HH:MM:SS:FF  time code of the first stamped picture (';' before FF for\n"
    "                       drop-frame rates); the local clock when absent\n"
    "  --list               print every stamped picture's time code, in presentation order\n"
    "  --trace FILE         write the library's trace output to FILE\n"
    "  --help               this text\n"
    "\n"
    "--verify reads the time codes of IN instead, lists every picture in presentation\n"
    "order (index, picture type, time code, clock timestamp fields) and reports, with\n"
    "the picture's index: pictures without a time code or with more than one, labels\n"
    "that do not advance by one frame at the stream's rate (unless discontinuity_flag\n"
    "says so), labels drop-frame counting skips or should not have skipped, frame\n"
    "counts beyond the rate, and drift of the labels from the pictures shown.\n"
    "  --json               one JSON object per picture, then one with the summary\n"
    "\n"
    "exit status: 0 stamped (--verify: no findings), 1 the input could not be read or\n"
    "stamped (--verify: findings), 2 usage error\n";

struct Options {
    std::string in;
    std::string out;
    std::optional<int> fps_x100;
    std::optional<Codec> codec;
    std::optional<tcstamp::TimeCode> start;
    bool start_drop_frame = false;
    bool list = false;
    std::string trace;
    bool verify = false;
    bool json = false;
};

[[noreturn]] void usage_error(const std::string& msg) {
    std::fprintf(stderr, "quillane-tcstamp: %s\n", msg.c_str());
    std::exit(2);
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
            if (i + 1 >= argc) usage_error("option " + a + " needs a value (see --help)");
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else if (a == "--fps") {
            int fps = 0;
            if (!parse_int(value(), fps, 100, 51100)) usage_error("--fps takes the frame rate x 100, e.g. 2997");
            o.fps_x100 = fps;
        } else if (a == "--codec") {
            const std::string c = value();
            if (c == "h264") {
                o.codec = Codec::h264;
            } else if (c == "h265") {
                o.codec = Codec::h265;
            } else {
                usage_error("--codec takes h264 or h265");
            }
        } else if (a == "--start") {
            o.start = tcstamp::parse_time_code(value(), &o.start_drop_frame);
            if (!o.start) usage_error("--start takes HH:MM:SS:FF (or HH:MM:SS;FF)");
        } else if (a == "--list") {
            o.list = true;
        } else if (a == "--verify") {
            o.verify = true;
        } else if (a == "--json") {
            o.json = true;
        } else if (a == "--trace") {
            o.trace = value();
        } else if (!a.empty() && a[0] == '-' && a != "-") {
            usage_error("unknown option " + a + " (see --help)");
        } else {
            positional.push_back(a);
        }
    }
    if (o.verify) {
        if (positional.size() != 1) usage_error("--verify expects IN alone (see --help)");
        if (o.list || o.start || o.fps_x100 || !o.trace.empty()) usage_error("--verify takes only --json and --codec");
        o.in = positional[0];
        return o;
    }
    if (o.json) usage_error("--json goes with --verify");
    if (positional.size() != 2) usage_error("expects IN and OUT (see --help)");
    o.in = positional[0];
    o.out = positional[1];
    if (o.list && o.out == "-") usage_error("--list prints to standard output, which OUT - already takes");
    return o;
}

// Reports a failure and ends the program (exit status 1).
using Fail = std::function<void(const std::string&)>;

// The input, opened and checked the same way for stamping and verifying: a
// readable Annex B stream whose codec is known, its first piece read.
struct Input {
    std::string name;
    FILE* fp = nullptr;
    struct stat st {};
    std::vector<std::uint8_t> chunk = std::vector<std::uint8_t>(1 << 20);
    std::size_t got = 0;
    Codec codec = Codec::h264;
};

void open_input(const Options& opt, const Fail& fail, Input& in) {
    in.name = opt.in == "-" ? "standard input" : opt.in;
    in.fp = opt.in == "-" ? stdin : std::fopen(opt.in.c_str(), "rb");
    if (in.fp == nullptr) fail("cannot read " + in.name + ": " + std::strerror(errno));
    if (::fstat(fileno(in.fp), &in.st) == 0 && S_ISDIR(in.st.st_mode)) {
        fail("cannot read " + in.name + ": it is a directory");
    }
    in.got = std::fread(in.chunk.data(), 1, in.chunk.size(), in.fp);
    if (std::ferror(in.fp) != 0) fail("cannot read " + in.name + ": " + std::strerror(errno));
    const std::span<const std::uint8_t> head(in.chunk.data(), in.got);
    const bool annexb = (in.got >= 4 && head[0] == 0 && head[1] == 0 && head[2] == 0 && head[3] == 1) ||
                        (in.got >= 3 && head[0] == 0 && head[1] == 0 && head[2] == 1);
    if (!annexb) fail(in.name + ": not an Annex B H.264/H.265 stream (it does not begin with a start code)");
    const std::optional<Codec> seen = tcstamp::codec_of(head, tcstamp::split_nal_units(head, Codec::h264));
    if (seen && opt.codec && *seen != *opt.codec) {
        fail(in.name + ": the stream is " + (*seen == Codec::h264 ? "H.264" : "H.265") + ", not " +
             (*opt.codec == Codec::h264 ? "H.264" : "H.265"));
    }
    if (!seen && !opt.codec) fail(in.name + ": cannot tell whether the stream is H.264 or H.265; give --codec");
    in.codec = seen ? *seen : *opt.codec;
}

// Hands every access unit of the input to take(), reading piece by piece,
// and closes the input.
template <typename Take>
void each_access_unit(Input& in, const Fail& fail, Take&& take) {
    tcstamp::AccessUnitSplitter splitter(in.codec);
    while (in.got > 0) {
        splitter.feed(std::span<const std::uint8_t>(in.chunk.data(), in.got));
        while (std::optional<std::span<const std::uint8_t>> au = splitter.next()) take(*au);
        in.got = std::fread(in.chunk.data(), 1, in.chunk.size(), in.fp);
        if (std::ferror(in.fp) != 0) fail("cannot read " + in.name + ": " + std::strerror(errno));
    }
    if (in.fp != stdin) std::fclose(in.fp);
    splitter.finish();
    while (std::optional<std::span<const std::uint8_t>> au = splitter.next()) take(*au);
}

// The output: a file that is removed again when stamping fails, or
// standard output.
class Output {
public:
    explicit Output(const std::string& path) : path_(path) {}
    ~Output() {
        if (fp_ != nullptr && fp_ != stdout) std::fclose(fp_);
    }
    bool open() {
        if (path_ == "-") {
            fp_ = stdout;
        } else {
            struct stat st{};
            // Only a regular file we made or truncated is ours to remove.
            removable_ = ::stat(path_.c_str(), &st) != 0 || S_ISREG(st.st_mode);
            fp_ = std::fopen(path_.c_str(), "wb");
        }
        if (fp_ != nullptr) std::setvbuf(fp_, nullptr, _IOFBF, 1 << 20);
        return fp_ != nullptr;
    }
    void write(std::span<const std::uint8_t> bytes) {
        if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), fp_) != bytes.size()) failed_ = true;
    }
    bool close() {
        const bool ok = !failed_ && std::fflush(fp_) == 0 && std::ferror(fp_) == 0;
        const bool closed = fp_ == stdout || std::fclose(fp_) == 0;
        fp_ = nullptr;
        return ok && closed;
    }
    void discard() {
        if (fp_ != nullptr && fp_ != stdout) std::fclose(fp_);
        fp_ = nullptr;
        if (removable_) std::remove(path_.c_str());
    }

private:
    std::string path_;
    FILE* fp_ = nullptr;
    bool failed_ = false;
    bool removable_ = false;
};

class Tool {
public:
    explicit Tool(const Options& o) : opt_(o), out_(o.out) {}
    int run();

private:
    [[noreturn]] void fail(const std::string& msg) {
        out_.discard();
        std::fprintf(stderr, "quillane-tcstamp: %s\n", msg.c_str());
        std::exit(1);
    }
    void emit(tcstamp::StreamStamper& stamper);
    void list(const tcstamp::StampedUnit& u);

    Options opt_;
    Output out_;
    std::string in_name_;
    std::uint64_t frames_ = 0;
    std::string first_tc_;
    std::string last_tc_;
    std::uint64_t last_index_ = 0;
    // Listed time codes waiting for the pictures shown before them.
    std::map<std::uint64_t, std::string> pending_list_;
    std::uint64_t next_listed_ = 0;
    bool progress_ = false;
};

void Tool::list(const tcstamp::StampedUnit& u) {
    const std::string tc = tcstamp::time_code_text(u.label, u.drop_frame);
    if (u.display_index == 0) first_tc_ = tc;
    if (frames_ == 1 || u.display_index > last_index_) {
        last_index_ = u.display_index;
        last_tc_ = tc;
    }
    if (!opt_.list) return;
    pending_list_.emplace(u.display_index, tc);
    for (auto it = pending_list_.begin(); it != pending_list_.end() && it->first == next_listed_;) {
        std::printf("%llu %s\n", static_cast<unsigned long long>(it->first), it->second.c_str());
        it = pending_list_.erase(it);
        ++next_listed_;
    }
}

void Tool::emit(tcstamp::StreamStamper& stamper) {
    while (std::optional<tcstamp::StampedUnit> u = stamper.pop()) {
        out_.write(u->bytes);
        if (!u->stamped) continue;
        ++frames_;
        list(*u);
        if (progress_ && frames_ % 250 == 0) std::fprintf(stderr, "\r%llu frames", static_cast<unsigned long long>(frames_));
    }
}

int Tool::run() {
    const Fail fail_here = [this](const std::string& msg) { fail(msg); };
    Input in;
    open_input(opt_, fail_here, in);
    in_name_ = in.name;
    // Opening the output truncates it: were it the input, the stream would
    // be gone before it was read.
    struct stat out_st{};
    if (opt_.out != "-" && S_ISREG(in.st.st_mode) && ::stat(opt_.out.c_str(), &out_st) == 0 &&
        out_st.st_dev == in.st.st_dev && out_st.st_ino == in.st.st_ino) {
        std::fprintf(stderr, "quillane-tcstamp: %s is the input itself: write to another file\n", opt_.out.c_str());
        std::exit(2);
    }

    util_dbgout_attr_fun_t* attr = util_ops_pfun->dbgout->pstDebugAttr;
    if (opt_.trace.empty()) {
        attr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    } else {
        attr->set_dbglog_attr(UTIL_DBGOUT_DBGLOG_ENABLE, opt_.trace.c_str(), 1ULL << 30);
    }

    tcstamp::StreamOptions so;
    so.codec = in.codec;
    so.fps_x100 = opt_.fps_x100;
    so.start = opt_.start;
    so.start_drop_frame = opt_.start_drop_frame;
    // A file is read far faster than real time: no drift check.
    tcstamp::StreamStamper stamper(so);
    if (!out_.open()) fail("cannot write " + opt_.out + ": " + std::strerror(errno));
    progress_ = isatty(STDERR_FILENO) != 0;
    const Codec codec = in.codec;

    each_access_unit(in, fail_here, [&](std::span<const std::uint8_t> au) {
        if (!stamper.push(au)) fail(in_name_ + ": " + stamper.error());
        emit(stamper);
    });
    if (!stamper.finish()) fail(in_name_ + ": " + stamper.error());
    emit(stamper);
    if (progress_) std::fputc('\n', stderr);
    if (frames_ == 0) fail(in_name_ + ": no picture could be stamped");
    if (!out_.close()) {
        out_.discard();
        fail("cannot write " + opt_.out + ": " + std::strerror(errno));
    }
    const int fps = stamper.timing()->fps_x100;
    std::fprintf(stderr, "%s: %llu frames stamped (%s, %d.%02d fps), first %s, last %s",
                 opt_.out == "-" ? "standard output" : opt_.out.c_str(), static_cast<unsigned long long>(frames_),
                 codec == Codec::h264 ? "H.264" : "H.265", fps / 100, fps % 100, first_tc_.c_str(), last_tc_.c_str());
    if (stamper.unstamped_pictures() > 0) {
        std::fprintf(stderr, "; %llu pictures before the first random-access picture passed through unstamped",
                     static_cast<unsigned long long>(stamper.unstamped_pictures()));
    }
    std::fputc('\n', stderr);
    return 0;
}

// Findings go into JSON strings: quotes and backslashes escaped.
std::string json_text(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out;
}

int verify(const Options& opt) {
    const Fail fail = [](const std::string& msg) {
        std::fprintf(stderr, "quillane-tcstamp: %s\n", msg.c_str());
        std::exit(1);
    };
    Input in;
    open_input(opt, fail, in);
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    const std::string& name = in.name;
    const Codec codec = in.codec;

    tcstamp::TimeCodeReader reader(codec);
    // Each standard's own name for the flag.
    const char* field_based_name = codec == Codec::h264 ? "nuit_field_based_flag" : "units_field_based_flag";
    std::uint64_t frames = 0;
    std::uint64_t labelled = 0;
    const auto print = [&] {
        while (std::optional<tcstamp::FrameTimeCode> f = reader.pop()) {
            ++frames;
            const bool drop = f->clock && f->clock->counting_type == 4;
            const std::string tc = f->label ? tcstamp::time_code_text(*f->label, drop) : "";
            labelled += f->label ? 1 : 0;
            if (opt.json) {
                std::printf("{\"index\":%llu,\"type\":\"%c\",\"time_code\":%s%s%s", static_cast<unsigned long long>(f->index),
                            f->type, f->label ? "\"" : "", f->label ? tc.c_str() : "null", f->label ? "\"" : "");
                if (f->clock) {
                    const tcstamp::ClockTimestamp& c = *f->clock;
                    if (c.ct_type >= 0) std::printf(",\"ct_type\":%d", c.ct_type);
                    std::printf(",\"%s\":%d,\"counting_type\":%d,\"discontinuity_flag\":%d,\"cnt_dropped_flag\":%d",
                                field_based_name, c.field_based ? 1 : 0, c.counting_type, c.discontinuity ? 1 : 0,
                                c.cnt_dropped ? 1 : 0);
                }
                std::printf(",\"findings\":[");
                for (std::size_t k = 0; k < f->findings.size(); ++k) {
                    std::printf("%s\"%s\"", k == 0 ? "" : ",", json_text(f->findings[k]).c_str());
                }
                std::printf("]}\n");
                continue;
            }
            std::printf("%llu %c %s", static_cast<unsigned long long>(f->index), f->type, f->label ? tc.c_str() : "-");
            if (f->clock) {
                const tcstamp::ClockTimestamp& c = *f->clock;
                if (c.ct_type >= 0) std::printf(" ct_type=%d", c.ct_type);
                std::printf(" %s=%d counting_type=%d cnt_dropped_flag=%d", field_based_name, c.field_based ? 1 : 0,
                            c.counting_type, c.cnt_dropped ? 1 : 0);
                if (c.discontinuity) std::printf(" discontinuity_flag=1");
            }
            std::printf("\n");
            for (const std::string& finding : f->findings) {
                std::printf("! frame %llu: %s\n", static_cast<unsigned long long>(f->index), finding.c_str());
            }
        }
    };
    each_access_unit(in, fail, [&](std::span<const std::uint8_t> au) {
        if (!reader.push(au)) fail(name + ": " + reader.error());
        print();
    });
    if (!reader.finish()) fail(name + ": " + reader.error());
    print();
    const int fps = reader.fps_x100().value_or(0);
    const char* codec_name = codec == Codec::h264 ? "H.264" : "H.265";
    if (opt.json) {
        std::printf("{\"summary\":{\"codec\":\"%s\",\"fps_x100\":%d,\"frames\":%llu,\"time_codes\":%llu,\"findings\":%llu}}\n",
                    codec_name, fps, static_cast<unsigned long long>(frames), static_cast<unsigned long long>(labelled),
                    static_cast<unsigned long long>(reader.findings()));
    } else {
        std::printf("%llu pictures, %llu with a time code, %llu findings (%s, %d.%02d fps%s)\n",
                    static_cast<unsigned long long>(frames), static_cast<unsigned long long>(labelled),
                    static_cast<unsigned long long>(reader.findings()), codec_name, fps / 100, fps % 100,
                    fps == 0 ? ": no timing information, labels not checked against a rate" : "");
    }
    return reader.findings() == 0 && frames > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Options opt = parse_args(argc, argv);
    try {
        return opt.verify ? verify(opt) : Tool(opt).run();
    } catch (const std::bad_alloc&) {
        std::fputs("quillane-tcstamp: out of memory\n", stderr);
        return 1;
    }
}
