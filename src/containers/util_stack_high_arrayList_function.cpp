// Array stack: nodeMax slots, every one usable; positions count down from the
// newest element.
#include "containers/util_container_array.h"
#include "core/util_tables.h"

namespace {
namespace qc = quillane::container;
using Container = util_stack_high_arrayList_t;
using List = util_list_stack_high_arrayList_t;
constexpr qc::Names kNames{.module = "stack_high_arrayList", .kind = "stack", .out = "pstackOut", .in = "pstackIn",
                           .list = "psaList", .elems = "psa", .array = "pshal", .num = "sa"};
using Shell = qc::ArrayShell<qc::Array<Container, qc::StackSlots<Container>>, kNames>;
using Data = Shell::Data;

Container* Func_stack_high_arrayList_create(Container* tmpl) noexcept { return Shell::create(UTIL_HERE, tmpl); }
UTIL_BOOL Func_stack_high_arrayList_isEmpty(Container* c) noexcept { return Shell::is_empty(UTIL_HERE, c); }
UTIL_BOOL Func_stack_high_arrayList_isFull(Container* c) noexcept { return Shell::is_full(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_arrayList_insert(Container* c, Data* d) noexcept { return Shell::insert(UTIL_HERE, c, d); }
UTIL_S32 Func_stack_high_arrayList_remove(Container* c) noexcept { return Shell::remove(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_arrayList_search(Container* c, Data* d) noexcept { return Shell::search(UTIL_HERE, c, d); }
UTIL_S32 Func_stack_high_arrayList_modify(Container* c, UTIL_S32 pos, Data* d) noexcept {
    return Shell::modify(UTIL_HERE, c, pos, d);
}
UTIL_S32 Func_stack_high_arrayList_transfer(Container* out, Container* in) noexcept {
    return Shell::transfer(UTIL_HERE, out, in);
}
UTIL_S32 Func_stack_high_arrayList_clear(Container* c) noexcept { return Shell::clear(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_arrayList_display(Container* c) noexcept { return Shell::display(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_arrayList_destroy(Container** pc) noexcept { return Shell::destroy(UTIL_HERE, pc); }
UTIL_S32 Func_stack_high_arrayList_getSize(Container* c) noexcept { return Shell::get_size(UTIL_HERE, c); }
UTIL_S32 Func_stack_high_arrayList_getCount(Container* c) noexcept { return Shell::get_count(UTIL_HERE, c); }
Data* Func_stack_high_arrayList_getNodeData(Container* c, UTIL_S32 pos) noexcept {
    return Shell::get_node_data(UTIL_HERE, c, pos);
}
UTIL_S32 Func_stack_high_arrayList_exit_list(List* psaList) noexcept { return Shell::exit_list(UTIL_HERE, psaList); }
UTIL_S32 Func_stack_high_arrayList_init_list(List* psaList, Container* psa, UTIL_S32 saMax) noexcept {
    return Shell::init_list(UTIL_HERE, psaList, psa, saMax, Func_stack_high_arrayList_exit_list);
}
}  // namespace

util_ops_stack_high_arrayList_fun_t util_ops_stack_high_arrayList_fun = {
    Func_stack_high_arrayList_create,   Func_stack_high_arrayList_isEmpty,     Func_stack_high_arrayList_isFull,
    Func_stack_high_arrayList_insert,   Func_stack_high_arrayList_remove,      Func_stack_high_arrayList_search,
    Func_stack_high_arrayList_modify,   Func_stack_high_arrayList_transfer,    Func_stack_high_arrayList_clear,
    Func_stack_high_arrayList_display,  Func_stack_high_arrayList_destroy,     Func_stack_high_arrayList_getSize,
    Func_stack_high_arrayList_getCount, Func_stack_high_arrayList_getNodeData, Func_stack_high_arrayList_init_list,
    Func_stack_high_arrayList_exit_list};
