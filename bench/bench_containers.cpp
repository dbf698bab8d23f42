// The four containers, called through the table as an application does,
// side by side with std::deque (queues), std::vector (stacks) and GLib's
// GQueue holding the same element pointers. Two workloads per kind: an
// insert+remove cycle at a steady fill, and a transfer out and back between
// two containers.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <deque>
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

template <auto make_kind>
void BM_cycle(benchmark::State& state) {
    const auto kind = make_kind();
    auto* c = kind.make();
    for (int i = 0; i < kFill; ++i) kind.ops->insert(c, &g_elements[i]);
    for (auto _ : state) {
        benchmark::DoNotOptimize(kind.ops->insert(c, &g_elements[kFill]));
        benchmark::DoNotOptimize(kind.ops->remove(c));
    }
    kind.ops->destroy(&c);
    state.SetItemsProcessed(state.iterations());
}

template <auto make_kind>
void BM_transfer(benchmark::State& state) {
    const auto kind = make_kind();
    auto* a = kind.make();
    auto* b = kind.make();
    for (int i = 0; i < kFill; ++i) kind.ops->insert(a, &g_elements[i]);
    for (auto _ : state) {
        benchmark::DoNotOptimize(kind.ops->transfer(a, b));
        benchmark::DoNotOptimize(kind.ops->transfer(b, a));
    }
    kind.ops->destroy(&a);
    kind.ops->destroy(&b);
    state.SetItemsProcessed(2 * state.iterations());
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

// std::deque behind the containers' interface shape: each operation an
// out-of-line call through a table, the element stored by a callback. It
// tells the cost of that shape apart from the cost of the ring itself.
struct DequeOps {
    UTIL_S32 (*insert)(std::deque<void*>* d, void* pdata);
    UTIL_S32 (*remove)(std::deque<void*>* d);
    UTIL_S32 (*store)(void** slot, void* pdata);
};
DequeOps* volatile g_deque_ops;

[[gnu::noinline]] UTIL_S32 deque_insert(std::deque<void*>* d, void* pdata) {
    d->push_back(nullptr);
    return g_deque_ops->store(&d->back(), pdata);
}
[[gnu::noinline]] UTIL_S32 deque_remove(std::deque<void*>* d) {
    if (d->empty()) return 1;
    d->pop_front();
    return 0;
}
[[gnu::noinline]] UTIL_S32 deque_store(void** slot, void* pdata) {
    *slot = pdata;
    return 0;
}

void BM_cycle_std_deque_as_table(benchmark::State& state) {
    DequeOps table{deque_insert, deque_remove, deque_store};
    g_deque_ops = &table;
    const std::vector<int*> p = element_pointers();
    std::deque<void*> d(p.begin(), p.end());
    for (auto _ : state) {
        DequeOps* ops = g_deque_ops;
        benchmark::DoNotOptimize(ops->insert(&d, &g_elements[kFill]));
        benchmark::DoNotOptimize(ops->remove(&d));
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

BENCHMARK(BM_cycle<queue_array>)->Name("cycle/queue/arrayList");
BENCHMARK(BM_cycle<queue_linked>)->Name("cycle/queue/linkedList");
BENCHMARK(BM_cycle_std_deque)->Name("cycle/queue/std::deque");
BENCHMARK(BM_cycle_gqueue<true>)->Name("cycle/queue/GQueue");
BENCHMARK(BM_cycle_std_deque_as_table)->Name("cycle/queue/std::deque behind a table");
BENCHMARK(BM_cycle<stack_array>)->Name("cycle/stack/arrayList");
BENCHMARK(BM_cycle<stack_linked>)->Name("cycle/stack/linkedList");
BENCHMARK(BM_cycle_std_vector)->Name("cycle/stack/std::vector");
BENCHMARK(BM_cycle_gqueue<false>)->Name("cycle/stack/GQueue");
BENCHMARK(BM_transfer<queue_array>)->Name("transfer/queue/arrayList");
BENCHMARK(BM_transfer<queue_linked>)->Name("transfer/queue/linkedList");
BENCHMARK(BM_transfer_std_deque)->Name("transfer/queue/std::deque");
BENCHMARK(BM_transfer_gqueue<true>)->Name("transfer/queue/GQueue");
BENCHMARK(BM_transfer<stack_array>)->Name("transfer/stack/arrayList");
BENCHMARK(BM_transfer<stack_linked>)->Name("transfer/stack/linkedList");
BENCHMARK(BM_transfer_std_vector)->Name("transfer/stack/std::vector");
BENCHMARK(BM_transfer_gqueue<false>)->Name("transfer/stack/GQueue");

}  // namespace

BENCHMARK_MAIN();
