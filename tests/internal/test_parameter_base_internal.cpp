// The parameter registry's out-of-memory paths, failing each allocation of a build in turn.
#include "../test_support.h"
#include "alloc_failure.h"

namespace {

using ParameterOutOfMemory = qtest::DebugRecordTest;

// Six allocations (classes, three parameter arrays, two texts): each failure leaves an
// empty list, the old one released first, and nothing leaked.
TEST_F(ParameterOutOfMemory, EveryFailedAllocationLeavesAnEmptyListAndNoLeak) {
    const std::string log = use_log("param.log");
    util_parameter_base_one_t a[2] = {{0, 0, 0, 1, nullptr, const_cast<char*>("t0"), "d", "n", nullptr, 0},
                                      {0, 0, 0, 1, nullptr, const_cast<char*>("t1"), "d", "n", nullptr, 0}};
    util_parameter_base_one_t b[1] = {{0, 0, 0, 1, nullptr, nullptr, "d", "n", nullptr, 0}};
    util_parameter_class_t app[3] = {{"/a", a, 2, nullptr, 0, {}, 0, 0}, {"/b", b, 1, nullptr, 0, {}, 0, 0},
                                     {"/c", nullptr, 0, nullptr, 0, {}, 0, 0}};
    auto* reg = util_ops_pfun->parameter_base;
    util_list_parameter_class_t list{};
    for (long allowed = 0; allowed < 6; ++allowed) {
        ASSERT_EQ(reg->init_list(&list, app, 1), 0);
        qtest::write_file(log, "");
        FailAllocationsAfter guard(allowed);
        EXPECT_THAT(qtest::console([&] { EXPECT_EQ(reg->init_list(&list, app, 3), -1) << allowed; }),
                    qtest::FullyMatches(qtest::console_error("util_parameter_base_function",
                                        "Func_parameter_base_init_list_function", "error: malloc failed!!!!!")));
        EXPECT_EQ(std::make_tuple(list.pclass, list.classMax), std::make_tuple(nullptr, 0));
        EXPECT_THAT(qtest::read_file(log),
                    qtest::FullyMatches(R"([^\n]*free succeed, num;1\n[\s\S]*\] error, malloc failed!!!\n)"));
    }
    FailAllocationsAfter enough(6);
    EXPECT_EQ(reg->init_list(&list, app, 3), 0);
    EXPECT_STREQ(list.pclass[0].paraList[1].text, "t1");
    EXPECT_EQ(reg->exit_list(&list), 0);
}

}  // namespace
