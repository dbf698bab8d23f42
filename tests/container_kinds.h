// The four containers behind one face, and callbacks that own int elements and log every call.
#pragma once

#include <functional>
#include <set>
#include <type_traits>

#include "test_support.h"

namespace ctest {

template <class R, class A, class... B>
A first_arg(R (*)(A, B...));

template <bool linked, bool fifo>
auto* table() {
    if constexpr (linked && fifo) return util_ops_pfun->queue_high_linkedList;
    else if constexpr (linked) return util_ops_pfun->stack_high_linkedList;
    else if constexpr (fifo) return util_ops_pfun->queue_high_arrayList;
    else return util_ops_pfun->stack_high_arrayList;
}

// Every type comes from the module's table of functions.
template <bool linked_, bool fifo_>
struct Kind {
    static auto* ops() { return table<linked_, fifo_>(); }
    using C = std::remove_pointer_t<decltype(table<linked_, fifo_>()->create(nullptr))>;
    using L = std::remove_pointer_t<decltype(first_arg(table<linked_, fifo_>()->init_list))>;
    using Node = std::remove_pointer_t<decltype(first_arg(C{}.fun.removeNodeData_callback))>;
    using Fun = decltype(C::fun);
    static constexpr bool linked = linked_, fifo = fifo_;
    static constexpr const char* word = fifo_ ? "queue" : "stack";
    static inline const std::string name = std::string(word) + (linked ? "_high_linked" : "_high_array") + "List";
    static inline const std::string elems = std::string("p") + word[0] + (linked ? 'l' : 'a');
    static C make(Fun f, UTIL_U32 slots) {
        C c{};
        c.fun = f;
        if constexpr (!linked) c.nodeMax = slots;
        return c;
    }
};
using Kinds = ::testing::Types<Kind<true, true>, Kind<true, false>, Kind<false, true>, Kind<false, false>>;

struct Ledger {
    std::set<void*> live;  // element copies made by Owning::insert and not yet freed
    std::vector<int> removed, shown;
    int moved = 0, broken = 0;  // transfer calls; data not NULL before insert, unknown element released
    std::function<void()> meddle;  // run once, by the next callback called
};
inline Ledger g;
inline int value(void* data) { return data == nullptr ? -1 : *static_cast<int*>(data); }
inline void meddle() { if (g.meddle) std::exchange(g.meddle, nullptr)(); }

// Callbacks that own a heap copy of each element.
template <class K>
struct Owning {
    using N = typename K::Node;
    static UTIL_S32 insert(N* node, void* pdata) {
        meddle();
        g.broken += node->data != nullptr;
        g.live.insert(node->data = new int(value(pdata)));
        return 0;
    }
    static UTIL_S32 remove(N* node) {
        meddle();
        if (g.live.erase(node->data) != 1) return ++g.broken;
        g.removed.push_back(value(node->data));
        delete static_cast<int*>(node->data);
        return 0;
    }
    static UTIL_S32 search(N* node, void* key) { return meddle(), value(node->data) == value(key); }
    static UTIL_S32 modify(N* node, void* v) {
        return meddle(), (*static_cast<int*>(node->data) = value(v)) % 5 + 2;
    }
    // The array forms need the data copied across; the linked forms move the node.
    static UTIL_S32 transfer(N* out, N* in) {
        meddle(), ++g.moved;
        if (!K::linked) in->data = out->data;
        return 0;
    }
    static UTIL_S32 display(N* node) { return meddle(), g.shown.push_back(value(node->data)), 0; }
    static typename K::Fun fun() { return {insert, remove, search, modify, transfer, display}; }
};

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

// A whole console message, or trace line, of the module's operation `op`, as a regex.
template <class K>
std::string err(const std::string& op, const std::string& text, bool traced = false) {
    const std::string source = "util_" + K::name + "_function", fn = "Func_" + K::name + "_" + op;
    const std::string said = qtest::regex_escape(text);
    return traced ? "\\[" + source + "\\.cpp \\+\\d+ +" + fn + "\\] " + said : qtest::console_error(source, fn, said);
}

}  // namespace ctest
