// The scanners and every start-code search against the plain scan, and out of memory.
#include <array>

#include "alloc_failure.h"
#include "h26x_reference.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// `units` units behind four-byte start codes, the last an IDR picture with `tail` bytes behind its header.
Bytes frame_of(int units, int tail) {
    Bytes f;
    for (int u = 1; u <= units; ++u) {
        f.insert(f.end(), {0, 0, 0, 1, static_cast<std::uint8_t>(u == units ? 0x65 : 0x06)});
        f.insert(f.end(), static_cast<std::size_t>(u == units ? tail : u % 7), 0x55);
    }
    return f;
}

// Random frames at random alignment cross every block and stride; any non-zero flag means "all units".
TEST(StartCodeSearch, ScannersAndEveryPathAgreeWithThePlainScan) {
    int paths = 0;
    for (const auto isa : quillane::kAllScanIsas) paths += quillane::start_code_search_for(isa) != nullptr;
    ASSERT_GE(paths, 2);  // plain and the architecture's baseline vectors at least
    // Around the number of units V2's first pass remembers.
    const Bytes edges[] = {frame_of(511, 9), frame_of(512, 9), frame_of(513, 9), frame_of(1100, 9)};
    std::mt19937 rng(7);
    ::testing::internal::CaptureStderr();  // refusals are expected by the thousand
    for (std::size_t round = 0; round < 5000; ++round) {
        Bytes f = round < std::size(edges) ? edges[round] : qtest::random_frame(rng);
        if (round % 4 == 1) {  // a lone start code: a block that skips a lane has nothing else to find
            f.assign(5 + rng() % 700, 0x80);
            f.insert(f.begin() + static_cast<std::ptrdiff_t>(rng() % f.size()), {0, 0, 0, 1});
        }
        const std::size_t skew = rng() % 64;
        Bytes block(skew + f.size());  // exactly sized: the sanitizers see a read past the end
        std::copy(f.begin(), f.end(), block.begin() + static_cast<std::ptrdiff_t>(skew));
        auto* b = f.empty() ? nullptr : block.data() + skew;
        const auto size = static_cast<std::int32_t>(f.size());
        ASSERT_EQ(qtest::check_searches(b, size, std::int64_t(rng() % (size + 2)) - 1), "") << round;
        ASSERT_EQ(qtest::check_scanners(b, size, std::array{1, -1, 0x100}[round % 3]), "") << round;
    }
    ::testing::internal::GetCapturedStderr();
}

// A path the CPU or the build lacks, or an unknown name, leaves the widest in place.
TEST(StartCodeSearch, ForcedPathsAndTheirFallback) {
    const quillane::ScanIsa widest = quillane::choose_scan_isa(nullptr);
    for (const quillane::ScanIsa isa : quillane::kAllScanIsas)
        EXPECT_EQ(quillane::choose_scan_isa(quillane::scan_isa_name(isa)),
                  quillane::start_code_search_for(isa) != nullptr ? isa : widest);
    for (const char* name : {"", "AVX2", "avx", "sse2 "}) EXPECT_EQ(quillane::choose_scan_isa(name), widest);
}

// Each allocation failing in turn: said, V2's old array gone, V3's units found so far kept until released.
TEST(ScannerAllocation, FailuresAreReportedAndLeaveNothingBehind) {
    const util_ops_h26x_base_fun_t& h = *util_ops_pfun->h26x_base;
    Bytes f = frame_of(10, 2);
    util_list_h26x_frame_buf_info_t v2{nullptr, 0, f.data(), static_cast<UTIL_S32>(f.size())};
    util_link_h26x_frame_buf_info_t v3{nullptr, 0, f.data(), static_cast<UTIL_S32>(f.size())};
    const std::string at = "util_h26x_base_function", fn = "_h26x_frame_buf_info_function";
    const std::string in_v2 = qtest::console_error(at, "Func_V2_init_list" + fn, "error: "), failed = "malloc failed!!!!!";
    const std::string in_v3 = qtest::console_error(at, "Func_V3_init_link" + fn, "error: link ");
    ASSERT_EQ(h.V2_init_list(&v2, 1), 0);
    for (long allowed = 0; allowed <= 10; ++allowed) {
        const std::string said = qtest::console([&] {
            FailAllocationsAfter guard(allowed);
            EXPECT_EQ(h.V3_init_list(&v3, 1), -1);
            EXPECT_EQ(allowed == 0 ? h.V2_init_list(&v2, 1) : -1, -1);
        });
        const std::string text = allowed > 0 ? "next " + failed : "head " + failed + in_v2 + failed;
        EXPECT_THAT(said, qtest::FullyMatches(in_v3 + text));
        EXPECT_EQ(v3.count, allowed);
        EXPECT_EQ(h.V3_exit_list(&v3), 0);
    }
    EXPECT_TRUE(v2.phfbi == nullptr && v2.hfbiMax == 0);
}

}  // namespace
