// Heap allocation for the places where the library owns memory, with a
// fault-injection countdown so the tests can drive every out-of-memory path.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace quillane {

// Allocations that still succeed before every further one fails; negative
// (the default) means never fail. Only the white-box tests change it.
extern std::atomic<long> g_alloc_failure_countdown;

inline bool injected_alloc_failure() noexcept {
    long left = g_alloc_failure_countdown.load(std::memory_order_relaxed);
    if (left < 0) return false;
    if (left == 0) return true;
    g_alloc_failure_countdown.fetch_sub(1, std::memory_order_relaxed);
    return false;
}

inline void* mem_malloc(std::size_t size) noexcept {
    return injected_alloc_failure() ? nullptr : std::malloc(size);
}

inline void* mem_calloc(std::size_t count, std::size_t size) noexcept {
    return injected_alloc_failure() ? nullptr : std::calloc(count, size);
}

inline void mem_free(void* p) noexcept { std::free(p); }

}  // namespace quillane
