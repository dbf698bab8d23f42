// The containers' out-of-memory paths, driven by the allocation countdown,
// and what each operation allocates.
#include "../container_kinds.h"
#include "alloc_failure.h"
#include "core/util_alloc.h"

using namespace ctest;
using qtest::FullyMatches;

namespace {

// Counts the allocations of one scope on the same countdown, started far away.
struct CountAllocations : FailAllocationsAfter {
    static constexpr long kStart = 1L << 40;
    CountAllocations() : FailAllocationsAfter(kStart) {}
    long made() const { return kStart - quillane::g_alloc_failure_countdown; }
};

template <class K>
using OutOfMemory = ContainerTest<K>;
TYPED_TEST_SUITE(OutOfMemory, Kinds);

TYPED_TEST(OutOfMemory, FailuresAreReportedAndLeaveTheContainerAsItWas) {
    using K = TypeParam;
    auto* ops = K::ops();
    const std::string w = K::word;
    typename K::C tmpl = K::make(owning_callbacks<K>(), 4);
    {
        FailAllocationsAfter none(0);
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->create(&tmpl), nullptr); }),
                    FullyMatches(err<K>("create", "error: malloc p" + w + " fail!\n")));
    }
    if constexpr (!K::linked) {
        FailAllocationsAfter record_only(1);  // the record is released again: the leak check watches
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->create(&tmpl), nullptr); }),
                    FullyMatches(err<K>("create", "error: malloc array p" + w + " pnode fail!\n")));
    }
    typename K::C* c = ops->create(&tmpl);
    int v = 1;
    ASSERT_EQ(ops->insert(c, &v), 0);
    if constexpr (K::linked) {
        FailAllocationsAfter none(0);
        v = 2;
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->insert(c, &v), -1); }),
                    FullyMatches(err<K>("insert", "malloc " + w + " fail!\n")));
    }
    EXPECT_EQ(g.live.size(), 1u);  // the insert callback never saw the refused element
    EXPECT_EQ(ops->getSize(c), 1);
    EXPECT_EQ(ops->getCount(c), K::linked ? 1 : 4);
    EXPECT_EQ(value(ops->getNodeData(c, 0)), 1);
    ops->destroy(&c);

    // init_list over a live list ends it first, then finds no memory for the new one.
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
        EXPECT_EQ(K::array(list)[0].nodeMax, 4u);
        EXPECT_EQ(K::array(list)[1].pnode, nullptr);
        EXPECT_EQ(K::array(list)[1].nodeMax, 0u);
        EXPECT_EQ(ops->isEmpty(&K::array(list)[1]), UTIL_TRUE);
        EXPECT_EQ(ops->exit_list(&list), 0);
    }
}

TYPED_TEST(OutOfMemory, OnlyLinkedInsertsAllocateAfterCreation) {
    using K = TypeParam;
    auto* ops = K::ops();
    typename K::C tmpl = K::make(owning_callbacks<K>(), 5);
    typename K::C* c = ops->create(&tmpl);
    typename K::C* d = ops->create(&tmpl);
    int v = 1;
    long inserting = 0, working = 0;
    {
        CountAllocations count;
        for (int i = 0; i < 100; ++i) ops->insert(c, &v);
        inserting = count.made();
    }
    {
        CountAllocations count;
        console([&] {  // the ring refuses position 0 whenever slot 0 is free
            for (int i = 0; i < 100; ++i) {
                ops->transfer(c, d);
                ops->transfer(d, d);
                ops->transfer(d, c);
                ops->modify(c, 0, &v);
                ops->search(c, &v);
                ops->remove(c);
                if (!K::linked) ops->insert(d, &v);
            }
        });
        working = count.made();
    }
    EXPECT_EQ(inserting, K::linked ? 100 : 0);
    EXPECT_EQ(working, 0);
    ops->destroy(&c);
    ops->destroy(&d);
    EXPECT_TRUE(g.live.empty());
}

}  // namespace
