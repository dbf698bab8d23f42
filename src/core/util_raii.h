// Owners for the handles the library opens within one call, so every path
// out of a function closes them.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace quillane {

struct FileCloser {
    void operator()(FILE* fp) const noexcept { std::fclose(fp); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// A command's pipe; closing waits for the command to end.
struct PipeCloser {
    void operator()(FILE* fp) const noexcept { pclose(fp); }
};
using UniquePipe = std::unique_ptr<FILE, PipeCloser>;

struct DirCloser {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

struct HeapFree {
    void operator()(void* p) const noexcept { std::free(p); }
};
template <typename T>
using UniqueHeap = std::unique_ptr<T, HeapFree>;

class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) noexcept : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) close(fd_);
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};

}  // namespace quillane
