// Linked-list queue: unbounded, first in, first out. The elements join at the
// rear and leave from the front; a lookup of the last position is served from
// the rear without a walk.
#include "containers/util_container_linked.h"
#include "core/util_tables.h"

QUILLANE_LINKED_CONTAINER(queue_high_linkedList, queue, FifoLinks, "queueOut", "queueIn",
                          pqlList, pql, pqhll, qhllMax)
