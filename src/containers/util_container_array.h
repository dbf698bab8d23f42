// The array containers, queue and stack, written once: node slots allocated
// when the container is made, after which nothing is allocated. The
// discipline (RingSlots, StackSlots) says which slot an element enters and
// leaves by and how positions map to slots; everything else is shared.
#pragma once

#include "containers/util_container_common.h"

namespace quillane::container {

// The ring of the array queue: the elements lie from `head` up to, not
// including, `tail`, and one slot always stays free. Indices never reach
// nodeMax, so a compare stands in for the remainder; with a nodeMax of 0 (an
// entry init_list could not equip) both stay 0 and the ring is always empty.
// The record is public: a ring whose caller wrote an index at or past
// nodeMax holds no elements and takes none (insert and transfers into it
// answer 1), so no slot outside the array is ever touched.
template <class C>
struct RingSlots {
    using Node = std::remove_pointer_t<decltype(C::pnode)>;

    static bool broken(const C* c) noexcept { return c->head >= c->nodeMax || c->tail >= c->nodeMax; }
    static UTIL_U32 next(const C* c, UTIL_U32 index) noexcept { return index + 1 == c->nodeMax ? 0 : index + 1; }
    static bool empty(const C* c) noexcept { return c->head == c->tail || broken(c); }
    static bool full(const C* c) noexcept { return next(c, c->tail) == c->head; }
    static bool can_enter(const C* c) noexcept { return !broken(c); }
    static UTIL_U32 count(const C* c) noexcept {
        if (broken(c)) return 0;
        return c->tail >= c->head ? c->tail - c->head : c->nodeMax - c->head + c->tail;
    }
    static UTIL_U32 entry(const C* c) noexcept { return c->tail; }
    static UTIL_U32 entry_after(const C* c) noexcept { return next(c, c->tail); }
    static void enter(C* c, UTIL_U32 after) noexcept { c->tail = after; }
    // The oldest element's slot; the index moves on once it is handled.
    static UTIL_U32 leave_begin(const C* c) noexcept { return c->head; }
    static UTIL_U32 leave_after(const C* c) noexcept { return next(c, c->head); }
    static void leave_end(C* c, UTIL_U32 after) noexcept { c->head = after; }
    // The slot of the k-th element to leave (k < count).
    static UTIL_U32 slot_of_element(const C* c, UTIL_U32 k) noexcept {
        const UTIL_U32 before_wrap = c->nodeMax - c->head;
        return k < before_wrap ? c->head + k : k - before_wrap;
    }
    // Positions are slot indices: a negative one, seen unsigned, is never valid.
    static UTIL_S32 position_of_slot(const C*, UTIL_U32 slot) noexcept { return static_cast<UTIL_S32>(slot); }
    static bool slot_of_position(const C* c, UTIL_S32 position, UTIL_U32* slot) noexcept {
        const auto index = static_cast<UTIL_U32>(position);
        *slot = index;
        if (index >= c->nodeMax) return false;
        return c->head < c->tail ? c->head <= index && index < c->tail : index >= c->head || index < c->tail;
    }
    static void reset(C* c) noexcept { c->head = c->tail = 0; }
};

// The array stack: the elements lie in slots 0 to top - 1, the newest last,
// and positions count from the newest. A `top` that a caller raised past
// nodeMax makes the stack hold nothing and take nothing, as for the ring.
template <class C>
struct StackSlots {
    using Node = std::remove_pointer_t<decltype(C::pnode)>;

    static bool empty(const C* c) noexcept { return c->top == 0 || c->top > c->nodeMax; }
    static bool full(const C* c) noexcept { return c->top >= c->nodeMax; }
    static bool can_enter(const C*) noexcept { return true; }  // full() already says it
    static UTIL_U32 count(const C* c) noexcept { return c->top <= c->nodeMax ? c->top : 0; }
    static UTIL_U32 entry(const C* c) noexcept { return c->top; }
    static UTIL_U32 entry_after(const C* c) noexcept { return c->top < c->nodeMax ? c->top + 1 : c->top; }
    static void enter(C* c, UTIL_U32 after) noexcept { c->top = after; }
    // `top` falls before the element is handled, so a transfer onto the same
    // stack hands over the same slot twice.
    static UTIL_U32 leave_begin(C* c) noexcept { return --c->top; }
    static UTIL_U32 leave_after(const C*) noexcept { return 0; }
    static void leave_end(C*, UTIL_U32) noexcept {}
    static UTIL_U32 slot_of_element(const C* c, UTIL_U32 k) noexcept { return c->top - 1 - k; }
    static UTIL_S32 position_of_slot(const C* c, UTIL_U32 slot) noexcept {
        return static_cast<UTIL_S32>(c->top - slot - 1);
    }
    static bool slot_of_position(const C* c, UTIL_S32 position, UTIL_U32* slot) noexcept {
        if (position < 0 || static_cast<UTIL_U32>(position) >= count(c)) return false;
        *slot = c->top - static_cast<UTIL_U32>(position) - 1;
        return true;
    }
    static void reset(C* c) noexcept { c->top = 0; }
};

// How readying a container's slots ended.
enum class Made { ok, no_record, zero_slots, no_slots };

// How an insert or a transfer ended; the value is the operation's result.
enum class Put : UTIL_S32 { done = 0, nothing = 1, zero_slots = -1 };

template <class C, class Slots>
struct Array {
    using Container = C;
    using Node = typename Slots::Node;
    using Data = DataOf<Node>;

    // Takes the template's callbacks and slot count and allocates the slots,
    // all with data NULL. A container that gets none is left empty with
    // nodeMax 0, so every later operation sees it empty and refuses to fill it.
    static Made equip(C* c, const C& tmpl) noexcept {
        const UTIL_U32 slots = tmpl.nodeMax;
        c->fun = tmpl.fun;
        c->pnode = nullptr;
        c->nodeMax = 0;
        Slots::reset(c);
        if (slots == 0) return Made::zero_slots;
        c->pnode = static_cast<Node*>(mem_calloc(slots, sizeof(Node)));
        if (c->pnode == nullptr) return Made::no_slots;
        c->nodeMax = slots;
        return Made::ok;
    }

    static C* create(const C& tmpl, Made* how) noexcept {
        auto* c = static_cast<C*>(mem_malloc(sizeof(C)));
        if (c == nullptr) {
            *how = Made::no_record;
            return nullptr;
        }
        *how = equip(c, tmpl);
        if (*how == Made::ok) return c;
        mem_free(c);
        return nullptr;
    }

    static bool is_empty(const C* c) noexcept { return Slots::empty(c); }
    static bool is_full(const C* c) noexcept { return Slots::full(c); }

    // insert, remove and transfer work out the index an element moves on to
    // before its callback runs and store it after: the callback is the
    // caller's code and could write anywhere, so an index worked out after
    // it would cost reading the record again.

    // Without an insert callback the slot keeps whatever data it held.
    static Put insert(C* c, Data* pdata) noexcept {
        if (c->nodeMax == 0) return Put::zero_slots;
        if (Slots::full(c) || !Slots::can_enter(c)) return Put::nothing;
        const UTIL_U32 at = Slots::entry(c);
        const UTIL_U32 after = Slots::entry_after(c);
        if (auto fill = c->fun.insertNodeData_callback; fill != nullptr) {
            Node* slot = &c->pnode[at];
            slot->data = nullptr;
            const reentry::Scope busy(c);
            fill(slot, pdata);
        }
        Slots::enter(c, after);
        return Put::done;
    }

    // The slot's data pointer stays; the slot merely counts as free again.
    static UTIL_S32 remove(C* c) noexcept {
        if (Slots::empty(c)) return 1;
        const UTIL_U32 at = Slots::leave_begin(c);
        const UTIL_U32 after = Slots::leave_after(c);
        release(c, &c->pnode[at]);
        Slots::leave_end(c, after);
        return 0;
    }

    static void clear(C* c) noexcept {
        for (UTIL_U32 n = Slots::count(c); n > 0; --n) {
            if (remove(c) == 1) break;
        }
    }

    static void destroy(C* c) noexcept {
        clear(c);
        mem_free(c->pnode);
        mem_free(c);
    }

    static UTIL_S32 search(const C* c, Data* key) noexcept {
        const reentry::Scope busy(c);
        const UTIL_U32 n = Slots::count(c);
        for (UTIL_U32 k = 0; k < n; ++k) {
            const UTIL_U32 slot = Slots::slot_of_element(c, k);
            if (matches(c->fun, &c->pnode[slot], key)) return Slots::position_of_slot(c, slot);
        }
        return -1;
    }

    static void display(const C* c) noexcept {
        const reentry::Scope busy(c);
        const UTIL_U32 n = Slots::count(c);
        for (UTIL_U32 k = 0; k < n; ++k) container::display(c->fun, &c->pnode[Slots::slot_of_element(c, k)]);
    }

    static UTIL_S32 size(const C* c) noexcept { return static_cast<UTIL_S32>(Slots::count(c)); }
    static UTIL_S32 count_field(const C* c) noexcept { return static_cast<UTIL_S32>(c->nodeMax); }

    // The occupied slot at `position`, or NULL when the position names none.
    static Node* slot_at(const C* c, UTIL_S32 position) noexcept {
        UTIL_U32 slot = 0;
        return Slots::slot_of_position(c, position, &slot) ? &c->pnode[slot] : nullptr;
    }

    // The transfer callback copies the element's data into the receiving
    // slot; without one the receiving slot keeps its old data. A transfer
    // into the same container is allowed even when it is full.
    static Put transfer(C* out, C* in) noexcept {
        if (Slots::empty(out)) return Put::nothing;
        if (in->nodeMax == 0) return Put::zero_slots;
        if ((in != out && Slots::full(in)) || !Slots::can_enter(in)) return Put::nothing;
        const UTIL_U32 from = Slots::leave_begin(out);
        const UTIL_U32 from_after = Slots::leave_after(out);
        const UTIL_U32 to = Slots::entry(in);
        const UTIL_U32 to_after = Slots::entry_after(in);
        if (auto move = transfer_callback(out->fun, in->fun); move != nullptr) {
            const reentry::Scope busy_out(out);
            const reentry::Scope busy_in(in);
            move(&out->pnode[from], &in->pnode[to]);
        }
        Slots::leave_end(out, from_after);
        Slots::enter(in, to_after);
        return Put::done;
    }

    // exit_list empties every container of the array (the array itself goes
    // after), with the whole array in use while element callbacks run.
    static void release_entries(C* array, UTIL_S32 n) noexcept {
        const reentry::Scope busy(array, array_bytes<C>(n));
        for (UTIL_S32 i = 0; i < n; ++i) {
            clear(&array[i]);
            mem_free(array[i].pnode);
        }
    }
};

// The named operations of an array module, less those of Shell.
template <class Ops, const Names& N>
struct ArrayShell : Shell<Ops, N> {
    using Base = Shell<Ops, N>;
    using typename Base::C, typename Base::Data, typename Base::Node;
    using Base::busy, Base::missing;

    static C* create(Where at, C* tmpl) noexcept {
        if (Base::missing_template(at, tmpl, "arrayList")) return nullptr;
        Made how = Made::ok;
        C* created = Ops::create(*tmpl, &how);
        if (how == Made::no_record) {
            UTIL_DBG_ERR_AT(at, "error: malloc p%s fail!\n", N.kind);
        } else if (how == Made::zero_slots) {
            UTIL_DBG_ERR_AT(at, "error: malloc array p%s nodeMax:%d fail!\n", N.kind, static_cast<int>(tmpl->nodeMax));
        } else if (how == Made::no_slots) {
            UTIL_DBG_ERR_AT(at, "error: malloc array p%s pnode fail!\n", N.kind);
        }
        return created;
    }

    static UTIL_BOOL is_full(Where at, C* c) noexcept {
        if (missing(at, c)) return UTIL_FALSE;
        return Ops::is_full(c) ? UTIL_TRUE : UTIL_FALSE;
    }

    static UTIL_S32 insert(Where at, C* c, Data* pdata) noexcept {
        if (missing(at, c) || busy(at, c)) return -1;
        const Put put = Ops::insert(c, pdata);
        if (put == Put::zero_slots) {
            UTIL_DBG_ERR_AT(at, "error: %s nodeMax:%d <=0!\n", N.module, static_cast<int>(c->nodeMax));
        }
        return static_cast<UTIL_S32>(put);
    }

    static UTIL_S32 transfer(Where at, C* out, C* in) noexcept {
        if (Base::unfit_pair(at, out, in)) return -1;
        const Put put = Ops::transfer(out, in);
        if (put == Put::zero_slots) {
            UTIL_DBG_ERR_AT(at, "error: %s, %s nodeMax:%d <=0!\n", N.module, N.in, static_cast<int>(in->nodeMax));
        }
        return static_cast<UTIL_S32>(put);
    }

    // An empty container is searched without a word.
    static UTIL_S32 search(Where at, C* c, Data* key) noexcept { return missing(at, c) ? -1 : Ops::search(c, key); }

    static UTIL_S32 display(Where at, C* c) noexcept {
        if (missing(at, c)) return -1;
        Ops::display(c);
        return 0;
    }

    static UTIL_S32 modify(Where at, C* c, UTIL_S32 position, Data* pdata) noexcept {
        if (missing(at, c)) return -1;
        if (Ops::is_empty(c)) return 1;
        Node* slot = Ops::slot_at(c, position);
        if (slot != nullptr) return container::modify(c, slot, pdata);
        bad_position(at, "", c, position);
        return -1;
    }

    static Data* get_node_data(Where at, C* c, UTIL_S32 position) noexcept {
        if (missing(at, c) || Ops::is_empty(c)) return nullptr;
        const Node* slot = Ops::slot_at(c, position);
        if (slot != nullptr) return slot->data;
        bad_position(at, "outRange, ", c, position);
        return nullptr;
    }

    template <class List, class Exit>
    static UTIL_S32 init_list(Where at, List* list, C* elems, UTIL_S32 n, Exit own_exit) noexcept {
        return Base::init_list(at, list, elems, n, own_exit,
                               [at](C* entry, const C& tmpl, UTIL_S32 i) { equip(at, entry, tmpl, i); });
    }

private:
    // The message names where the elements are, as the discipline keeps them.
    static void bad_position(Where at, const char* what, const C* c, UTIL_S32 position) noexcept {
        if constexpr (requires { c->head; }) {
            UTIL_DBG_ERR_AT(at, "error: %s%s head=%d, tail=%d, position=%d!\n", what, N.kind,
                            static_cast<int>(c->head), static_cast<int>(c->tail), position);
        } else {
            UTIL_DBG_ERR_AT(at, "error: %s%s top=%d, position=%d!\n", what, N.kind, static_cast<int>(c->top), position);
        }
    }

    // An entry of a new list that gets no slots is reported on the console
    // and in the trace, and the next entry follows.
    static void equip(Where at, C* entry, const C& tmpl, UTIL_S32 i) noexcept {
        const Made how = Ops::equip(entry, tmpl);
        const int wanted = static_cast<int>(tmpl.nodeMax);
        if (how == Made::zero_slots) {
            UTIL_DBG_ERR_AT(at, "error: malloc array %s[%d].nodeMax:%d fail!\n", N.elems, i, wanted);
            UTIL_TRACE_AT(at, "error: malloc array %s[%d].nodeMax:%d fail!\n\n", N.elems, i, wanted);
        } else if (how == Made::no_slots) {
            UTIL_DBG_ERR_AT(at, "error: malloc array %s->%s[i].pnode fail!\n", N.list, N.array);
            UTIL_TRACE_AT(at, "error: malloc array %s->%s[i].pnode fail!\n\n", N.list, N.array);
        }
    }
};

}  // namespace quillane::container
