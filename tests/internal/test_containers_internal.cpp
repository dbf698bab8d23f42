// The containers' out-of-memory paths, driven by the allocation countdown.
#include "../container_kinds.h"
#include "alloc_failure.h"

using namespace ctest;
using qtest::FullyMatches;

namespace {

template <class K>
using OutOfMemory = ContainerTest<K>;
TYPED_TEST_SUITE(OutOfMemory, Kinds);

// Each failure is reported and leaves the container, or the list, as it was
// (or empty where the old list had to go first).
TYPED_TEST(OutOfMemory, FailuresAreReportedAndLeaveTheContainerAsItWas) {
    using K = TypeParam;
    auto* ops = K::ops();
    const std::string w = K::word;
    typename K::C tmpl = K::make(owning_callbacks<K>(), 4);
    for (long allowed : {0L, K::linked ? -1L : 1L}) {  // the record, then (arrays) its slots
        if (allowed < 0) continue;
        FailAllocationsAfter guard(allowed);  // a record made first is released again: the leak check watches
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->create(&tmpl), nullptr); }),
                    FullyMatches(err<K>("create", "error: malloc " + std::string(allowed ? "array " : "") + "p" + w +
                                                      (allowed ? " pnode" : "") + " fail!\n")));
    }
    typename K::C* c = ops->create(&tmpl);
    int v = 1;
    ASSERT_EQ(ops->insert(c, &v), 0);
    if constexpr (K::linked) {
        FailAllocationsAfter none(0);
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->insert(c, &v), -1); }),
                    FullyMatches(err<K>("insert", "malloc " + w + " fail!\n")));
    }
    EXPECT_EQ(g.live.size(), 1u);  // the insert callback never saw the refused element
    EXPECT_EQ(ops->getSize(c) * 10 + ops->getCount(c), K::linked ? 11 : 14);
    ops->destroy(&c);

    typename K::L list{};
    typename K::C templates[2] = {tmpl, tmpl};
    ASSERT_EQ(ops->init_list(&list, templates, 2), 0);
    ASSERT_EQ(ops->insert(&K::array(list)[1], &v), 0);
    {
        FailAllocationsAfter none(0);
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->init_list(&list, templates, 2), -1); }),
                    FullyMatches(err<K>("init_list", "error: malloc failed!!!!!")));
    }
    EXPECT_EQ(K::array(list), nullptr);
    EXPECT_EQ(K::max(list), 0);
    EXPECT_TRUE(g.live.empty());
    const std::string num = std::string("malloc succeed, ") + (K::linked || K::fifo ? "ql" : "sa") + " num;2\n";
    EXPECT_THAT(qtest::read_file(this->log_),
                FullyMatches(trace<K>("init_list", num) + trace<K>("exit_list", "free succeed, num;2\n") +
                             trace<K>("init_list", "error, malloc failed!!!\n")));
    if constexpr (!K::linked) {  // the second entry's slots cannot be had; the list still stands
        const std::string slots =
            std::string("error: malloc array ") + (K::fifo ? "pqaList->pqhal" : "psaList->pshal") + "[i].pnode fail!\n";
        {
            FailAllocationsAfter array_and_one_entry(2);
            EXPECT_THAT(console([&] { EXPECT_EQ(ops->init_list(&list, templates, 2), 0); }),
                        FullyMatches(err<K>("init_list", slots)));
        }
        EXPECT_THAT(qtest::read_file(this->log_), ::testing::EndsWith("_init_list] " + slots + "\n"));
        EXPECT_EQ(K::array(list)[0].nodeMax * 10 + K::array(list)[1].nodeMax, 40u);
        EXPECT_EQ(K::array(list)[1].pnode, nullptr);
        EXPECT_EQ(ops->exit_list(&list), 0);
    }
}

}  // namespace
