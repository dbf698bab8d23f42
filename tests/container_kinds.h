// The four containers behind one face, so that each test runs on every kind,
// and callbacks that own heap copies of int elements and log every call.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"

namespace ctest {

// name: the module; elems: init_list's element parameter; slots: array forms.
template <class C_, class L_, class Node_, bool linked_, bool fifo_, const char* name_, const char* elems_>
struct KindBase {
    using C = C_;
    using L = L_;
    using Node = Node_;
    using Fun = decltype(C::fun);
    static constexpr bool linked = linked_, fifo = fifo_;
    static constexpr const char *word = fifo_ ? "queue" : "stack", *name = name_, *elems = elems_;
};
inline constexpr char kLQ[] = "queue_high_linkedList", kLS[] = "stack_high_linkedList",
                      kAQ[] = "queue_high_arrayList", kAS[] = "stack_high_arrayList";
inline constexpr char kPql[] = "pql", kPsl[] = "psl", kPqa[] = "pqa", kPsa[] = "psa";

struct LinkedQueue : KindBase<util_queue_high_linkedList_t, util_list_queue_high_linkedList_t,
                              util_queue_base_node_t, true, true, kLQ, kPql> {
    static auto* ops() { return util_ops_pfun->queue_high_linkedList; }
    static C*& array(L& l) { return l.pqhll; }
    static UTIL_S32& max(L& l) { return l.qhllMax; }
    static C make(Fun f, UTIL_U32) { return C{nullptr, nullptr, 0, f}; }
    // What a transfer callback is handed: the leaving node and the receiving end.
    static std::pair<Node*, Node*> transfer_nodes(C& out, C& in) { return {out.front, in.rear}; }
};
struct LinkedStack : KindBase<util_stack_high_linkedList_t, util_list_stack_high_linkedList_t,
                              util_stack_base_node_t, true, false, kLS, kPsl> {
    static auto* ops() { return util_ops_pfun->stack_high_linkedList; }
    static C*& array(L& l) { return l.pshll; }
    static UTIL_S32& max(L& l) { return l.shllMax; }
    static C make(Fun f, UTIL_U32) { return C{nullptr, 0, f}; }
    static std::pair<Node*, Node*> transfer_nodes(C& out, C& in) { return {out.top, in.top}; }
};
struct ArrayQueue : KindBase<util_queue_high_arrayList_t, util_list_queue_high_arrayList_t,
                             util_queue_base_node_t, false, true, kAQ, kPqa> {
    static auto* ops() { return util_ops_pfun->queue_high_arrayList; }
    static C*& array(L& l) { return l.pqhal; }
    static UTIL_S32& max(L& l) { return l.qhalMax; }
    static C make(Fun f, UTIL_U32 slots) { return C{nullptr, slots, 0, 0, f}; }
    static std::pair<Node*, Node*> transfer_nodes(C& out, C& in) { return {&out.pnode[out.head], &in.pnode[in.tail]}; }
};
struct ArrayStack : KindBase<util_stack_high_arrayList_t, util_list_stack_high_arrayList_t,
                             util_stack_base_node_t, false, false, kAS, kPsa> {
    static auto* ops() { return util_ops_pfun->stack_high_arrayList; }
    static C*& array(L& l) { return l.pshal; }
    static UTIL_S32& max(L& l) { return l.shalMax; }
    static C make(Fun f, UTIL_U32 slots) { return C{nullptr, slots, 0, f}; }
    // Onto itself the stack hands over the slot it has just given up.
    static std::pair<Node*, Node*> transfer_nodes(C& out, C& in) {
        return {&out.pnode[out.top - 1], &in.pnode[&out == &in ? in.top - 1 : in.top]};
    }
};
using Kinds = ::testing::Types<LinkedQueue, LinkedStack, ArrayQueue, ArrayStack>;

// Every callback call, for the tests to compare with what should have happened.
struct Ledger {
    std::set<void*> live;  // element copies made by on_insert and not yet freed
    std::vector<int> removed, shown;
    std::vector<std::pair<void*, void*>> moved;
    int broken = 0;  // contract breaches: data not NULL before insert, release of an unknown element
};
inline Ledger g;
inline int value(void* data) { return *static_cast<int*>(data); }

template <class Node>
UTIL_S32 on_insert(Node* node, void* pdata) {
    g.broken += node->data != nullptr;
    g.live.insert(node->data = new int(value(pdata)));
    return 0;
}
template <class Node>
UTIL_S32 on_remove(Node* node) {
    if (g.live.erase(node->data) != 1) return ++g.broken;
    g.removed.push_back(value(node->data));
    delete static_cast<int*>(node->data);
    return 0;
}
template <class Node>
UTIL_S32 on_search(Node* node, void* key) { return value(node->data) == value(key); }
template <class Node>
UTIL_S32 on_modify(Node* node, void* pdata) { return (*static_cast<int*>(node->data) = value(pdata)) % 5 + 2; }
// The array forms need the data copied across; the linked forms move the node.
template <class Node, bool copy>
UTIL_S32 on_transfer(Node* out, Node* in) {
    g.moved.emplace_back(out, in);
    if (copy) in->data = out->data;
    return 0;
}
template <class Node>
UTIL_S32 on_display(Node* node) {
    g.shown.push_back(value(node->data));
    return 0;
}
template <class K>
typename K::Fun owning_callbacks() {
    using N = typename K::Node;
    return {on_insert<N>, on_remove<N>, on_search<N>, on_modify<N>, on_transfer<N, !K::linked>, on_display<N>};
}

// Routes the trace into the test's directory and starts a fresh ledger.
template <class K>
class ContainerTest : public qtest::DebugRecordTest {
protected:
    void SetUp() override {
        DebugRecordTest::SetUp();
        log_ = use_log("containers.log");
        g = Ledger{};
    }
    std::string log_;
};

// What `call` printed on the standard error stream.
template <class F>
std::string console(F call) {
    ::testing::internal::CaptureStderr();
    call();
    return ::testing::internal::GetCapturedStderr();
}

// A whole console message, or trace line, of the module's operation `op`, as a regex.
template <class K>
std::string err(const std::string& op, const std::string& text) {
    return "DBG_ERR:util_" + std::string(K::name) + "_function\\.cpp Func_" + K::name + "_" + op + "\\[\\d{4}\\] " +
           qtest::regex_escape(text);
}
template <class K>
std::string trace(const std::string& op, const std::string& text) {
    return "\\[util_" + std::string(K::name) + "_function\\.cpp \\+\\d+ +Func_" + K::name + "_" + op + "\\] " +
           qtest::regex_escape(text);
}

}  // namespace ctest
