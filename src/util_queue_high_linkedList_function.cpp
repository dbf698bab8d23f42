// Linked-list queue: unbounded, first in, first out. The elements join at the
// rear and leave from the front; a lookup of the last position is served from
// the rear without a walk.
#include "util_container_linked.h"
#include "util_queue_high_linkedList_internal.h"

QUILLANE_LINKED_CONTAINER(queue_high_linkedList, queue, FifoLinks, "queueOut", "queueIn",
                          pqlList, pql, pqhll, qhllMax)
