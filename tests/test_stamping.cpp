// Access-unit stamping shared by the tool and the GStreamer element: the
// Annex B split, where the SEI unit goes, and the start time code.
#include "annexb.h"
#include "au_stamper.h"
#include "stream_stamper.h"
#include "test_support.h"

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
