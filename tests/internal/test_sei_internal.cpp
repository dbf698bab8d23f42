// The context list when memory runs out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "alloc_failure.h"
#include "util_dbgout_internal.h"
#include "util_h26x_high_seiTimeCode_internal.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

TEST(SeiContextList, OutOfMemoryLeavesAnEmptyList) {
    util_h26x_sei_tim_config_param_t c[3] = {};
    for (auto& one : c) one.h26x_type = ENUM_UTIL_H265_STREAM_TYPE;
    util_list_h26x_sei_tim_t list{};
    // Traces are not the point here; keep them away from the device log.
    util_dbgout_t* dbg = util_ops_dbgout_fun.pstDebugAttr->get();
    const UTIL_U32 saved_type = dbg->enType;
    dbg->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    auto& ops = util_ops_h26x_high_seiTimeCode_fun;
    ASSERT_EQ(ops.init_list(&list, c, 1), 0);
    int rc;
    std::string err;
    {
        FailAllocationsAfter guard(0);
        CaptureStderr();
        rc = ops.init_list(&list, c, 3);
        err = GetCapturedStderr();
    }
    EXPECT_EQ(rc, -1);
    EXPECT_THAT(err, ::testing::MatchesRegex("DBG_ERR:util_h26x_high_seiTimeCode_function.cpp "
                                             "Func_h26x_high_sei_timing_init_list_function.[0-9]+. "
                                             "error: malloc failed!!!!!"));
    // The old array went first, so nothing is left and nothing leaks.
    EXPECT_EQ(list.ph26xSeiTim, nullptr);
    EXPECT_EQ(list.h26xSeiTimMax, 0);
    ASSERT_EQ(ops.init_list(&list, c, 2), 0);
    EXPECT_EQ(list.h26xSeiTimMax, 2);
    ops.exit_list(&list);
    dbg->enType = saved_type;
}

}  // namespace
