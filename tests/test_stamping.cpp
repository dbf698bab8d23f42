// Access-unit stamping shared by the tool and the GStreamer element: the
// Annex B split, where the SEI unit goes, and the start time code.
#include "annexb.h"
#include "au_stamper.h"
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

TEST(AnnexB, TimeCodeText) {
    const auto tc = parse_time_code("12:34:56;07");
    ASSERT_TRUE(tc.has_value());
    EXPECT_EQ(tc->hours, 12);
    EXPECT_EQ(tc->frames, 7);
    for (const char* bad : {"24:00:00:00", "00:60:00:00", "1:2:3:4", "00:00:00-00", "00:00:00:0x", ""}) {
        EXPECT_FALSE(parse_time_code(bad).has_value()) << bad;
    }
}

class StamperTest : public DebugRecordTest {};

TEST_F(StamperTest, InsertsBeforeTheFirstSliceAndPassesOthersThrough) {
    AccessUnitStamper st;
    StamperConfig c;
    c.codec = Codec::h265;
    c.fps_x100 = 2997;
    c.start = TimeCode{0, 0, 59, 29};
    ASSERT_TRUE(st.start(c));

    Bytes au;
    add(au, {0, 0, 0, 1}, {0x46, 0x01, 0x50});        // AUD
    add(au, {0, 0, 0, 1}, {0x40, 0x01, 0x0C});        // VPS
    add(au, {0, 0, 1}, {0x4E, 0x01, 0x05, 0x01, 0xAA, 0x80});  // an SEI of the encoder's
    const std::size_t slice_at = au.size();
    add(au, {0, 0, 1}, {0x28, 0x01, 0xAF, 0x11});     // CRA slice
    const StampPlan first = st.stamp(au);
    ASSERT_TRUE(first.picture);
    EXPECT_EQ(first.insert_at, slice_at);
    ASSERT_GE(first.sei.size(), 17u);
    EXPECT_EQ(first.sei[4], 0x4E);
    EXPECT_EQ(st.time_code_text(), "00:00:59;29");
    EXPECT_EQ(st.context().idr_flag, UTIL_TRUE);  // the VPS makes it a random-access frame

    Bytes p;
    add(p, {0, 0, 0, 1}, {0x02, 0x01, 0xD0, 0x22});  // TRAIL_R
    const StampPlan next = st.stamp(p);
    EXPECT_EQ(next.insert_at, 0u);
    EXPECT_EQ(st.time_code_text(), "00:01:00;02");  // dropped counts skipped

    Bytes no_picture;
    add(no_picture, {0, 0, 0, 1}, {0x4E, 0x01, 0x05, 0x01, 0xAA, 0x80});
    EXPECT_FALSE(st.stamp(no_picture).picture);
    EXPECT_EQ(st.time_code_text(), "00:01:00;02");  // nothing counted
}

TEST_F(StamperTest, H264WidthsComeFromTheSpsUnlessGiven) {
    // An SPS as x264 writes it with nal-hrd and pic-struct (High 4:4:4):
    // cpb_removal_delay_length_minus1 9, dpb_output_delay_length_minus1 6,
    // time_offset_length 0, as FFmpeg's trace of the same stream shows.
    const Bytes sps_unit = {0x67, 0xF4, 0x00, 0x0B, 0x91, 0x96, 0x40, 0xA1, 0x1F, 0x89, 0xC0, 0x44,
                            0x00, 0x00, 0x0F, 0xA4, 0x00, 0x03, 0xA9, 0x81, 0x81, 0x00, 0x07, 0xA1,
                            0x00, 0x01, 0xE8, 0x4A, 0x69, 0x30, 0x0F, 0x8A, 0x15, 0x24};
    Bytes au;
    add(au, {0, 0, 0, 1}, {});
    au.insert(au.end(), sps_unit.begin(), sps_unit.end());
    add(au, {0, 0, 0, 1}, {0x65, 0x88, 0x84, 0x00, 0x33, 0xFF, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06});

    AccessUnitStamper st;
    StamperConfig c;
    c.codec = Codec::h264;
    c.start = TimeCode{1, 2, 3, 4};
    ASSERT_TRUE(st.start(c));
    const StampPlan plan = st.stamp(au);
    ASSERT_TRUE(plan.picture);
    const auto& cfg = st.context().config_param;
    EXPECT_EQ(cfg.h264_cpb_removal_delay_length, 9);
    EXPECT_EQ(cfg.h264_dpb_output_delay_length, 6);
    EXPECT_EQ(cfg.h264_time_offset_length, 0);
    EXPECT_EQ(st.stream_warning(), "");
    // x264's SPS without nal-hrd: timing information but no HRD, which the
    // stamper reports; a cut-short SPS is simply not understood.
    const Bytes plain = {0x67, 0x42, 0xC0, 0x0A, 0xD9, 0x04, 0x26, 0xC0, 0x44, 0x00, 0x00,
                         0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x3C, 0x48, 0x99, 0x20};
    const auto bare = parse_h264_sps_hrd(plain);
    ASSERT_TRUE(bare.has_value());
    EXPECT_FALSE(bare->hrd_present);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse_h264_sps_hrd(Bytes(plain.begin(), plain.begin() + 8)).has_value());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    Bytes plain_au;
    add(plain_au, {0, 0, 0, 1}, {});
    plain_au.insert(plain_au.end(), plain.begin(), plain.end());
    add(plain_au, {0, 0, 0, 1}, {0x65, 0x88, 0x84, 0x00, 0x33, 0xFF, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06});
    AccessUnitStamper warned;
    ASSERT_TRUE(warned.start(c));
    warned.stamp(plain_au);
    EXPECT_THAT(warned.stream_warning(), ::testing::HasSubstr("no HRD parameters"));

    AccessUnitStamper fixed;
    c.cpb_removal_delay_length = 23;
    c.dpb_output_delay_length = 23;
    c.time_offset_length = 23;
    ASSERT_TRUE(fixed.start(c));
    fixed.stamp(au);
    EXPECT_EQ(fixed.context().config_param.h264_cpb_removal_delay_length, 23);
    EXPECT_EQ(fixed.context().config_param.h264_time_offset_length, 23);
}

}  // namespace
