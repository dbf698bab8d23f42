// Linked-list stack: unbounded, last in, first out. Every lookup by position
// walks down from the top.
#include "containers/util_container_linked.h"
#include "core/util_tables.h"

QUILLANE_LINKED_CONTAINER(stack_high_linkedList, stack, LifoLinks, "pstackOut", "pstackIn",
                          pslList, psl, pshll, shllMax)
