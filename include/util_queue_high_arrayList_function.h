/* Bounded first-in, first-out queue in a ring of node slots allocated once,
 * when the queue is made: inserting and removing never allocate. */
#ifndef UTIL_QUEUE_HIGH_ARRAYLIST_FUNCTION_H
#define UTIL_QUEUE_HIGH_ARRAYLIST_FUNCTION_H

#include "util_common_base_type.h"
#include "util_queue_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One slot always stays free: nodeMax slots hold nodeMax - 1 elements. */
typedef struct UTIL_QUEUE_HIGH_ARRAY_LIST_ATTR {
    util_queue_base_node_t* pnode; /* nodeMax slots; only their data is used */
    UTIL_U32 nodeMax;
    UTIL_U32 head; /* slot of the oldest element */
    UTIL_U32 tail; /* the next free slot */
    util_queue_base_register_fun_t fun;
} util_queue_high_arrayList_t;

/* Zero it before the first init_list: a non-null pqhal is taken for a live array. */
typedef struct UTIL_LIST_QUEUE_HIGH_ARRAY_LIST_ATTR {
    util_queue_high_arrayList_t* pqhal;
    UTIL_S32 qhalMax;
} util_list_queue_high_arrayList_t;

/* Results: 0 done, 1 nothing done because the queue is empty or full, -1
 * error. Positions are slot indices, not distances from the front. */
typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_QUEUE_HIGH_ARRAY_LIST_FUNCTION {
    util_queue_high_arrayList_t* (*create)(util_queue_high_arrayList_t* pqueueDefault);
    UTIL_BOOL (*isEmpty)(util_queue_high_arrayList_t* pqueue);
    UTIL_BOOL (*isFull)(util_queue_high_arrayList_t* pqueue);
    UTIL_S32 (*insert)(util_queue_high_arrayList_t* pqueue, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*remove)(util_queue_high_arrayList_t* pqueue);
    UTIL_S32 (*search)(util_queue_high_arrayList_t* pqueue, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*modify)(util_queue_high_arrayList_t* pqueue, UTIL_S32 position, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata);
    UTIL_S32 (*transfer)(util_queue_high_arrayList_t* pqueueOut, util_queue_high_arrayList_t* pqueueIn);
    UTIL_S32 (*clear)(util_queue_high_arrayList_t* pqueue);
    UTIL_S32 (*display)(util_queue_high_arrayList_t* pqueue);
    UTIL_S32 (*destroy)(util_queue_high_arrayList_t** ppqueue);
    UTIL_S32 (*getSize)(util_queue_high_arrayList_t* pqueue);
    UTIL_S32 (*getCount)(util_queue_high_arrayList_t* pqueue);
    UTIL_QUEUE_BASE_NODE_DATA_TYPE* (*getNodeData)(util_queue_high_arrayList_t* pqueue, UTIL_S32 position);
    UTIL_S32 (*init_list)(util_list_queue_high_arrayList_t* pqaList, util_queue_high_arrayList_t* pqa,
                          UTIL_S32 qaMax);
    UTIL_S32 (*exit_list)(util_list_queue_high_arrayList_t* pqaList);
} util_ops_queue_high_arrayList_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_QUEUE_HIGH_ARRAYLIST_FUNCTION_H */
