// Array queue: a ring of nodeMax slots holding up to nodeMax - 1 elements.
// Positions are slot indices, so an element keeps its position while others
// come and go.
#include "containers/util_container_array.h"
#include "core/util_tables.h"

namespace {
namespace qc = quillane::container;
using Container = util_queue_high_arrayList_t;
using List = util_list_queue_high_arrayList_t;
constexpr qc::Names kNames{.module = "queue_high_arrayList", .kind = "queue", .out = "queueOut", .in = "queueIn",
                           .list = "pqaList", .elems = "pqa", .array = "pqhal", .num = "ql"};
using Shell = qc::ArrayShell<qc::Array<Container, qc::RingSlots<Container>>, kNames>;
using Data = Shell::Data;

Container* Func_queue_high_arrayList_create(Container* tmpl) noexcept { return Shell::create(UTIL_HERE, tmpl); }
UTIL_BOOL Func_queue_high_arrayList_isEmpty(Container* c) noexcept { return Shell::is_empty(UTIL_HERE, c); }
UTIL_BOOL Func_queue_high_arrayList_isFull(Container* c) noexcept { return Shell::is_full(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_arrayList_insert(Container* c, Data* d) noexcept { return Shell::insert(UTIL_HERE, c, d); }
UTIL_S32 Func_queue_high_arrayList_remove(Container* c) noexcept { return Shell::remove(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_arrayList_search(Container* c, Data* d) noexcept { return Shell::search(UTIL_HERE, c, d); }
UTIL_S32 Func_queue_high_arrayList_modify(Container* c, UTIL_S32 pos, Data* d) noexcept {
    return Shell::modify(UTIL_HERE, c, pos, d);
}
UTIL_S32 Func_queue_high_arrayList_transfer(Container* out, Container* in) noexcept {
    return Shell::transfer(UTIL_HERE, out, in);
}
UTIL_S32 Func_queue_high_arrayList_clear(Container* c) noexcept { return Shell::clear(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_arrayList_display(Container* c) noexcept { return Shell::display(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_arrayList_destroy(Container** pc) noexcept { return Shell::destroy(UTIL_HERE, pc); }
UTIL_S32 Func_queue_high_arrayList_getSize(Container* c) noexcept { return Shell::get_size(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_arrayList_getCount(Container* c) noexcept { return Shell::get_count(UTIL_HERE, c); }
Data* Func_queue_high_arrayList_getNodeData(Container* c, UTIL_S32 pos) noexcept {
    return Shell::get_node_data(UTIL_HERE, c, pos);
}
UTIL_S32 Func_queue_high_arrayList_exit_list(List* pqaList) noexcept { return Shell::exit_list(UTIL_HERE, pqaList); }
UTIL_S32 Func_queue_high_arrayList_init_list(List* pqaList, Container* pqa, UTIL_S32 qaMax) noexcept {
    return Shell::init_list(UTIL_HERE, pqaList, pqa, qaMax, Func_queue_high_arrayList_exit_list);
}
}  // namespace

util_ops_queue_high_arrayList_fun_t util_ops_queue_high_arrayList_fun = {
    Func_queue_high_arrayList_create,   Func_queue_high_arrayList_isEmpty,     Func_queue_high_arrayList_isFull,
    Func_queue_high_arrayList_insert,   Func_queue_high_arrayList_remove,      Func_queue_high_arrayList_search,
    Func_queue_high_arrayList_modify,   Func_queue_high_arrayList_transfer,    Func_queue_high_arrayList_clear,
    Func_queue_high_arrayList_display,  Func_queue_high_arrayList_destroy,     Func_queue_high_arrayList_getSize,
    Func_queue_high_arrayList_getCount, Func_queue_high_arrayList_getNodeData, Func_queue_high_arrayList_init_list,
    Func_queue_high_arrayList_exit_list};
