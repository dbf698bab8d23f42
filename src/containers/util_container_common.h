// What the four containers (queue and stack, linked and array) share: the
// callback contract, counts that cannot overflow, and the operations whose
// C-ABI shell is the same for every form.
//
// Why the shells are macros: every message names the operation that prints it
// and that operation's source file (__func__, UTIL_SRC_FILE), and only code
// expanded inside the named operation itself can supply them. So the
// algorithms are plain templates (util_container_linked.h,
// util_container_array.h) that return what happened, and each module's source
// expands the macros below once, with its own names and texts, to get its
// named operations and its table. The line in every message is the line of
// that expansion.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/util_alloc.h"
#include "core/util_msg.h"
#include "core/util_reentry.h"

namespace quillane::container {

// The record is public, so a caller may have written any value into a count;
// growing saturates instead of overflowing and shrinking stops at 0.
inline UTIL_S32 count_up(UTIL_S32 n) noexcept { return n < INT32_MAX ? n + 1 : n; }
inline UTIL_S32 count_down(UTIL_S32 n) noexcept { return n > 0 ? n - 1 : n; }

template <class Node>
using DataOf = std::remove_pointer_t<decltype(Node::data)>;

// What a callback may do. Every callback runs while its container is marked
// in use (util_reentry.h): it may read that container (isEmpty, isFull,
// search, display, modify, getNodeData, getSize, getCount) and use any other
// container, but an operation that would add, take out, move or free
// elements of a container in use (insert, remove, transfer from or into it,
// clear, destroy, and init_list or exit_list of the list that holds it) is
// refused with -1: the operation that called the callback still holds the
// node, slot or index it is working on, and would go on with freed or
// overwritten memory. While exit_list or destroy of a list empties it, the
// whole array of containers is in use.

// A node matches a key through the search callback, else by pointer identity.
// The caller of a walk marks the container in use.
template <class Fun, class Node>
bool matches(const Fun& fun, Node* node, DataOf<Node>* key) noexcept {
    return fun.searchNodeData_callback != nullptr ? fun.searchNodeData_callback(node, key) != 0 : node->data == key;
}

// Every element that leaves container c for good goes through here, once.
template <class C, class Node>
void release(const C* c, Node* node) noexcept {
    if (auto free_data = c->fun.removeNodeData_callback; free_data != nullptr) {
        const reentry::Scope busy(c);
        free_data(node);
    }
}

template <class C, class Node>
UTIL_S32 modify(const C* c, Node* node, DataOf<Node>* pdata) noexcept {
    auto change = c->fun.modifyNodeData_callback;
    if (change == nullptr) return 0;
    const reentry::Scope busy(c);
    return change(node, pdata);
}

template <class Fun, class Node>
void display(const Fun& fun, Node* node) noexcept {
    if (fun.displayNodeData_callback != nullptr) fun.displayNodeData_callback(node);
}

// The bytes of an array of n containers (none for a count the caller broke).
template <class C>
std::size_t array_bytes(UTIL_S32 n) noexcept {
    return n > 0 ? static_cast<std::size_t>(n) * sizeof(C) : 0;
}

// An array of `n` (> 0) container records, zeroed.
template <class Container>
Container* allocate_array(UTIL_S32 n) noexcept {
    return static_cast<Container*>(mem_calloc(static_cast<std::size_t>(n), sizeof(Container)));
}

// The source's transfer callback if it has one, else the destination's.
template <class Fun>
auto transfer_callback(const Fun& out, const Fun& in) noexcept {
    return out.transferNodeData_callback != nullptr ? out.transferNodeData_callback : in.transferNodeData_callback;
}

}  // namespace quillane::container

// The types of one module: its record, its node, and its form's algorithms
// (Linked or Array) over its discipline.
#define QUILLANE_CONTAINER_TYPES(NAME, FORM, DISCIPLINE)                                              \
    using Container = util_##NAME##_t;                                                                 \
    using Ops = ::quillane::container::FORM<Container, ::quillane::container::DISCIPLINE<Container>>; \
    using Node = Ops::Node

// Inside a named operation: a null container is reported and refused.
#define QUILLANE_CONTAINER_REQUIRE(NAME, p, failed)      \
    do {                                                 \
        if ((p) == nullptr) {                            \
            UTIL_DBG_ERR("error: " #NAME " is NULL!\n"); \
            return failed;                               \
        }                                                \
    } while (0)

// An operation that would add, take out, move or free elements refuses a
// container whose callback is running on this thread.
#define QUILLANE_CONTAINER_REQUIRE_IDLE(NAME, p)                           \
    do {                                                                   \
        if (::quillane::reentry::covered(p)) {                             \
            UTIL_DBG_ERR("error: " #NAME " is in use by a callback!\n");   \
            return -1;                                                     \
        }                                                                  \
    } while (0)

// The same for a list: none of its containers may be in use.
#define QUILLANE_CONTAINER_REQUIRE_IDLE_LIST(NAME, LIST, ARRAY, MAX)                                          \
    do {                                                                                                      \
        if (LIST->ARRAY != nullptr &&                                                                         \
            ::quillane::reentry::covered(LIST->ARRAY, ::quillane::container::array_bytes<Container>(LIST->MAX))) { \
            UTIL_DBG_ERR("error: " #NAME " is in use by a callback!\n");                                      \
            return -1;                                                                                        \
        }                                                                                                     \
    } while (0)

// create refuses a null template; FORM is "linkedList" or "arrayList".
#define QUILLANE_CONTAINER_REQUIRE_TEMPLATE(FORM, KIND, p)                 \
    do {                                                                   \
        if ((p) == nullptr) {                                              \
            UTIL_DBG_ERR("error: default " FORM " " #KIND " is NULL!\n");  \
            return nullptr;                                                \
        }                                                                  \
    } while (0)

// transfer refuses a null source or destination.
#define QUILLANE_CONTAINER_REQUIRE_PAIR(NAME, OUT, IN, pout, pin)           \
    do {                                                                    \
        if ((pout) == nullptr || (pin) == nullptr) {                        \
            UTIL_DBG_ERR("error: " #NAME ", " OUT " or " IN " is NULL!\n"); \
            return -1;                                                      \
        }                                                                   \
    } while (0)

// An operation on one container that has nothing to report but a null one.
#define QUILLANE_CONTAINER_SIMPLE(NAME, TYPE, OP, failed, result)      \
    TYPE Func_##NAME##_##OP(Container* pcontainer) noexcept {          \
        QUILLANE_CONTAINER_REQUIRE(NAME, pcontainer, failed);          \
        return result;                                                 \
    }

#define QUILLANE_CONTAINER_BOOL(test) ((test) ? UTIL_TRUE : UTIL_FALSE)

// An operation on one container that changes its elements.
#define QUILLANE_CONTAINER_CHANGE(NAME, OP, result)                \
    UTIL_S32 Func_##NAME##_##OP(Container* pcontainer) noexcept {  \
        QUILLANE_CONTAINER_REQUIRE(NAME, pcontainer, -1);          \
        QUILLANE_CONTAINER_REQUIRE_IDLE(NAME, pcontainer);         \
        return result;                                             \
    }

// The operations whose shell is the same for both forms; `Ops` is the
// form's algorithm template, `EQUIP(ELEMS, LIST, ARRAY, i)` readies entry i of
// a new array of containers (`array`) from the template ELEMS[i]. NAME is the
// module (queue_high_linkedList), LIST and ELEMS the names of the list
// operations' parameters (pqlList, pql), ARRAY and MAX the list record's
// fields (pqhll, qhllMax), NUM the word in the allocation trace.
#define QUILLANE_CONTAINER_COMMON_OPERATIONS(NAME, LIST, ELEMS, ARRAY, MAX, NUM, EQUIP)                      \
    QUILLANE_CONTAINER_SIMPLE(NAME, UTIL_BOOL, isEmpty, UTIL_FALSE,                                          \
                              QUILLANE_CONTAINER_BOOL(Ops::is_empty(pcontainer)))                            \
    QUILLANE_CONTAINER_CHANGE(NAME, remove, Ops::remove(pcontainer))                                         \
    QUILLANE_CONTAINER_CHANGE(NAME, clear, (Ops::clear(pcontainer), 0))                                      \
    QUILLANE_CONTAINER_SIMPLE(NAME, UTIL_S32, getSize, -1, Ops::size(pcontainer))                            \
    QUILLANE_CONTAINER_SIMPLE(NAME, UTIL_S32, getCount, -1, Ops::count_field(pcontainer))                    \
    /* Meant for a container from create; one of an array ends with exit_list. */                            \
    UTIL_S32 Func_##NAME##_destroy(Container** ppcontainer) noexcept {                                       \
        if (ppcontainer != nullptr && *ppcontainer != nullptr) {                                             \
            QUILLANE_CONTAINER_REQUIRE_IDLE(NAME, *ppcontainer);                                             \
            Ops::destroy(*ppcontainer);                                                                      \
            *ppcontainer = nullptr;                                                                          \
        }                                                                                                    \
        return 0;                                                                                            \
    }                                                                                                        \
    UTIL_S32 Func_##NAME##_exit_list(util_list_##NAME##_t* LIST) noexcept {                                  \
        if (LIST == nullptr) {                                                                               \
            UTIL_TRACE("error: " #LIST " is NULL!\n");                                                       \
            return -1;                                                                                       \
        }                                                                                                    \
        QUILLANE_CONTAINER_REQUIRE_IDLE_LIST(NAME, LIST, ARRAY, MAX);                                        \
        if (LIST->ARRAY != nullptr) {                                                                        \
            Ops::release_list(LIST->ARRAY, LIST->MAX);                                                       \
            LIST->ARRAY = nullptr;                                                                           \
        }                                                                                                    \
        UTIL_TRACE("free succeed, num;%d\n", LIST->MAX);                                                     \
        LIST->MAX = 0;                                                                                       \
        return 0;                                                                                            \
    }                                                                                                        \
    UTIL_S32 Func_##NAME##_init_list(util_list_##NAME##_t* LIST, Container* ELEMS, UTIL_S32 max) noexcept {  \
        if (LIST == nullptr || ELEMS == nullptr || max <= 0) {                                               \
            UTIL_TRACE("error: " #LIST " or " #ELEMS " is NULL, max:%d!!!\n", max);                          \
            return -1;                                                                                       \
        }                                                                                                    \
        QUILLANE_CONTAINER_REQUIRE_IDLE_LIST(NAME, LIST, ARRAY, MAX);                                        \
        if (LIST->ARRAY != nullptr) Func_##NAME##_exit_list(LIST);                                           \
        Container* array = ::quillane::container::allocate_array<Container>(max);                            \
        if (array == nullptr) {                                                                              \
            UTIL_DBG_ERR("error: malloc failed!!!!!");                                                       \
            UTIL_TRACE("error, malloc failed!!!\n");                                                         \
            return -1;                                                                                       \
        }                                                                                                    \
        LIST->ARRAY = array;                                                                                 \
        LIST->MAX = max;                                                                                     \
        UTIL_TRACE("malloc succeed, " NUM " num;%d\n", max);                                                 \
        for (UTIL_S32 i = 0; i < max; ++i) {                                                                 \
            EQUIP(ELEMS, LIST, ARRAY, i);                                                                    \
        }                                                                                                    \
        return 0;                                                                                            \
    }
