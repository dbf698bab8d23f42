// The bit reader, the scanners' refusals and the size-bounded writers (the scans: the internal tests).
#include "test_support.h"

using namespace qtest;

namespace {

std::string err_line(const std::string& function, const std::string& text) {
    return console_error("util_h26x_base_function", "Func_" + function, regex_escape(text));
}

TEST(H26xBitReader, ReadsAcrossBytesAndRefusesOutOfRange) {
    const UTIL_UCHAR data[] = {0xA5, 0x3C, 0xFF, 0x01, 0x80};
    enum { kData = 1, kResult = 2, kSaid = -2 };  // which pointer is null; kSaid: refused, and said why
    const struct { int start; UTIL_S8 bit; int end; UTIL_U8 bits; int null; std::int64_t value; } rows[] = {
        {0, 0, 2, 2, 0, 0b10}, {0, 7, 0, 0, kData, 0}, {0, 7, 1, 8, 0, 0xA5}, {1, 3, 5, 20, 0, 0xCFF01},
        {0, 7, 5, 32, 0, 0xA53CFF01}, {4, 7, 5, 0, 0, 0}, {0, 7, 1, 9, 0, kSaid}, {4, 0, 5, 2, 0, kSaid},
        {0, 8, 5, 1, 0, -1}, {0, -1, 5, 1, 0, -1}, {0, 7, 5, 33, 0, -1}, {-1, 7, 5, 1, 0, -1},
        {0, 7, 5, 1, kResult, -1}, {0, 7, 5, 1, kData, -1},
    };
    const std::string outrange = err_line("h26x_base_readBitsToU32", "error: readBits outrange data array");
    const auto read = util_ops_pfun->h26x_base->readBitsToU32;
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << "row " << &r - rows);
        UTIL_U32 v = 0xDEAD;
        EXPECT_THAT(console([&] {
            EXPECT_EQ(read(r.null == kData ? nullptr : data, r.start, r.bit, r.end, r.bits,
                           r.null == kResult ? nullptr : &v), r.value < 0 ? -1 : 0);
        }), FullyMatches(r.value == kSaid ? outrange : ""));
        EXPECT_EQ(v, r.value < 0 ? 0xDEADu : r.value);
    }
}

TEST(H26xScanners, RefusalsSayWhy) {
    const util_ops_h26x_base_fun_t* h = util_ops_pfun->h26x_base;
    // Eight units for V1's record of seven; a picture 8 bytes before the end.
    std::vector<UTIL_UCHAR> eight, late = {0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x65, 1, 2, 3};
    for (int u : {0x67, 0x68, 6, 6, 6, 6, 6, 0x65}) eight.insert(eight.end(), {0, 0, 0, 1, UTIL_UCHAR(u), 9});
    const int n = static_cast<int>(late.size());
    util_h26x_frame_buf_info_t rec{};
    util_list_h26x_frame_buf_info_t list{nullptr, 0, late.data(), n}, no_frame{nullptr, 0, nullptr, 20};
    util_link_h26x_frame_buf_info_t link{nullptr, 0, late.data(), n}, empty{nullptr, 0, late.data(), 0};
    const auto h264 = ENUM_UTIL_H264_STREAM_TYPE;
    std::vector<int> results;
    const std::string err = console([&] {
        results = {h->V1_get_hfbi(&rec, eight.data(), 48, h264, 0),
                   h->V1_get_hfbi(&rec, late.data(), n, h264, 0),
                   h->V1_get_hfbi(nullptr, late.data(), n, h264, 0),
                   h->V2_init_list(&list, 0), h->V2_init_list(nullptr, 1), h->V2_init_list(&no_frame, 1),
                   h->V2_exit_list(nullptr), h->V3_init_list(&link, 0), h->V3_init_list(&link, 0),
                   h->V3_init_list(&empty, 1), h->V3_init_list(nullptr, 1), h->V3_exit_list(nullptr)};
    });
    EXPECT_EQ(results, std::vector<int>(12, -1));
    const std::string none = "error: no IDR or P frame nalu type!!!";
    const std::string no_list = "error: phfbiList or frame_buf is NULL, frame_size:";
    const std::string no_link = "error: phfbiLink or frame_buf is NULL, frame_size:0!!!";
    const std::pair<std::string, std::string> said[] = {
        {"V1_get", "error: max is out of range!!! max=8"}, {"V1_get", none},
        {"V1_get", "error: phfbi or frame_buf is NULL, frame_size:13!!!"}, {"V2_init_list", none},
        {"V2_init_list", no_list + "0!!!"}, {"V2_init_list", no_list + "20!!!"},
        {"V2_exit_list", "error: phfbiList is NULL!"}, {"V3_init_link", none},
        // The failed scan left its chain on the record: released, with a warning.
        {"V3_init_link", "warning: phfbiLink head is not NULL or count is not 0!"}, {"V3_init_link", none},
        {"V3_init_link", no_link}, {"V3_init_link", no_link}, {"V3_exit_link", "error: phfbiLink is NULL!"},
    };
    std::string want;
    for (const auto& [f, text] : said) want += err_line(f + "_h26x_frame_buf_info_function", text);
    EXPECT_THAT(err, FullyMatches(want));
    h->V3_exit_list(&link);
}

// Refused chunks are not counted; a failed open is said and tried again; the buffered writer truncates.
TEST(H26xStreamWriters, RefusalsOpenFailuresAndAppending) {
    TempDir dir;
    std::string x(60, 'x');
    const util_ops_h26x_base_fun_t* h = util_ops_pfun->h26x_base;
    using Writer = decltype(h->fw_save_stream_bySize);
    const struct { Writer write; const char *function, *open_failed; std::size_t kept; } writers[] = {
        {h->fw_save_stream_bySize, "h26x_base_fw_save_stream_bySize", "error: fopen failed", 60},
        {h->w_save_stream_bySize, "h26x_base_w_save_stream_bySize", "error: open failed", 64},
    };
    for (const auto& w : writers) {
        SCOPED_TRACE(w.function);
        const std::string path = dir.file(w.function);
        util_h26xBaseSaveStreamToFile_t rec{};  // fd 0 means "not open"; fp and fd share their storage
        rec.file_name = "/dev/null/no";
        EXPECT_THAT(console([&] {
            w.write(x.data(), 60, &rec);  // no budget: nothing is opened
            rec.max_size = 4;
            w.write(x.data(), -1, &rec);
            w.write(nullptr, 5, &rec);
            w.write(x.data(), 5, nullptr);
            w.write(x.data(), 4, &rec);
            w.write(x.data(), 4, &rec);
        }), FullyMatches("(" + err_line(w.function, w.open_failed) + "){2}"));
        EXPECT_EQ(rec.write_size, 0u);
        rec.file_name = path.c_str();
        w.write(x.data(), 4, &rec);
        w.write(x.data(), 4, &rec);  // budget spent: closed
        rec.write_size = 0;
        w.write(x.data(), 60, &rec);
        w.write(x.data(), 60, &rec);
        EXPECT_EQ(read_file(path), std::string(w.kept, 'x'));
    }
}

}  // namespace
