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
    const std::string w = K::word, entries = K::elems + "List->p" + (K::fifo ? "qhal" : "shal");
    const std::string slots = err<K>("init_list", "error: malloc array " + entries + "[i].pnode fail!\n");
    // Per failing allocation: the console, and the slots of the list's two entries after (arrays).
    std::vector<std::pair<std::string, UTIL_U32>> rows = {
        {err<K>("create", "error: malloc p" + w + " fail!\n"), 44}};
    if (K::linked) rows.push_back({err<K>("insert", "malloc " + w + " fail!\n"), 44});
    if (!K::linked) rows.push_back({err<K>("create", "error: malloc array p" + w + " pnode fail!\n"), 44});
    rows.push_back({err<K>("init_list", "error: malloc failed!!!!!"), 44});
    if (!K::linked) rows.insert(rows.end(), {{slots + slots, 0}, {slots, 40}});
    rows.push_back({"", 44});
    typename K::C tmpl = K::make(Owning<K>::fun(), 4), templates[2] = {tmpl, tmpl};
    for (long k = 0; k < static_cast<long>(rows.size()); ++k) {
        typename K::L list{};
        auto& [array, max] = list;
        int v = 1;
        ASSERT_EQ(ops->init_list(&list, templates, 2), 0);
        ASSERT_EQ(ops->insert(&array[1], &v), 0);
        typename K::C* c = nullptr;
        UTIL_S32 listed = 1;  // init_list's result, 1 when not reached
        {
            FailAllocationsAfter guard(k);
            EXPECT_THAT(qtest::console([&] {
                if ((c = ops->create(&tmpl)) != nullptr && ops->insert(c, &v) == 0) {
                    listed = ops->init_list(&list, templates, 2);
                }
            }), FullyMatches(rows[k].first)) << k;
        }
        // A refused element never reached the insert callback: one element lives, in c or the old list.
        EXPECT_EQ(g.live.size(), 1u) << k;
        const long state = c == nullptr ? -1 : ops->getSize(c) * 10 + ops->getCount(c);
        EXPECT_EQ(state, k == 0 || (k == 1 && !K::linked) ? -1 : k == 1 ? 0 : K::linked ? 11 : 14) << k;
        EXPECT_EQ(array == nullptr && max == 0, k == 2) << k;
        EXPECT_EQ(listed, k < 2 ? 1 : k == 2 ? -1 : 0) << k;
        if constexpr (!K::linked) {
            EXPECT_EQ(array == nullptr ? 44 : array[0].nodeMax * 10 + array[1].nodeMax, rows[k].second) << k;
        }
        ops->destroy(&c);
        EXPECT_EQ(ops->exit_list(&list), 0);
        EXPECT_TRUE(g.live.empty()) << k;
    }
}

}  // namespace
