// The containers' contract over the four kinds: exact refusals, missing or meddling callbacks, broken fields.
#include <climits>

#include "container_kinds.h"

using namespace ctest;

namespace {

template <class K>
using Containers = ContainerTest<K>;
TYPED_TEST_SUITE(Containers, Kinds);

// Each row starts from 1, 2, 3 less the leaving end (queue: 2 3 at head 1, tail 3; stack: 2 1).
TYPED_TEST(Containers, ContractTable) {
    using K = TypeParam;
    using C = typename K::C;
    using L = typename K::L;
    using R = std::vector<long>;
    struct Row { std::function<R(C*)> call; R want; std::string said; int size = 2; };
    auto* ops = K::ops();
    const std::string w = K::word, name = K::name, elems = K::elems, Q = K::fifo ? "queue" : "pstack";
    auto msg = [](const char* op, const std::string& text) { return err<K>(op, text); };
    auto trace = [](const char* op, const std::string& text) { return err<K>(op, text, true); };
    const std::string busy = "error: " + name + " is in use by a callback!\n", bad_list = elems + "List or " + elems;
    C tmpl = K::make(Owning<K>::fun(), 4);
    int v = 9;
    // While the next callback runs, its container (and list) refuses changes but may be read.
    auto meddle = [&](C* c, L* list = nullptr) {
        g.meddle = [=, &v] {
            C *doomed = c, copy[1] = {*c};
            R r{ops->insert(c, &v), ops->remove(c), ops->clear(c), ops->destroy(&doomed), ops->transfer(c, c)};
            if (list) r.insert(r.end(), {ops->exit_list(list), ops->init_list(list, copy, 1)});
            EXPECT_EQ(r, R(list ? 7 : 5, -1));
            EXPECT_GE(ops->getSize(c) + ops->search(c, &v) + 1, 0);
        };
    };
    std::string refusals, nulls;
    for (const char* op : {"isEmpty", "insert", "remove", "search", "modify", "clear", "display", "getSize",
                           "getCount", "getNodeData"})
        nulls += msg(op, "error: " + name + " is NULL!\n");
    for (const char* op : {"insert", "remove", "clear", "destroy", "transfer"}) refusals += msg(op, busy);
    const int front = !K::linked && K::fifo;  // the position of the leaving end
    std::vector<Row> rows = {
        {[&](C* c) {
             return R{ops->isEmpty(nullptr), ops->insert(nullptr, &v), ops->remove(nullptr), ops->search(nullptr, &v),
                      ops->modify(nullptr, 0, &v), ops->clear(nullptr), ops->display(nullptr), ops->getSize(nullptr),
                      ops->getCount(nullptr), value(ops->getNodeData(nullptr, 0)), ops->transfer(c, nullptr),
                      ops->transfer(nullptr, c), ops->create(nullptr) != nullptr, ops->destroy(nullptr)};
         },
         {UTIL_FALSE, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 0},
         nulls + "(" + msg("transfer", "error: " + name + ", " + Q + "Out or " + Q + "In is NULL!\n") + "){2}" +
             msg("create", "error: default " + std::string(K::linked ? "linkedList " : "arrayList ") + w +
                               " is NULL!\n")},
        {[&](C* c) {
             L l{};
             return R{ops->init_list(nullptr, c, 1), ops->init_list(&l, nullptr, 1), ops->init_list(&l, c, 0),
                      ops->exit_list(nullptr), ops->exit_list(&l)};
         },
         {-1, -1, -1, -1, 0},
         "(" + trace("init_list", "error: " + bad_list + " is NULL, max:1!!!\n") + "){2}" +
             trace("init_list", "error: " + bad_list + " is NULL, max:0!!!\n") +
             trace("exit_list", "error: " + elems + "List is NULL!\n") +
             trace("exit_list", "free succeed, num;0\n")},
        // Without callbacks: match by pointer, no change or display; transfer takes the receiver's.
        {[&](C* c) {
             c->fun = {c->fun.insertNodeData_callback, c->fun.removeNodeData_callback};
             C* d = ops->create(&tmpl);
             R r{ops->search(c, ops->getNodeData(c, front + 1)), ops->search(c, &v), ops->modify(c, front, &v),
                 value(ops->getNodeData(c, front)), ops->display(c), ops->transfer(c, d), value(ops->getNodeData(d, 0)),
                 long{g.moved} * 10 + static_cast<long>(g.shown.size())};
             ops->destroy(&d);
             return r;
         },
         {front + 1, -1, 0, 2, 0, 0, 2, 10}, "", 1},
        {[&](C* c) {
             return R{(meddle(c), ops->search(c, &v)), (meddle(c), ops->modify(c, front, &v)),
                      (meddle(c), ops->display(c)), (meddle(c), ops->transfer(c, c)),
                      (meddle(c), ops->insert(c, &v)), (meddle(c), ops->remove(c))};
         },
         {-1, 6, 0, 0, 0, 0}, "(" + refusals + "){6}"},
        {[&](C* c) {
             L l{};
             C ts[2] = {tmpl, tmpl};
             auto& [array, max] = l;
             return R{ops->init_list(&l, ts, 2), ops->insert(&array[1], &v),
                      (meddle(&array[1], &l), ops->transfer(&array[1], c)), ops->exit_list(&l)};
         },
         {0, 0, 0, 0}, refusals + msg("exit_list", busy) + msg("init_list", busy) +
         trace("init_list", std::string("malloc succeed, ") + (K::linked || K::fifo ? "ql" : "sa") + " num;2\n") +
         trace("exit_list", "free succeed, num;2\n"), 3},
    };
    if constexpr (K::linked) {
        // A raised `count` is caught by the walk (count - 1 comes from a queue's `rear`); counts saturate.
        auto failed = [&](const char* op, const std::string& warning, int pos) {
            return msg("getNode", warning) + msg(op, "error: search position=" + std::to_string(pos) + " failed!!\n");
        };
        const std::string reset = "warning: " + w + " count=5 > real_" + w + "_size, please reset " + w + "->count!\n";
        rows.push_back({[&](C* c) { return R{ops->modify(c, INT_MAX, &v)}; }, {-1},
                        failed("modify", "warning: " + w + " count=2 <= position=2147483647!\n", INT_MAX)});
        rows.push_back({[&](C* c) {
                            c->count = 5;
                            return R{value(ops->getNodeData(c, 2)), value(ops->getNodeData(c, 4)), ops->getSize(c)};
                        },
                        {-1, K::fifo ? 3 : -1, 2},
                        failed("getNodeData", reset, 2) + (K::fifo ? "" : failed("getNodeData", reset, 4))});
        rows.push_back({[&](C* c) {
                            return R{(c->count = INT_MAX, ops->insert(c, &v)), ops->getCount(c),
                                     (c->count = 0, ops->remove(c)), ops->getCount(c)};
                        },
                        {0, INT_MAX, 0, 0}, ""});
    } else {
        // A position that names no element is reported with where the elements are.
        const std::string at = K::fifo ? "queue head=1, tail=3, position=3!\n" : "stack top=2, position=2!\n";
        const int p = front + 2;
        rows.push_back({[&](C* c) { return R{value(ops->getNodeData(c, p)), ops->modify(c, p, &v)}; }, {-1, -1},
                        msg("getNodeData", "error: outRange, " + at) + msg("modify", "error: " + at)});
        // Indices written past the slots: the container holds and takes nothing.
        std::vector<std::pair<UTIL_U32 C::*, UTIL_U32>> pokes;
        if constexpr (K::fifo) pokes = {{&C::tail, 4}, {&C::tail, UINT32_MAX}, {&C::head, 4}};
        if constexpr (!K::fifo) pokes = {{&C::top, 5}, {&C::top, UINT32_MAX}};
        for (auto [field, bad] : pokes) {
            rows.push_back({[&, field, bad](C* c) {
                                const UTIL_U32 good = std::exchange(c->*field, bad);
                                R r{ops->isEmpty(c), ops->insert(c, &v), ops->remove(c), ops->transfer(c, c),
                                    ops->getSize(c), ops->search(c, &v), value(ops->getNodeData(c, 0))};
                                return c->*field = good, r;
                            },
                            {UTIL_TRUE, 1, 1, 1, 0, -1, -1}, ""});
        }
        // A template without slots: create refuses it, and such a container never takes an element.
        rows.push_back({[&](C* c) {
                            C z = K::make(Owning<K>::fun(), 0);
                            return R{ops->create(&z) != nullptr, ops->isFull(&z), ops->insert(&z, &v),
                                     ops->transfer(c, &z)};
                        },
                        {0, K::fifo ? UTIL_FALSE : UTIL_TRUE, -1, -1},
                        msg("create", "error: malloc array p" + w + " nodeMax:0 fail!\n") +
                            msg("insert", "error: " + name + " nodeMax:0 <=0!\n") +
                            msg("transfer", "error: " + name + ", " + Q + "In nodeMax:0 <=0!\n")});
    }
    for (const Row& row : rows) {
        const auto at = &row - rows.data();
        C* c = ops->create(&tmpl);
        for (int x : {1, 2, 3}) ASSERT_EQ(ops->insert(c, &x), 0);
        ASSERT_EQ(ops->remove(c), 0);
        g.shown.clear();
        const std::size_t logged = qtest::read_file(this->log_).size();
        R got;
        std::string said = qtest::console([&] { got = row.call(c); });
        said += qtest::read_file(this->log_).substr(logged);
        EXPECT_EQ(got, row.want) << "row " << at;
        EXPECT_THAT(said, qtest::FullyMatches(row.said)) << "row " << at;
        EXPECT_EQ(ops->getSize(c), row.size) << "row " << at;
        ops->destroy(&c);
        EXPECT_TRUE(g.live.empty()) << "row " << at;
        EXPECT_EQ(g.broken, 0) << "row " << at;
        g = Ledger{};
    }
}

}  // namespace
