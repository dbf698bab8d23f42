/* Node and callback records of the two queues. A queue never looks behind an
 * element's data pointer: the caller's callbacks store, compare, change, move,
 * print and release elements. */
#ifndef UTIL_QUEUE_BASE_TYPE_H
#define UTIL_QUEUE_BASE_TYPE_H

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The untyped element: a node only ever holds a pointer to it. */
typedef void UTIL_QUEUE_BASE_NODE_DATA_TYPE;

typedef struct UTIL_QUEUE_BASE_NODE_STRUCT {
    UTIL_QUEUE_BASE_NODE_DATA_TYPE* data;     /* set and released by the callbacks only */
    struct UTIL_QUEUE_BASE_NODE_STRUCT* next; /* towards the rear; unused by the array queue */
} util_queue_base_node_t;

/* Any of the callbacks may be null; each operation says what it does then.
 * A callback may read the queue it was called for and use any other
 * container, but insert, remove, clear, destroy, transfer from or into that
 * queue, and init_list or exit_list of its list, return -1 while the callback
 * runs (the calling operation still holds the element it is working on).
 * While exit_list empties a list, all of its queues count as in use. */
typedef struct UTIL_QUEUE_BASE_REGISTER_FUNCTION_ATTR {
    UTIL_S32 (*insertNodeData_callback)(util_queue_base_node_t* node, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*removeNodeData_callback)(util_queue_base_node_t* node);
    UTIL_S32 (*searchNodeData_callback)(util_queue_base_node_t* node, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*modifyNodeData_callback)(util_queue_base_node_t* node, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*transferNodeData_callback)(util_queue_base_node_t* nodeOut, util_queue_base_node_t* nodeIn);
    UTIL_S32 (*displayNodeData_callback)(util_queue_base_node_t* node);
} util_queue_base_register_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_QUEUE_BASE_TYPE_H */
