/* Unbounded first-in, first-out queue: a singly linked list with one node
 * allocated per element. */
#ifndef UTIL_QUEUE_HIGH_LINKEDLIST_FUNCTION_H
#define UTIL_QUEUE_HIGH_LINKEDLIST_FUNCTION_H

#include "util_common_base_type.h"
#include "util_queue_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct UTIL_QUEUE_HIGH_LINKED_LIST_ATTR {
    util_queue_base_node_t* front; /* the next to leave; null when empty */
    util_queue_base_node_t* rear;  /* the newest; null when empty */
    UTIL_S32 count;
    util_queue_base_register_fun_t fun;
} util_queue_high_linkedList_t;

/* Zero it before the first init_list: a non-null pqhll is taken for a live array. */
typedef struct UTIL_LIST_QUEUE_HIGH_LINKED_LIST_ATTR {
    util_queue_high_linkedList_t* pqhll;
    UTIL_S32 qhllMax;
} util_list_queue_high_linkedList_t;

/* Results: 0 done, 1 nothing done because the queue (for transfer, the source)
 * is empty, -1 error. Positions count from the front, starting at 0. */
typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_QUEUE_HIGH_LINKED_LIST_FUNCTION {
    util_queue_high_linkedList_t* (*create)(util_queue_high_linkedList_t* pqueueDefault);
    UTIL_BOOL (*isEmpty)(util_queue_high_linkedList_t* pqueue);
    UTIL_S32 (*insert)(util_queue_high_linkedList_t* pqueue, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*remove)(util_queue_high_linkedList_t* pqueue);
    UTIL_S32 (*search)(util_queue_high_linkedList_t* pqueue, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*modify)(util_queue_high_linkedList_t* pqueue, UTIL_S32 position, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*transfer)(util_queue_high_linkedList_t* pqueueOut, util_queue_high_linkedList_t* pqueueIn);
    UTIL_S32 (*clear)(util_queue_high_linkedList_t* pqueue);
    UTIL_S32 (*display)(util_queue_high_linkedList_t* pqueue);
    UTIL_S32 (*destroy)(util_queue_high_linkedList_t** ppqueue);
    UTIL_S32 (*getSize)(util_queue_high_linkedList_t* pqueue);
    UTIL_S32 (*getCount)(util_queue_high_linkedList_t* pqueue);
    UTIL_QUEUE_BASE_NODE_DATA_TYPE* (*getNodeData)(util_queue_high_linkedList_t* pqueue, UTIL_S32 position);
    UTIL_S32 (*init_list)(util_list_queue_high_linkedList_t* pqlList, util_queue_high_linkedList_t* pql,
                          UTIL_S32 qlMax);
    UTIL_S32 (*exit_list)(util_list_queue_high_linkedList_t* pqlList);
} util_ops_queue_high_linkedList_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_QUEUE_HIGH_LINKEDLIST_FUNCTION_H */
