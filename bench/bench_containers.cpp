// The four containers, called through the table as an application does,
// side by side with std::deque (queues), std::vector (stacks) and GLib's
// GQueue holding the same element pointers. Two workloads per kind: an
// insert+remove cycle at a steady fill, and a transfer out and back between
// two containers.
//
// The std containers run in three shapes, so that each part of what the
// containers' interface costs shows on its own:
// - bare: the pointer pushed and popped inline, nothing else;
// - with callbacks: the same inline operations, with the work the array
//   containers' contract asks for: the element enters its slot through the
//   store callback and crosses in a transfer through the copy callback, both
//   read from the container's record per call, and empty containers refused;
// - behind a table: those operations as out-of-line calls through a table of
//   function pointers, the shape of every call into the library.
// And a floor: the table calls and the callbacks with no container at all,
// which no implementation behind this interface can undercut.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <deque>
#include <type_traits>
#include <vector>

#include "util_function.h"

namespace {

constexpr int kFill = 64;  // elements held while the cycles run
constexpr UTIL_U32 kSlots = 1024;
int g_elements[kFill + 1];

std::vector<int*> element_pointers() {
    std::vector<int*> p;
    for (int i = 0; i < kFill; ++i) p.push_back(&g_elements[i]);
    return p;
}

// The application keeps its own elements: the insert callback stores the
// pointer, nothing is released, and the array forms copy it on transfer.
template <class Node>
UTIL_S32 store(Node* node, void* pdata) {
    node->data = pdata;
    return 0;
}
template <class Node>
UTIL_S32 copy(Node* out, Node* in) {
    in->data = out->data;
    return 0;
}

template <class C, class Ops>
struct Kind {
    Ops* ops;
    C tmpl;
    C* make() const {
        C t = tmpl;
        return ops->create(&t);
    }
};

template <class C, class Node>
C with_callbacks(bool copying) {
    C c{};
    c.fun.insertNodeData_callback = store<Node>;
    if (copying) c.fun.transferNodeData_callback = copy<Node>;
    return c;
}

template <class C>
C with_slots(C c) {
    c.nodeMax = kSlots;
    return c;
}

auto queue_linked() {
    using C = util_queue_high_linkedList_t;
    return Kind<C, util_ops_queue_high_linkedList_fun_t>{util_ops_pfun->queue_high_linkedList,
                                                         with_callbacks<C, util_queue_base_node_t>(false)};
}
auto stack_linked() {
    using C = util_stack_high_linkedList_t;
    return Kind<C, util_ops_stack_high_linkedList_fun_t>{util_ops_pfun->stack_high_linkedList,
                                                         with_callbacks<C, util_stack_base_node_t>(false)};
}
auto queue_array() {
    using C = util_queue_high_arrayList_t;
    return Kind<C, util_ops_queue_high_arrayList_fun_t>{util_ops_pfun->queue_high_arrayList,
                                                        with_slots(with_callbacks<C, util_queue_base_node_t>(true))};
}
auto stack_array() {
    using C = util_stack_high_arrayList_t;
    return Kind<C, util_ops_stack_high_arrayList_fun_t>{util_ops_pfun->stack_high_arrayList,
                                                        with_slots(with_callbacks<C, util_stack_base_node_t>(true))};
}

// The two workloads, for anything with insert, remove and transfer behind
// `ops`: the library's tables, the tables below, and the std operations
// with callbacks (whose static members inline when called through a
// pointer to them).
template <class Ops, class C>
void run_cycle(benchmark::State& state, Ops* ops, C* c) {
    for (int i = 0; i < kFill; ++i) ops->insert(c, &g_elements[i]);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ops->insert(c, &g_elements[kFill]));
        benchmark::DoNotOptimize(ops->remove(c));
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Ops, class C>
void run_transfer(benchmark::State& state, Ops* ops, C* a, C* b) {
    for (int i = 0; i < kFill; ++i) ops->insert(a, &g_elements[i]);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ops->transfer(a, b));
        benchmark::DoNotOptimize(ops->transfer(b, a));
    }
    state.SetItemsProcessed(2 * state.iterations());
}

template <auto make_kind>
void BM_cycle(benchmark::State& state) {
    const auto kind = make_kind();
    auto* c = kind.make();
    run_cycle(state, kind.ops, c);
    kind.ops->destroy(&c);
}

template <auto make_kind>
void BM_transfer(benchmark::State& state) {
    const auto kind = make_kind();
    auto* a = kind.make();
    auto* b = kind.make();
    run_transfer(state, kind.ops, a, b);
    kind.ops->destroy(&a);
    kind.ops->destroy(&b);
}

void BM_cycle_std_deque(benchmark::State& state) {
    const std::vector<int*> p = element_pointers();
    std::deque<int*> d(p.begin(), p.end());
    for (auto _ : state) {
        d.push_back(&g_elements[kFill]);
        benchmark::DoNotOptimize(d.front());
        d.pop_front();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_cycle_std_vector(benchmark::State& state) {
    std::vector<int*> v = element_pointers();
    for (auto _ : state) {
        v.push_back(&g_elements[kFill]);
        benchmark::DoNotOptimize(v.back());
        v.pop_back();
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_transfer_std_deque(benchmark::State& state) {
    const std::vector<int*> p = element_pointers();
    std::deque<int*> a(p.begin(), p.end()), b;
    for (auto _ : state) {
        b.push_back(a.front());
        a.pop_front();
        a.push_back(b.front());
        b.pop_front();
    }
    state.SetItemsProcessed(2 * state.iterations());
}

void BM_transfer_std_vector(benchmark::State& state) {
    std::vector<int*> a = element_pointers(), b;
    for (auto _ : state) {
        b.push_back(a.back());
        a.pop_back();
        a.push_back(b.back());
        b.pop_back();
    }
    state.SetItemsProcessed(2 * state.iterations());
}

// The std containers' callbacks: what store<Node> and copy<Node> do, on a
// bare pointer slot.
struct SlotFun {
    UTIL_S32 (*insert)(void** slot, void* pdata);
    UTIL_S32 (*remove)(void** slot);
    UTIL_S32 (*transfer)(void** out, void** in);
};
UTIL_S32 store_slot(void** slot, void* pdata) {
    *slot = pdata;
    return 0;
}
UTIL_S32 copy_slot(void** out, void** in) {
    *in = *out;
    return 0;
}
SlotFun g_slot_fun{store_slot, nullptr, copy_slot};

// The callbacks as a container record holds them: opaque to the compiler, as
// a container's callbacks are to the library, so every callback is a real call.
const SlotFun* opaque_slot_fun() {
    const SlotFun* fun = &g_slot_fun;
    benchmark::DoNotOptimize(fun);
    return fun;
}

// A queue in a deque (in at the back, out at the front) or a stack in a
// vector (both at the back).
template <bool fifo>
struct StdBox {
    std::conditional_t<fifo, std::deque<void*>, std::vector<void*>> seq;
    const SlotFun* fun = opaque_slot_fun();

    void*& leaving() {
        if constexpr (fifo) return seq.front();
        return seq.back();
    }
    void leave() {
        if constexpr (fifo) {
            seq.pop_front();
        } else {
            seq.pop_back();
        }
    }
};

template <bool fifo>
struct StdOps {
    using Box = StdBox<fifo>;
    static UTIL_S32 insert(Box* b, void* pdata) {
        b->seq.push_back(nullptr);
        b->fun->insert(&b->seq.back(), pdata);
        return 0;
    }
    static UTIL_S32 remove(Box* b) {
        if (b->seq.empty()) return 1;
        if (b->fun->remove != nullptr) b->fun->remove(&b->leaving());
        b->leave();
        return 0;
    }
    static UTIL_S32 transfer(Box* out, Box* in) {
        if (out->seq.empty()) return 1;
        in->seq.push_back(nullptr);
        const auto move = out->fun->transfer != nullptr ? out->fun->transfer : in->fun->transfer;
        if (move != nullptr) move(&out->leaving(), &in->seq.back());
        out->leave();
        return 0;
    }
};

// No container: one slot, and only the calls the interface makes.
struct FloorBox {
    void* slot = nullptr;
    const SlotFun* fun = opaque_slot_fun();
};
struct FloorOps {
    using Box = FloorBox;
    static UTIL_S32 insert(Box* b, void* pdata) {
        b->slot = nullptr;
        b->fun->insert(&b->slot, pdata);
        return 0;
    }
    static UTIL_S32 remove(Box* b) {
        if (b->fun->remove != nullptr) b->fun->remove(&b->slot);
        return 0;
    }
    static UTIL_S32 transfer(Box* out, Box* in) {
        out->fun->transfer(&out->slot, &in->slot);
        return 0;
    }
};

template <class Ops>
struct Table {
    using Box = typename Ops::Box;
    UTIL_S32 (*insert)(Box* b, void* pdata);
    UTIL_S32 (*remove)(Box* b);
    UTIL_S32 (*transfer)(Box* out, Box* in);
};

// Hands `body` the operations inline, or behind a table whose contents the
// compiler cannot see, so that each operation is an indirect call.
template <class Ops, bool behind_table, class Body>
void with_ops(Body body) {
    if constexpr (behind_table) {
        static Table<Ops> table{Ops::insert, Ops::remove, Ops::transfer};
        Table<Ops>* ops = &table;
        benchmark::DoNotOptimize(ops);
        body(ops);
    } else {
        Ops ops;
        body(&ops);
    }
}

template <class Ops, bool behind_table>
void BM_cycle_of(benchmark::State& state) {
    typename Ops::Box box;
    with_ops<Ops, behind_table>([&](auto* ops) { run_cycle(state, ops, &box); });
}

template <class Ops, bool behind_table>
void BM_transfer_of(benchmark::State& state) {
    typename Ops::Box a, b;
    with_ops<Ops, behind_table>([&](auto* ops) { run_transfer(state, ops, &a, &b); });
}

GQueue* filled_gqueue() {
    GQueue* q = g_queue_new();
    for (int i = 0; i < kFill; ++i) g_queue_push_tail(q, &g_elements[i]);
    return q;
}

// A queue joins at the tail and leaves from the head; a stack does both at the head.
template <bool fifo>
void BM_cycle_gqueue(benchmark::State& state) {
    GQueue* q = filled_gqueue();
    for (auto _ : state) {
        if (fifo) {
            g_queue_push_tail(q, &g_elements[kFill]);
        } else {
            g_queue_push_head(q, &g_elements[kFill]);
        }
        benchmark::DoNotOptimize(g_queue_pop_head(q));
    }
    g_queue_free(q);
    state.SetItemsProcessed(state.iterations());
}

// The link itself moves, as in the linked containers.
template <bool fifo>
void BM_transfer_gqueue(benchmark::State& state) {
    GQueue* a = filled_gqueue();
    GQueue* b = g_queue_new();
    for (auto _ : state) {
        if (fifo) {
            g_queue_push_tail_link(b, g_queue_pop_head_link(a));
            g_queue_push_tail_link(a, g_queue_pop_head_link(b));
        } else {
            g_queue_push_head_link(b, g_queue_pop_head_link(a));
            g_queue_push_head_link(a, g_queue_pop_head_link(b));
        }
    }
    g_queue_free(a);
    g_queue_free(b);
    state.SetItemsProcessed(2 * state.iterations());
}

using DequeCallbacks = StdOps<true>;
using VectorCallbacks = StdOps<false>;

BENCHMARK(BM_cycle<queue_array>)->Name("cycle/queue/arrayList");
BENCHMARK(BM_cycle<queue_linked>)->Name("cycle/queue/linkedList");
BENCHMARK(BM_cycle_std_deque)->Name("cycle/queue/std::deque");
BENCHMARK(BM_cycle_of<DequeCallbacks, false>)->Name("cycle/queue/std::deque with callbacks");
BENCHMARK(BM_cycle_of<DequeCallbacks, true>)->Name("cycle/queue/std::deque behind a table");
BENCHMARK(BM_cycle_gqueue<true>)->Name("cycle/queue/GQueue");
BENCHMARK(BM_cycle<stack_array>)->Name("cycle/stack/arrayList");
BENCHMARK(BM_cycle<stack_linked>)->Name("cycle/stack/linkedList");
BENCHMARK(BM_cycle_std_vector)->Name("cycle/stack/std::vector");
BENCHMARK(BM_cycle_of<VectorCallbacks, false>)->Name("cycle/stack/std::vector with callbacks");
BENCHMARK(BM_cycle_of<VectorCallbacks, true>)->Name("cycle/stack/std::vector behind a table");
BENCHMARK(BM_cycle_gqueue<false>)->Name("cycle/stack/GQueue");
BENCHMARK(BM_cycle_of<FloorOps, true>)->Name("cycle/floor: table calls and callbacks only");
BENCHMARK(BM_transfer<queue_array>)->Name("transfer/queue/arrayList");
BENCHMARK(BM_transfer<queue_linked>)->Name("transfer/queue/linkedList");
BENCHMARK(BM_transfer_std_deque)->Name("transfer/queue/std::deque");
BENCHMARK(BM_transfer_of<DequeCallbacks, false>)->Name("transfer/queue/std::deque with callbacks");
BENCHMARK(BM_transfer_of<DequeCallbacks, true>)->Name("transfer/queue/std::deque behind a table");
BENCHMARK(BM_transfer_gqueue<true>)->Name("transfer/queue/GQueue");
BENCHMARK(BM_transfer<stack_array>)->Name("transfer/stack/arrayList");
BENCHMARK(BM_transfer<stack_linked>)->Name("transfer/stack/linkedList");
BENCHMARK(BM_transfer_std_vector)->Name("transfer/stack/std::vector");
BENCHMARK(BM_transfer_of<VectorCallbacks, false>)->Name("transfer/stack/std::vector with callbacks");
BENCHMARK(BM_transfer_of<VectorCallbacks, true>)->Name("transfer/stack/std::vector behind a table");
BENCHMARK(BM_transfer_gqueue<false>)->Name("transfer/stack/GQueue");
BENCHMARK(BM_transfer_of<FloorOps, true>)->Name("transfer/floor: table calls and callbacks only");

}  // namespace

BENCHMARK_MAIN();
