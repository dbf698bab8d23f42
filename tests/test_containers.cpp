// The containers at their edges: refusals with their exact messages, storage
// without callbacks, callbacks that meddle with their own container, and
// records whose public fields the caller broke. The random model test covers
// the ordinary behaviour.
#include <climits>

#include "container_kinds.h"

using namespace ctest;
using qtest::FullyMatches;

namespace {

template <class K>
using Containers = ContainerTest<K>;
TYPED_TEST_SUITE(Containers, Kinds);

TYPED_TEST(Containers, BadArgumentsAreRefusedWithTheirMessages) {
    using K = TypeParam;
    auto* ops = K::ops();
    const std::string name = K::name, null = "error: " + name + " is NULL!\n";
    auto refused = [&](const char* op, auto result, auto call) {
        decltype(result) got{};
        EXPECT_THAT(console([&] { got = call(); }), FullyMatches(err<K>(op, null))) << op;
        EXPECT_EQ(got, result) << op;
    };
    refused("isEmpty", UTIL_FALSE, [&] { return ops->isEmpty(nullptr); });
    refused("insert", -1, [&] { return ops->insert(nullptr, &g); });
    refused("remove", -1, [&] { return ops->remove(nullptr); });
    refused("search", -1, [&] { return ops->search(nullptr, &g); });
    refused("modify", -1, [&] { return ops->modify(nullptr, 0, &g); });
    refused("clear", -1, [&] { return ops->clear(nullptr); });
    refused("display", -1, [&] { return ops->display(nullptr); });
    refused("getSize", -1, [&] { return ops->getSize(nullptr); });
    refused("getCount", -1, [&] { return ops->getCount(nullptr); });
    refused("getNodeData", static_cast<void*>(nullptr), [&] { return ops->getNodeData(nullptr, 0); });
    if constexpr (!K::linked) refused("isFull", UTIL_FALSE, [&] { return ops->isFull(nullptr); });

    typename K::C* none = nullptr;
    EXPECT_EQ(console([&] { EXPECT_EQ(ops->destroy(nullptr) + ops->destroy(&none), 0); }), "");
    typename K::C tmpl = K::make({}, 2);
    typename K::C* c = ops->create(&tmpl);
    const std::string pair = name + ", " + (K::fifo ? "queueOut or queueIn" : "pstackOut or pstackIn");
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->transfer(c, nullptr) + ops->transfer(nullptr, c), -2); }),
                FullyMatches("(" + err<K>("transfer", "error: " + pair + " is NULL!\n") + "){2}"));
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->create(nullptr), nullptr); }),
                FullyMatches(err<K>("create", std::string("error: default ") + (K::linked ? "linkedList " : "arrayList ") +
                                                  K::word + " is NULL!\n")));
    ops->destroy(&c);

    typename K::L list{};
    EXPECT_EQ(ops->init_list(nullptr, &tmpl, 1) + ops->init_list(&list, nullptr, 1), -2);
    EXPECT_EQ(ops->init_list(&list, &tmpl, 0) + ops->init_list(&list, &tmpl, -1), -2);
    EXPECT_EQ(ops->exit_list(nullptr), -1);
    EXPECT_EQ(ops->exit_list(&list), 0);
    const std::string elems = K::elems, bad = "error: " + elems + "List or " + elems + " is NULL, max:";
    EXPECT_THAT(qtest::read_file(this->log_),
                FullyMatches("(" + trace<K>("init_list", bad + "1!!!\n") + "){2}" +
                             trace<K>("init_list", bad + "0!!!\n") + trace<K>("init_list", bad + "-1!!!\n") +
                             trace<K>("exit_list", "error: " + elems + "List is NULL!\n") +
                             trace<K>("exit_list", "free succeed, num;0\n")));
}

// Each container of a list keeps its own template's callbacks, and the caller
// may change them later. Without callbacks nothing is stored, matches are by
// pointer, a reused array slot keeps the data it had and a transfer copies nothing.
TYPED_TEST(Containers, EachTemplateBringsItsOwnCallbacks) {
    using K = TypeParam;
    auto* ops = K::ops();
    typename K::C templates[2] = {K::make({}, 3), K::make({}, 3)};
    templates[0].fun.insertNodeData_callback = [](typename K::Node* node, void* pdata) {
        node->data = pdata;
        return 0;
    };
    typename K::L list{};
    ASSERT_EQ(ops->init_list(&list, templates, 2), 0);
    typename K::C *c = &K::array(list)[0], *d = &K::array(list)[1];
    int a = 1, b = 2;
    ASSERT_EQ(ops->insert(d, &b) + ops->remove(d), 0);
    for (int round = 0; round < 3; ++round) ASSERT_EQ(ops->insert(c, &a) + ops->remove(c), 0);  // the ring wraps
    c->fun.insertNodeData_callback = nullptr;
    ASSERT_EQ(ops->insert(c, &b), 0);
    EXPECT_EQ(ops->getNodeData(c, 0), K::linked ? nullptr : &a);
    EXPECT_EQ(ops->search(c, K::linked ? nullptr : &a), 0);
    EXPECT_EQ(ops->search(c, &b), -1);
    EXPECT_EQ(ops->modify(c, 0, &b) + ops->display(c) + ops->transfer(c, d), 0);
    EXPECT_EQ(ops->getSize(d), 1);
    EXPECT_EQ(ops->getNodeData(d, K::linked || !K::fifo ? 0 : 1), nullptr);  // an old free slot, or the node's NULL
    EXPECT_EQ(ops->exit_list(&list), 0);
}

// Callbacks that, the first time any of them runs, try every operation that
// would add, take out, move or free elements of their own container (the
// first of a list of two), then read it, then do their usual work.
template <class K>
struct Meddling {
    using N = typename K::Node;
    static inline typename K::L* list = nullptr;
    static inline bool armed = false;
    static inline std::vector<int> results;

    static void meddle() {
        if (!std::exchange(armed, false)) return;
        auto* ops = K::ops();
        typename K::C *self = &K::array(*list)[0], *other = &K::array(*list)[1], *doomed = self;
        typename K::C templates[2] = {*self, *other};
        int v = 99;
        results = {ops->insert(self, &v),      ops->remove(self),          ops->clear(self),
                   ops->transfer(self, other), ops->transfer(other, self), ops->destroy(&doomed),
                   ops->exit_list(list),       ops->init_list(list, templates, 2),
                   doomed == self,             ops->getNodeData(self, 0) != nullptr};
    }
    static UTIL_S32 insert(N* n, void* d) { return meddle(), on_insert<N>(n, d); }
    static UTIL_S32 remove(N* n) { return meddle(), on_remove<N>(n); }
    static UTIL_S32 search(N* n, void* d) { return meddle(), on_search<N>(n, d); }
    static UTIL_S32 modify(N* n, void* d) { return meddle(), on_modify<N>(n, d); }
    static UTIL_S32 transfer(N* out, N* in) { return meddle(), on_transfer<N, !K::linked>(out, in); }
    static UTIL_S32 display(N* n) { return meddle(), on_display<N>(n); }
};

// A callback may read its own container but not change its elements: every
// such call is refused with -1 and its message, and the operation that
// called the callback finishes with the container whole. Rows: the operation
// that calls the callback, and the size of its container afterwards.
TYPED_TEST(Containers, CallbacksCannotChangeTheirOwnContainer) {
    using K = TypeParam;
    using M = Meddling<K>;
    using L = typename K::L;
    auto* ops = K::ops();
    const typename K::Fun fun = {M::insert, M::remove, M::search, M::modify, M::transfer, M::display};
    int four = 4;
    struct Row {
        UTIL_S32 (*call)(L*, int*);
        int size;
    } rows[] = {
        {[](L* l, int* v) { return K::ops()->insert(&K::array(*l)[0], v); }, 4},
        {[](L* l, int*) { return K::ops()->remove(&K::array(*l)[0]); }, 2},
        {[](L* l, int* v) { return K::ops()->search(&K::array(*l)[0], v) == -1 ? 0 : 1; }, 3},
        {[](L* l, int* v) { return K::ops()->modify(&K::array(*l)[0], 0, v) == 6 ? 0 : 1; }, 3},
        {[](L* l, int*) { return K::ops()->transfer(&K::array(*l)[0], &K::array(*l)[1]); }, 2},
        {[](L* l, int*) { return K::ops()->display(&K::array(*l)[0]); }, 3},
        {[](L* l, int*) { return K::ops()->clear(&K::array(*l)[0]); }, 0},
        {[](L* l, int*) { return K::ops()->exit_list(l); }, -1},
    };
    std::string refusals;
    for (const char* op : {"insert", "remove", "clear", "transfer", "transfer", "destroy", "exit_list", "init_list"}) {
        refusals += err<K>(op, "error: " + std::string(K::name) + " is in use by a callback!\n");
    }
    for (const Row& row : rows) {
        const int at = static_cast<int>(&row - rows);
        typename K::C templates[2] = {K::make(fun, 8), K::make(owning_callbacks<K>(), 8)};
        L list{};
        ASSERT_EQ(ops->init_list(&list, templates, 2), 0);
        for (int v : {1, 2, 3}) ASSERT_EQ(ops->insert(&K::array(list)[0], &v), 0);
        ASSERT_EQ(ops->insert(&K::array(list)[1], &four), 0);
        M::list = &list;
        M::armed = true;
        EXPECT_THAT(console([&] { EXPECT_EQ(row.call(&list, &four), 0) << at; }), FullyMatches(refusals)) << at;
        EXPECT_EQ(M::results, (std::vector<int>{-1, -1, -1, -1, -1, -1, -1, -1, 1, 1})) << at;
        if (row.size >= 0) {
            EXPECT_EQ(ops->getSize(&K::array(list)[0]), row.size) << at;
            EXPECT_EQ(ops->exit_list(&list), 0);
        }
        EXPECT_EQ(g.broken, 0) << at;
        EXPECT_TRUE(g.live.empty()) << at;  // every element released once, none lost
    }
}

template <class K>
using Linked = ContainerTest<K>;
using LinkedKinds = ::testing::Types<LinkedQueue, LinkedStack>;
TYPED_TEST_SUITE(Linked, LinkedKinds);

// An empty container warns on search and display; a position at or past
// `count` fails in the lookup, then in the operation; a `count` raised by the
// caller is caught by the walk, except where the queue serves count - 1 from
// `rear`. Counts saturate rather than wrap and never go below 0.
TYPED_TEST(Linked, LookupsByPositionAndBrokenCounts) {
    using K = TypeParam;
    auto* ops = K::ops();
    typename K::C tmpl = K::make(owning_callbacks<K>(), 0);
    typename K::C* c = ops->create(&tmpl);
    const std::string w = K::word, empty = "warning: " + w + (K::fifo ? "->front" : "->top") + " is NULL!!\n";
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->search(c, &g) + ops->display(c), -2); }),
                FullyMatches(err<K>("search", empty) + err<K>("display", empty)));
    EXPECT_EQ(console([&] { EXPECT_EQ(ops->getNodeData(c, 0), nullptr); }), "");
    for (int v : {1, 2, 3}) ASSERT_EQ(ops->insert(c, &v), 0);
    auto failed = [&](const char* op, const std::string& warning, int position) {
        return err<K>("getNode", warning) + err<K>(op, "error: search position=" + std::to_string(position) + " failed!!\n");
    };
    int v = 9;
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->modify(c, INT_MAX, &v), -1); }),
                FullyMatches(failed("modify", "warning: " + w + " count=3 <= position=2147483647!\n", INT_MAX)));
    c->count = 5;
    const std::string reset = "warning: " + w + " count=5 > real_" + w + "_size, please reset " + w + "->count!\n";
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->getNodeData(c, 3), nullptr); }), FullyMatches(failed("getNodeData", reset, 3)));
    if (K::fifo) {
        EXPECT_EQ(value(ops->getNodeData(c, 4)), 3);
    } else {
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->getNodeData(c, 4), nullptr); }), FullyMatches(failed("getNodeData", reset, 4)));
    }
    EXPECT_EQ(ops->getSize(c), 3);
    c->count = INT_MAX;
    ASSERT_EQ(ops->insert(c, &v), 0);
    EXPECT_EQ(ops->getCount(c), INT_MAX);
    c->count = 0;
    EXPECT_EQ(ops->remove(c), 0);
    EXPECT_EQ(ops->getCount(c), 0);
    ops->destroy(&c);
    EXPECT_TRUE(g.live.empty());
}

template <class K>
using Arrays = ContainerTest<K>;
using ArrayKinds = ::testing::Types<ArrayQueue, ArrayStack>;
TYPED_TEST_SUITE(Arrays, ArrayKinds);

// A template without slots: create refuses it, init_list reports it and
// leaves that entry empty with no slots, refusing every element. A position
// that names no element is reported with where the elements are.
TYPED_TEST(Arrays, ContainersWithoutSlotsAndBadPositions) {
    using K = TypeParam;
    auto* ops = K::ops();
    const std::string w = K::word, elems = K::elems, name = K::name;
    typename K::C templates[2] = {K::make(owning_callbacks<K>(), 0), K::make(owning_callbacks<K>(), 4)};
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->create(templates), nullptr); }),
                FullyMatches(err<K>("create", "error: malloc array p" + w + " nodeMax:0 fail!\n")));
    typename K::L list{};
    const std::string no_slots = "error: malloc array " + elems + "[0].nodeMax:0 fail!\n";
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->init_list(&list, templates, 2), 0); }),
                FullyMatches(err<K>("init_list", no_slots)));
    EXPECT_THAT(qtest::read_file(this->log_), ::testing::EndsWith("] " + no_slots + "\n"));
    typename K::C *bare = &K::array(list)[0], *other = &K::array(list)[1];
    EXPECT_EQ(bare->pnode, nullptr);
    EXPECT_EQ(bare->nodeMax, 0u);
    EXPECT_EQ(ops->isFull(bare), K::fifo ? UTIL_FALSE : UTIL_TRUE);
    int v = 1;
    ASSERT_EQ(ops->insert(other, &v), 0);
    EXPECT_THAT(console([&] { EXPECT_EQ(ops->insert(bare, &v) + ops->transfer(other, bare), -2); }),
                FullyMatches(err<K>("insert", "error: " + name + " nodeMax:0 <=0!\n") +
                             err<K>("transfer", "error: " + name + ", " + (K::fifo ? "queueIn" : "pstackIn") +
                                                    " nodeMax:0 <=0!\n")));
    EXPECT_EQ(ops->remove(bare) + ops->getSize(bare) + ops->search(bare, &v) + ops->display(bare), 0);
    for (v = 2; v <= 3; ++v) ASSERT_EQ(ops->insert(other, &v), 0);
    if (K::fifo) {
        ASSERT_EQ(ops->remove(other), 0);  // the ring: head 1, tail 3
    }
    const std::string where = K::fifo ? "queue head=1, tail=3, position=" : "stack top=3, position=";
    for (int position : K::fifo ? std::vector<int>{0, 3, -1} : std::vector<int>{3, -1}) {
        const std::string at = where + std::to_string(position) + "!\n";
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->getNodeData(other, position), nullptr); }),
                    FullyMatches(err<K>("getNodeData", "error: outRange, " + at)));
        EXPECT_THAT(console([&] { EXPECT_EQ(ops->modify(other, position, &v), -1); }),
                    FullyMatches(err<K>("modify", "error: " + at)));
    }
    EXPECT_EQ(ops->exit_list(&list), 0);
    EXPECT_TRUE(g.live.empty());
}

// The indices are public fields. Written past the slots, they make the
// container hold nothing and take nothing: nothing reaches outside the
// array, and the element comes back once the index is put right.
TYPED_TEST(Arrays, IndicesPastTheSlotsTouchNothing) {
    using K = TypeParam;
    auto* ops = K::ops();
    typename K::C tmpl = K::make(owning_callbacks<K>(), 4);
    typename K::C* c = ops->create(&tmpl);
    int v = 1;
    ASSERT_EQ(ops->insert(c, &v), 0);
    UTIL_U32* fields[2];
    if constexpr (K::fifo) {
        fields[0] = &c->tail;
        fields[1] = &c->head;
    } else {
        fields[0] = fields[1] = &c->top;
    }
    for (auto [field, bad] : {std::pair{fields[0], 5u}, {fields[0], UINT32_MAX}, {fields[1], 4u + !K::fifo}}) {
        const UTIL_U32 good = std::exchange(*field, bad);
        EXPECT_EQ(ops->isEmpty(c), UTIL_TRUE) << bad;
        EXPECT_EQ(console([&] {
                      EXPECT_EQ(ops->insert(c, &v) + ops->remove(c) + ops->transfer(c, c) + ops->modify(c, 0, &v), 4);
                      EXPECT_EQ(ops->getSize(c) + ops->search(c, &v) + ops->display(c) + ops->clear(c), -1);
                      EXPECT_EQ(ops->getNodeData(c, 0), nullptr);
                  }),
                  "");
        *field = good;
    }
    EXPECT_EQ(value(ops->getNodeData(c, 0)), 1);
    ops->destroy(&c);
    EXPECT_TRUE(g.live.empty());
    EXPECT_EQ(g.broken, 0);
}

}  // namespace
