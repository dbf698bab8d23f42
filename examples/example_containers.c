/* The four containers. Queues hold copies of frame descriptors that their
 * callbacks allocate and free; stacks hold pointers to texts the application
 * keeps alive itself. Every copy made is released by the end. */
#include "example_support.h"

typedef struct {
    int stream;
    unsigned seq;
    unsigned size;
} frame_desc_t;

static int g_live_copies; /* descriptors allocated by q_insert and not yet freed */

/* ---- queue callbacks: the queue owns a copy of every element ---- */

static UTIL_S32 q_insert(util_queue_base_node_t* node, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata)
{
    frame_desc_t* copy = malloc(sizeof *copy);
    if (copy == NULL) return -1; /* the node keeps data NULL */
    *copy = *(const frame_desc_t*)pdata;
    node->data = copy;
    ++g_live_copies;
    return 0;
}

static UTIL_S32 q_remove(util_queue_base_node_t* node)
{
    if (node->data != NULL) --g_live_copies;
    free(node->data);
    node->data = NULL;
    return 0;
}

static UTIL_S32 q_search(util_queue_base_node_t* node, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata)
{
    const frame_desc_t* f = node->data;
    return f != NULL && f->seq == *(const unsigned*)pdata;
}

static UTIL_S32 q_modify(util_queue_base_node_t* node, UTIL_QUEUE_BASE_NODE_DATA_TYPE* pdata)
{
    frame_desc_t* f = node->data;
    if (f == NULL) return -1;
    f->size = *(const unsigned*)pdata;
    return 0;
}

/* Array queues only: the element's pointer moves to the receiving slot. */
static UTIL_S32 q_transfer(util_queue_base_node_t* nodeOut, util_queue_base_node_t* nodeIn)
{
    nodeIn->data = nodeOut->data;
    return 0;
}

static UTIL_S32 q_display(util_queue_base_node_t* node)
{
    const frame_desc_t* f = node->data;
    printf("    stream %d frame %u: %u bytes\n", f->stream, f->seq, f->size);
    return 0;
}

/* ---- stack callbacks: the stack only borrows the caller's pointers ---- */

static UTIL_S32 s_store(util_stack_base_node_t* node, UTIL_STACK_BASE_NODE_DATA_TYPE* pdata)
{
    node->data = pdata;
    return 0;
}

static UTIL_S32 s_transfer(util_stack_base_node_t* nodeOut, util_stack_base_node_t* nodeIn)
{
    nodeIn->data = nodeOut->data;
    return 0;
}

static UTIL_S32 s_display(util_stack_base_node_t* node)
{
    printf("    %s\n", (const char*)node->data);
    return 0;
}

static int linked_queue(void)
{
    util_ops_queue_high_linkedList_fun_t* lq = util_ops_pfun->queue_high_linkedList;
    /* A linked queue moves whole nodes on transfer: no transfer callback. */
    util_queue_high_linkedList_t tmpl = {NULL, NULL, 0, {q_insert, q_remove, q_search, q_modify, NULL, q_display}};
    util_queue_high_linkedList_t* pending = lq->create(&tmpl);
    util_queue_high_linkedList_t* sent = lq->create(&tmpl);
    frame_desc_t f;
    const frame_desc_t* front;
    unsigned seq, key = 2, new_size = 999;

    EX_CHECK(pending != NULL && sent != NULL);
    for (seq = 1; seq <= 3; ++seq) {
        f.stream = 0;
        f.seq = seq;
        f.size = 1000 * seq;
        EX_CHECK(lq->insert(pending, &f) == 0); /* q_insert copies f */
    }
    EX_CHECK(lq->getCount(pending) == 3 && lq->getSize(pending) == 3);
    EX_CHECK(lq->search(pending, &key) == 1);          /* position from the front */
    EX_CHECK(lq->modify(pending, 1, &new_size) == 0);  /* q_modify's result */
    printf("linked queue, front to rear:\n");
    EX_CHECK(lq->display(pending) == 0);

    /* Consume the front: read it, then remove it (q_remove frees the copy). */
    front = lq->getNodeData(pending, 0);
    EX_CHECK(front != NULL && front->seq == 1);
    EX_CHECK(lq->remove(pending) == 0);
    /* Move the next one to another queue: no copy, no callback but observing ones. */
    EX_CHECK(lq->transfer(pending, sent) == 0);
    EX_CHECK(lq->getCount(pending) == 1 && lq->getCount(sent) == 1);
    EX_CHECK(lq->remove(sent) == 0);
    EX_CHECK(lq->remove(sent) == 1); /* 1: empty, nothing done */

    EX_CHECK(lq->destroy(&pending) == 0 && pending == NULL); /* frees what is left */
    EX_CHECK(lq->destroy(&sent) == 0 && sent == NULL);
    EX_CHECK(g_live_copies == 0);
    return 0;
}

static int array_queue(void)
{
    util_ops_queue_high_arrayList_fun_t* aq = util_ops_pfun->queue_high_arrayList;
    /* 4 slots hold 3 elements: one slot always stays free. */
    util_queue_high_arrayList_t tmpl = {NULL, 4, 0, 0, {q_insert, q_remove, q_search, q_modify, q_transfer, q_display}};
    util_queue_high_arrayList_t* ring = aq->create(&tmpl);
    util_queue_high_arrayList_t* other = aq->create(&tmpl);
    frame_desc_t f = {1, 0, 500};
    int inserted = 0;

    EX_CHECK(ring != NULL && other != NULL);
    while (aq->insert(ring, &f) == 0) { /* 1 once full; nothing is allocated by the ring itself */
        ++inserted;
        ++f.seq;
    }
    EX_CHECK(inserted == 3 && aq->isFull(ring) == UTIL_TRUE);
    EX_CHECK(aq->getSize(ring) == 3 && aq->getCount(ring) == 4); /* elements, slots */
    EX_CHECK(aq->transfer(ring, other) == 0); /* q_transfer hands the pointer over */
    printf("array queue after a transfer (%d left):\n", (int)aq->getSize(ring));
    EX_CHECK(aq->display(ring) == 0);
    EX_CHECK(aq->destroy(&ring) == 0 && aq->destroy(&other) == 0);
    EX_CHECK(g_live_copies == 0);
    return 0;
}

static int stacks(void)
{
    util_ops_stack_high_linkedList_fun_t* ls = util_ops_pfun->stack_high_linkedList;
    util_ops_stack_high_arrayList_fun_t* as = util_ops_pfun->stack_high_arrayList;
    static const char* const edits[] = {"set brightness 60", "set contrast 40", "enable wdr"};
    util_stack_high_linkedList_t ltmpl = {NULL, 0, {s_store, NULL, NULL, NULL, NULL, s_display}};
    util_stack_high_arrayList_t atmpl = {NULL, 3, 0, {s_store, NULL, NULL, NULL, s_transfer, s_display}};
    util_stack_high_linkedList_t* undo = ls->create(&ltmpl);
    util_stack_high_arrayList_t* fixed = as->create(&atmpl);
    size_t i;

    EX_CHECK(undo != NULL && fixed != NULL);
    for (i = 0; i < 3; ++i) {
        EX_CHECK(ls->insert(undo, (void*)edits[i]) == 0);
        EX_CHECK(as->insert(fixed, (void*)edits[i]) == 0);
    }
    EX_CHECK(as->insert(fixed, (void*)edits[0]) == 1); /* 3 slots hold 3 elements */
    printf("undo stack, newest first:\n");
    EX_CHECK(ls->display(undo) == 0);
    EX_CHECK(ls->getNodeData(undo, 0) == edits[2]);        /* positions count from the top */
    EX_CHECK(ls->search(undo, (void*)edits[0]) == 2);      /* no search callback: pointer identity */
    EX_CHECK(as->getNodeData(fixed, 2) == edits[0]);
    EX_CHECK(ls->remove(undo) == 0 && ls->getCount(undo) == 2);
    EX_CHECK(ls->destroy(&undo) == 0 && as->destroy(&fixed) == 0);
    return 0;
}

static int list_of_queues(void)
{
    util_ops_queue_high_linkedList_fun_t* lq = util_ops_pfun->queue_high_linkedList;
    /* One queue per stream; each takes its callbacks from its own template. */
    util_queue_high_linkedList_t tmpl[2] = {
        {NULL, NULL, 0, {q_insert, q_remove, q_search, q_modify, NULL, q_display}},
        {NULL, NULL, 0, {q_insert, q_remove, q_search, q_modify, NULL, q_display}},
    };
    util_list_queue_high_linkedList_t streams = {NULL, 0}; /* zeroed before the first init_list */
    frame_desc_t f = {0, 1, 4096};
    int s;

    EX_CHECK(lq->init_list(&streams, tmpl, 2) == 0);
    for (s = 0; s < streams.qhllMax; ++s) {
        f.stream = s;
        EX_CHECK(lq->insert(&streams.pqhll[s], &f) == 0);
    }
    EX_CHECK(g_live_copies == 2);
    EX_CHECK(lq->exit_list(&streams) == 0); /* clears every queue through q_remove */
    EX_CHECK(streams.pqhll == NULL && streams.qhllMax == 0 && g_live_copies == 0);
    printf("list of %d queues built and released\n", 2);
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {linked_queue, array_queue, stacks, list_of_queues};
    /* The log shows the traces of init_list and exit_list. */
    return ex_main("containers", steps, sizeof steps / sizeof steps[0], 1);
}
