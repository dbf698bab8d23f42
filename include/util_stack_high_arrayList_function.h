/* Bounded last-in, first-out stack in an array of node slots allocated once,
 * when the stack is made: inserting and removing never allocate. */
#ifndef UTIL_STACK_HIGH_ARRAYLIST_FUNCTION_H
#define UTIL_STACK_HIGH_ARRAYLIST_FUNCTION_H

#include "util_common_base_type.h"
#include "util_stack_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Every slot is usable: nodeMax slots hold nodeMax elements. */
typedef struct UTIL_STACK_HIGH_ARRAY_LIST_ATTR {
    util_stack_base_node_t* pnode; /* nodeMax slots; only their data is used */
    UTIL_U32 nodeMax;
    UTIL_U32 top; /* the element count, and the next free slot */
    util_stack_base_register_fun_t fun;
} util_stack_high_arrayList_t;

/* Zero it before the first init_list: a non-null pshal is taken for a live array. */
typedef struct UTIL_LIST_STACK_HIGH_ARRAY_LIST_ATTR {
    util_stack_high_arrayList_t* pshal;
    UTIL_S32 shalMax;
} util_list_stack_high_arrayList_t;

/* Results: 0 done, 1 nothing done because the stack is empty or full, -1
 * error. Positions count from the top, starting at 0. */
typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_STACK_HIGH_ARRAY_LIST_FUNCTION {
    util_stack_high_arrayList_t* (*create)(util_stack_high_arrayList_t* pstackDefault);
    UTIL_BOOL (*isEmpty)(util_stack_high_arrayList_t* pstack);
    UTIL_BOOL (*isFull)(util_stack_high_arrayList_t* pstack);
    UTIL_S32 (*insert)(util_stack_high_arrayList_t* pstack, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*remove)(util_stack_high_arrayList_t* pstack);
    UTIL_S32 (*search)(util_stack_high_arrayList_t* pstack, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*modify)(util_stack_high_arrayList_t* pstack, UTIL_S32 position, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*transfer)(util_stack_high_arrayList_t* pstackOut, util_stack_high_arrayList_t* pstackIn);
    UTIL_S32 (*clear)(util_stack_high_arrayList_t* pstack);
    UTIL_S32 (*display)(util_stack_high_arrayList_t* pstack);
    UTIL_S32 (*destroy)(util_stack_high_arrayList_t** ppstack);
    UTIL_S32 (*getSize)(util_stack_high_arrayList_t* pstack);
    UTIL_S32 (*getCount)(util_stack_high_arrayList_t* pstack);
    UTIL_STACK_BASE_NODE_DATA_TYPE* (*getNodeData)(util_stack_high_arrayList_t* pstack, UTIL_S32 position);
    UTIL_S32 (*init_list)(util_list_stack_high_arrayList_t* psaList, util_stack_high_arrayList_t* psa,
                          UTIL_S32 saMax);
    UTIL_S32 (*exit_list)(util_list_stack_high_arrayList_t* psaList);
} util_ops_stack_high_arrayList_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_STACK_HIGH_ARRAYLIST_FUNCTION_H */
