#include "faults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace {

struct state {
    std::string function;
    int nth;
    int error;
    int seen = 0;
    bool failed = false;
    bool busy = false;  // our own bookkeeping allocates too
    std::vector<test::call> calls;
};

state *current;  // the living watch's

// Records the call; true when it is to fail.
bool fails(const char *function, test::call call = {})
{
    if (current == nullptr || current->busy) return false;
    current->busy = true;
    call.function = function;
    current->calls.push_back(std::move(call));
    bool fail = false;
    if (current->function == function) {
        ++current->seen;
        fail = current->nth == -1 || current->seen == current->nth;
        if (fail) {
            current->failed = true;
            errno = current->error;
        }
    }
    current->busy = false;
    return fail;
}

}  // namespace

extern "C" {

void *__real_calloc(size_t, size_t);
void *__real_malloc(size_t);
int __real_open(const char *, int, ...);
ssize_t __real_write(int, const void *, size_t);
int __real_close(int);
FILE *__real_fdopen(int, const char *);
int __real_fstat(int, struct stat *);
int __real_ftruncate(int, off_t);
int __real_fchmod(int, mode_t);
int __real_unlink(const char *);
int __real_system(const char *);
FILE *__real_popen(const char *, const char *);

void *__wrap_calloc(size_t n, size_t size)
{
    return fails("calloc") ? nullptr : __real_calloc(n, size);
}

void *__wrap_malloc(size_t size) { return fails("malloc") ? nullptr : __real_malloc(size); }

int __wrap_open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    if (fails("open", {"", path, -1, flags})) return -1;
    const int fd = __real_open(path, flags, mode);
    if (current != nullptr && !current->busy) current->calls.back().fd = fd;
    return fd;
}

ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    if (fails("write", {"", std::string(static_cast<const char *>(bytes), size), fd, 0})) return -1;
    return __real_write(fd, bytes, size);
}

int __wrap_close(int fd) { return fails("close", {"", "", fd, 0}) ? -1 : __real_close(fd); }

FILE *__wrap_fdopen(int fd, const char *mode)
{
    return fails("fdopen", {"", mode, fd, 0}) ? nullptr : __real_fdopen(fd, mode);
}

int __wrap_fstat(int fd, struct stat *st)
{
    return fails("fstat", {"", "", fd, 0}) ? -1 : __real_fstat(fd, st);
}

int __wrap_ftruncate(int fd, off_t size)
{
    return fails("ftruncate", {"", "", fd, 0}) ? -1 : __real_ftruncate(fd, size);
}

int __wrap_fchmod(int fd, mode_t mode)
{
    return fails("fchmod", {"", "", fd, 0}) ? -1 : __real_fchmod(fd, mode);
}

int __wrap_unlink(const char *path)
{
    return fails("unlink", {"", path, -1, 0}) ? -1 : __real_unlink(path);
}

int __wrap_system(const char *command)
{
    return fails("system", {"", command == nullptr ? "" : command, -1, 0}) ? -1
                                                                           : __real_system(command);
}

FILE *__wrap_popen(const char *command, const char *mode)
{
    return fails("popen", {"", command, -1, 0}) ? nullptr : __real_popen(command, mode);
}

}  // extern "C"

namespace test {

watch::watch(std::string function, int nth, int error)
{
    current = new state{std::move(function), nth, error, 0, false, false, {}};
}

watch::~watch()
{
    state *mine = current;
    current = nullptr;
    delete mine;
}

std::vector<call> watch::calls(const std::string &function) const
{
    current->busy = true;
    std::vector<call> some;
    for (const auto &c : current->calls)
        if (c.function == function) some.push_back(c);
    current->busy = false;
    return some;
}

std::vector<call> watch::calls() const
{
    current->busy = true;
    static const std::set<std::string> shown = {"open", "write", "close", "system", "popen"};
    std::vector<call> some;
    for (const auto &c : current->calls)
        if (shown.contains(c.function)) some.push_back(c);
    current->busy = false;
    return some;
}

bool watch::failed() const { return current->failed; }

}  // namespace test
