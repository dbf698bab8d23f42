// Makes the library's allocations fail on purpose, for one scope: every
// allocation after `allowed` more have succeeded returns nothing.
#pragma once

#include "core/util_alloc.h"

struct FailAllocationsAfter {
    explicit FailAllocationsAfter(long allowed) { quillane::g_alloc_failure_countdown = allowed; }
    ~FailAllocationsAfter() { quillane::g_alloc_failure_countdown = -1; }
    FailAllocationsAfter(const FailAllocationsAfter&) = delete;
    FailAllocationsAfter& operator=(const FailAllocationsAfter&) = delete;
};
