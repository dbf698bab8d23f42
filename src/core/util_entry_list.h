// The arrays behind the init_list/exit_list pairs of the containers, the SEI
// contexts and the parameter classes: one zeroed allocation at the exact
// size, announced in the trace, and released whole. What comes before (a
// null list, a list in use) is refused by each module in its own words.
#pragma once

#include "core/util_alloc.h"
#include "core/util_msg.h"

namespace quillane::entry_list {

// The pair of messages every module gives when a list's memory runs short.
inline void report_no_memory(Where at) noexcept {
    UTIL_DBG_ERR_AT(at, "error: malloc failed!!!!!");
    UTIL_TRACE_AT(at, "error, malloc failed!!!\n");
}

// The second half of exit_list: `release_entries(array, max)` lets go of
// what the entries own, then the array goes and the trace says how many
// entries there were.
template <class Entry, class ReleaseEntries>
UTIL_S32 release(Where at, Entry*& array, UTIL_S32& max, ReleaseEntries release_entries) noexcept {
    if (array != nullptr) {
        release_entries(array, max);
        mem_free(array);
        array = nullptr;
    }
    UTIL_TRACE_AT(at, "free succeed, num;%d\n", max);
    max = 0;
    return 0;
}

// The allocation of init_list: n zeroed entries installed in the list
// record (`array`, `max`); null, with the pair of messages every module
// gives, when memory is short, and the list record left as it was.
template <class Entry>
Entry* allocate(Where at, Entry*& array, UTIL_S32& max, UTIL_S32 n, const char* word) noexcept {
    auto* fresh = static_cast<Entry*>(mem_calloc(static_cast<std::size_t>(n), sizeof(Entry)));
    if (fresh == nullptr) {
        report_no_memory(at);
        return nullptr;
    }
    array = fresh;
    max = n;
    UTIL_TRACE_AT(at, "malloc succeed, %s num;%d\n", word, n);
    return fresh;
}

}  // namespace quillane::entry_list
