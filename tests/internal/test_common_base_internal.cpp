// String lists when the heap runs out: the exact report, and a partly built
// list that the release still frees completely (LeakSanitizer watches).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "alloc_failure.h"
#include "core/util_alloc.h"
#include "core/util_tables.h"
#include "common/util_common_base_internal.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

std::string without_prefix(const std::string& err) {
    static const std::regex prefix(R"(^DBG_ERR:util_common_base_function\.cpp Func_strList_malloc\[\d{4}\] )");
    EXPECT_TRUE(std::regex_search(err, prefix)) << err;
    return std::regex_replace(err, prefix, "");
}

TEST(StringListAllocation, EveryFailureIsReportedAndReleasable) {
    constexpr int kCount = 4;
    for (long allowed = 0; allowed <= kCount; ++allowed) {
        util_string_list_t list{};
        UTIL_S32 rc;
        CaptureStderr();
        {
            FailAllocationsAfter guard(allowed);
            rc = util_ops_common_base_fun.strList_malloc(&list, kCount, 24);
        }
        const std::string err = GetCapturedStderr();
        EXPECT_EQ(rc, -1) << allowed;
        if (allowed == 0) {
            EXPECT_EQ(without_prefix(err), "error: malloc faild!!! buffer:pbuf->strList, type:util_string_t, count:4\n");
            EXPECT_EQ(list.strList, nullptr);
            EXPECT_EQ(list.size, 0);
            EXPECT_EQ(Func_strList_free(list), -1);
            continue;
        }
        EXPECT_EQ(without_prefix(err), "error: malloc faild!!! buffer:pbuf->strList[index].string, type:char, count:24\n");
        ASSERT_EQ(list.size, kCount);
        // The entries made before the failure are complete, the rest empty.
        for (int i = 0; i < kCount; ++i) {
            const bool built = i < allowed - 1;
            EXPECT_EQ(list.strList[i].string != nullptr, built) << allowed << " " << i;
            EXPECT_EQ(list.strList[i].length, built ? 24 : 0);
        }
        EXPECT_EQ(Func_strList_free(list), 0);
    }
}

}  // namespace
