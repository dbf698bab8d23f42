/* Node and callback records of the two stacks. A stack never looks behind an
 * element's data pointer: the caller's callbacks store, compare, change, move,
 * print and release elements. */
#ifndef UTIL_STACK_BASE_TYPE_H
#define UTIL_STACK_BASE_TYPE_H

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The untyped element: a node only ever holds a pointer to it. */
typedef void UTIL_STACK_BASE_NODE_DATA_TYPE;

typedef struct UTIL_STACK_BASE_NODE_STRUCT {
    UTIL_STACK_BASE_NODE_DATA_TYPE* data;     /* set and released by the callbacks only */
    struct UTIL_STACK_BASE_NODE_STRUCT* next; /* towards the bottom; unused by the array stack */
} util_stack_base_node_t;

/* Any of the callbacks may be null; each operation says what it does then.
 * A callback may read the stack it was called for and use any other
 * container, but insert, remove, clear, destroy, transfer from or into that
 * stack, and init_list or exit_list of its list, return -1 while the callback
 * runs (the calling operation still holds the element it is working on).
 * While exit_list empties a list, all of its stacks count as in use. */
typedef struct UTIL_STACK_BASE_REGISTER_FUNCTION_ATTR {
    UTIL_S32 (*insertNodeData_callback)(util_stack_base_node_t* node, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*removeNodeData_callback)(util_stack_base_node_t* node);
    UTIL_S32 (*searchNodeData_callback)(util_stack_base_node_t* node, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*modifyNodeData_callback)(util_stack_base_node_t* node, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*transferNodeData_callback)(util_stack_base_node_t* nodeOut, util_stack_base_node_t* nodeIn);
    UTIL_S32 (*displayNodeData_callback)(util_stack_base_node_t* node);
} util_stack_base_register_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_STACK_BASE_TYPE_H */
