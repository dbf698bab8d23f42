// String lists: a partly built list must still be released completely (LeakSanitizer watches).
#include <gtest/gtest.h>

#include <string>

#include "alloc_failure.h"
#include "common/util_common_base_internal.h"
#include "core/util_tables.h"

TEST(StringList, ShapesFailuresAndRelease) {
    // Builds a list with `allowed` allocations granted (-1 for all); returns the code and the message.
    const auto build = [](util_string_list_t* list, int count, int size, long allowed = -1) {
        testing::internal::CaptureStderr();
        FailAllocationsAfter guard(allowed);
        const int rc = util_ops_common_base_fun.strList_malloc(list, count, size);
        const std::string err = testing::internal::GetCapturedStderr();
        return std::make_pair(rc, err.empty() ? "" : err.substr(err.find("] ") + 2));
    };
    util_string_t junk{};
    EXPECT_EQ(build(nullptr, 1, 1), std::make_pair(-1, std::string("error: pbuf is NULL!!!\n")));
    // Refused shapes leave the record empty, so a release after is harmless.
    for (auto [count, size] : {std::pair{0, 16}, {3, 0}, {-1, 16}, {3, -8}}) {
        util_string_list_t list{&junk, 99};
        const std::string want = "count:" + std::to_string(count) + " and size:" + std::to_string(size);
        EXPECT_EQ(build(&list, count, size), std::make_pair(-1, "error: " + want + " must be positive!!!\n"));
        EXPECT_TRUE(list.strList == nullptr && list.size == 0 && Func_strList_free(list) == -1) << count;
    }
    util_string_list_t one{};  // the smallest list: one text of one byte
    EXPECT_EQ(build(&one, 1, 1), std::make_pair(0, std::string()));
    EXPECT_TRUE(one.size == 1 && one.strList[0].length == 1 && *one.strList[0].string == '\0');
    EXPECT_EQ(Func_strList_free(one), 0);
    // Four texts of 24 bytes take five allocations; entries made before a failure are whole.
    const std::string failed = "error: malloc faild!!! buffer:pbuf->strList";
    const std::string messages[] = {failed + ", type:util_string_t, count:4\n",
                                    failed + "[index].string, type:char, count:24\n", ""};
    for (long allowed = 0; allowed <= 5; ++allowed) {
        util_string_list_t list{&junk, 99};
        const auto want = std::make_pair(allowed == 5 ? 0 : -1, messages[(allowed > 0) + (allowed == 5)]);
        EXPECT_EQ(build(&list, 4, 24, allowed), want);
        ASSERT_EQ(list.size, allowed == 0 ? 0 : 4);
        for (int i = 0; i < list.size; ++i) EXPECT_EQ(list.strList[i].length, i + 1 < allowed ? 24 : 0) << i;
        EXPECT_EQ(Func_strList_free(list), allowed == 0 ? -1 : 0);
    }
}
