// The containers' out-of-memory paths, driven by the allocation countdown.
#include "../container_kinds.h"
#include "alloc_failure.h"

using namespace ctest;
using qtest::FullyMatches;

namespace {

template <class K>
using OutOfMemory = ContainerTest<K>;
TYPED_TEST_SUITE(OutOfMemory, Kinds);

// create, insert and init_list over a live list, with each allocation in turn the first to fail:
// each failure is reported, and the container or list stays as it was (the old list goes first).
TYPED_TEST(OutOfMemory, EachFailureIsReportedAndLeavesTheStateAsItWas) {
    using K = TypeParam;
    auto* ops = K::ops();
    const std::string w = K::word, num = std::string(K::linked || K::fifo ? "ql" : "sa") + " num;2\n";
    const std::string slots = std::string("error: malloc array ") + (K::fifo ? "pqa" : "psa") + "List->p" +
                              (K::fifo ? "qhal" : "shal") + "[i].pnode fail!\n";
    const std::string freed = trace<K>("exit_list", "free succeed, num;2\n");
    const std::string made = trace<K>("init_list", "malloc succeed, " + num);
    // Per failing allocation: the console, the trace, the list's entries' slots after (arrays).
    struct Row {
        std::string said, traced;
        UTIL_U32 slots = 44;
    };
    std::vector<Row> rows = {{err<K>("create", "error: malloc p" + w + " fail!\n"), ""}};
    if (K::linked) rows.push_back({err<K>("insert", "malloc " + w + " fail!\n"), ""});
    if (!K::linked) rows.push_back({err<K>("create", "error: malloc array p" + w + " pnode fail!\n"), ""});
    rows.push_back({err<K>("init_list", "error: malloc failed!!!!!"),
                    freed + trace<K>("init_list", "error, malloc failed!!!\n")});
    if (!K::linked) {
        const std::string lost = err<K>("init_list", slots), traced = trace<K>("init_list", slots + "\n");
        rows.push_back({lost + lost, freed + made + traced + traced, 0});
        rows.push_back({lost, freed + made + traced, 40});
    }
    rows.push_back({"", freed + made});
    typename K::C tmpl = K::make(Owning<K>::fun(), 4), templates[2] = {tmpl, tmpl};
    for (long k = 0; k < static_cast<long>(rows.size()); ++k) {
        typename K::L list{};
        auto& [array, max] = list;
        int v = 1;
        ASSERT_EQ(ops->init_list(&list, templates, 2), 0);
        ASSERT_EQ(ops->insert(&array[1], &v), 0);
        typename K::C* c = nullptr;
        UTIL_S32 listed = 1;  // init_list's result, 1 when not reached
        const std::size_t logged = qtest::read_file(this->log_).size();
        {
            FailAllocationsAfter guard(k);
            EXPECT_THAT(console([&] {
                if ((c = ops->create(&tmpl)) != nullptr && ops->insert(c, &v) == 0) {
                    listed = ops->init_list(&list, templates, 2);
                }
            }), FullyMatches(rows[k].said)) << k;
        }
        EXPECT_THAT(qtest::read_file(this->log_).substr(logged), FullyMatches(rows[k].traced)) << k;
        // A refused element never reached the insert callback: one element lives, in c or the old list.
        EXPECT_EQ(g.live.size(), 1u) << k;
        const long state = c == nullptr ? -1 : ops->getSize(c) * 10 + ops->getCount(c);
        EXPECT_EQ(state, k == 0 || (k == 1 && !K::linked) ? -1 : k == 1 ? 0 : K::linked ? 11 : 14) << k;
        EXPECT_EQ(array == nullptr && max == 0, k == 2) << k;
        EXPECT_EQ(listed, k < 2 ? 1 : k == 2 ? -1 : 0) << k;
        if constexpr (!K::linked) {
            if (array != nullptr) {
                EXPECT_EQ(array[0].nodeMax * 10 + array[1].nodeMax, rows[k].slots) << k;
            }
        }
        ops->destroy(&c);
        EXPECT_EQ(ops->exit_list(&list), 0);
        EXPECT_TRUE(g.live.empty()) << k;
    }
}

}  // namespace
