// Linked-list stack: unbounded, last in, first out. Every lookup by position
// walks down from the top.
#include "util_container_linked.h"
#include "util_stack_high_linkedList_internal.h"

QUILLANE_LINKED_CONTAINER(stack_high_linkedList, stack, LifoLinks, "pstackOut", "pstackIn",
                          pslList, psl, pshll, shllMax)
