// String lists when the heap runs out: the exact report, and a partly built
// list that the release still frees completely (LeakSanitizer watches).
#include <gtest/gtest.h>

#include <string>

#include "alloc_failure.h"
#include "common/util_common_base_internal.h"
#include "core/util_tables.h"

namespace {

TEST(StringListAllocation, EveryFailureIsReportedAndReleasable) {
    constexpr int kCount = 4;
    for (long allowed = 0; allowed <= kCount; ++allowed) {
        util_string_list_t list{};
        UTIL_S32 rc;
        testing::internal::CaptureStderr();
        {
            FailAllocationsAfter guard(allowed);
            rc = util_ops_common_base_fun.strList_malloc(&list, kCount, 24);
        }
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(rc, -1) << allowed;
        EXPECT_EQ(err.rfind("DBG_ERR:util_common_base_function.cpp Func_strList_malloc[", 0), 0u) << err;
        EXPECT_EQ(err.substr(err.find("] ") + 2),
                  allowed == 0 ? "error: malloc faild!!! buffer:pbuf->strList, type:util_string_t, count:4\n"
                               : "error: malloc faild!!! buffer:pbuf->strList[index].string, type:char, count:24\n");
        ASSERT_EQ(list.size, allowed == 0 ? 0 : kCount);
        // The entries made before the failure are complete, the rest empty.
        for (int i = 0; i < list.size; ++i) {
            EXPECT_EQ(list.strList[i].string != nullptr, i < allowed - 1) << allowed << " " << i;
            EXPECT_EQ(list.strList[i].length, i < allowed - 1 ? 24 : 0);
        }
        EXPECT_EQ(list.strList == nullptr, allowed == 0);
        EXPECT_EQ(Func_strList_free(list), allowed == 0 ? -1 : 0);
    }
}

}  // namespace
