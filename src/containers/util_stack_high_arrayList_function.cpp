// Array stack: nodeMax slots, every one usable; positions count down from the
// newest element.
#include "containers/util_container_array.h"
#include "core/util_tables.h"

QUILLANE_ARRAY_CONTAINER(stack_high_arrayList, stack, StackSlots, "pstackOut", "pstackIn",
                         psaList, psa, pshal, shalMax, "sa")
