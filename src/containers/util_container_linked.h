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
    using Node = typename Links::Node;
    using Data = DataOf<Node>;
    using Fun = decltype(C::fun);

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

    static void release_list(C* array, UTIL_S32 n) noexcept {
        const reentry::Scope busy(array, array_bytes<C>(n));
        for (UTIL_S32 i = 0; i < n; ++i) clear(&array[i]);
        mem_free(array);
    }
};

}  // namespace quillane::container

// Which field a warning about an empty container names.
#define QUILLANE_LINKS_END_FifoLinks "front"
#define QUILLANE_LINKS_END_LifoLinks "top"

#define QUILLANE_LINKED_EQUIP(ELEMS, LIST, ARRAY, i) Ops::init(&array[i], ELEMS[i].fun)

// search and display refuse an empty container with a warning.
#define QUILLANE_LINKED_REQUIRE_ELEMENTS(NAME, KIND, LINKS, p)                              \
    QUILLANE_CONTAINER_REQUIRE(NAME, p, -1);                                                \
    do {                                                                                    \
        if (Ops::is_empty(p)) {                                                             \
            UTIL_DBG_ERR("warning: " #KIND "->" QUILLANE_LINKS_END_##LINKS " is NULL!!\n"); \
            return -1;                                                                      \
        }                                                                                   \
    } while (0)

// Expands to the named operations and the table of one linked container
// module. NAME is the module (queue_high_linkedList), KIND its element word
// (queue), LINKS its discipline, OUT and IN the names the transfer message
// gives its two containers, and the rest as for the common operations.
#define QUILLANE_LINKED_CONTAINER(NAME, KIND, LINKS, OUT, IN, LIST, ELEMS, ARRAY, MAX)                        \
    namespace {                                                                                               \
    QUILLANE_CONTAINER_TYPES(NAME, Linked, LINKS);                                                            \
    using ::quillane::container::Lookup;                                                                      \
                                                                                                              \
    Container* Func_##NAME##_create(Container* pdefault) noexcept {                                           \
        QUILLANE_CONTAINER_REQUIRE_TEMPLATE("linkedList", KIND, pdefault);                                    \
        Container* created = Ops::create(*pdefault);                                                          \
        if (created == nullptr) UTIL_DBG_ERR("error: malloc p" #KIND " fail!\n");                             \
        return created;                                                                                       \
    }                                                                                                         \
    UTIL_S32 Func_##NAME##_insert(Container* pcontainer, Ops::Data* pdata) noexcept {                         \
        QUILLANE_CONTAINER_REQUIRE(NAME, pcontainer, -1);                                                     \
        QUILLANE_CONTAINER_REQUIRE_IDLE(NAME, pcontainer);                                                    \
        if (Ops::insert(pcontainer, pdata)) return 0;                                                         \
        UTIL_DBG_ERR("malloc " #KIND " fail!\n");                                                             \
        return -1;                                                                                            \
    }                                                                                                         \
    UTIL_S32 Func_##NAME##_transfer(Container* pout, Container* pin) noexcept {                               \
        QUILLANE_CONTAINER_REQUIRE_PAIR(NAME, OUT, IN, pout, pin);                                            \
        QUILLANE_CONTAINER_REQUIRE_IDLE(NAME, pout);                                                          \
        QUILLANE_CONTAINER_REQUIRE_IDLE(NAME, pin);                                                           \
        return Ops::transfer(pout, pin);                                                                      \
    }                                                                                                         \
    UTIL_S32 Func_##NAME##_search(Container* pcontainer, Ops::Data* pdata) noexcept {                         \
        QUILLANE_LINKED_REQUIRE_ELEMENTS(NAME, KIND, LINKS, pcontainer);                                      \
        return Ops::search(pcontainer, pdata);                                                                \
    }                                                                                                         \
    UTIL_S32 Func_##NAME##_display(Container* pcontainer) noexcept {                                          \
        QUILLANE_LINKED_REQUIRE_ELEMENTS(NAME, KIND, LINKS, pcontainer);                                      \
        Ops::display(pcontainer);                                                                             \
        return 0;                                                                                             \
    }                                                                                                         \
    /* The lookup behind modify and getNodeData: *result 0 found, 1 empty, -1 failed. */                     \
    Node* Func_##NAME##_getNode(Container* pcontainer, UTIL_S32 position, UTIL_S32* result) noexcept {        \
        *result = 0;                                                                                          \
        QUILLANE_CONTAINER_REQUIRE(NAME, pcontainer, (*result = -1, nullptr));                                \
        const Ops::Found found = Ops::get_node(pcontainer, position);                                         \
        if (found.how == Lookup::beyond_count) {                                                              \
            UTIL_DBG_ERR("warning: " #KIND " count=%d <= position=%d!\n", pcontainer->count, position);       \
            *result = -1;                                                                                     \
        } else if (found.how == Lookup::count_too_high) {                                                     \
            UTIL_DBG_ERR("warning: " #KIND " count=%d > real_" #KIND "_size, please reset " #KIND             \
                         "->count!\n",                                                                        \
                         pcontainer->count);                                                                  \
            *result = -1;                                                                                     \
        } else if (found.how == Lookup::empty) {                                                              \
            *result = 1;                                                                                      \
        }                                                                                                     \
        return found.node;                                                                                    \
    }                                                                                                         \
    UTIL_S32 Func_##NAME##_modify(Container* pcontainer, UTIL_S32 position, Ops::Data* pdata) noexcept {      \
        QUILLANE_CONTAINER_REQUIRE(NAME, pcontainer, -1);                                                     \
        UTIL_S32 result = 0;                                                                                  \
        Node* node = Func_##NAME##_getNode(pcontainer, position, &result);                                    \
        if (result == -1) UTIL_DBG_ERR("error: search position=%d failed!!\n", position);                     \
        return result != 0 ? result : ::quillane::container::modify(pcontainer, node, pdata);            \
    }                                                                                                         \
    Ops::Data* Func_##NAME##_getNodeData(Container* pcontainer, UTIL_S32 position) noexcept {                 \
        QUILLANE_CONTAINER_REQUIRE(NAME, pcontainer, nullptr);                                                \
        UTIL_S32 result = 0;                                                                                  \
        Node* node = Func_##NAME##_getNode(pcontainer, position, &result);                                    \
        if (result == -1) UTIL_DBG_ERR("error: search position=%d failed!!\n", position);                     \
        return result == 0 ? node->data : nullptr;                                                            \
    }                                                                                                         \
    QUILLANE_CONTAINER_COMMON_OPERATIONS(NAME, LIST, ELEMS, ARRAY, MAX, "ql", QUILLANE_LINKED_EQUIP)          \
    }                                                                                                         \
    util_ops_##NAME##_fun_t util_ops_##NAME##_fun = {                                                         \
        Func_##NAME##_create,  Func_##NAME##_isEmpty,  Func_##NAME##_insert,      Func_##NAME##_remove,       \
        Func_##NAME##_search,  Func_##NAME##_modify,   Func_##NAME##_transfer,    Func_##NAME##_clear,        \
        Func_##NAME##_display, Func_##NAME##_destroy,  Func_##NAME##_getSize,     Func_##NAME##_getCount,     \
        Func_##NAME##_getNodeData, Func_##NAME##_init_list, Func_##NAME##_exit_list,                          \
    };
