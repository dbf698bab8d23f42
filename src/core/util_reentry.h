// Records that the library is inside a caller's callback, so that the
// callback cannot pull the record it is being called for out from under the
// library: a container's callback that removes from or destroys its own
// container, or a class callback that releases the list being run, would
// otherwise leave the caller of that callback walking freed memory.
//
// The public records have no room for a busy mark, so the marks live on the
// stack of the thread that runs the callback: each callback call pushes a
// frame naming the bytes it must not lose (one record, or a whole array of
// records), and an operation that would change or free records asks whether
// any frame of its thread covers them. Another thread's callbacks are not
// seen; the records are used by one thread at a time anyway.
//
// The chain's head is one pointer per thread in the static TLS block, so the
// question costs a load and a test when no callback is running, and pushing a
// frame a few stores.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quillane::reentry {

struct Frame {
    std::uintptr_t lo;
    std::uintptr_t hi;  // one past the last byte
    const Frame* outer;
};

inline thread_local const Frame* innermost __attribute__((tls_model("initial-exec"))) = nullptr;

inline std::uintptr_t address(const void* p) noexcept { return reinterpret_cast<std::uintptr_t>(p); }

// True when a callback running on this thread was called for any of the
// `size` bytes at `p`.
inline bool covered(const void* p, std::size_t size) noexcept {
    const std::uintptr_t lo = address(p);
    const std::uintptr_t hi = lo + size;
    for (const Frame* f = innermost; f != nullptr; f = f->outer) {
        if (f->lo < hi && lo < f->hi) return true;
    }
    return false;
}

template <class T>
bool covered(const T* record) noexcept {
    return covered(record, sizeof(T));
}

// While it lives, the `size` bytes at `p` count as in use by a callback.
class Scope {
public:
    Scope(const void* p, std::size_t size) noexcept : frame_{address(p), address(p) + size, innermost} {
        innermost = &frame_;
    }
    template <class T>
    explicit Scope(const T* record) noexcept : Scope(record, sizeof(T)) {}
    ~Scope() { innermost = frame_.outer; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    Frame frame_;
};

}  // namespace quillane::reentry
