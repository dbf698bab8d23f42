// The NAL unit scanners on streams from real encoders (x264 and x265 through
// Debian's ffmpeg), with FFmpeg's own parse of the same bytes as the judge.
//
// Both encoders begin only some units with 00 00 00 01: the first unit of an
// access unit and the parameter sets. Units that follow inside an access
// unit (SEI, the keyframe slice) get 00 00 01, which the scanners do not
// treat as a boundary. So every stream is checked twice:
//   - as encoded, where the scanners must find exactly FFmpeg's units that
//     sit behind a four-byte start code, each running up to the next one;
//   - as a normalised copy with a zero put in front of every three-byte
//     start code, where they must find every unit FFmpeg sees. FFmpeg parses
//     the copy too, to prove the normalisation changed no unit.
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <string_view>

#include "h26x/nal.h"
#include "test_support.h"

using namespace qtest;

namespace {

util_ops_h26x_base_fun_t* h26x() { return util_ops_pfun->h26x_base; }

struct Codec {
    const char* name;
    UTIL_H26X_STREAM_TYPE_ENUM type;
    const char* encode;  // encoder options and raw muxer
};

const Codec kH264{"H264", ENUM_UTIL_H264_STREAM_TYPE, "-c:v libx264 -g 5 -bf 0 -sc_threshold 0 -threads 1 -f h264"};
const Codec kH265{"H265", ENUM_UTIL_H265_STREAM_TYPE,
                  "-c:v libx265 -x265-params log-level=error:keyint=5:min-keyint=5:bframes=0:scenecut=0:"
                  "frame-threads=1:pools=1 -f hevc"};

void PrintTo(const Codec& c, std::ostream* os) { *os << c.name; }

int unit_type(const Codec& c, int header) {
    return c.type == ENUM_UTIL_H264_STREAM_TYPE ? quillane::nal::h264::type(header) : quillane::nal::h265::type(header);
}

// The units the scanners stop at. x265 without B-frames codes its keyframes
// as IDR_N_LP (20) and CRA (21), which are not among them.
bool is_picture(const Codec& c, int type) {
    return c.type == ENUM_UTIL_H264_STREAM_TYPE ? quillane::nal::h264::is_picture_type(type)
                                                : quillane::nal::h265::is_picture_type(type);
}

bool on_path(const std::string& tool) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (!dir.empty() && access((dir + "/" + tool).c_str(), X_OK) == 0) return true;
    }
    return false;
}

// Runs a shell command and returns its standard output; a failed run fails the test.
std::string run(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) {
        ADD_FAILURE() << "cannot start: " << cmd;
        return out;
    }
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int status = pclose(p);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << cmd << "\n" << out;
    return out;
}

std::string adler32(std::string_view s) {
    unsigned a = 1, b = 0;
    for (unsigned char ch : s) {
        a = (a + ch) % 65521;
        b = (b + a) % 65521;
    }
    char hex[9];
    std::snprintf(hex, sizeof hex, "%08x", (b << 16) | a);
    return hex;
}

struct StartCode {
    size_t offset;  // first byte of the start code
    bool four;      // 00 00 00 01 rather than 00 00 01
    int header;     // the header byte after it
    int type;       // FFmpeg's nal_unit_type
};

struct AccessUnit {
    size_t begin, end;  // byte range in the stream
    bool key;
};

// One stream as FFmpeg sees it.
struct View {
    std::string bytes;
    std::vector<StartCode> codes;
    std::vector<AccessUnit> units;
};

// FFmpeg's trace of every packet: its size, key flag and nal_unit_type list.
// What the trace prints for the extradata, before the first packet, is skipped.
struct TracedPacket {
    size_t size;
    bool key;
    std::vector<int> types;
};

std::vector<TracedPacket> trace(const std::string& path) {
    const std::string log =
        run("ffmpeg -hide_banner -nostats -nostdin -i '" + path + "' -c copy -bsf:v trace_headers -f null - 2>&1");
    const std::regex packet(R"(Packet: (\d+) bytes(, key frame)?)");
    const std::regex nal(R"(\s+nal_unit_type\s+[01]+ = (\d+)\s*$)");
    std::vector<TracedPacket> out;
    std::stringstream lines(log);
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        // A plain search first: the trace runs to thousands of lines.
        if (line.find("Packet: ") != std::string::npos && std::regex_search(line, m, packet)) {
            out.push_back({std::stoul(m[1]), m[2].matched, {}});
        } else if (!out.empty() && line.find("nal_unit_type") != std::string::npos && std::regex_search(line, m, nal)) {
            out.back().types.push_back(std::stoi(m[1]));
        }
    }
    return out;
}

void analyse(const Codec& c, const std::string& path, View& v) {
    v.bytes = read_file(path);
    const std::vector<TracedPacket> traced = trace(path);
    const std::string probe =
        run("ffprobe -v error -show_packets -show_entries packet=size,pos,flags,data_hash "
            "-show_data_hash adler32 -of compact=p=0 '" +
            path + "'");
    ASSERT_FALSE(traced.empty()) << path;

    // Without a bitstream filter the packets are the stream cut in pieces:
    // in order, back to back, byte for byte.
    std::vector<size_t> starts;
    std::stringstream lines(probe);
    size_t next = 0;
    for (std::string line; std::getline(lines, line);) {
        std::map<std::string, std::string> kv;
        std::stringstream fields(line);
        for (std::string f; std::getline(fields, f, '|');) kv[f.substr(0, f.find('='))] = f.substr(f.find('=') + 1);
        const size_t k = starts.size();
        ASSERT_LT(k, traced.size()) << line;
        const size_t size = std::stoul(kv["size"]);
        ASSERT_EQ(std::stoul(kv["pos"]), next) << line;
        ASSERT_LE(next + size, v.bytes.size()) << line;
        EXPECT_EQ(size, traced[k].size) << line;
        EXPECT_EQ(kv["flags"][0] == 'K', traced[k].key) << line;
        EXPECT_EQ(kv["data_hash"], "adler32:" + adler32(std::string_view(v.bytes).substr(next, size))) << line;
        starts.push_back(next);
        next += size;
    }
    ASSERT_EQ(starts.size(), traced.size());
    ASSERT_EQ(next, v.bytes.size());

    // Every 00 00 01 in a stream is a start code: emulation prevention keeps
    // the pattern out of unit payloads. FFmpeg's units are these, in order.
    size_t total = 0;
    for (const TracedPacket& t : traced) total += t.types.size();
    const std::string& b = v.bytes;
    for (size_t i = 0; i + 3 < b.size(); ++i) {
        if (b[i] != 0 || b[i + 1] != 0 || b[i + 2] != 1) continue;
        const bool four = i > 0 && b[i - 1] == 0;
        ASSERT_LT(v.codes.size(), total) << "more start codes than FFmpeg's units, at " << i;
        v.codes.push_back({four ? i - 1 : i, four, static_cast<unsigned char>(b[i + 3]), 0});
    }
    ASSERT_EQ(v.codes.size(), total) << path;

    // Access units: FFmpeg's HEVC parser leaves the leading zero of a
    // four-byte start code at the end of the previous packet; that zero
    // belongs to the unit it introduces, so it moves to the next access unit.
    size_t first = 0;
    for (size_t k = 0; k < traced.size(); ++k) {
        for (size_t u = 0; u < traced[k].types.size(); ++u) {
            StartCode& sc = v.codes[first + u];
            sc.type = traced[k].types[u];
            ASSERT_EQ(unit_type(c, sc.header), sc.type) << "unit " << first + u << " at " << sc.offset;
        }
        ASSERT_FALSE(traced[k].types.empty()) << "packet " << k;
        const size_t begin = v.codes[first].offset;
        ASSERT_TRUE(begin == starts[k] || (begin + 1 == starts[k] && v.codes[first].four))
            << "packet " << k << " at " << starts[k] << ", its first unit at " << begin;
        if (k > 0) v.units.back().end = begin;
        v.units.push_back({begin, b.size(), traced[k].key});
        first += traced[k].types.size();
    }
    ASSERT_EQ(v.units.front().begin, 0u);
}

struct Unit {
    UTIL_U64 position;
    int nalu;
    UTIL_U64 length;
    bool operator==(const Unit&) const = default;
};

struct Scan {
    int rc = -1;
    std::vector<Unit> units;
    bool operator==(const Scan&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Scan& s) {
    os << "rc " << s.rc << ":";
    for (const Unit& u : s.units)
        os << " {" << u.position << ", 0x" << std::hex << u.nalu << std::dec << ", " << u.length << "}";
    return os;
}

Unit unit_of(const util_h26x_frame_buf_info_one_t& u) { return {u.position, u.nalu, u.length}; }

// The scanners on one buffer of exactly its size, so that a read past the
// end lands outside the allocation. Results hold no units after a failure;
// after a success the closing entry must sit at the buffer's end.
Scan v1(std::vector<UTIL_UCHAR> buf, const Codec& c) {
    util_h26x_frame_buf_info_t info{};
    Scan s;
    s.rc = h26x()->V1_get_hfbi(&info, buf.data(), static_cast<UTIL_S32>(buf.size()), c.type, 0);
    if (s.rc != 0) return s;
    for (int i = 0; i < info.count; ++i) s.units.push_back(unit_of(info.list[i]));
    EXPECT_EQ(info.list[info.count].position, buf.size());
    EXPECT_EQ(info.list[info.count].length, 0u);
    return s;
}

Scan v2(std::vector<UTIL_UCHAR> buf, UTIL_S32 all) {
    util_list_h26x_frame_buf_info_t rec{};
    rec.frame_addr = buf.data();
    rec.frame_size = static_cast<UTIL_S32>(buf.size());
    Scan s;
    s.rc = h26x()->V2_init_list(&rec, all);
    if (s.rc == 0) {
        for (int i = 0; i < rec.hfbiMax; ++i) s.units.push_back(unit_of(rec.phfbi[i]));
    }
    EXPECT_EQ(h26x()->V2_exit_list(&rec), 0);
    return s;
}

Scan v3(std::vector<UTIL_UCHAR> buf, UTIL_S32 all) {
    util_link_h26x_frame_buf_info_t link{};
    link.frame_addr = buf.data();
    link.frame_size = static_cast<UTIL_S32>(buf.size());
    Scan s;
    s.rc = h26x()->V3_init_list(&link, all);
    if (s.rc == 0) {
        const util_h26x_frame_buf_info_one_node_t* n = link.head;
        for (int i = 0; i < link.count && n != nullptr; ++i, n = n->next) s.units.push_back(unit_of(n->hfbi));
        EXPECT_EQ(s.units.size(), static_cast<size_t>(link.count));
        if (n != nullptr) {
            EXPECT_EQ(n->hfbi.position, buf.size());
            EXPECT_EQ(n->hfbi.length, 0u);
        } else {
            ADD_FAILURE() << "chain ends without its closing node";
        }
    }
    EXPECT_EQ(h26x()->V3_exit_list(&link), 0);
    return s;
}

// Counts the console errors in captured output; each must be the missing picture's.
int missing_picture_errors(const std::string& err) {
    int n = 0;
    const std::string text = "] error: no IDR or P frame nalu type!!!";
    for (size_t at = 0; (at = err.find("DBG_ERR:", at)) != std::string::npos; at += 8, ++n) {
        const size_t end = err.find(']', at);
        EXPECT_TRUE(end != std::string::npos && err.compare(end, text.size(), text) == 0) << err;
    }
    return n;
}

std::vector<UTIL_UCHAR> slice(const View& v, size_t begin, size_t end) {
    return std::vector<UTIL_UCHAR>(v.bytes.begin() + begin, v.bytes.begin() + end);
}

// What a scan of bytes [begin, end) must give, from FFmpeg's units: those
// behind a four-byte start code whose header byte is inside the range, each
// running to the next such one. Stopping at the first picture fails when there
// is none or its start code begins in the last eight bytes.
Scan expected(const View& v, const Codec& c, size_t begin, size_t end, bool all) {
    Scan s;
    for (const StartCode& sc : v.codes) {
        if (!sc.four || sc.offset < begin || sc.offset + 4 >= end) continue;
        if (!s.units.empty()) s.units.back().length = sc.offset - begin - s.units.back().position;
        s.units.push_back({sc.offset - begin, sc.header, end - sc.offset});
        if (!all && is_picture(c, sc.type)) {
            s.rc = sc.offset - begin + 8 < end - begin ? 0 : -1;
            break;
        }
    }
    if (all && !s.units.empty()) s.rc = 0;
    if (s.rc != 0) s.units.clear();
    return s;
}

class RealStreams : public ::testing::TestWithParam<Codec> {
protected:
    void SetUp() override {
        if (!on_path("ffmpeg") || !on_path("ffprobe")) {
            GTEST_SKIP() << "ffmpeg and ffprobe must be on PATH to encode and parse the reference streams";
        }
        const Codec& c = GetParam();
        const std::string raw = dir_.file("clip.bin");
        run("ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i testsrc=size=160x120:rate=25 "
            "-frames:v 12 -pix_fmt yuv420p " +
            std::string(c.encode) + " '" + raw + "' 2>&1");
        ASSERT_NO_FATAL_FAILURE(analyse(c, raw, raw_));

        std::string norm;
        const std::string& b = raw_.bytes;
        for (size_t i = 0; i < b.size(); ++i) {
            if (i + 2 < b.size() && b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1 && (i == 0 || b[i - 1] != 0)) {
                norm.push_back('\0');
            }
            norm.push_back(b[i]);
        }
        write_file(dir_.file("normalised.bin"), norm);
        ASSERT_NO_FATAL_FAILURE(analyse(c, dir_.file("normalised.bin"), norm_));
    }

    TempDir dir_;
    View raw_;
    View norm_;
};

TEST_P(RealStreams, WholeStreamUnitsMatchFfmpeg) {
    const Codec& c = GetParam();
    // The copy holds the same units in the same access units, all behind four-byte start codes.
    ASSERT_EQ(norm_.codes.size(), raw_.codes.size());
    ASSERT_EQ(norm_.units.size(), raw_.units.size());
    size_t three = 0;
    for (size_t i = 0; i < raw_.codes.size(); ++i) {
        EXPECT_EQ(norm_.codes[i].type, raw_.codes[i].type) << i;
        EXPECT_TRUE(norm_.codes[i].four) << i;
        three += raw_.codes[i].four ? 0 : 1;
    }
    RecordProperty("three_byte_start_codes", static_cast<int>(three));

    for (const View* v : {&raw_, &norm_}) {
        SCOPED_TRACE(v == &raw_ ? "as encoded" : "normalised");
        const Scan got = v2(slice(*v, 0, v->bytes.size()), 1);
        ASSERT_EQ(got.rc, 0);
        std::vector<int> types;
        std::vector<int> ffmpeg;
        UTIL_U64 sum = 0;
        for (const Unit& u : got.units) {
            types.push_back(unit_type(c, u.nalu));
            ASSERT_LE(u.position + 4, v->bytes.size());
            EXPECT_EQ(v->bytes.substr(u.position, 4), std::string("\0\0\0\1", 4)) << "unit at " << u.position;
            sum += u.length;
        }
        for (const StartCode& sc : v->codes) {
            if (sc.four) ffmpeg.push_back(sc.type);
        }
        EXPECT_EQ(types, ffmpeg);
        EXPECT_EQ(sum, v->bytes.size());
        EXPECT_EQ(got, expected(*v, c, 0, v->bytes.size(), true));
        EXPECT_EQ(v3(slice(*v, 0, v->bytes.size()), 1), got);
    }
}

// Each access unit on its own, as a camera hands frames over: V1 (told the
// codec) lists the units up to the first picture, V2 and V3 stopping at a
// picture agree with it, and listing all units they agree with each other.
// Cut right after a picture's header, a frame fails with eight bytes from
// that start code to the end and succeeds with nine.
TEST_P(RealStreams, AccessUnitsThroughEveryScanner) {
    const Codec& c = GetParam();
    for (const View* v : {&raw_, &norm_}) {
        size_t found = 0;
        size_t non_key = 0;
        for (size_t k = 0; k < v->units.size(); ++k) {
            const AccessUnit& au = v->units[k];
            SCOPED_TRACE(std::string(v == &raw_ ? "as encoded" : "normalised") + ", access unit " + std::to_string(k) +
                         " at " + std::to_string(au.begin));
            const std::vector<UTIL_UCHAR> buf = slice(*v, au.begin, au.end);
            const Scan want = expected(*v, c, au.begin, au.end, false);
            ASSERT_LE(want.units.size(), 7u) << "more units than V1 holds; the encoder options changed";
            ::testing::internal::CaptureStderr();
            const Scan got = v1(buf, c);
            EXPECT_EQ(got, want);
            EXPECT_EQ(v2(buf, 0), got);
            EXPECT_EQ(v3(buf, 0), got);
            const Scan all = v2(buf, 1);
            EXPECT_EQ(all, expected(*v, c, au.begin, au.end, true));
            EXPECT_EQ(v3(buf, 1), all);
            // A frame without a picture is reported once by each stopping scan; others are silent.
            EXPECT_EQ(missing_picture_errors(::testing::internal::GetCapturedStderr()), want.rc == 0 ? 0 : 3);
            non_key += au.key ? 0 : 1;
            if (want.rc != 0) continue;
            ++found;

            const size_t picture = au.begin + want.units.back().position;
            ::testing::internal::CaptureStderr();
            EXPECT_EQ(v1(slice(*v, au.begin, picture + 8), c).rc, -1);
            EXPECT_EQ(v2(slice(*v, au.begin, picture + 8), 0).rc, -1);
            EXPECT_EQ(v3(slice(*v, au.begin, picture + 8), 0).rc, -1);
            EXPECT_EQ(missing_picture_errors(::testing::internal::GetCapturedStderr()), 3);
            const Scan cut9 = v1(slice(*v, au.begin, picture + 9), c);
            ASSERT_EQ(cut9.rc, 0);
            EXPECT_EQ(cut9.units.back().length, 9u);
            EXPECT_EQ(v2(slice(*v, au.begin, picture + 9), 0), cut9);
            EXPECT_EQ(v3(slice(*v, au.begin, picture + 9), 0), cut9);
        }
        // P frames open their access unit, so at least those must be found;
        // otherwise the comparison above could pass with every scan failing.
        EXPECT_GE(found, non_key);
        EXPECT_GT(non_key, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Encoders, RealStreams, ::testing::Values(kH264, kH265),
                         [](const ::testing::TestParamInfo<Codec>& info) { return std::string(info.param.name); });

}  // namespace
