// SPDX-License-Identifier: MIT
// Owners of a descriptor, a stream and a heap block: each gives its own back when it goes out of
// scope, so that a function can return at its first failure.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace mordel {

// Owns a descriptor; 0 is one like any other, below 0 there is none. Its close keeps errno for the
// caller, and is never repeated: Linux frees the number even where close fails.
class fd_guard {
public:
    explicit fd_guard(int fd) : fd_(fd) {}
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
    ~fd_guard()
    {
        if (fd_ < 0) return;
        const int error = errno;
        ::close(fd_);
        errno = error;
    }
    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

struct stream_closer {
    void operator()(FILE *stream) const { ::fclose(stream); }
};
using stream_guard = std::unique_ptr<FILE, stream_closer>;

struct heap_freer {
    void operator()(void *block) const { ::free(block); }
};
template <typename Record>
using heap_guard = std::unique_ptr<Record, heap_freer>;

// Allocates a zero-filled record; null without memory.
template <typename Record>
heap_guard<Record> allocate()
{
    return heap_guard<Record>(static_cast<Record *>(::calloc(1, sizeof(Record))));
}

}  // namespace mordel
