// Shared by the fuzz targets: invariant checks that keep the input, and exactly sized heap copies
// so that AddressSanitizer reports a read or write one byte past what the library was given.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace fuzz {

// The runner closes stderr to silence the library, so this goes to stdout before the trap saves the input.
[[noreturn]] inline void fail(const char* file, int line, const char* what) {
    std::fprintf(stdout, "%s:%d: invariant broken: %s\n", file, line, what);
    std::fflush(stdout);
    __builtin_trap();
}

// n bytes, uninitialised, or a copy of n bytes followed by a terminator when asked for one.
class Block {
public:
    explicit Block(std::size_t n) : p_(static_cast<char*>(std::malloc(n == 0 ? 1 : n))) {
        if (p_ == nullptr) std::abort();
    }
    Block(const void* src, std::size_t n, bool terminated) : Block(n + (terminated ? 1 : 0)) {
        if (n > 0) std::memcpy(p_.get(), src, n);
        if (terminated) p_[n] = '\0';
    }
    char* get() const { return p_.get(); }

private:
    struct Free {
        void operator()(char* p) const { std::free(p); }
    };
    std::unique_ptr<char[], Free> p_;
};

// One scratch file per process for targets that read files, removed at exit.
inline const char* scratch_path() {
    static char name[] = "/tmp/quillane_fuzz_XXXXXX";
    [[maybe_unused]] static const bool made = [] {
        const int fd = mkstemp(name);
        if (fd < 0) std::abort();
        close(fd);
        return std::atexit([] { std::remove(name); }) == 0;
    }();
    return name;
}

inline void write_scratch(const void* data, std::size_t n) {
    FILE* fp = std::fopen(scratch_path(), "wb");
    if (fp == nullptr || (n > 0 && std::fwrite(data, 1, n, fp) != n)) std::abort();
    std::fclose(fp);
}

}  // namespace fuzz

#define CHECK(cond) ((cond) ? (void)0 : ::fuzz::fail(__FILE_NAME__, __LINE__, #cond))
