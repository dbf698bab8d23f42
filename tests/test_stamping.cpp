// Stamping shared by the tool and the element: the Annex B cut, a rate's labels, the reader behind --verify.
#include "annexb.h"
#include "h26x_syntax.h"
#include "stream_stamper.h"
#include "test_support.h"
#include "timecode_reader.h"

#include <algorithm>
#include <functional>

using namespace tcstamp;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Units = std::vector<Bytes>;

Bytes sample(const char* name) {
    const std::string s = qtest::read_file(std::string(QUILLANE_SAMPLES_DIR) + "/" + name);
    return Bytes(s.begin(), s.end());
}

// The access units of a stream fed to the splitter `piece` bytes at a time, as the tool reads a file.
Units cut(const Bytes& s, Codec codec, std::size_t piece = SIZE_MAX) {
    AccessUnitSplitter splitter(codec);
    Units out;
    const auto drain = [&] { while (auto au = splitter.next()) out.emplace_back(au->begin(), au->end()); };
    for (std::size_t at = 0; at < s.size(); at += piece) {
        splitter.feed(std::span(s).subspan(at, std::min(piece, s.size() - at)));
        drain();
    }
    splitter.finish();
    drain();
    return out;
}

TEST(AnnexB, CutsUnitsAndEscapesZeros) {
    // Whatever the piece size, the same units as the whole-stream cut, and no byte lost.
    const std::pair<Bytes, Codec> streams[] = {{sample("sample_2997.264"), Codec::h264},
                                               {sample("sample_2997.265"), Codec::h265}};
    for (const auto& [s, codec] : streams) {
        const std::vector<Nal> all = split_nal_units(s, codec);
        const std::vector<AccessUnit> aus = group_access_units(all, codec);
        Units whole;
        for (std::size_t a = 0; a < aus.size(); ++a) {
            const std::size_t begin = a == 0 ? 0 : all[aus[a].begin].sc_begin;
            const std::size_t end = a + 1 < aus.size() ? all[aus[a + 1].begin].sc_begin : s.size();
            whole.emplace_back(s.data() + begin, s.data() + end);
        }
        for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, s.size()})
            EXPECT_EQ(cut(s, codec, piece), whole) << s.size() << " bytes in pieces of " << piece;
    }
    // A picture's filler data and second slice (first_mb_in_slice 1) stay in its access unit.
    const Bytes slices = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0, 0, 1, 0x0C, 0xFF, 0x80, 0, 0, 1, 0x65, 0x40, 0x11,
                          0, 0, 1, 0x41, 0x9A};
    EXPECT_EQ(cut(slices, Codec::h264, 1).size(), 2u);
    // A 03 goes in front of 00 to 03 after two zeros, and the count of zeros starts again.
    const Bytes rbsp = {0, 0, 0, 0, 0, 0, 3, 0, 0, 4, 0, 0, 0, 3};
    const Bytes escaped = {0, 0, 3, 0, 0, 3, 0, 0, 3, 3, 0, 0, 4, 0, 0, 3, 0, 3};
    Bytes out;
    escape_into(rbsp, out);
    EXPECT_EQ(out, escaped);
    EXPECT_EQ(unescape(escaped), rbsp);
    EXPECT_EQ(unescape(escaped, 3), (Bytes{0, 0, 0}));
}

TEST(AnnexB, TimeCodeLabels) {
    bool drop = false;
    EXPECT_EQ(parse_time_code("12:34:56;07", &drop), (TimeCode{12, 34, 56, 7}));
    EXPECT_TRUE(drop);
    for (const char* bad : {"24:00:00:00", "00:60:00:00", "1:2:3:4", "00:00:00-00", "00:00:00:0x", ""})
        EXPECT_FALSE(parse_time_code(bad).has_value()) << bad;
    // Frames below the whole rate, and not the counts drop-frame counting skips.
    const std::tuple<TimeCode, int, bool> rows[] = {
        {{0, 0, 0, 24}, 2500, true},  {{0, 0, 0, 25}, 2500, false}, {{0, 0, 0, 40}, 2500, false},
        {{0, 1, 0, 0}, 2997, false},  {{0, 1, 0, 1}, 2997, false},  {{0, 1, 0, 2}, 2997, true},
        {{0, 10, 0, 0}, 2997, true},  {{0, 1, 0, 3}, 5994, false},  {{0, 1, 0, 4}, 5994, true},
        {{0, 1, 0, 0}, 3000, true},   {{0, 0, 0, 23}, 2398, true},  {{0, 0, 0, 24}, 2398, false},
    };
    for (const auto& [tc, fps_x100, exists] : rows)
        EXPECT_EQ(label_exists(tc, fps_x100), exists) << time_code_text(tc, false) << " @" << fps_x100;
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

// The byte range of an access unit's first unit of a type, start code included (empty at the end if none).
std::pair<std::size_t, std::size_t> unit(const Bytes& au, int type) {
    const std::vector<Nal> nals = split_nal_units(au, Codec::h264);
    for (std::size_t k = 0; k < nals.size(); ++k)
        if (nals[k].type == type)
            return {nals[k].sc_begin, k + 1 < nals.size() ? nals[k + 1].sc_begin : au.size()};
    return {au.size(), au.size()};
}
Bytes unit_bytes(const Bytes& au, int type) {
    const auto [b, e] = unit(au, type);
    return Bytes(au.data() + b, au.data() + e);
}
void replace_unit(Bytes& au, int type, const Bytes& with) {
    const auto [b, e] = unit(au, type);
    au.erase(au.begin() + static_cast<std::ptrdiff_t>(b), au.begin() + static_cast<std::ptrdiff_t>(e));
    au.insert(au.begin() + static_cast<std::ptrdiff_t>(b), with.begin(), with.end());
}

}  // namespace

// A clean stamped stream reads back without a finding; each damage a faulty device
// or editor makes is found at the picture it touched, in these words.
TEST(StreamStamper, ReadBackFindsExactlyTheDamage) {
    const Bytes s25 = sample("sample_25.264"), s2997 = sample("sample_2997.264"), s30 = sample("sample_30.264");
    const TimeCode start{0, 0, 59, 20};  // crosses the first minute, whose counts 00 and 01 drop
    const Units clean = stamp(cut(s2997, Codec::h264), start);
    ASSERT_EQ(clean.size(), 60u);
    const auto sps_of = [](const Bytes& s) {
        return [sps = unit_bytes(cut(s, Codec::h264)[0], 7)](Units& a) {
            for (Bytes& au : a)
                if (unit(au, 7).first != au.size()) replace_unit(au, 7, sps);
        };
    };
    // An encoder's registered user data (type 4) packed in front of the timing in one SEI unit.
    const Bytes user_data = {0x04, 0x03, 0xB5, 0x00, 0x31};
    const auto packed_and_stamped_again = [&](Units& a) {
        for (Bytes& au : a) {
            const std::size_t sei = unit(au, 6).first, payloads = sei + (au[sei + 2] == 1 ? 4 : 5);
            au.insert(au.begin() + static_cast<std::ptrdiff_t>(payloads), user_data.begin(), user_data.end());
        }
        a = stamp(a, start);
        EXPECT_EQ(stamp(a, start), a);
        for (const Bytes& au : a)
            EXPECT_NE(std::search(au.begin(), au.end(), user_data.begin(), user_data.end()), au.end());
    };
    // damage, and "frame: finding" of the first picture with a finding
    const std::pair<std::function<void(Units&)>, std::string> rows[] = {
        {packed_and_stamped_again, "none"},
        {[](Units& a) { replace_unit(a[5], 6, {}); }, "5: no time code"},
        {[&](Units& a) { replace_unit(a[20], 6, unit_bytes(clean[25], 6)); },
         "20: 00:01:00;17 does not follow 00:01:00;11 (expected 00:01:00;12): "
         "a discontinuity without discontinuity_flag"},
        {sps_of(s25), "5: frame count 25 beyond the rate of 25.00 fps"},
        {sps_of(s30), "10: skips 00:01:00:00 and 1 more, labels that exist at 30.00 fps"},
    };
    for (const auto& [make, finding] : rows) {
        Units a = clean;
        make(a);
        TimeCodeReader reader(Codec::h264);
        for (const Bytes& au : a) EXPECT_TRUE(reader.push(au)) << reader.error();
        EXPECT_TRUE(reader.finish());
        std::uint64_t k = 0;
        std::string first = "none";
        for (; auto f = reader.pop(); ++k) {
            EXPECT_EQ(f->index, k);
            if (first == "none" && !f->findings.empty()) first = std::to_string(k) + ": " + f->findings[0];
        }
        EXPECT_EQ(k, 60u);
        EXPECT_EQ(first, finding);
    }
}
