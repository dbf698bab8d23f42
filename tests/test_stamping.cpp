// Access-unit stamping shared by the tool and the GStreamer element: the
// Annex B cut, the labels a rate has, and the reader behind --verify. What
// the stamped streams look like to FFmpeg and GStreamer is the interop
// table's (tests/interop/stamp_matrix.sh).
#include "annexb.h"
#include "h26x_syntax.h"
#include "stream_stamper.h"
#include "test_support.h"
#include "timecode_reader.h"

#include <algorithm>
#include <functional>
#include <iterator>

using namespace tcstamp;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Units = std::vector<Bytes>;

Bytes sample(const char* name) {
    std::ifstream f(std::string(QUILLANE_SAMPLES_DIR) + "/" + name, std::ios::binary);
    EXPECT_TRUE(f) << name;
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

// The access units of a stream fed to the splitter `piece` bytes at a time,
// as the tool reads a file.
Units cut(const Bytes& s, Codec codec, std::size_t piece = SIZE_MAX) {
    AccessUnitSplitter splitter(codec);
    Units out;
    const auto drain = [&] {
        while (auto au = splitter.next()) out.emplace_back(au->begin(), au->end());
    };
    for (std::size_t at = 0; at < s.size(); at += piece) {
        splitter.feed(std::span(s).subspan(at, std::min(piece, s.size() - at)));
        drain();
    }
    splitter.finish();
    drain();
    return out;
}

TEST(AnnexB, PiecewiseCutMatchesTheWholeStreamCut) {
    const Bytes hand = {0, 0, 0, 1, 0x09, 0xF0,              // AUD, four-byte start code
                        0, 0, 1, 0x67, 0x42, 0x00, 0x1E, 0,  // SPS with a trailing zero, three-byte code
                        0, 0, 0, 1, 0x68, 0xCE,              // PPS
                        0, 0, 1, 0x65, 0x88, 0x84,           // IDR slice, first_mb 0
                        0, 0, 1, 0x65, 0x40, 0x11,           // second slice of the same picture
                        0, 0, 0, 1, 0x41, 0x9A};             // next picture
    const std::vector<Nal> nals = split_nal_units(hand, Codec::h264);
    ASSERT_EQ(nals.size(), 6u);
    // The trailing zero belongs to no unit.
    EXPECT_EQ((std::vector<std::size_t>{nals[0].sc_begin, nals[1].sc_begin, nals[1].size, nals[2].sc_begin}),
              (std::vector<std::size_t>{0, 6, 4, 14}));
    EXPECT_TRUE(nals[3].vcl && nals[3].first_slice && !nals[4].first_slice);
    std::vector<Nal> head;
    split_nal_units(hand, Codec::h264, head, true);
    EXPECT_EQ(head.size(), 4u);
    EXPECT_TRUE(split_nal_units(Bytes{0, 0, 1}, Codec::h264).empty());
    EXPECT_TRUE(split_nal_units(Bytes{1, 2, 3, 4, 5}, Codec::h264).empty());

    // Whatever the piece size, the same units as the whole-stream cut, and no byte lost.
    for (const auto& [s, codec] : {std::pair(hand, Codec::h264), std::pair(sample("sample_2997.264"), Codec::h264),
                                   std::pair(sample("sample_2997.265"), Codec::h265)}) {
        const std::vector<Nal> all = split_nal_units(s, codec);
        const std::vector<AccessUnit> aus = group_access_units(all, codec);
        Units whole;
        for (std::size_t a = 0; a < aus.size(); ++a) {
            const std::size_t begin = a == 0 ? 0 : all[aus[a].begin].sc_begin;
            const std::size_t end = a + 1 < aus.size() ? all[aus[a + 1].begin].sc_begin : s.size();
            whole.emplace_back(s.begin() + static_cast<std::ptrdiff_t>(begin), s.begin() + static_cast<std::ptrdiff_t>(end));
        }
        if (&s == &hand) {
            EXPECT_EQ(aus.at(0).end, 5u);
        }
        for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, s.size()})
            EXPECT_EQ(cut(s, codec, piece), whole) << s.size() << " bytes in pieces of " << piece;
    }
}

TEST(AnnexB, TimeCodeLabels) {
    bool drop = false;
    EXPECT_EQ(parse_time_code("12:34:56;07", &drop), (TimeCode{12, 34, 56, 7}));
    EXPECT_TRUE(drop);
    for (const char* bad : {"24:00:00:00", "00:60:00:00", "1:2:3:4", "00:00:00-00", "00:00:00:0x", ""})
        EXPECT_FALSE(parse_time_code(bad).has_value()) << bad;
    // Frames below the whole rate, and not the counts drop-frame counting
    // skips (minutes not a multiple of ten).
    const struct {
        TimeCode tc;
        int fps_x100;
        bool exists;
    } rows[] = {
        {{0, 0, 0, 24}, 2500, true},  {{0, 0, 0, 25}, 2500, false}, {{0, 0, 0, 40}, 2500, false},
        {{0, 1, 0, 0}, 2997, false},  {{0, 1, 0, 1}, 2997, false},  {{0, 1, 0, 2}, 2997, true},
        {{0, 10, 0, 0}, 2997, true},  {{0, 1, 0, 3}, 5994, false},  {{0, 1, 0, 4}, 5994, true},
        {{0, 1, 0, 0}, 3000, true},   {{0, 0, 0, 23}, 2398, true},  {{0, 0, 0, 24}, 2398, false},
    };
    for (const auto& r : rows)
        EXPECT_EQ(label_exists(r.tc, r.fps_x100), r.exists) << time_code_text(r.tc, false) << " @" << r.fps_x100;
}

Units stamp(const Units& aus, TimeCode start) {
    StreamOptions o;
    o.start = start;
    StreamStamper st(o);
    for (const Bytes& au : aus) EXPECT_TRUE(st.push(au)) << st.error();
    EXPECT_TRUE(st.finish()) << st.error();
    Units out;
    while (auto u = st.pop()) out.push_back(u->bytes);
    return out;
}

std::vector<FrameTimeCode> read(const Units& aus) {
    TimeCodeReader reader(Codec::h264);
    for (const Bytes& au : aus) EXPECT_TRUE(reader.push(au)) << reader.error();
    EXPECT_TRUE(reader.finish());
    std::vector<FrameTimeCode> frames;
    while (auto f = reader.pop()) frames.push_back(std::move(*f));
    return frames;
}

// The byte range of an access unit's first unit of a type, start code
// included (empty at the end when it has none).
std::pair<std::ptrdiff_t, std::ptrdiff_t> unit(const Bytes& au, int type) {
    const std::vector<Nal> nals = split_nal_units(au, Codec::h264);
    for (std::size_t k = 0; k < nals.size(); ++k)
        if (nals[k].type == type)
            return {static_cast<std::ptrdiff_t>(nals[k].sc_begin),
                    static_cast<std::ptrdiff_t>(k + 1 < nals.size() ? nals[k + 1].sc_begin : au.size())};
    return {static_cast<std::ptrdiff_t>(au.size()), static_cast<std::ptrdiff_t>(au.size())};
}
Bytes unit_bytes(const Bytes& au, int type) {
    const auto [b, e] = unit(au, type);
    return Bytes(au.begin() + b, au.begin() + e);
}
void replace_unit(Bytes& au, int type, const Bytes& with) {
    const auto [b, e] = unit(au, type);
    au.insert(au.erase(au.begin() + b, au.begin() + e), with.begin(), with.end());
}

}  // namespace

// A stamped stream damaged as a faulty device or editor would: a clean
// stream has no finding, each damage its own at the picture it touched.
TEST(TimeCodeReader, FindsExactlyTheDamage) {
    const Bytes s25 = sample("sample_25.264"), s2997 = sample("sample_2997.264"), s30 = sample("sample_30.264");
    // 00:00:59;20 crosses the first minute, whose counts 00 and 01 drop.
    const Units clean = stamp(cut(s2997, Codec::h264), {0, 0, 59, 20});
    const Units at30 = stamp(cut(s30, Codec::h264), {0, 0, 59, 20});
    ASSERT_EQ(clean.size(), 60u);
    const auto sps_of = [](const Bytes& s) {
        return [sps = unit_bytes(cut(s, Codec::h264)[0], 7)](Units& a) {
            for (Bytes& au : a)
                if (unit(au, 7).first != static_cast<std::ptrdiff_t>(au.size())) replace_unit(au, 7, sps);
        };
    };
    const struct {
        const char* damage;
        const Units& base;
        std::function<void(Units&)> make;
        std::uint64_t frame;  // of the first finding
        const char* finding;  // nullptr: none at all
    } rows[] = {
        {"none", clean, [](Units&) {}, 0, nullptr},
        {"time code removed", clean, [](Units& a) { replace_unit(a[5], 6, {}); }, 5, "no time code"},
        {"time code twice", clean, [](Units& a) {
             Bytes sei = unit_bytes(a[7], 6);
             sei.insert(sei.end(), sei.begin(), sei.end());
             replace_unit(a[7], 6, sei);
         }, 7, "2 time-code messages"},
        {"label changed", clean, [&](Units& a) { replace_unit(a[20], 6, unit_bytes(clean[25], 6)); }, 20,
         "00:01:00;17 does not follow 00:01:00;11 (expected 00:01:00;12): a discontinuity without discontinuity_flag"},
        {"wrong rate", clean, sps_of(s25), 5, "frame count 25 beyond the rate of 25.00 fps"},
        {"drop-frame counts at a rate that keeps them", clean, sps_of(s30), 10,
         "skips 00:01:00:00 and 1 more, labels that exist at 30.00 fps"},
        {"label that cannot exist", at30, sps_of(s2997), 10,
         "00:01:00;00 cannot exist with drop-frame counting at 29.97 fps"},
    };
    for (const auto& row : rows) {
        Units a = row.base;
        row.make(a);
        const std::vector<FrameTimeCode> frames = read(a);
        ASSERT_EQ(frames.size(), 60u) << row.damage;
        const auto first = std::ranges::find_if(frames, [](const FrameTimeCode& f) { return !f.findings.empty(); });
        for (std::size_t k = 0; k < frames.size(); ++k) EXPECT_EQ(frames[k].index, k);
        if (row.finding == nullptr) {
            EXPECT_EQ(first, frames.end()) << row.damage << ": " << first->findings[0];
            continue;
        }
        ASSERT_NE(first, frames.end()) << row.damage;
        EXPECT_EQ(first->index, row.frame) << row.damage;
        EXPECT_EQ(first->findings[0], row.finding) << row.damage;
    }
}

// An encoder that packs its picture timing with other messages into one SEI
// unit: the timing message is taken out of it, the rest stays, and the
// result stamps to the same bytes again.
TEST(StreamStamper, ReplacesTimingInsideAMultiMessageUnit) {
    // A user-data message (type 5, 17 bytes) put in front of our timing message.
    const Bytes user_data = {0x05, 0x11, 0xDC, 0x45, 0xE9, 0xBD, 0xE6, 0xD9, 0x48, 0xB7, 0x96, 0x2C,
                             0xD8, 0x20, 0xD9, 0x23, 0xEE, 0xEF, 0x61, 0x62};
    Units merged = stamp(cut(sample("sample_2997.264"), Codec::h264), {1, 0, 0, 0});
    for (Bytes& au : merged) {
        const Bytes sei = unit_bytes(au, 6);
        ASSERT_FALSE(sei.empty());
        Bytes rbsp = unescape(std::span(sei).subspan(sei[2] == 1 ? 4 : 5));
        rbsp.insert(rbsp.begin(), user_data.begin(), user_data.end());
        Bytes with = {0, 0, 0, 1, 0x06};
        escape_into(rbsp, with);
        replace_unit(au, 6, with);
    }
    const Units again = stamp(merged, {1, 0, 0, 0});
    ASSERT_EQ(again.size(), merged.size());
    for (const Bytes& au : again)
        EXPECT_NE(std::search(au.begin(), au.end(), user_data.begin() + 2, user_data.end()), au.end());
    const std::vector<FrameTimeCode> frames = read(again);
    EXPECT_EQ(frames.size(), again.size());
    for (const FrameTimeCode& f : frames) EXPECT_TRUE(f.messages == 1 && f.findings.empty()) << f.index;
    EXPECT_EQ(stamp(again, {1, 0, 0, 0}), again);
}

// Emulation prevention both ways: a 03 goes in front of 00 to 03 after two
// zeros, and the 03 starts the count of zeros again.
TEST(EmulationPrevention, EscapesAndRestoresEveryRun) {
    const struct {
        Bytes rbsp, escaped;
    } rows[] = {
        {{0, 0, 0}, {0, 0, 3, 0}},
        {{0, 0, 1}, {0, 0, 3, 1}},
        {{0, 0, 3}, {0, 0, 3, 3}},
        {{0, 0, 4}, {0, 0, 4}},
        {{0, 0, 0, 3, 5}, {0, 0, 3, 0, 3, 5}},
        {{0, 0, 0, 0, 0}, {0, 0, 3, 0, 0, 3, 0}},
        {{1, 0, 2, 0, 0}, {1, 0, 2, 0, 0}},
    };
    for (const auto& row : rows) {
        Bytes escaped;
        escape_into(row.rbsp, escaped);
        EXPECT_EQ(escaped, row.escaped);
        EXPECT_EQ(unescape(row.escaped), row.rbsp);
    }
    EXPECT_EQ(unescape(Bytes{0, 0, 3, 0, 3, 5}, 3), (Bytes{0, 0, 0}));
}
