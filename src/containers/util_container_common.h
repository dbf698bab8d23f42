// What the four containers (queue and stack, linked and array) share: the
// callback contract, counts that cannot overflow, and the operations whose
// C-ABI shell is the same for every form.
//
// Every message names the operation the user called and that operation's
// source file, and only the named operation itself knows both (__func__,
// UTIL_SRC_FILE). So each module's source defines its operations by name,
// each a one-statement function that hands UTIL_HERE to the shell template
// of its form (Shell below, LinkedShell, ArrayShell); the shell checks the
// arguments, runs the form's algorithm (Linked, Array), which returns what
// happened, and reports it at that place. The words that differ between
// modules' messages come in as a Names object. The line in every message is
// the line of the named operation.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/util_alloc.h"
#include "core/util_entry_list.h"
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


// The source's transfer callback if it has one, else the destination's.
template <class Fun>
auto transfer_callback(const Fun& out, const Fun& in) noexcept {
    return out.transferNodeData_callback != nullptr ? out.transferNodeData_callback : in.transferNodeData_callback;
}

// The words a module's messages use besides its operations' names.
struct Names {
    const char* module;  // queue_high_arrayList, the name of a container that is NULL
    const char* kind;    // queue or stack
    const char* out;     // transfer's two containers: queueOut, queueIn
    const char* in;
    const char* list;  // init_list's parameters: pqaList, pqa
    const char* elems;
    const char* array;  // the list record's array field: pqhal
    const char* num;    // the word of the allocation trace: ql
};

// The checks and operations whose shell both forms share. `at` is the named
// operation the user called; every message is written there.
template <class Ops, const Names& N>
struct Shell {
    using C = typename Ops::Container;
    using Data = typename Ops::Data;
    using Node = typename Ops::Node;

    // A null container is reported and refused.
    static bool missing(Where at, const C* c) noexcept {
        if (c != nullptr) return false;
        UTIL_DBG_ERR_AT(at, "error: %s is NULL!\n", N.module);
        return true;
    }

    // create refuses a null template; `form` is linkedList or arrayList.
    static bool missing_template(Where at, const C* tmpl, const char* form) noexcept {
        if (tmpl != nullptr) return false;
        UTIL_DBG_ERR_AT(at, "error: default %s %s is NULL!\n", form, N.kind);
        return true;
    }

    // An operation that would add, take out, move or free elements refuses
    // the bytes of a container whose callback is running on this thread.
    static bool busy(Where at, const void* p, std::size_t size = sizeof(C)) noexcept {
        if (!reentry::covered(p, size)) return false;
        UTIL_DBG_ERR_AT(at, "error: %s is in use by a callback!\n", N.module);
        return true;
    }

    // transfer refuses a null source or destination, and either in use.
    static bool unfit_pair(Where at, const C* out, const C* in) noexcept {
        if (out == nullptr || in == nullptr) {
            UTIL_DBG_ERR_AT(at, "error: %s, %s or %s is NULL!\n", N.module, N.out, N.in);
            return true;
        }
        return busy(at, out) || busy(at, in);
    }

    // The same for a list record, {array, its number of containers}: none
    // of its containers may be in use.
    template <class List>
    static bool busy_list(Where at, const List* list) noexcept {
        const auto& [array, max] = *list;
        return array != nullptr && busy(at, array, array_bytes<C>(max));
    }

    static UTIL_BOOL is_empty(Where at, C* c) noexcept {
        if (missing(at, c)) return UTIL_FALSE;
        return Ops::is_empty(c) ? UTIL_TRUE : UTIL_FALSE;
    }

    static UTIL_S32 remove(Where at, C* c) noexcept { return missing(at, c) || busy(at, c) ? -1 : Ops::remove(c); }

    static UTIL_S32 clear(Where at, C* c) noexcept {
        if (missing(at, c) || busy(at, c)) return -1;
        Ops::clear(c);
        return 0;
    }

    static UTIL_S32 get_size(Where at, C* c) noexcept { return missing(at, c) ? -1 : Ops::size(c); }
    static UTIL_S32 get_count(Where at, C* c) noexcept { return missing(at, c) ? -1 : Ops::count_field(c); }

    // Meant for a container from create; one of an array ends with exit_list.
    static UTIL_S32 destroy(Where at, C** pc) noexcept {
        if (pc == nullptr || *pc == nullptr) return 0;
        if (busy(at, *pc)) return -1;
        Ops::destroy(*pc);
        *pc = nullptr;
        return 0;
    }

    template <class List>
    static UTIL_S32 exit_list(Where at, List* list) noexcept {
        if (list == nullptr) {
            UTIL_TRACE_AT(at, "error: %s is NULL!\n", N.list);
            return -1;
        }
        if (busy_list(at, list)) return -1;
        auto& [array, max] = *list;
        return entry_list::release(at, array, max, Ops::release_entries);
    }

    // A live array is emptied by the module's own exit_list, which speaks
    // for itself; `equip(entry, tmpl, i)` readies entry i from elems[i].
    template <class List, class Exit, class Equip>
    static UTIL_S32 init_list(Where at, List* list, C* elems, UTIL_S32 n, Exit own_exit, Equip equip) noexcept {
        if (list == nullptr || elems == nullptr || n <= 0) {
            UTIL_TRACE_AT(at, "error: %s or %s is NULL, max:%d!!!\n", N.list, N.elems, n);
            return -1;
        }
        if (busy_list(at, list)) return -1;
        auto& [array, max] = *list;
        if (array != nullptr) own_exit(list);
        C* fresh = entry_list::allocate(at, array, max, n, N.num);
        if (fresh == nullptr) return -1;
        for (UTIL_S32 i = 0; i < n; ++i) equip(&fresh[i], elems[i], i);
        return 0;
    }
};

}  // namespace quillane::container
