// The bit reader, the scanners' refusals and the size-bounded writers. The scanners' units are held to
// the plain scan in the internal tests; recording between flag files is run by the h26x_base example.
#include <sys/stat.h>

#include "test_support.h"

using namespace qtest;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

util_ops_h26x_base_fun_t* h26x() { return util_ops_pfun->h26x_base; }

std::string err_line(const std::string& function, const std::string& text) {
    return "DBG_ERR:util_h26x_base_function\\.cpp Func_" + function + "\\[[0-9]{4}\\] " + regex_escape(text);
}

TEST(H26xBitReader, ReadsAcrossBytesAndRefusesOutOfRange) {
    const UTIL_UCHAR data[] = {0xA5, 0x3C, 0xFF, 0x01, 0x80};
    enum { kData = 1, kResult = 2 };  // the pointer passed as null
    // value -1: refused with the result left alone, and with the out-of-range message when `said`.
    const struct { int start, bit, end, bits, null; std::int64_t value; bool said; } rows[] = {
        {0, 0, 2, 2, 0, 0b10, false},  // lowest bit of 0xA5, highest of 0x3C
        {0, 7, 0, 0, kData, 0, false},  // nothing to read needs no data
        {0, 7, 1, 8, 0, 0xA5, false},     {1, 3, 5, 20, 0, 0xCFF01, false}, {0, 7, 5, 32, 0, 0xA53CFF01, false},
        {4, 7, 5, 0, 0, 0, false},        {0, 7, 1, 9, 0, -1, true},        {4, 0, 5, 2, 0, -1, true},
        {0, 8, 5, 1, 0, -1, false},       {0, -1, 5, 1, 0, -1, false},      {0, 7, 5, 33, 0, -1, false},
        {-1, 7, 5, 1, 0, -1, false},      {0, 7, 5, 1, kResult, -1, false}, {0, 7, 5, 1, kData, -1, false},
    };
    const std::string outrange = err_line("h26x_base_readBitsToU32", "error: readBits outrange data array");
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << r.start << "." << r.bit << " +" << r.bits << " null " << r.null);
        UTIL_U32 v = 0xDEAD;
        CaptureStderr();
        const int rc = h26x()->readBitsToU32(r.null == kData ? nullptr : data, r.start,
                                             static_cast<UTIL_S8>(r.bit), r.end, static_cast<UTIL_U8>(r.bits),
                                             r.null == kResult ? nullptr : &v);
        EXPECT_THAT(GetCapturedStderr(), FullyMatches(r.said ? outrange : ""));
        EXPECT_EQ(rc, r.value < 0 ? -1 : 0);
        EXPECT_EQ(v, r.value < 0 ? 0xDEADu : r.value);
    }
}

// What each scanner says when it refuses, in order on shared records.
TEST(H26xScanners, RefusalsSayWhy) {
    const util_ops_h26x_base_fun_t* h = h26x();
    // Eight units for V1's record of seven; a picture 8 bytes before the end.
    std::vector<UTIL_UCHAR> eight, late = {0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x65, 1, 2, 3};
    for (int u : {0x67, 0x68, 6, 6, 6, 6, 6, 0x65}) eight.insert(eight.end(), {0, 0, 0, 1, UTIL_UCHAR(u), 9});
    const int n = static_cast<int>(late.size());
    util_h26x_frame_buf_info_t rec{};
    util_list_h26x_frame_buf_info_t list{nullptr, 0, late.data(), n}, no_frame{nullptr, 0, nullptr, 20};
    util_link_h26x_frame_buf_info_t link{nullptr, 0, late.data(), n}, empty{nullptr, 0, late.data(), 0};
    auto v1 = [&](util_h26x_frame_buf_info_t* r, std::vector<UTIL_UCHAR>& f) {
        return h->V1_get_hfbi(r, f.data(), static_cast<int>(f.size()), ENUM_UTIL_H264_STREAM_TYPE, 0);
    };
    CaptureStderr();
    const std::vector<int> results = {
        v1(&rec, eight),           v1(&rec, late),              v1(nullptr, late),
        h->V2_init_list(&list, 0), h->V2_init_list(nullptr, 1), h->V2_init_list(&no_frame, 1),
        h->V2_exit_list(nullptr),  h->V3_init_list(&link, 0),   h->V3_init_list(&link, 0),
        h->V3_init_list(&empty, 1), h->V3_init_list(nullptr, 1), h->V3_exit_list(nullptr)};
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(results, std::vector<int>(12, -1));
    const std::string none = "error: no IDR or P frame nalu type!!!";
    const std::string no_list = "error: phfbiList or frame_buf is NULL, frame_size:";
    const std::string no_link = "error: phfbiLink or frame_buf is NULL, frame_size:0!!!";
    const std::pair<const char*, std::string> said[] = {
        {"V1_get", "error: max is out of range!!! max=8"}, {"V1_get", none},
        {"V1_get", "error: phfbi or frame_buf is NULL, frame_size:13!!!"}, {"V2_init_list", none},
        {"V2_init_list", no_list + "0!!!"}, {"V2_init_list", no_list + "20!!!"},
        {"V2_exit_list", "error: phfbiList is NULL!"}, {"V3_init_link", none},
        // The failed scan left its chain on the record: released, with a warning.
        {"V3_init_link", "warning: phfbiLink head is not NULL or count is not 0!"}, {"V3_init_link", none},
        {"V3_init_link", no_link}, {"V3_init_link", no_link}, {"V3_exit_link", "error: phfbiLink is NULL!"},
    };
    const char* kSuffix = "_h26x_frame_buf_info_function";
    std::string want;
    for (const auto& [function, text] : said) want += err_line(std::string(function) + kSuffix, text);
    EXPECT_THAT(err, FullyMatches(want));
    h->V3_exit_list(&link);
}

// Both writers: refused chunks are not counted; an unopenable path is said and tried again each time;
// files are made 0666 less the umask; the buffered writer truncates, the other appends.
TEST(H26xStreamWriters, RefusalsOpenFailuresModesAndAppending) {
    TempDir dir;
    std::string x(60, 'x');
    using Writer = void (*)(UTIL_CHAR*, UTIL_S32, util_h26xBaseSaveStreamToFile_t*);
    const struct { Writer write; const char *function, *open_failed; std::size_t kept; } writers[] = {
        {h26x()->fw_save_stream_bySize, "h26x_base_fw_save_stream_bySize", "error: fopen failed", 60},
        {h26x()->w_save_stream_bySize, "h26x_base_w_save_stream_bySize", "error: open failed", 64},
    };
    for (const auto& w : writers) {
        SCOPED_TRACE(w.function);
        const std::string path = dir.file(w.function);
        util_h26xBaseSaveStreamToFile_t rec{};  // fd 0 means "not open"; fp and fd share their storage
        rec.file_name = "/dev/null/no";
        CaptureStderr();
        w.write(x.data(), 60, &rec);  // no budget: nothing is opened
        rec.max_size = 4;
        w.write(x.data(), -1, &rec);
        w.write(nullptr, 5, &rec);
        w.write(x.data(), 5, nullptr);
        w.write(x.data(), 4, &rec);
        w.write(x.data(), 4, &rec);
        EXPECT_THAT(GetCapturedStderr(), FullyMatches("(" + err_line(w.function, w.open_failed) + "){2}"));
        EXPECT_EQ(rec.write_size, 0u);

        rec.file_name = path.c_str();
        const mode_t old_mask = umask(022);
        w.write(x.data(), 4, &rec);
        umask(old_mask);
        w.write(x.data(), 4, &rec);  // budget spent: closed
        struct stat st {};
        EXPECT_EQ(stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0644u);
        rec.write_size = 0;
        w.write(x.data(), 60, &rec);
        w.write(x.data(), 60, &rec);
        EXPECT_EQ(read_file(path), std::string(w.kept, 'x'));
    }
}

}  // namespace
