// SPDX-License-Identifier: MIT
// Owns the wrapped calls. A call outside of a watch's life reaches the C library untouched.
#include "file_operations.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <utility>

namespace {

using kind = test::operation::kind;

test::file_watch *watching = nullptr;

bool fails(const char *function) { return watching != nullptr && watching->fails(function); }

std::string name_of(const char *path)
{
    const std::string whole = path;
    return whole.substr(whole.find_last_of('/') + 1);
}

}  // namespace

extern "C" {

int __real_open(const char *, int, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    if (fails("open")) return -1;
    const int fd = __real_open(path, flags, mode);
    if (watching == nullptr || fd < 0) return fd;
    watching->descriptors.erase(fd);
    if ((flags & O_CREAT) != 0) {
        watching->record({kind::create, name_of(path), "", ++watching->files});
        watching->descriptors[fd] = watching->files;
    } else if ((flags & O_DIRECTORY) != 0) {
        watching->descriptors[fd] = 0;
    }
    return fd;
}

ssize_t __real_write(int, const void *, size_t);
ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    const bool fail = fails("write");
    const ssize_t n = __real_write(fd, bytes, fail ? size / 2 : size);
    if (n > 0 && watching != nullptr && watching->descriptors.contains(fd))
        watching->record({kind::write,
                          "",
                          {static_cast<const char *>(bytes), static_cast<size_t>(n)},
                          watching->descriptors[fd]});
    if (fail) errno = EIO;
    return fail ? -1 : n;
}

int __real_fsync(int);
int __wrap_fsync(int fd)
{
    if (fails("fsync")) return -1;
    const int result = __real_fsync(fd);
    if (result == 0 && watching != nullptr && watching->descriptors.contains(fd)) {
        const int file = watching->descriptors[fd];
        watching->record({file == 0 ? kind::sync_folder : kind::sync_file, "", "", file});
    }
    return result;
}

int __real_rename(const char *, const char *);
int __wrap_rename(const char *from, const char *to)
{
    if (fails("rename")) return -1;
    const int result = __real_rename(from, to);
    if (result == 0 && watching != nullptr)
        watching->record({kind::rename, name_of(from), name_of(to)});
    return result;
}

int __real_unlink(const char *);
int __wrap_unlink(const char *path)
{
    if (fails("unlink")) return -1;
    const int result = __real_unlink(path);
    if (result == 0 && watching != nullptr) watching->record({kind::unlink, name_of(path)});
    return result;
}

}  // extern "C"

namespace test {

file_watch::file_watch(std::string function, int nth, int error)
    : function_(std::move(function)), nth_(nth), error_(error)
{
    watching = this;
}

file_watch::~file_watch() { watching = nullptr; }

void file_watch::mark(const std::string &word) { record({kind::mark, word}); }

bool file_watch::heal()
{
    nth_ = 0;
    return failed_;
}

bool file_watch::fails(const std::string &function)
{
    if (function != function_ || --nth_ != 0) return false;
    failed_ = true;
    errno = error_;
    return true;
}

}  // namespace test
