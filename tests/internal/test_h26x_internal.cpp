// The vectorised start-code search against a byte-by-byte one, and the
// scanners' out-of-memory paths, driven by the allocation countdown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <vector>

#include "alloc_failure.h"
#include "util_alloc.h"
#include "util_h26x_base_internal.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

std::int64_t plain_find(const std::vector<UTIL_UCHAR>& b, std::int64_t from, std::int64_t size) {
    for (std::int64_t i = from; i < size - 4; ++i) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 0 && b[i + 3] == 1) return i;
    }
    return -1;
}

TEST(StartCodeSearch, SameAnswerAsAByteByByteScan) {
    std::mt19937 rng(11);
    // Mostly zeros and ones, so candidates are dense and land on every lane,
    // block edge and tail position.
    std::discrete_distribution<int> kind({50, 25, 25});
    for (int round = 0; round < 3000; ++round) {
        const std::size_t size = std::uniform_int_distribution<std::size_t>(0, 300)(rng);
        std::vector<UTIL_UCHAR> b(size);
        const int density = round % 3;
        for (auto& x : b) {
            const int k = density == 0 ? kind(rng) : (rng() % 64 == 0 ? kind(rng) : 2);
            x = static_cast<UTIL_UCHAR>(k == 0 ? 0 : k == 1 ? 1 : 0x80 + rng() % 100);
        }
        for (std::int64_t from = 0; from <= static_cast<std::int64_t>(size); from += 1 + round % 7) {
            ASSERT_EQ(quillane::find_start_code(b.data(), from, static_cast<std::int64_t>(size)),
                      plain_find(b, from, static_cast<std::int64_t>(size)))
                << "round " << round << " from " << from;
        }
    }
    // The search must not read past the frame: a start code straddling the
    // end of an exactly sized heap buffer is not found (the sanitizers watch).
    for (std::size_t size = 4; size < 140; ++size) {
        std::vector<UTIL_UCHAR> b(size, 0);
        b[size - 1] = 1;
        EXPECT_EQ(quillane::find_start_code(b.data(), 0, static_cast<std::int64_t>(size)), -1) << size;
        b.push_back(0x65);
        EXPECT_EQ(quillane::find_start_code(b.data(), 0, static_cast<std::int64_t>(size + 1)),
                  static_cast<std::int64_t>(size) - 4);
    }
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
        EXPECT_TRUE(std::regex_match(GetCapturedStderr(),
                                     std::regex(R"(DBG_ERR:util_h26x_base_function\.cpp )"
                                                R"(Func_V2_init_list_h26x_frame_buf_info_function\[\d{4}\] )"
                                                R"(error: malloc failed!!!!!)")));
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
