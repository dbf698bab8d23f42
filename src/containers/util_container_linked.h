// The linked containers, queue and stack, written once: a singly linked list
// of nodes allocated one per element. The discipline (FifoLinks, LifoLinks)
// says where elements join and leave; everything else is shared.
#pragma once

#include "containers/util_container_common.h"

namespace quillane::container {

// First in, first out: elements join at `rear` and leave from `front`.
template <class C>
struct FifoLinks {
    using Node = std::remove_pointer_t<decltype(C::front)>;
    // A lookup of the last position is served from `rear` without a walk.
    static constexpr bool kLastShortcut = true;
    // The field a warning about an empty container names.
    static constexpr const char* kExitEndField = "front";

    static Node* exit_end(const C* c) noexcept { return c->front; }
    static Node* entry_end(const C* c) noexcept { return c->rear; }
    static void reset(C* c) noexcept { c->front = c->rear = nullptr; }
    static void join(C* c, Node* node) noexcept {
        node->next = nullptr;
        if (c->rear == nullptr) {
            c->front = node;
        } else {
            c->rear->next = node;
        }
        c->rear = node;
    }
    // The front node leaves; `next` was its successor when it was taken.
    static void leave(C* c, Node* next) noexcept {
        if (c->front == c->rear) {
            reset(c);
        } else {
            c->front = next;
        }
    }
};

// Last in, first out: elements join and leave at `top`.
template <class C>
struct LifoLinks {
    using Node = std::remove_pointer_t<decltype(C::top)>;
    static constexpr bool kLastShortcut = false;
    static constexpr const char* kExitEndField = "top";

    static Node* exit_end(const C* c) noexcept { return c->top; }
    static Node* entry_end(const C* c) noexcept { return c->top; }
    static void reset(C* c) noexcept { c->top = nullptr; }
    static void join(C* c, Node* node) noexcept {
        node->next = c->top;
        c->top = node;
    }
    static void leave(C* c, Node* next) noexcept { c->top = next; }
};

// How a lookup by position ended.
enum class Lookup { found, empty, beyond_count, count_too_high };

template <class C, class Links>
struct Linked {
    using Container = C;
    using Node = typename Links::Node;
    using Data = DataOf<Node>;
    using Fun = decltype(C::fun);
    static constexpr const char* kExitEndField = Links::kExitEndField;

    struct Found {
        Node* node;
        Lookup how;
    };

    static void init(C* c, const Fun& fun) noexcept {
        Links::reset(c);
        c->count = 0;
        c->fun = fun;
    }

    static C* create(const C& tmpl) noexcept {
        auto* c = static_cast<C*>(mem_malloc(sizeof(C)));
        if (c != nullptr) init(c, tmpl.fun);
        return c;
    }

    static bool is_empty(const C* c) noexcept { return Links::exit_end(c) == nullptr; }

    // False when no node could be had; the container is then untouched.
    static bool insert(C* c, Data* pdata) noexcept {
        auto* node = static_cast<Node*>(mem_malloc(sizeof(Node)));
        if (node == nullptr) return false;
        node->data = nullptr;
        if (auto fill = c->fun.insertNodeData_callback; fill != nullptr) {
            const reentry::Scope busy(c);
            fill(node, pdata);
        }
        Links::join(c, node);
        c->count = count_up(c->count);
        return true;
    }

    static UTIL_S32 remove(C* c) noexcept {
        Node* node = Links::exit_end(c);
        if (node == nullptr) return 1;
        Node* next = node->next;
        release(c, node);
        Links::leave(c, next);
        mem_free(node);
        c->count = count_down(c->count);
        return 0;
    }

    static void clear(C* c) noexcept {
        while (remove(c) == 0) {
        }
        Links::reset(c);
    }

    static void destroy(C* c) noexcept {
        clear(c);
        mem_free(c);
    }

    // The position of the first match counted from the leaving end, or -1.
    static UTIL_S32 search(const C* c, Data* key) noexcept {
        const reentry::Scope busy(c);
        UTIL_S32 position = 0;
        for (Node* node = Links::exit_end(c); node != nullptr; node = node->next, ++position) {
            if (matches(c->fun, node, key)) return position;
        }
        return -1;
    }

    static void display(const C* c) noexcept {
        const reentry::Scope busy(c);
        for (Node* node = Links::exit_end(c); node != nullptr; node = node->next) {
            container::display(c->fun, node);
        }
    }

    // The nodes really linked, whatever `count` says.
    static UTIL_S32 size(const C* c) noexcept {
        UTIL_S32 n = 0;
        for (Node* node = Links::exit_end(c); node != nullptr; node = node->next) n = count_up(n);
        return n;
    }

    static UTIL_S32 count_field(const C* c) noexcept { return c->count; }

    // A negative position takes no step and so gives the leaving end. A walk
    // that runs out of nodes means the caller raised `count` above the truth.
    static Found get_node(const C* c, UTIL_S32 position) noexcept {
        Node* node = Links::exit_end(c);
        if (node == nullptr) return {nullptr, Lookup::empty};
        if (position >= c->count) return {nullptr, Lookup::beyond_count};
        if (position == 0) return {node, Lookup::found};
        if constexpr (Links::kLastShortcut) {
            if (static_cast<std::int64_t>(position) == static_cast<std::int64_t>(c->count) - 1) {
                return {Links::entry_end(c), Lookup::found};
            }
        }
        for (UTIL_S32 step = 0; step < position; ++step) {
            node = node->next;
            if (node == nullptr) return {nullptr, Lookup::count_too_high};
        }
        return {node, Lookup::found};
    }

    // The node itself moves: nothing is allocated or freed and neither the
    // insert nor the remove callback runs. Onto itself, the leaving end is
    // re-read after the unlink, so a stack never links a node to itself.
    static UTIL_S32 transfer(C* out, C* in) noexcept {
        Node* node = Links::exit_end(out);
        if (node == nullptr) return 1;
        if (auto move = transfer_callback(out->fun, in->fun); move != nullptr) {
            const reentry::Scope busy_out(out);
            const reentry::Scope busy_in(in);
            move(node, Links::entry_end(in));
        }
        Links::leave(out, node->next);
        out->count = count_down(out->count);
        Links::join(in, node);
        in->count = count_up(in->count);
        return 0;
    }

    // exit_list empties every container of the array (the array itself goes
    // after), with the whole array in use while element callbacks run.
    static void release_entries(C* array, UTIL_S32 n) noexcept {
        const reentry::Scope busy(array, array_bytes<C>(n));
        for (UTIL_S32 i = 0; i < n; ++i) clear(&array[i]);
    }
};

// The named operations of a linked module, less those of Shell.
template <class Ops, const Names& N>
struct LinkedShell : Shell<Ops, N> {
    using Base = Shell<Ops, N>;
    using typename Base::C, typename Base::Data, typename Base::Node;
    using Base::busy, Base::missing;

    static C* create(Where at, C* tmpl) noexcept {
        if (Base::missing_template(at, tmpl, "linkedList")) return nullptr;
        C* created = Ops::create(*tmpl);
        if (created == nullptr) UTIL_DBG_ERR_AT(at, "error: malloc p%s fail!\n", N.kind);
        return created;
    }

    static UTIL_S32 insert(Where at, C* c, Data* pdata) noexcept {
        if (missing(at, c) || busy(at, c)) return -1;
        if (Ops::insert(c, pdata)) return 0;
        UTIL_DBG_ERR_AT(at, "malloc %s fail!\n", N.kind);
        return -1;
    }

    static UTIL_S32 transfer(Where at, C* out, C* in) noexcept {
        if (Base::unfit_pair(at, out, in)) return -1;
        return Ops::transfer(out, in);
    }

    static UTIL_S32 search(Where at, C* c, Data* key) noexcept {
        return missing(at, c) || empty(at, c) ? -1 : Ops::search(c, key);
    }

    static UTIL_S32 display(Where at, C* c) noexcept {
        if (missing(at, c) || empty(at, c)) return -1;
        Ops::display(c);
        return 0;
    }

    // The lookup behind modify and getNodeData, for a container they have
    // checked: *result 0 found, 1 empty, -1 failed.
    static Node* get_node(Where at, C* c, UTIL_S32 position, UTIL_S32* result) noexcept {
        const typename Ops::Found found = Ops::get_node(c, position);
        *result = 0;
        if (found.how == Lookup::beyond_count) {
            UTIL_DBG_ERR_AT(at, "warning: %s count=%d <= position=%d!\n", N.kind, c->count, position);
            *result = -1;
        } else if (found.how == Lookup::count_too_high) {
            UTIL_DBG_ERR_AT(at, "warning: %s count=%d > real_%s_size, please reset %s->count!\n", N.kind, c->count,
                            N.kind, N.kind);
            *result = -1;
        } else if (found.how == Lookup::empty) {
            *result = 1;
        }
        return found.node;
    }

    // `find` is the module's getNode, which speaks for itself.
    template <class Find>
    static UTIL_S32 modify(Where at, C* c, UTIL_S32 position, Data* pdata, Find find) noexcept {
        if (missing(at, c)) return -1;
        UTIL_S32 result = 0;
        Node* node = lookup(at, c, position, find, &result);
        return result != 0 ? result : container::modify(c, node, pdata);
    }

    template <class Find>
    static Data* get_node_data(Where at, C* c, UTIL_S32 position, Find find) noexcept {
        if (missing(at, c)) return nullptr;
        UTIL_S32 result = 0;
        Node* node = lookup(at, c, position, find, &result);
        return result == 0 ? node->data : nullptr;
    }

    template <class List, class Exit>
    static UTIL_S32 init_list(Where at, List* list, C* elems, UTIL_S32 n, Exit own_exit) noexcept {
        return Base::init_list(at, list, elems, n, own_exit,
                               [](C* entry, const C& tmpl, UTIL_S32) { Ops::init(entry, tmpl.fun); });
    }

private:
    // search and display refuse an empty container with a warning.
    static bool empty(Where at, const C* c) noexcept {
        if (!Ops::is_empty(c)) return false;
        UTIL_DBG_ERR_AT(at, "warning: %s->%s is NULL!!\n", N.kind, Ops::kExitEndField);
        return true;
    }

    template <class Find>
    static Node* lookup(Where at, C* c, UTIL_S32 position, Find find, UTIL_S32* result) noexcept {
        Node* node = find(c, position, result);
        if (*result == -1) UTIL_DBG_ERR_AT(at, "error: search position=%d failed!!\n", position);
        return node;
    }
};

}  // namespace quillane::container
