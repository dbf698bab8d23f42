// The vectorised start-code search against a byte-by-byte one, and the
// scanners' out-of-memory paths, driven by the allocation countdown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "alloc_failure.h"
#include "core/util_alloc.h"
#include "core/util_tables.h"
#include "h26x/util_h26x_base_internal.h"
#include "h26x_reference.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

using qtest::check_searches;

// Every search this build has and this CPU runs (on x86-64 plain, SSE2 and
// whichever of AVX2 and AVX-512 the machine has; on aarch64 plain and NEON).
std::vector<quillane::ScanIsa> runnable_isas() {
    std::vector<quillane::ScanIsa> out;
    for (const quillane::ScanIsa isa : quillane::kAllScanIsas) {
        if (quillane::start_code_search_for(isa) != nullptr) out.push_back(isa);
    }
    return out;
}

TEST(StartCodeSearch, EveryPathGivesTheByteByByteAnswer) {
#if defined(__x86_64__)
    ASSERT_GE(runnable_isas().size(), 2u);  // plain and SSE2 at least
#elif defined(__aarch64__)
    ASSERT_EQ(runnable_isas().size(), 2u);  // plain and NEON
#endif
    std::mt19937 rng(11);
    // Mostly zeros and ones, or sparse ones among payload bytes: candidates
    // land on every lane, block edge and alignment, and in the last bytes.
    std::discrete_distribution<int> kind({50, 25, 25});
    std::vector<UTIL_UCHAR> store;
    for (int round = 0; round < 1500; ++round) {
        const std::size_t size = std::uniform_int_distribution<std::size_t>(0, round % 5 == 0 ? 1200 : 300)(rng);
        // The frame ends where its heap block ends (the sanitizers watch for
        // reads past it) and starts at any alignment.
        const std::size_t skew = rng() % 64;
        store.assign(skew + size, 0);
        UTIL_UCHAR* b = store.data() + skew;
        for (std::size_t k = 0; k < size; ++k) {
            const int t = round % 3 == 0 ? kind(rng) : (rng() % 64 == 0 ? kind(rng) : 2);
            b[k] = static_cast<UTIL_UCHAR>(t == 0 ? 0 : t == 1 ? 1 : 0x80 + rng() % 100);
        }
        for (int probe = 0; probe < 8; ++probe) {
            const std::int64_t from = probe == 0 ? -3 : static_cast<std::int64_t>(rng() % (size + 2));
            ASSERT_EQ(check_searches(b, static_cast<std::int64_t>(size), from), "") << "round " << round;
        }
    }
    // One start code, or a code cut off by the end, at every position of
    // frames around each block and stride size and at every alignment that
    // moves it across a vector boundary, behind a zero pair that is not one.
    for (const std::int64_t size : {4, 5, 19, 20, 21, 36, 37, 64, 65, 81, 97, 129, 160, 255, 256, 257, 300, 530}) {
        for (const std::size_t skew : {0, 1, 2, 15, 33, 63}) {
            store.assign(skew + static_cast<std::size_t>(size), 0x80);
            UTIL_UCHAR* b = store.data() + skew;
            for (std::int64_t at = 0; at + 4 <= size; ++at) {
                std::fill(b, b + size, 0x80);
                if (at >= 5 && at % 3 == 0) b[at - 4] = b[at - 5] = 0;  // 00 00 80: a pair alone
                b[at] = b[at + 1] = b[at + 2] = 0;
                b[at + 3] = 1;
                for (const std::int64_t from : {at - 1, at, at + 1}) {
                    ASSERT_EQ(check_searches(b, size, from), "") << "skew " << skew << " at " << at;
                }
            }
        }
    }
}

TEST(StartCodeSearch, ForcedPathsAndTheirFallback) {
    using quillane::ScanIsa;
    const auto isas = runnable_isas();
    const ScanIsa widest = quillane::choose_scan_isa(nullptr);
    EXPECT_EQ(widest, isas.back());  // listed narrowest first
    for (const auto isa : isas) EXPECT_EQ(quillane::choose_scan_isa(quillane::scan_isa_name(isa)), isa);
    // Unknown names, names in another case, and paths the CPU or the build
    // lacks leave the widest one in place.
    for (const char* name : {"", "AVX2", "avx", "sse2 ", "x"}) {
        EXPECT_EQ(quillane::choose_scan_isa(name), widest) << name;
    }
    for (const ScanIsa isa : quillane::kAllScanIsas) {
        if (quillane::start_code_search_for(isa) == nullptr) {
            EXPECT_EQ(quillane::choose_scan_isa(quillane::scan_isa_name(isa)), widest);
        }
    }
    EXPECT_EQ(quillane::active_scan_isa(), quillane::choose_scan_isa(std::getenv("QUILLANE_SCAN_ISA")));
}

std::vector<UTIL_UCHAR> ten_unit_frame() {
    std::vector<UTIL_UCHAR> f;
    for (int u = 0; u < 10; ++u) f.insert(f.end(), {0, 0, 0, 1, 0x06, 0xAB, 0xCD});
    return f;
}

TEST(ScannerAllocation, FailuresAreReportedAndLeaveNothingBehind) {
    auto f = ten_unit_frame();
    util_list_h26x_frame_buf_info_t v2{nullptr, 0, f.data(), static_cast<UTIL_S32>(f.size())};
    ASSERT_EQ(util_ops_h26x_base_fun.V2_init_list(&v2, 1), 0);
    {
        FailAllocationsAfter guard(0);
        CaptureStderr();
        EXPECT_EQ(util_ops_h26x_base_fun.V2_init_list(&v2, 1), -1);
        EXPECT_THAT(GetCapturedStderr(), ::testing::MatchesRegex("DBG_ERR:util_h26x_base_function.cpp "
                                                                 "Func_V2_init_list_h26x_frame_buf_info_function"
                                                                 ".[0-9]+. error: malloc failed!!!!!"));
    }
    EXPECT_EQ(v2.phfbi, nullptr);  // the old array was released first
    EXPECT_EQ(v2.hfbiMax, 0);

    util_link_h26x_frame_buf_info_t v3{nullptr, 0, f.data(), static_cast<UTIL_S32>(f.size())};
    {
        FailAllocationsAfter guard(0);
        CaptureStderr();
        EXPECT_EQ(util_ops_h26x_base_fun.V3_init_list(&v3, 1), -1);
        EXPECT_THAT(GetCapturedStderr(), ::testing::HasSubstr("error: link head malloc failed!!!!!"));
        EXPECT_EQ(v3.head, nullptr);
    }
    for (long allowed = 1; allowed <= 10; ++allowed) {
        {
            FailAllocationsAfter guard(allowed);
            CaptureStderr();
            EXPECT_EQ(util_ops_h26x_base_fun.V3_init_list(&v3, 1), -1);
            EXPECT_THAT(GetCapturedStderr(), ::testing::HasSubstr("error: link next malloc failed!!!!!"));
        }
        // The units found so far stay on the record until it is released.
        EXPECT_EQ(v3.count, allowed);
        int nodes = 0;
        for (auto* n = v3.head; n != nullptr; n = n->next) ++nodes;
        EXPECT_EQ(nodes, allowed);
        EXPECT_EQ(util_ops_h26x_base_fun.V3_exit_list(&v3), 0);
    }
    ASSERT_EQ(util_ops_h26x_base_fun.V3_init_list(&v3, 1), 0);
    EXPECT_EQ(v3.count, 10);
    util_ops_h26x_base_fun.V3_exit_list(&v3);
}

}  // namespace
