// SPDX-License-Identifier: MIT
// Bytes that end where readable memory ends.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <string>

namespace test {

// A read-only copy right in front of an unreadable page: reading behind it, or writing to it, stops
// the test program, with or without a sanitizer.
class fenced_bytes {
public:
    fenced_bytes(const void *bytes, size_t size)
        : page_(static_cast<size_t>(::sysconf(_SC_PAGESIZE))),
          room_((size + page_ - 1) / page_ * page_)
    {
        base_ = static_cast<char *>(::mmap(nullptr, room_ + page_, PROT_READ | PROT_WRITE,
                                           MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        if (base_ == MAP_FAILED) throw std::bad_alloc();
        at_ = base_ + room_ - size;
        std::memcpy(at_, bytes, size);
        if (::mprotect(base_, room_, PROT_READ) != 0) throw std::bad_alloc();
        if (::mprotect(base_ + room_, page_, PROT_NONE) != 0) throw std::bad_alloc();
    }
    ~fenced_bytes() { ::munmap(base_, room_ + page_); }
    fenced_bytes(const fenced_bytes &) = delete;
    fenced_bytes &operator=(const fenced_bytes &) = delete;

    const char *data() const { return at_; }

private:
    size_t page_;
    size_t room_;
    char *base_;
    char *at_;
};

template <typename Record>
class fenced : public fenced_bytes {
public:
    explicit fenced(const Record &record) : fenced_bytes(&record, sizeof record) {}
    operator const Record *() const { return reinterpret_cast<const Record *>(data()); }
};

class fenced_text : public fenced_bytes {
public:
    explicit fenced_text(const std::string &text) : fenced_bytes(text.c_str(), text.size() + 1) {}
    operator const char *() const { return data(); }
};

}  // namespace test
