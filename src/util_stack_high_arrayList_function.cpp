// Array stack: nodeMax slots, every one usable; positions count down from the
// newest element.
#include "util_container_array.h"
#include "util_stack_high_arrayList_internal.h"

QUILLANE_ARRAY_CONTAINER(stack_high_arrayList, stack, StackSlots, "pstackOut", "pstackIn",
                         psaList, psa, pshal, shalMax, "sa")
