// Access-unit stamping shared by the tool and the GStreamer element: the
// Annex B split, where the SEI unit goes, and the start time code.
#include "annexb.h"
#include "au_stamper.h"
#include "stream_stamper.h"
#include "timecode_reader.h"
#include "h26x_syntax.h"
#include "test_support.h"

#include <algorithm>
#include <functional>

using namespace qtest;
using namespace tcstamp;

namespace {

using Bytes = std::vector<std::uint8_t>;

void add(Bytes& b, std::initializer_list<std::uint8_t> code, std::initializer_list<std::uint8_t> unit) {
    b.insert(b.end(), code);
    b.insert(b.end(), unit);
}

TEST(AnnexB, SplitKeepsStartCodesAndStopsAtThePicture) {
    Bytes s;
    add(s, {0, 0, 0, 1}, {0x09, 0xF0});             // AUD, four-byte code
    add(s, {0, 0, 1}, {0x67, 0x42, 0x00, 0x1E, 0});  // SPS with a trailing zero, three-byte code
    add(s, {0, 0, 0, 1}, {0x68, 0xCE});
    add(s, {0, 0, 1}, {0x65, 0x88, 0x84});           // IDR slice, first_mb 0
    add(s, {0, 0, 1}, {0x65, 0x40, 0x11});           // second slice of the same picture
    add(s, {0, 0, 0, 1}, {0x41, 0x9A});              // next picture
    const std::vector<Nal> all = split_nal_units(s, Codec::h264);
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all[0].sc_begin, 0u);
    EXPECT_EQ(all[1].sc_begin, 6u);
    EXPECT_EQ(all[1].size, 4u);  // the trailing zero is not the unit's
    EXPECT_EQ(all[2].sc_begin, 14u);
    EXPECT_TRUE(all[3].vcl && all[3].first_slice);
    EXPECT_FALSE(all[4].first_slice);
    const std::vector<AccessUnit> aus = group_access_units(all, Codec::h264);
    ASSERT_EQ(aus.size(), 2u);
    EXPECT_EQ(aus[0].end, 5u);

    std::vector<Nal> head;
    split_nal_units(s, Codec::h264, head, true);
    ASSERT_EQ(head.size(), 4u);
    EXPECT_EQ(head.back().type, 5);

    // Nothing but a start code, or no start code at all.
    EXPECT_TRUE(split_nal_units(Bytes{0, 0, 1}, Codec::h264).empty());
    EXPECT_TRUE(split_nal_units(Bytes{1, 2, 3, 4, 5}, Codec::h264).empty());
}

TEST(AnnexB, TimeCodeLabels) {
    bool drop = false;
    const auto tc = parse_time_code("12:34:56;07", &drop);
    ASSERT_TRUE(tc.has_value());
    EXPECT_EQ(*tc, (TimeCode{12, 34, 56, 7}));
    EXPECT_TRUE(drop);
    for (const char* bad : {"24:00:00:00", "00:60:00:00", "1:2:3:4", "00:00:00-00", "00:00:00:0x", ""}) {
        EXPECT_FALSE(parse_time_code(bad).has_value()) << bad;
    }
    // Labels that exist at a rate: frames below the whole rate, and not the
    // counts drop-frame counting skips (minutes not a multiple of ten).
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
    for (const auto& r : rows) {
        EXPECT_EQ(label_exists(r.tc, r.fps_x100), r.exists) << time_code_text(r.tc, false) << " @" << r.fps_x100;
    }
}

Bytes sample(const char* name) {
    const std::string path = std::string(QUILLANE_SAMPLES_DIR) + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    EXPECT_NE(f, nullptr) << path;
    Bytes s(1 << 22);
    s.resize(f != nullptr ? std::fread(s.data(), 1, s.size(), f) : 0);
    if (f != nullptr) std::fclose(f);
    return s;
}

std::vector<Bytes> access_units(const Bytes& s, Codec codec) {
    AccessUnitSplitter splitter(codec);
    splitter.feed(s);
    splitter.finish();
    std::vector<Bytes> aus;
    while (auto au = splitter.next()) aus.emplace_back(au->begin(), au->end());
    return aus;
}

}  // namespace

// Stamps a sample, damages the result as a faulty device or editor would,
// and reads it back: a clean stream has no finding, each damage gives its
// own at the picture it touched.
TEST(TimeCodeReader, FindsExactlyTheDamage) {
    const auto stamp = [](const Bytes& s, TimeCode start) {
        StreamOptions o;
        o.start = start;
        StreamStamper st(o);
        std::vector<Bytes> out;
        for (const Bytes& au : access_units(s, Codec::h264)) EXPECT_TRUE(st.push(au)) << st.error();
        EXPECT_TRUE(st.finish()) << st.error();
        while (auto u = st.pop()) out.push_back(u->bytes);
        return out;
    };
    // The byte range of an access unit's first unit of a type, start code included.
    const auto unit = [](const Bytes& au, int type) {
        const std::vector<Nal> nals = split_nal_units(au, Codec::h264);
        for (std::size_t k = 0; k < nals.size(); ++k) {
            if (nals[k].type == type) return std::pair(nals[k].sc_begin, k + 1 < nals.size() ? nals[k + 1].sc_begin : au.size());
        }
        return std::pair(au.size(), au.size());
    };
    const auto swap_sps = [&](std::vector<Bytes>& aus, const Bytes& from) {
        const Bytes first = access_units(from, Codec::h264)[0];
        const auto [b, e] = unit(first, 7);
        const Bytes sps(first.begin() + static_cast<std::ptrdiff_t>(b), first.begin() + static_cast<std::ptrdiff_t>(e));
        for (Bytes& au : aus) {
            const auto [ab, ae] = unit(au, 7);
            if (ab == au.size()) continue;
            au.erase(au.begin() + static_cast<std::ptrdiff_t>(ab), au.begin() + static_cast<std::ptrdiff_t>(ae));
            au.insert(au.begin() + static_cast<std::ptrdiff_t>(ab), sps.begin(), sps.end());
        }
    };
    const Bytes s2997 = sample("sample_2997.264");
    const Bytes s25 = sample("sample_25.264");
    const Bytes s30 = sample("sample_30.264");
    // 00:00:59;20 crosses the first minute, whose counts 00 and 01 drop.
    const std::vector<Bytes> clean = stamp(s2997, {0, 0, 59, 20});
    ASSERT_EQ(clean.size(), 60u);
    const auto sei_of = [&](std::size_t k) {
        const auto [b, e] = unit(clean[k], 6);
        return Bytes(clean[k].begin() + static_cast<std::ptrdiff_t>(b), clean[k].begin() + static_cast<std::ptrdiff_t>(e));
    };
    const struct {
        const char* damage;
        std::function<std::vector<Bytes>()> make;
        std::uint64_t frame;  // of the first finding
        const char* finding;  // 0: none at all
    } rows[] = {
        {"none", [&] { return clean; }, 0, nullptr},
        {"time code removed", [&] {
             auto a = clean;
             const auto [b, e] = unit(a[5], 6);
             a[5].erase(a[5].begin() + static_cast<std::ptrdiff_t>(b), a[5].begin() + static_cast<std::ptrdiff_t>(e));
             return a;
         }, 5, "no time code"},
        {"time code twice", [&] {
             auto a = clean;
             const Bytes sei = sei_of(7);
             a[7].insert(a[7].begin() + static_cast<std::ptrdiff_t>(unit(a[7], 6).first), sei.begin(), sei.end());
             return a;
         }, 7, "2 time-code messages"},
        {"label changed", [&] {
             auto a = clean;
             const auto [b, e] = unit(a[20], 6);
             const Bytes other = sei_of(25);
             a[20].erase(a[20].begin() + static_cast<std::ptrdiff_t>(b), a[20].begin() + static_cast<std::ptrdiff_t>(e));
             a[20].insert(a[20].begin() + static_cast<std::ptrdiff_t>(b), other.begin(), other.end());
             return a;
         }, 20, "00:01:00;17 does not follow 00:01:00;11 (expected 00:01:00;12): a discontinuity without discontinuity_flag"},
        {"wrong rate", [&] {
             auto a = clean;
             swap_sps(a, s25);
             return a;
         }, 5, "frame count 25 beyond the rate of 25.00 fps"},
        {"drop-frame counts at a rate that keeps them", [&] {
             auto a = clean;
             swap_sps(a, s30);
             return a;
         }, 10, "skips 00:01:00:00 and 1 more, labels that exist at 30.00 fps"},
        {"label that cannot exist", [&] {
             auto a = stamp(s30, {0, 0, 59, 20});
             swap_sps(a, s2997);
             return a;
         }, 10, "00:01:00;00 cannot exist with drop-frame counting at 29.97 fps"},
    };
    for (const auto& row : rows) {
        TimeCodeReader reader(Codec::h264);
        for (const Bytes& au : row.make()) ASSERT_TRUE(reader.push(au)) << row.damage << ": " << reader.error();
        ASSERT_TRUE(reader.finish());
        std::vector<std::pair<std::uint64_t, std::string>> findings;
        std::uint64_t frames = 0;
        while (auto f = reader.pop()) {
            EXPECT_EQ(f->index, frames++);
            for (const std::string& finding : f->findings) findings.emplace_back(f->index, finding);
        }
        EXPECT_EQ(frames, 60u) << row.damage;
        if (row.finding == nullptr) {
            EXPECT_TRUE(findings.empty()) << row.damage << ": " << findings.front().second;
            continue;
        }
        ASSERT_FALSE(findings.empty()) << row.damage;
        EXPECT_EQ(findings.front().first, row.frame) << row.damage;
        EXPECT_EQ(findings.front().second, row.finding) << row.damage;
    }
}

// An encoder that packs its picture timing with other messages into one SEI
// unit: the timing message is taken out of it, the rest stays, and the
// result stamps to the same bytes again.
TEST(StreamStamper, ReplacesTimingInsideAMultiMessageUnit) {
    const auto stamp = [](const std::vector<Bytes>& aus) {
        StreamOptions o;
        o.start = TimeCode{1, 0, 0, 0};
        StreamStamper st(o);
        for (const Bytes& au : aus) EXPECT_TRUE(st.push(au)) << st.error();
        EXPECT_TRUE(st.finish()) << st.error();
        std::vector<Bytes> out;
        while (auto u = st.pop()) out.push_back(u->bytes);
        return out;
    };
    std::vector<Bytes> once = stamp(access_units(sample("sample_2997.264"), Codec::h264));
    // Our timing unit (06 01 ...) becomes one unit holding a user-data
    // message (type 5, 17 bytes), the timing message, and trailing bits.
    const Bytes user_data = {0x05, 0x11, 0xDC, 0x45, 0xE9, 0xBD, 0xE6, 0xD9, 0x48, 0xB7, 0x96, 0x2C,
                             0xD8, 0x20, 0xD9, 0x23, 0xEE, 0xEF, 0x61, 0x62};
    std::vector<Bytes> merged;
    for (const Bytes& au : once) {
        const std::vector<Nal> nals = split_nal_units(au, Codec::h264);
        const auto sei = std::ranges::find_if(nals, [](const Nal& n) { return n.type == 6; });
        ASSERT_NE(sei, nals.end());
        Bytes rbsp = unescape(std::span(au).subspan(sei->offset + 1, sei->size - 1));
        rbsp.insert(rbsp.begin(), user_data.begin(), user_data.end());
        Bytes unit = {0, 0, 0, 1, 0x06};
        escape_into(rbsp, unit);
        Bytes m(au.begin(), au.begin() + static_cast<std::ptrdiff_t>(sei->sc_begin));
        m.insert(m.end(), unit.begin(), unit.end());
        const std::size_t rest = sei->offset + sei->size;
        m.insert(m.end(), au.begin() + static_cast<std::ptrdiff_t>(rest), au.end());
        merged.push_back(std::move(m));
    }
    const std::vector<Bytes> again = stamp(merged);
    ASSERT_EQ(again.size(), merged.size());
    // One timing message per picture, the labels as before, the user data kept.
    TimeCodeReader reader(Codec::h264);
    for (const Bytes& au : again) {
        ASSERT_TRUE(reader.push(au));
        EXPECT_NE(std::search(au.begin(), au.end(), user_data.begin() + 2, user_data.end()), au.end());
    }
    ASSERT_TRUE(reader.finish());
    std::size_t frames = 0;
    while (const auto f = reader.pop()) {
        EXPECT_EQ(f->messages, 1) << f->index;
        EXPECT_TRUE(f->findings.empty()) << f->index;
        ++frames;
    }
    EXPECT_EQ(frames, again.size());
    EXPECT_EQ(stamp(again), again);
}

namespace {

// The tool reads its input in pieces: cutting a real stream into access
// units piece by piece gives the same units as cutting it whole, whatever
// the piece size, and loses no byte.
TEST(AnnexB, SplitterMatchesTheWholeStreamCut) {
    for (const char* name : {"sample_2997.264", "sample_2997.265"}) {
        const std::string path = std::string(QUILLANE_SAMPLES_DIR) + "/" + name;
        std::FILE* f = std::fopen(path.c_str(), "rb");
        ASSERT_NE(f, nullptr) << path;
        Bytes s(1 << 22);
        s.resize(std::fread(s.data(), 1, s.size(), f));
        std::fclose(f);
        const Codec codec = std::string(name).ends_with("265") ? Codec::h265 : Codec::h264;
        const std::vector<Nal> nals = split_nal_units(s, codec);
        std::vector<Bytes> whole;
        const std::vector<AccessUnit> aus = group_access_units(nals, codec);
        for (std::size_t a = 0; a < aus.size(); ++a) {
            const std::size_t begin = a == 0 ? 0 : nals[aus[a].begin].sc_begin;
            const std::size_t end = a + 1 < aus.size() ? nals[aus[a + 1].begin].sc_begin : s.size();
            whole.emplace_back(s.begin() + static_cast<std::ptrdiff_t>(begin), s.begin() + static_cast<std::ptrdiff_t>(end));
        }
        for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, s.size()}) {
            AccessUnitSplitter splitter(codec);
            std::vector<Bytes> cut;
            for (std::size_t at = 0; at < s.size(); at += piece) {
                splitter.feed(std::span(s).subspan(at, std::min(piece, s.size() - at)));
                while (auto au = splitter.next()) cut.emplace_back(au->begin(), au->end());
            }
            splitter.finish();
            while (auto au = splitter.next()) cut.emplace_back(au->begin(), au->end());
            EXPECT_EQ(cut, whole) << name << " in pieces of " << piece;
        }
    }
}

}  // namespace
