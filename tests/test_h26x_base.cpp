// The bit reader, the NAL unit scanners and the stream writers.
#include <sys/stat.h>

#include "h26x_reference.h"
#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_h26x_base_fun_t* h26x() { return util_ops_pfun->h26x_base; }

using Bytes = std::vector<std::uint8_t>;

// Builds a frame of units, each a four-byte start code, a header byte and
// `payload` filler bytes.
Bytes frame_of(std::initializer_list<int> headers, int payload = 6) {
    Bytes f;
    for (int h : headers) {
        f.insert(f.end(), {0, 0, 0, 1, static_cast<std::uint8_t>(h)});
        f.insert(f.end(), static_cast<size_t>(payload), 0xAA);
    }
    return f;
}

std::string err_line(const std::string& function, const std::string& text) {
    return "DBG_ERR:util_h26x_base_function\\.cpp " + function + "\\[[0-9]{4}\\] " + text;
}

TEST(H26xBitReader, ReadsAcrossBytesAndRefusesOutOfRange) {
    const UTIL_UCHAR data[] = {0xA5, 0x3C, 0xFF, 0x01, 0x80};
    UTIL_U32 v = 0xDEAD;
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 7, 1, 8, &v), 0);
    EXPECT_EQ(v, 0xA5u);
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 0, 2, 2, &v), 0);  // lowest bit of 0xA5, highest of 0x3C
    EXPECT_EQ(v, 0b10u);
    EXPECT_EQ(h26x()->readBitsToU32(data, 1, 3, 5, 20, &v), 0);  // 0x3C low nibble onwards
    EXPECT_EQ(v, 0xCFF01u);
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 7, 5, 32, &v), 0);
    EXPECT_EQ(v, 0xA53CFF01u);
    EXPECT_EQ(h26x()->readBitsToU32(data, 4, 7, 5, 0, &v), 0);
    EXPECT_EQ(v, 0u);

    v = 0xDEAD;
    CaptureStderr();
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 7, 1, 9, &v), -1);
    EXPECT_EQ(h26x()->readBitsToU32(data, 4, 0, 5, 2, &v), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches("(" + err_line("Func_h26x_base_readBitsToU32", "error: readBits outrange data array") +
                             "){2}"));
    EXPECT_EQ(v, 0xDEADu);
    // Bad bit index, over-long read, negative start, no output: refused silently.
    CaptureStderr();
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 8, 5, 1, &v), -1);
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, -1, 5, 1, &v), -1);
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 7, 5, 33, &v), -1);
    EXPECT_EQ(h26x()->readBitsToU32(data, -1, 7, 5, 1, &v), -1);
    EXPECT_EQ(h26x()->readBitsToU32(data, 0, 7, 5, 1, nullptr), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_EQ(v, 0xDEADu);
}

TEST(H26xV1, FixedRecordLimitsAndPictureStop) {
    util_h26x_frame_buf_info_t rec{};
    Bytes f = frame_of({0x67, 0x68, 0x06, 0x65});
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 0), 0);
    ASSERT_EQ(rec.count, 4);
    EXPECT_EQ(rec.list[3].nalu, 0x65);
    EXPECT_EQ(rec.list[3].position, 33u);
    EXPECT_EQ(rec.list[3].length, f.size() - 33);
    EXPECT_EQ(rec.list[0].length, 11u);
    EXPECT_EQ(rec.list[4].position, f.size());
    EXPECT_EQ(rec.list[4].length, 0u);

    // Seven units fit with the terminator in the last slot; the eighth is refused
    // and the count keeps its old value.
    f = frame_of({0x67, 0x68, 0x06, 0x06, 0x06, 0x06, 0x65});
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 1), 0);
    EXPECT_EQ(rec.count, 7);
    EXPECT_EQ(rec.list[7].position, f.size());
    f = frame_of({0x67, 0x68, 0x06, 0x06, 0x06, 0x06, 0x06, 0x65});
    CaptureStderr();
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 0), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err_line("Func_V1_get_h26x_frame_buf_info_function", "error: max is out of range!!! max=8")));
    EXPECT_EQ(rec.count, 7);

    // The codec decides which header bytes are pictures: 0x26 is an H.265
    // IDR but an H.264 SEI.
    f = frame_of({0x40, 0x26, 0x02});
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H265_STREAM_TYPE, 0), 0);
    EXPECT_EQ(rec.count, 2);
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 0), -1);
    // An unknown stream type never stops, so only the full scan succeeds.
    CaptureStderr();
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), static_cast<UTIL_H26X_STREAM_TYPE_ENUM>(0), 0), -1);
    GetCapturedStderr();
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), static_cast<UTIL_H26X_STREAM_TYPE_ENUM>(0), 1), 0);
    EXPECT_EQ(rec.count, 3);
}

TEST(H26xV1, PicturesTooCloseToTheEndAndTinyFrames) {
    util_h26x_frame_buf_info_t rec{};
    const std::string no_picture = err_line("Func_V1_get_h26x_frame_buf_info_function", "error: no IDR or P frame nalu type!!!");
    // Picture start code 8 bytes before the end: reported as missing.
    Bytes f = frame_of({0x67}, 6);
    f.insert(f.end(), {0, 0, 0, 1, 0x65, 1, 2, 3});
    CaptureStderr();
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 0), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(no_picture));
    f.push_back(4);  // 9 bytes before the end: found
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 0), 0);

    // Frames of 0 to 5 bytes hold no unit whose header lies inside them.
    const Bytes tiny = {0, 0, 0, 1, 0x65};
    for (int size = 0; size <= 5; ++size) {
        CaptureStderr();
        EXPECT_EQ(h26x()->V1_get_hfbi(&rec, const_cast<std::uint8_t*>(tiny.data()), size, ENUM_UTIL_H264_STREAM_TYPE, 1),
                  size == 5 ? 0 : -1)
            << size;
        GetCapturedStderr();
    }
    CaptureStderr();
    EXPECT_EQ(h26x()->V1_get_hfbi(nullptr, f.data(), 10, ENUM_UTIL_H264_STREAM_TYPE, 1), -1);
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, nullptr, 10, ENUM_UTIL_H264_STREAM_TYPE, 1), -1);
    EXPECT_EQ(h26x()->V1_get_hfbi(&rec, f.data(), -3, ENUM_UTIL_H264_STREAM_TYPE, 1), -1);
    GetCapturedStderr();
}

TEST(H26xV2, ExactArrayAcrossTheEighthUnit) {
    Bytes f;
    for (int u = 0; u < 12; ++u) {
        f.insert(f.end(), {0, 0, 0, 1, static_cast<std::uint8_t>(u == 11 ? 0x65 : 0x06)});
        f.insert(f.end(), static_cast<size_t>(u + 1), 0x55);
    }
    util_list_h26x_frame_buf_info_t rec{};
    rec.frame_addr = f.data();
    rec.frame_size = static_cast<int>(f.size());
    ASSERT_EQ(h26x()->V2_init_list(&rec, 1), 0);
    ASSERT_EQ(rec.hfbiMax, 12);
    std::uint64_t expect_pos = 0;
    for (int u = 0; u < 12; ++u) {
        EXPECT_EQ(rec.phfbi[u].position, expect_pos) << u;
        EXPECT_EQ(rec.phfbi[u].length, static_cast<std::uint64_t>(5 + u + 1)) << u;
        expect_pos += 5 + u + 1;
    }
    // Re-scanning frees the old array (the leak checker would object otherwise).
    ASSERT_EQ(h26x()->V2_init_list(&rec, 0), 0);
    EXPECT_EQ(rec.hfbiMax, 12);  // the picture is the twelfth unit
    EXPECT_EQ(h26x()->V2_exit_list(&rec), 0);
    EXPECT_EQ(rec.phfbi, nullptr);
    EXPECT_EQ(rec.hfbiMax, 0);
    EXPECT_EQ(rec.frame_addr, f.data());

    CaptureStderr();
    EXPECT_EQ(h26x()->V2_init_list(nullptr, 1), -1);
    rec.frame_size = 0;
    EXPECT_EQ(h26x()->V2_init_list(&rec, 1), -1);
    rec.frame_size = 20;
    rec.frame_addr = nullptr;
    EXPECT_EQ(h26x()->V2_init_list(&rec, 1), -1);
    EXPECT_EQ(h26x()->V2_exit_list(nullptr), -1);
    const std::string fn = "Func_V2_init_list_h26x_frame_buf_info_function";
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err_line(fn, "error: phfbiList or frame_buf is NULL, frame_size:0!!!") +
                             err_line(fn, "error: phfbiList or frame_buf is NULL, frame_size:0!!!") +
                             err_line(fn, "error: phfbiList or frame_buf is NULL, frame_size:20!!!") +
                             err_line("Func_V2_exit_list_h26x_frame_buf_info_function", "error: phfbiList is NULL!")));
    EXPECT_EQ(rec.phfbi, nullptr);
}

TEST(H26xV3, ChainWithTerminatorAndOwnershipAfterFailure) {
    Bytes f = frame_of({0x40, 0x42, 0x44, 0x26});
    util_link_h26x_frame_buf_info_t rec{};
    rec.frame_addr = f.data();
    rec.frame_size = static_cast<int>(f.size());
    ASSERT_EQ(h26x()->V3_init_list(&rec, 0), 0);
    ASSERT_EQ(rec.count, 4);
    int nodes = 0;
    const util_h26x_frame_buf_info_one_node_t* last = nullptr;
    for (auto* n = rec.head; n != nullptr; n = n->next, ++nodes) last = n;
    EXPECT_EQ(nodes, 5);
    EXPECT_EQ(last->hfbi.position, f.size());
    EXPECT_EQ(last->hfbi.length, 0u);
    EXPECT_EQ(last->hfbi.nalu, 0);
    EXPECT_EQ(rec.head->next->next->next->hfbi.length, f.size() - 33);

    // A record still holding a chain is released with a warning and rescanned;
    // a failed scan leaves what it built on the record.
    Bytes no_pic = frame_of({0x40, 0x42});
    rec.frame_addr = no_pic.data();
    rec.frame_size = static_cast<int>(no_pic.size());
    CaptureStderr();
    EXPECT_EQ(h26x()->V3_init_list(&rec, 0), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err_line("Func_V3_init_link_h26x_frame_buf_info_function",
                                      "warning: phfbiLink head is not NULL or count is not 0!") +
                             err_line("Func_V3_init_link_h26x_frame_buf_info_function",
                                      "error: no IDR or P frame nalu type!!!")));
    EXPECT_EQ(rec.count, 2);
    ASSERT_NE(rec.head, nullptr);
    EXPECT_EQ(h26x()->V3_exit_list(&rec), 0);
    EXPECT_EQ(rec.head, nullptr);
    EXPECT_EQ(rec.count, 0);

    CaptureStderr();
    EXPECT_EQ(h26x()->V3_init_list(nullptr, 1), -1);
    EXPECT_EQ(h26x()->V3_exit_list(nullptr), -1);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(err_line("Func_V3_init_link_h26x_frame_buf_info_function",
                                      "error: phfbiLink or frame_buf is NULL, frame_size:0!!!") +
                             err_line("Func_V3_exit_link_h26x_frame_buf_info_function", "error: phfbiLink is NULL!")));
}

// Frames of more units than the first pass remembers are finished by a
// second pass; both must give the reference's list.
TEST(H26xV2, LongFramesAcrossTheSecondPass) {
    std::mt19937 rng(3);
    for (int units : {511, 512, 513, 1100}) {
        Bytes f;
        for (int u = 0; u < units; ++u) {
            f.insert(f.end(), {0, 0, 0, 1, static_cast<std::uint8_t>(u == units - 1 ? 0x65 : 0x06)});
            f.insert(f.end(), static_cast<size_t>(u == units - 1 ? 12 : rng() % 7), 0x55);
        }
        for (int all : {0, 1}) {
            const RefScan want = reference_scan(f, all != 0, ref_picture_any);
            ASSERT_TRUE(want.ok);
            util_list_h26x_frame_buf_info_t rec{nullptr, 0, f.data(), static_cast<int>(f.size())};
            ASSERT_EQ(h26x()->V2_init_list(&rec, all), 0);
            ASSERT_EQ(rec.hfbiMax, units);
            for (int u = 0; u < units; ++u) {
                ASSERT_EQ((RefUnit{rec.phfbi[u].position, rec.phfbi[u].nalu, rec.phfbi[u].length}), want.units[u])
                    << units << " units, unit " << u;
            }
            h26x()->V2_exit_list(&rec);
        }
    }
}

// Thousands of random frames through all three scanners, judged by the
// plain reference scan.
TEST(H26xScanners, AgreeWithThePlainScanOnRandomFrames) {
    std::mt19937 rng(7);
    int v1_ok = 0;
    int v2_ok = 0;
    CaptureStderr();  // refusals are expected by the thousand
    for (int round = 0; round < 6000; ++round) {
        Bytes f = random_frame(rng);
        const int size = static_cast<int>(f.size());
        for (int all : {0, 1}) {
            for (auto type : {ENUM_UTIL_H264_STREAM_TYPE, ENUM_UTIL_H265_STREAM_TYPE}) {
                auto pic = type == ENUM_UTIL_H264_STREAM_TYPE ? ref_picture_h264 : ref_picture_h265;
                const RefScan want = reference_scan(f, all != 0, pic, 8);
                util_h26x_frame_buf_info_t v1{};
                v1.count = -5;
                const int rc = h26x()->V1_get_hfbi(&v1, f.data(), size, type, all);
                ASSERT_EQ(rc == 0, want.ok) << "round " << round;
                if (!want.ok) {
                    ASSERT_EQ(v1.count, -5);
                    continue;
                }
                ASSERT_EQ(v1.count, static_cast<int>(want.units.size()));
                for (size_t u = 0; u < want.units.size(); ++u) {
                    ASSERT_EQ((RefUnit{v1.list[u].position, v1.list[u].nalu, v1.list[u].length}), want.units[u]);
                }
                ASSERT_EQ(v1.list[v1.count].position, f.size());
                ++v1_ok;
            }
            const RefScan want = reference_scan(f, all != 0, ref_picture_any);
            util_list_h26x_frame_buf_info_t v2{nullptr, 0, f.empty() ? nullptr : f.data(), size};
            util_link_h26x_frame_buf_info_t v3{nullptr, 0, f.empty() ? nullptr : f.data(), size};
            const int rc2 = h26x()->V2_init_list(&v2, all);
            const int rc3 = h26x()->V3_init_list(&v3, all);
            ASSERT_EQ(rc2 == 0, want.ok) << "round " << round;
            ASSERT_EQ(rc3, rc2);
            if (want.ok) {
                ASSERT_EQ(v2.hfbiMax, static_cast<int>(want.units.size()));
                ASSERT_EQ(v3.count, v2.hfbiMax);
                const util_h26x_frame_buf_info_one_node_t* node = v3.head;
                for (size_t u = 0; u < want.units.size(); ++u, node = node->next) {
                    const RefUnit got2{v2.phfbi[u].position, v2.phfbi[u].nalu, v2.phfbi[u].length};
                    const RefUnit got3{node->hfbi.position, node->hfbi.nalu, node->hfbi.length};
                    ASSERT_EQ(got2, want.units[u]) << "round " << round << " unit " << u;
                    ASSERT_EQ(got3, want.units[u]) << "round " << round << " unit " << u;
                }
                ASSERT_EQ(node->hfbi.position, f.size());
                ASSERT_EQ(node->next, nullptr);
                ++v2_ok;
            } else {
                ASSERT_EQ(v2.phfbi, nullptr);
            }
            h26x()->V2_exit_list(&v2);
            h26x()->V3_exit_list(&v3);
        }
    }
    GetCapturedStderr();
    // Both outcomes must be well represented for the comparison to mean much.
    EXPECT_GT(v1_ok, 4000);
    EXPECT_GT(v2_ok, 4000);
    EXPECT_LT(v2_ok, 10000);
}

class StreamWriterTest : public ::testing::Test {
protected:
    TempDir dir_;
    std::string chunk_ = std::string(60, 'x');
    UTIL_CHAR* data() { return chunk_.data(); }
};

TEST_F(StreamWriterTest, BufferedWriterBudgetAndTruncation) {
    const std::string path = dir_.file("fw.264");
    write_file(path, "old content that must go");
    util_h26xBaseSaveStreamToFile_t rec{};
    rec.file_name = path.c_str();
    rec.max_size = 100;
    h26x()->fw_save_stream_bySize(data(), 60, &rec);
    h26x()->fw_save_stream_bySize(data(), 60, &rec);  // crosses the budget: still written whole
    EXPECT_EQ(rec.write_size, 120u);
    ASSERT_NE(rec.fp, nullptr);
    h26x()->fw_save_stream_bySize(data(), 60, &rec);  // over budget: closes
    EXPECT_EQ(rec.fp, nullptr);
    EXPECT_EQ(read_file(path), std::string(120, 'x'));
    h26x()->fw_save_stream_bySize(data(), 60, &rec);
    EXPECT_EQ(rec.write_size, 120u);

    const std::string untouched = dir_.file("zero.264");
    util_h26xBaseSaveStreamToFile_t none{};
    none.file_name = untouched.c_str();
    h26x()->fw_save_stream_bySize(data(), 60, &none);
    EXPECT_FALSE(exists(untouched));

    // Refused chunks are neither written nor counted.
    util_h26xBaseSaveStreamToFile_t neg{};
    neg.file_name = untouched.c_str();
    neg.max_size = 100;
    h26x()->fw_save_stream_bySize(data(), -1, &neg);
    h26x()->fw_save_stream_bySize(nullptr, 5, &neg);
    h26x()->fw_save_stream_bySize(data(), 5, nullptr);
    EXPECT_EQ(neg.write_size, 0u);

    // An unwritable path drops the chunk and tries again next time.
    util_h26xBaseSaveStreamToFile_t bad{};
    const std::string bad_path = dir_.file("no/such/dir.264");
    bad.file_name = bad_path.c_str();
    bad.max_size = 100;
    CaptureStderr();
    h26x()->fw_save_stream_bySize(data(), 60, &bad);
    h26x()->fw_save_stream_bySize(data(), 60, &bad);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches("(" + err_line("Func_h26x_base_fw_save_stream_bySize", "error: fopen failed") + "){2}"));
    EXPECT_EQ(bad.write_size, 0u);
}

TEST_F(StreamWriterTest, DescriptorWriterAppendsAndNeverTouchesStandardStreams) {
    const std::string path = dir_.file("w.265");
    write_file(path, "kept:");
    const mode_t old_mask = umask(022);
    util_h26xBaseSaveStreamToFile_t rec{};  // fd 0 means "not open"
    rec.file_name = path.c_str();
    rec.max_size = 100;
    h26x()->w_save_stream_bySize(data(), 60, &rec);
    EXPECT_GT(rec.fd, 2);
    h26x()->w_save_stream_bySize(data(), 60, &rec);
    h26x()->w_save_stream_bySize(data(), 60, &rec);
    EXPECT_EQ(rec.fd, -1);
    EXPECT_EQ(read_file(path), "kept:" + std::string(120, 'x'));

    const std::string fresh = dir_.file("new.265");
    util_h26xBaseSaveStreamToFile_t rec2{};
    rec2.file_name = fresh.c_str();
    rec2.max_size = 10;
    h26x()->w_save_stream_bySize(data(), 4, &rec2);
    struct stat st {};
    ASSERT_EQ(stat(fresh.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);  // 0666 less the umask, like the buffered writers
    umask(old_mask);
    h26x()->w_save_stream_bySize(data(), 60, &rec2);
    h26x()->w_save_stream_bySize(data(), 60, &rec2);
    EXPECT_EQ(read_file(fresh), std::string(64, 'x'));

    util_h26xBaseSaveStreamToFile_t bad{};
    const std::string bad_path = dir_.file("missing/w.265");
    bad.file_name = bad_path.c_str();
    bad.max_size = 10;
    CaptureStderr();
    h26x()->w_save_stream_bySize(data(), 4, &bad);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(err_line("Func_h26x_base_w_save_stream_bySize", "error: open failed")));
    EXPECT_LT(bad.fd, 0);
}

TEST_F(StreamWriterTest, FlagFilesStartAndStopRecording) {
    const std::string path = dir_.file("flag.264");
    const std::string start = dir_.file("start");
    const std::string stop = dir_.file("stop");
    util_h26xBaseSaveStreamToFileByFlag_t rec{};
    rec.save.file_name = path.c_str();
    rec.save.max_size = 1000;
    rec.startFileFlag = start.c_str();
    rec.endFileFlag = stop.c_str();

    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    EXPECT_FALSE(exists(path));
    write_file(start, "");
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    EXPECT_NE(rec.save.fp, nullptr);
    write_file(stop, "");
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);  // consumed, not written
    EXPECT_FALSE(exists(start));
    EXPECT_FALSE(exists(stop));
    EXPECT_EQ(rec.save.fp, nullptr);
    EXPECT_EQ(read_file(path), std::string(120, 'x'));
    EXPECT_EQ(rec.save.write_size, 120u);

    // A new recording starts the file afresh; the budget spans recordings.
    write_file(start, "");
    h26x()->fw_save_stream_byFlag(data(), 30, &rec);
    EXPECT_EQ(rec.save.write_size, 150u);
    // A stop flag alone is consumed and still closes the file.
    std::remove(start.c_str());
    write_file(stop, "");
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    EXPECT_FALSE(exists(stop));
    EXPECT_EQ(rec.save.fp, nullptr);
    EXPECT_EQ(read_file(path), std::string(30, 'x'));
}

}  // namespace
