/* Unbounded last-in, first-out stack: a singly linked list with one node
 * allocated per element. */
#ifndef UTIL_STACK_HIGH_LINKEDLIST_FUNCTION_H
#define UTIL_STACK_HIGH_LINKEDLIST_FUNCTION_H

#include "util_common_base_type.h"
#include "util_stack_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct UTIL_STACK_HIGH_LINKED_LIST_ATTR {
    util_stack_base_node_t* top; /* the newest, the next to leave; null when empty */
    UTIL_S32 count;
    util_stack_base_register_fun_t fun;
} util_stack_high_linkedList_t;

/* Zero it before the first init_list: a non-null pshll is taken for a live array. */
typedef struct UTIL_LIST_STACK_HIGH_LINKED_LIST_ATTR {
    util_stack_high_linkedList_t* pshll;
    UTIL_S32 shllMax;
} util_list_stack_high_linkedList_t;

/* Results: 0 done, 1 nothing done because the stack (for transfer, the source)
 * is empty, -1 error. Positions count from the top, starting at 0. */
typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_STACK_HIGH_LINKED_LIST_FUNCTION {
    util_stack_high_linkedList_t* (*create)(util_stack_high_linkedList_t* pstackDefault);
    UTIL_BOOL (*isEmpty)(util_stack_high_linkedList_t* pstack);
    UTIL_S32 (*insert)(util_stack_high_linkedList_t* pstack, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*remove)(util_stack_high_linkedList_t* pstack);
    UTIL_S32 (*search)(util_stack_high_linkedList_t* pstack, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*modify)(util_stack_high_linkedList_t* pstack, UTIL_S32 position, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*transfer)(util_stack_high_linkedList_t* pstackOut, util_stack_high_linkedList_t* pstackIn);
    UTIL_S32 (*clear)(util_stack_high_linkedList_t* pstack);
    UTIL_S32 (*display)(util_stack_high_linkedList_t* pstack);
    UTIL_S32 (*destroy)(util_stack_high_linkedList_t** ppstack);
    UTIL_S32 (*getSize)(util_stack_high_linkedList_t* pstack);
    UTIL_S32 (*getCount)(util_stack_high_linkedList_t* pstack);
    UTIL_STACK_BASE_NODE_DATA_TYPE* (*getNodeData)(util_stack_high_linkedList_t* pstack, UTIL_S32 position);
    UTIL_S32 (*init_list)(util_list_stack_high_linkedList_t* pslList, util_stack_high_linkedList_t* psl,
                          UTIL_S32 slMax);
    UTIL_S32 (*exit_list)(util_list_stack_high_linkedList_t* pslList);
} util_ops_stack_high_linkedList_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_STACK_HIGH_LINKEDLIST_FUNCTION_H */
