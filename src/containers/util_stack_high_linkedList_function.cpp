// Linked-list stack: unbounded, last in, first out. Every lookup by position
// walks down from the top.
#include "containers/util_container_linked.h"
#include "core/util_tables.h"

namespace {
namespace qc = quillane::container;
using Container = util_stack_high_linkedList_t;
using List = util_list_stack_high_linkedList_t;
constexpr qc::Names kNames{.module = "stack_high_linkedList", .kind = "stack", .out = "pstackOut", .in = "pstackIn",
                           .list = "pslList", .elems = "psl", .array = "pshll", .num = "ql"};
using Shell = qc::LinkedShell<qc::Linked<Container, qc::LifoLinks<Container>>, kNames>;
using Data = Shell::Data;
using Node = Shell::Node;

Container* Func_stack_high_linkedList_create(Container* tmpl) noexcept { return Shell::create(UTIL_HERE, tmpl); }
UTIL_BOOL Func_stack_high_linkedList_isEmpty(Container* c) noexcept { return Shell::is_empty(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_linkedList_insert(Container* c, Data* d) noexcept { return Shell::insert(UTIL_HERE, c, d); }
UTIL_S32 Func_stack_high_linkedList_remove(Container* c) noexcept { return Shell::remove(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_linkedList_search(Container* c, Data* d) noexcept { return Shell::search(UTIL_HERE, c, d); }
// The lookup behind modify and getNodeData.
Node* Func_stack_high_linkedList_getNode(Container* c, UTIL_S32 pos, UTIL_S32* result) noexcept {
    return Shell::get_node(UTIL_HERE, c, pos, result);
}
UTIL_S32 Func_stack_high_linkedList_modify(Container* c, UTIL_S32 pos, Data* d) noexcept {
    return Shell::modify(UTIL_HERE, c, pos, d, Func_stack_high_linkedList_getNode);
}
UTIL_S32 Func_stack_high_linkedList_transfer(Container* out, Container* in) noexcept {
    return Shell::transfer(UTIL_HERE, out, in);
}
UTIL_S32 Func_stack_high_linkedList_clear(Container* c) noexcept { return Shell::clear(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_linkedList_display(Container* c) noexcept { return Shell::display(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_linkedList_destroy(Container** pc) noexcept { return Shell::destroy(UTIL_HERE, pc); }
UTIL_S32 Func_stack_high_linkedList_getSize(Container* c) noexcept { return Shell::get_size(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_linkedList_getCount(Container* c) noexcept { return Shell::get_count(UTIL_HERE, c); }
Data* Func_stack_high_linkedList_getNodeData(Container* c, UTIL_S32 pos) noexcept {
    return Shell::get_node_data(UTIL_HERE, c, pos, Func_stack_high_linkedList_getNode);
}
UTIL_S32 Func_stack_high_linkedList_exit_list(List* pslList) noexcept { return Shell::exit_list(UTIL_HERE, pslList); }
UTIL_S32 Func_stack_high_linkedList_init_list(List* pslList, Container* psl, UTIL_S32 slMax) noexcept {
    return Shell::init_list(UTIL_HERE, pslList, psl, slMax, Func_stack_high_linkedList_exit_list);
}
}  // namespace

util_ops_stack_high_linkedList_fun_t util_ops_stack_high_linkedList_fun = {
    Func_stack_high_linkedList_create,      Func_stack_high_linkedList_isEmpty,   Func_stack_high_linkedList_insert,
    Func_stack_high_linkedList_remove,      Func_stack_high_linkedList_search,    Func_stack_high_linkedList_modify,
    Func_stack_high_linkedList_transfer,    Func_stack_high_linkedList_clear,     Func_stack_high_linkedList_display,
    Func_stack_high_linkedList_destroy,     Func_stack_high_linkedList_getSize,   Func_stack_high_linkedList_getCount,
    Func_stack_high_linkedList_getNodeData, Func_stack_high_linkedList_init_list, Func_stack_high_linkedList_exit_list};
