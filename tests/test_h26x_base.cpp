// The bit reader, the NAL unit scanners and the stream writers.
#include <sys/stat.h>

#include <functional>
#include <list>

#include "h26x_reference.h"
#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_h26x_base_fun_t* h26x() { return util_ops_pfun->h26x_base; }

using Bytes = std::vector<std::uint8_t>;

// A frame of units, each a four-byte start code, a header byte and `payload` filler bytes.
Bytes frame_of(std::initializer_list<int> headers, int payload = 6) {
    Bytes f;
    for (int h : headers) {
        f.insert(f.end(), {0, 0, 0, 1, static_cast<std::uint8_t>(h)});
        f.insert(f.end(), static_cast<size_t>(payload), 0xAA);
    }
    return f;
}

std::string err_line(const std::string& function, const std::string& text) {
    return "DBG_ERR:util_h26x_base_function\\.cpp " + function + "\\[[0-9]{4}\\] " + regex_escape(text);
}

std::string stderr_of(const std::function<void()>& f) {
    CaptureStderr();
    f();
    return GetCapturedStderr();
}

TEST(H26xBitReader, ReadsAcrossBytesAndRefusesOutOfRange) {
    const UTIL_UCHAR data[] = {0xA5, 0x3C, 0xFF, 0x01, 0x80};
    const std::string outrange = err_line("Func_h26x_base_readBitsToU32", "error: readBits outrange data array");
    const struct {
        int start, bit, end, bits;
        bool null_data, null_result;
        int rc;
        UTIL_U32 value;  // 0xDEAD: left untouched
        std::string err;
    } rows[] = {
        {0, 7, 1, 8, false, false, 0, 0xA5, ""},
        {0, 0, 2, 2, false, false, 0, 0b10, ""},  // lowest bit of 0xA5, highest of 0x3C
        {1, 3, 5, 20, false, false, 0, 0xCFF01, ""},
        {0, 7, 5, 32, false, false, 0, 0xA53CFF01, ""},
        {4, 7, 5, 0, false, false, 0, 0, ""},
        {0, 7, 0, 0, true, false, 0, 0, ""},  // nothing to read needs no data
        {0, 7, 1, 9, false, false, -1, 0xDEAD, outrange},
        {4, 0, 5, 2, false, false, -1, 0xDEAD, outrange},
        {0, 8, 5, 1, false, false, -1, 0xDEAD, ""},
        {0, -1, 5, 1, false, false, -1, 0xDEAD, ""},
        {0, 7, 5, 33, false, false, -1, 0xDEAD, ""},
        {-1, 7, 5, 1, false, false, -1, 0xDEAD, ""},
        {0, 7, 5, 1, false, true, -1, 0xDEAD, ""},
        {0, 7, 5, 1, true, false, -1, 0xDEAD, ""},
    };
    for (const auto& r : rows) {
        UTIL_U32 v = 0xDEAD;
        int rc = 0;
        const std::string err = stderr_of([&] {
            rc = h26x()->readBitsToU32(r.null_data ? nullptr : data, r.start, static_cast<UTIL_S8>(r.bit), r.end,
                                       static_cast<UTIL_U8>(r.bits), r.null_result ? nullptr : &v);
        });
        EXPECT_EQ(rc, r.rc) << r.start << "." << r.bit << " +" << r.bits;
        EXPECT_EQ(v, r.value) << r.start << "." << r.bit << " +" << r.bits;
        EXPECT_THAT(err, FullyMatches(r.err)) << r.start << "." << r.bit << " +" << r.bits;
    }
}

// What each scanner says when it refuses, in order on shared records: the
// units the reference scan judges are in the differential below.
TEST(H26xScanners, RefusalsSayWhy) {
    const std::string v1 = "Func_V1_get_h26x_frame_buf_info_function";
    const std::string v2 = "Func_V2_init_list_h26x_frame_buf_info_function";
    const std::string v3 = "Func_V3_init_link_h26x_frame_buf_info_function";
    const std::string no_picture = "error: no IDR or P frame nalu type!!!";
    Bytes eight = frame_of({0x67, 0x68, 0x06, 0x06, 0x06, 0x06, 0x06, 0x65});
    Bytes late = frame_of({0x67});
    late.insert(late.end(), {0, 0, 0, 1, 0x65, 1, 2, 3});  // the picture 8 bytes before the end
    const int n = static_cast<int>(late.size());
    util_h26x_frame_buf_info_t rec{};
    util_list_h26x_frame_buf_info_t list{nullptr, 0, late.data(), n};
    util_list_h26x_frame_buf_info_t no_frame{nullptr, 0, nullptr, 20};
    util_link_h26x_frame_buf_info_t link{nullptr, 0, late.data(), n};
    util_link_h26x_frame_buf_info_t empty{nullptr, 0, late.data(), 0};
    const struct {
        std::function<int()> call;
        std::string err;
    } rows[] = {
        {[&] { return h26x()->V1_get_hfbi(&rec, eight.data(), static_cast<int>(eight.size()), ENUM_UTIL_H264_STREAM_TYPE, 0); },
         err_line(v1, "error: max is out of range!!! max=8")},
        {[&] { return h26x()->V1_get_hfbi(&rec, late.data(), n, ENUM_UTIL_H264_STREAM_TYPE, 0); },
         err_line(v1, no_picture)},
        {[&] { return h26x()->V1_get_hfbi(nullptr, late.data(), n, ENUM_UTIL_H264_STREAM_TYPE, 1); },
         err_line(v1, "error: phfbi or frame_buf is NULL, frame_size:19!!!")},
        {[&] { return h26x()->V2_init_list(&list, 0); }, err_line(v2, no_picture)},
        {[&] { return h26x()->V2_init_list(nullptr, 1); },
         err_line(v2, "error: phfbiList or frame_buf is NULL, frame_size:0!!!")},
        {[&] { return h26x()->V2_init_list(&no_frame, 1); },
         err_line(v2, "error: phfbiList or frame_buf is NULL, frame_size:20!!!")},
        {[&] { return h26x()->V2_exit_list(nullptr); },
         err_line("Func_V2_exit_list_h26x_frame_buf_info_function", "error: phfbiList is NULL!")},
        {[&] { return h26x()->V3_init_list(&link, 0); }, err_line(v3, no_picture)},
        // The failed scan left its chain on the record: released, with a warning.
        {[&] { return h26x()->V3_init_list(&link, 0); },
         err_line(v3, "warning: phfbiLink head is not NULL or count is not 0!") + err_line(v3, no_picture)},
        {[&] { return h26x()->V3_init_list(&empty, 1); },
         err_line(v3, "error: phfbiLink or frame_buf is NULL, frame_size:0!!!")},
        {[&] { return h26x()->V3_exit_list(nullptr); },
         err_line("Func_V3_exit_link_h26x_frame_buf_info_function", "error: phfbiLink is NULL!")},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        int rc = 0;
        EXPECT_THAT(stderr_of([&] { rc = rows[i].call(); }), FullyMatches(rows[i].err)) << "row " << i;
        EXPECT_EQ(rc, -1) << "row " << i;
    }
    EXPECT_EQ(link.count, 2);
    EXPECT_EQ(h26x()->V3_exit_list(&link), 0);
    EXPECT_EQ(list.phfbi, nullptr);
}

// Random frames, frames at the rules' edges and frames longer than V2's
// first pass remembers, through all three scanners against the plain scan.
TEST(H26xScanners, AgreeWithThePlainScan) {
    std::vector<Bytes> frames = {{0, 0, 0, 1, 0x65}, frame_of({0x67, 0x68, 0x06, 0x06, 0x06, 0x06, 0x65})};
    for (const int tail : {3, 4}) {  // a picture 8 and 9 bytes before the end
        frames.push_back(frame_of({0x67}, 6));
        frames.back().insert(frames.back().end(), {0, 0, 0, 1, 0x65});
        frames.back().insert(frames.back().end(), tail, 7);
    }
    for (const int units : {511, 512, 513, 1100}) {
        Bytes f;
        for (int u = 0; u < units; ++u) {
            f.insert(f.end(), {0, 0, 0, 1, static_cast<std::uint8_t>(u == units - 1 ? 0x65 : 0x06)});
            f.insert(f.end(), static_cast<size_t>(u == units - 1 ? 12 : u % 7), 0x55);
        }
        frames.push_back(f);
    }
    std::mt19937 rng(7);
    CaptureStderr();  // refusals are expected by the thousand
    for (size_t round = 0; round < 6000; ++round) {
        const Bytes exact = round < frames.size() ? frames[round] : random_frame(rng);  // a block of its size
        const std::int32_t flag_on = round % 3 == 0 ? 1 : round % 3 == 1 ? -1 : 0x100;
        ASSERT_EQ(check_scanners(const_cast<std::uint8_t*>(exact.empty() ? nullptr : exact.data()),
                                 static_cast<std::int32_t>(exact.size()), flag_on),
                  "")
            << "round " << round;
    }
    GetCapturedStderr();
}

class StreamWriterTest : public ::testing::Test {
protected:
    util_h26xBaseSaveStreamToFile_t record(const std::string& name, UTIL_U64 max) {
        paths_.push_back(dir_.file(name));
        util_h26xBaseSaveStreamToFile_t rec{};
        rec.file_name = paths_.back().c_str();
        rec.max_size = max;
        return rec;
    }
    TempDir dir_;
    std::list<std::string> paths_;
    std::string chunk_ = std::string(60, 'x');
    UTIL_CHAR* data() { return chunk_.data(); }
};

TEST_F(StreamWriterTest, BufferedWriterBudgetAndTruncation) {
    auto rec = record("fw.264", 100);
    write_file(paths_.back(), "old content that must go");
    h26x()->fw_save_stream_bySize(data(), 60, &rec);
    h26x()->fw_save_stream_bySize(data(), 60, &rec);  // crosses the budget: still written whole
    ASSERT_NE(rec.fp, nullptr);
    h26x()->fw_save_stream_bySize(data(), 60, &rec);  // over budget: closes
    h26x()->fw_save_stream_bySize(data(), 60, &rec);
    EXPECT_EQ(rec.fp, nullptr);
    EXPECT_EQ(rec.write_size, 120u);
    EXPECT_EQ(read_file(paths_.back()), std::string(120, 'x'));

    // No budget: no file. Refused chunks are neither written nor counted.
    auto none = record("zero.264", 0);
    h26x()->fw_save_stream_bySize(data(), 60, &none);
    EXPECT_FALSE(exists(paths_.back()));
    none.max_size = 100;
    h26x()->fw_save_stream_bySize(data(), -1, &none);
    h26x()->fw_save_stream_bySize(nullptr, 5, &none);
    h26x()->fw_save_stream_bySize(data(), 5, nullptr);
    EXPECT_EQ(none.write_size, 0u);

    // An unwritable path drops the chunk and tries again next time.
    auto bad = record("no/such/dir.264", 100);
    EXPECT_THAT(stderr_of([&] {
                    h26x()->fw_save_stream_bySize(data(), 60, &bad);
                    h26x()->fw_save_stream_bySize(data(), 60, &bad);
                }),
                FullyMatches("(" + err_line("Func_h26x_base_fw_save_stream_bySize", "error: fopen failed") + "){2}"));
    EXPECT_EQ(bad.write_size, 0u);
}

TEST_F(StreamWriterTest, DescriptorWriterAppendsAndNeverTouchesStandardStreams) {
    auto rec = record("w.265", 100);  // fd 0 means "not open"
    write_file(paths_.back(), "kept:");
    h26x()->w_save_stream_bySize(data(), 60, &rec);
    EXPECT_GT(rec.fd, 2);
    h26x()->w_save_stream_bySize(data(), 60, &rec);
    h26x()->w_save_stream_bySize(data(), 60, &rec);
    EXPECT_EQ(rec.fd, -1);
    EXPECT_EQ(read_file(paths_.back()), "kept:" + std::string(120, 'x'));

    const mode_t old_mask = umask(022);
    auto fresh = record("new.265", 10);
    h26x()->w_save_stream_bySize(data(), 4, &fresh);
    umask(old_mask);
    struct stat st {};
    ASSERT_EQ(stat(paths_.back().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);  // 0666 less the umask, like the buffered writers
    h26x()->w_save_stream_bySize(data(), 60, &fresh);
    h26x()->w_save_stream_bySize(data(), 60, &fresh);
    EXPECT_EQ(read_file(paths_.back()), std::string(64, 'x'));

    auto bad = record("missing/w.265", 10);
    EXPECT_THAT(stderr_of([&] { h26x()->w_save_stream_bySize(data(), 4, &bad); }),
                FullyMatches(err_line("Func_h26x_base_w_save_stream_bySize", "error: open failed")));
    EXPECT_LT(bad.fd, 0);
}

TEST_F(StreamWriterTest, FlagFilesStartAndStopRecording) {
    const std::string start = dir_.file("start");
    const std::string stop = dir_.file("stop");
    util_h26xBaseSaveStreamToFileByFlag_t rec{};
    rec.save = record("flag.264", 1000);
    rec.startFileFlag = start.c_str();
    rec.endFileFlag = stop.c_str();

    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    EXPECT_FALSE(exists(paths_.back()));
    write_file(start, "");
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);
    EXPECT_NE(rec.save.fp, nullptr);
    write_file(stop, "");
    h26x()->fw_save_stream_byFlag(data(), 60, &rec);  // consumed, not written
    EXPECT_FALSE(exists(start));
    EXPECT_FALSE(exists(stop));
    EXPECT_EQ(rec.save.fp, nullptr);
    EXPECT_EQ(read_file(paths_.back()), std::string(120, 'x'));

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
    EXPECT_EQ(read_file(paths_.back()), std::string(30, 'x'));
}

}  // namespace
