// Linked-list queue: unbounded, first in, first out. The elements join at the
// rear and leave from the front; a lookup of the last position is served from
// the rear without a walk.
#include "containers/util_container_linked.h"
#include "core/util_tables.h"

namespace {
namespace qc = quillane::container;
using Container = util_queue_high_linkedList_t;
using List = util_list_queue_high_linkedList_t;
constexpr qc::Names kNames{.module = "queue_high_linkedList", .kind = "queue", .out = "queueOut", .in = "queueIn",
                           .list = "pqlList", .elems = "pql", .array = "pqhll", .num = "ql"};
using Shell = qc::LinkedShell<qc::Linked<Container, qc::FifoLinks<Container>>, kNames>;
using Data = Shell::Data;
using Node = Shell::Node;

Container* Func_queue_high_linkedList_create(Container* tmpl) noexcept { return Shell::create(UTIL_HERE, tmpl); }
UTIL_BOOL Func_queue_high_linkedList_isEmpty(Container* c) noexcept { return Shell::is_empty(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_linkedList_insert(Container* c, Data* d) noexcept { return Shell::insert(UTIL_HERE, c, d); }
UTIL_S32 Func_queue_high_linkedList_remove(Container* c) noexcept { return Shell::remove(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_linkedList_search(Container* c, Data* d) noexcept { return Shell::search(UTIL_HERE, c, d); }
// The lookup behind modify and getNodeData.
Node* Func_queue_high_linkedList_getNode(Container* c, UTIL_S32 pos, UTIL_S32* result) noexcept {
    return Shell::get_node(UTIL_HERE, c, pos, result);
}
UTIL_S32 Func_queue_high_linkedList_modify(Container* c, UTIL_S32 pos, Data* d) noexcept {
    return Shell::modify(UTIL_HERE, c, pos, d, Func_queue_high_linkedList_getNode);
}
UTIL_S32 Func_queue_high_linkedList_transfer(Container* out, Container* in) noexcept {
    return Shell::transfer(UTIL_HERE, out, in);
}
UTIL_S32 Func_queue_high_linkedList_clear(Container* c) noexcept { return Shell::clear(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_linkedList_display(Container* c) noexcept { return Shell::display(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_linkedList_destroy(Container** pc) noexcept { return Shell::destroy(UTIL_HERE, pc); }
UTIL_S32 Func_queue_high_linkedList_getSize(Container* c) noexcept { return Shell::get_size(UTIL_HERE, c); }
UTIL_S32 Func_queue_high_linkedList_getCount(Container* c) noexcept { return Shell::get_count(UTIL_HERE, c); }
Data* Func_queue_high_linkedList_getNodeData(Container* c, UTIL_S32 pos) noexcept {
    return Shell::get_node_data(UTIL_HERE, c, pos, Func_queue_high_linkedList_getNode);
}
UTIL_S32 Func_queue_high_linkedList_exit_list(List* pqlList) noexcept { return Shell::exit_list(UTIL_HERE, pqlList); }
UTIL_S32 Func_queue_high_linkedList_init_list(List* pqlList, Container* pql, UTIL_S32 qlMax) noexcept {
    return Shell::init_list(UTIL_HERE, pqlList, pql, qlMax, Func_queue_high_linkedList_exit_list);
}
}  // namespace

util_ops_queue_high_linkedList_fun_t util_ops_queue_high_linkedList_fun = {
    Func_queue_high_linkedList_create,      Func_queue_high_linkedList_isEmpty,   Func_queue_high_linkedList_insert,
    Func_queue_high_linkedList_remove,      Func_queue_high_linkedList_search,    Func_queue_high_linkedList_modify,
    Func_queue_high_linkedList_transfer,    Func_queue_high_linkedList_clear,     Func_queue_high_linkedList_display,
    Func_queue_high_linkedList_destroy,     Func_queue_high_linkedList_getSize,   Func_queue_high_linkedList_getCount,
    Func_queue_high_linkedList_getNodeData, Func_queue_high_linkedList_init_list, Func_queue_high_linkedList_exit_list};
