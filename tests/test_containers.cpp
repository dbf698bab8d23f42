// The containers' contract, one table over the four kinds: refusals with their exact
// messages, lookups that miss, broken public fields, callbacks missing or meddling.
#include <climits>

#include "container_kinds.h"

using namespace ctest;

namespace {

template <class K>
using Containers = ContainerTest<K>;
TYPED_TEST_SUITE(Containers, Kinds);

// Each row starts from 1, 2, 3 less the leaving end (queue: 2 3 at head 1, tail 3; stack: 2 1)
// and gives its results, all it wrote to the console then to the trace, and the size left.
TYPED_TEST(Containers, ContractTable) {
    using K = TypeParam;
    using C = typename K::C;
    using L = typename K::L;
    using R = std::vector<long>;
    struct Row { std::function<R(C*)> call; R want; std::string said; int size = 2; };
    auto* ops = K::ops();
    const std::string w = K::word, name = K::name, elems = K::elems, Q = K::fifo ? "queue" : "pstack";
    auto msg = [](const char* op, const std::string& text) { return err<K>(op, text); };
    const std::string busy = "error: " + name + " is in use by a callback!\n", bad_list = elems + "List or " + elems;
    const std::string listed = trace<K>("init_list", std::string("malloc succeed, ") +
                                                         (K::linked || K::fifo ? "ql" : "sa") + " num;2\n");
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
                           "getCount", "getNodeData"}) {
        nulls += msg(op, "error: " + name + " is NULL!\n");
    }
    for (const char* op : {"insert", "remove", "clear", "destroy", "transfer"}) refusals += msg(op, busy);
    const std::string empty = "warning: " + w + "->" + (K::fifo ? "front" : "top") + " is NULL!!\n";
    const int front = !K::linked && K::fifo;  // the position of the leaving end
    std::vector<Row> rows = {
        {[&](C*) {
             return R{ops->isEmpty(nullptr), ops->insert(nullptr, &v), ops->remove(nullptr), ops->search(nullptr, &v),
                      ops->modify(nullptr, 0, &v), ops->clear(nullptr), ops->display(nullptr), ops->getSize(nullptr),
                      ops->getCount(nullptr), value(ops->getNodeData(nullptr, 0))};
         },
         {UTIL_FALSE, -1, -1, -1, -1, -1, -1, -1, -1, -1}, nulls},
        {[&](C* c) { return R{ops->transfer(c, nullptr), ops->transfer(nullptr, c)}; }, {-1, -1},
         "(" + msg("transfer", "error: " + name + ", " + Q + "Out or " + Q + "In is NULL!\n") + "){2}"},
        {[&](C*) { return R{ops->create(nullptr) != nullptr, ops->destroy(nullptr)}; }, {0, 0},
         msg("create", "error: default " + std::string(K::linked ? "linkedList " : "arrayList ") + w + " is NULL!\n")},
        {[&](C* c) {
             L l{};
             return R{ops->init_list(nullptr, c, 1), ops->init_list(&l, nullptr, 1), ops->init_list(&l, c, 0),
                      ops->exit_list(nullptr), ops->exit_list(&l)};
         },
         {-1, -1, -1, -1, 0},
         "(" + trace<K>("init_list", "error: " + bad_list + " is NULL, max:1!!!\n") + "){2}" +
             trace<K>("init_list", "error: " + bad_list + " is NULL, max:0!!!\n") +
             trace<K>("exit_list", "error: " + elems + "List is NULL!\n") +
             trace<K>("exit_list", "free succeed, num;0\n")},
        // Empty, only the linked forms warn, on search and display.
        {[&](C* c) {
             ops->clear(c);
             return R{ops->remove(c), ops->transfer(c, c), ops->modify(c, 0, &v), value(ops->getNodeData(c, 0)),
                      ops->search(c, &v), ops->display(c)};
         },
         {1, 1, 1, -1, -1, K::linked ? -1 : 0}, K::linked ? msg("search", empty) + msg("display", empty) : "", 0},
        // Without callbacks: match by pointer, no change or display; transfer takes the receiver's.
        {[&](C* c) {
             c->fun = {c->fun.insertNodeData_callback, c->fun.removeNodeData_callback};
             C* d = ops->create(&tmpl);
             int two = 2;
             R r{ops->search(c, ops->getNodeData(c, front + 1)), ops->search(c, &two), ops->modify(c, front, &v),
                 value(ops->getNodeData(c, front)), ops->display(c), ops->transfer(c, d), value(ops->getNodeData(d, 0)),
                 long{g.moved} * 10 + static_cast<long>(g.shown.size())};
             ops->destroy(&d);
             return r;
         },
         {front + 1, -1, 0, 2, 0, 0, 2, 10}, "", 1},
        {[&](C* c) { return meddle(c), R{ops->insert(c, &v)}; }, {0}, refusals, 3},
        {[&](C* c) { return meddle(c), R{ops->remove(c)}; }, {0}, refusals, 1},
        {[&](C* c) { return meddle(c), R{ops->search(c, &v)}; }, {-1}, refusals},
        {[&](C* c) { return meddle(c), R{ops->modify(c, front, &v)}; }, {6}, refusals},
        {[&](C* c) { return meddle(c), R{ops->display(c)}; }, {0}, refusals},
        {[&](C* c) { return meddle(c), R{ops->transfer(c, c)}; }, {0}, refusals},
        {[&](C* c) {
             L l{};
             C ts[2] = {tmpl, tmpl};
             auto& [array, max] = l;
             R r{ops->init_list(&l, ts, 2), ops->insert(&array[1], &v)};
             meddle(&array[1], &l);
             return r.push_back(ops->transfer(&array[1], c)), r.push_back(ops->exit_list(&l)), r;
         },
         {0, 0, 0, 0}, refusals + msg("exit_list", busy) + msg("init_list", busy) + listed +
         trace<K>("exit_list", "free succeed, num;2\n"), 3},
    };
    if constexpr (K::linked) {
        // A `count` raised by the caller is caught by the walk (the queue serves count - 1 from
        // `rear`); counts saturate rather than wrap and never go below 0.
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
                            c->count = INT_MAX;
                            R r{ops->insert(c, &v), ops->getCount(c)};
                            c->count = 0;
                            return r.push_back(ops->remove(c)), r.push_back(ops->getCount(c)), r;
                        },
                        {0, INT_MAX, 0, 0}, ""});
    } else {
        // A position that names no element is reported with where the elements are.
        const std::string where = K::fifo ? "queue head=1, tail=3, position=" : "stack top=2, position=";
        for (int p : K::fifo ? std::vector<int>{0, 3, -1, INT_MAX} : std::vector<int>{2, -1, INT_MAX}) {
            const std::string at = where + std::to_string(p) + "!\n";
            rows.push_back({[&, p](C* c) { return R{value(ops->getNodeData(c, p)), ops->modify(c, p, &v)}; },
                            {-1, -1}, msg("getNodeData", "error: outRange, " + at) + msg("modify", "error: " + at)});
        }
        // Indices written past the slots: the container holds and takes nothing.
        std::vector<std::pair<UTIL_U32 C::*, UTIL_U32>> pokes;
        if constexpr (K::fifo) pokes = {{&C::tail, 4}, {&C::tail, UINT32_MAX}, {&C::head, 4}};
        if constexpr (!K::fifo) pokes = {{&C::top, 5}, {&C::top, UINT32_MAX}};
        for (auto [field, bad] : pokes) {
            rows.push_back({[&, field, bad](C* c) {
                                const UTIL_U32 good = std::exchange(c->*field, bad);
                                R r{ops->isEmpty(c),    ops->insert(c, &v), ops->remove(c),     ops->transfer(c, c),
                                    ops->modify(c, 0, &v), ops->getSize(c), ops->search(c, &v), ops->display(c),
                                    ops->clear(c),      value(ops->getNodeData(c, 0))};
                                return c->*field = good, r;
                            },
                            {UTIL_TRUE, 1, 1, 1, 1, 0, -1, 0, 0, -1}, ""});
        }
        // A template without slots: create refuses it, init_list leaves that entry unusable.
        const std::string no_slots = "error: malloc array " + elems + "[0].nodeMax:0 fail!\n";
        rows.push_back({[&](C* c) {
                            L l{};
                            C ts[2] = {K::make(Owning<K>::fun(), 0), tmpl};
                            auto& [array, max] = l;
                            R r{ops->create(ts) != nullptr, ops->init_list(&l, ts, 2)};
                            r.insert(r.end(), {ops->isFull(&array[0]), ops->insert(&array[0], &v),
                                               ops->transfer(c, &array[0]), ops->exit_list(&l)});
                            return r;
                        },
                        {0, 0, K::fifo ? UTIL_FALSE : UTIL_TRUE, -1, -1, 0},
                        msg("create", "error: malloc array p" + w + " nodeMax:0 fail!\n") + msg("init_list", no_slots) +
                            msg("insert", "error: " + name + " nodeMax:0 <=0!\n") +
                            msg("transfer", "error: " + name + ", " + Q + "In nodeMax:0 <=0!\n") + listed +
                            trace<K>("init_list", no_slots + "\n") + trace<K>("exit_list", "free succeed, num;2\n")});
    }
    for (const Row& row : rows) {
        const auto at = &row - rows.data();
        C* c = ops->create(&tmpl);
        for (int x : {1, 2, 3}) ASSERT_EQ(ops->insert(c, &x), 0);
        ASSERT_EQ(ops->remove(c), 0);
        g.shown.clear();
        const std::size_t logged = qtest::read_file(this->log_).size();
        R got;
        std::string said = console([&] { got = row.call(c); });
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
