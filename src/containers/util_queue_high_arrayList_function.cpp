// Array queue: a ring of nodeMax slots holding up to nodeMax - 1 elements.
// Positions are slot indices, so an element keeps its position while others
// come and go.
#include "containers/util_container_array.h"
#include "core/util_tables.h"

QUILLANE_ARRAY_CONTAINER(queue_high_arrayList, queue, RingSlots, "queueOut", "queueIn",
                         pqaList, pqa, pqhal, qhalMax, "ql")
