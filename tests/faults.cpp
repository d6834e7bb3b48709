// SPDX-License-Identifier: MIT
#include "faults.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace {

struct state {
    unsigned id;  // no other watch's, though its address may be
    std::string function;
    int nth;
    int error;
    int seen = 0;
    bool failed = false;
    std::vector<test::call> calls;
};

// The living watch's. Without one no lock is taken: a thread that is cancelled anywhere, as the
// dispatcher may be, must not take the lock with it.
std::atomic<state *> current;
std::mutex guard;
thread_local bool busy;  // our own bookkeeping allocates too

std::atomic<time_t> fixed_time;  // 0: the real one

std::atomic<const std::function<void(int)> *> semop_body;
thread_local bool in_semop_body;

// Records a call; `fail` tells whether it is to fail. `result` then notes the descriptor it made.
class noted {
public:
    explicit noted(const char *function, test::call call = {})
    {
        if (busy || current.load() == nullptr) return;
        busy = true;
        {
            const std::lock_guard lock(guard);
            if (state *now = current.load(); now != nullptr) note(*now, function, std::move(call));
        }
        busy = false;
        if (fail) errno = error_;
    }
    int result(int fd) const
    {
        if (!noted_) return fd;
        const std::lock_guard lock(guard);
        if (state *now = current.load(); now != nullptr && now->id == id_) now->calls[at_].fd = fd;
        return fd;
    }
    int error() const { return error_; }
    bool fail = false;

private:
    void note(state &now, const char *function, test::call call)
    {
        call.function = function;
        at_ = now.calls.size();
        id_ = now.id;
        noted_ = true;
        now.calls.push_back(std::move(call));
        if (now.function != function) return;
        ++now.seen;
        fail = now.nth == -1 || now.seen == now.nth;
        error_ = now.error;
        if (fail) now.failed = true;
    }

    bool noted_ = false;
    size_t at_ = 0;
    unsigned id_ = 0;
    int error_ = 0;
};

// Whether the living watch is for what streams do.
bool watches_streams()
{
    const std::lock_guard lock(guard);
    const state *now = current.load();
    return now != nullptr && now->function.starts_with("stream ");
}

}  // namespace

// A function that fails with -1, watched: its declaration, then how a call is recorded and made.
#define WATCHED_INT(name, parameters, record, arguments) \
    int __real_##name parameters;                        \
    int __wrap_##name parameters                         \
    {                                                    \
        const noted call(#name, record);                 \
        return call.fail ? -1 : __real_##name arguments; \
    }

// A pthread function, which returns its error.
#define WATCHED_PTHREAD(name, parameters, record, arguments)       \
    int __real_##name parameters;                                  \
    int __wrap_##name parameters                                   \
    {                                                              \
        const noted call(#name, record);                           \
        return call.fail ? call.error() : __real_##name arguments; \
    }

#define ON_FD test::call({"", "", fd, 0})
#define WITH_FLAGS(flags) test::call({"", "", -1, flags})

namespace {

// A time-out in microseconds; -1 for none.
int microseconds(const struct timeval *wait)
{
    return wait == nullptr ? -1 : static_cast<int>(wait->tv_sec * 1000000 + wait->tv_usec);
}

}  // namespace

extern "C" {

void *__real_calloc(size_t, size_t);
void *__wrap_calloc(size_t n, size_t size)
{
    return noted("calloc").fail ? nullptr : __real_calloc(n, size);
}

void *__real_malloc(size_t);
void *__wrap_malloc(size_t size) { return noted("malloc").fail ? nullptr : __real_malloc(size); }

// ---- Files --------------------------------------------------------------------------------------

int __real_open(const char *, int, ...);
int __wrap_open(const char *path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    const noted call("open", {"", path, -1, flags});
    return call.fail ? -1 : call.result(__real_open(path, flags, mode));
}

ssize_t __real_write(int, const void *, size_t);
ssize_t __wrap_write(int fd, const void *bytes, size_t size)
{
    const noted call("write", {"", std::string(static_cast<const char *>(bytes), size), fd, 0});
    return call.fail ? -1 : __real_write(fd, bytes, size);
}

FILE *__real_fopen(const char *, const char *);
FILE *__wrap_fopen(const char *path, const char *mode)
{
    const noted call("fopen", {"", std::string(path) + " " + mode, -1, 0});
    return call.fail ? nullptr : __real_fopen(path, mode);
}

int __real_close(int);
int __wrap_close(int fd)
{
    const noted call("close", ON_FD);
    return call.fail ? -1 : __real_close(fd);
}

// What a stream does inside the C library is seen by no wrapper. Where its writes or its close are
// to fail, it is one of ours.
ssize_t stream_write(void *cookie, const char *bytes, size_t size)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    const noted call("stream write", {"", std::string(bytes, size), fd, 0});
    if (!call.fail) return __real_write(fd, bytes, size);
    const ssize_t written = call.error() == ENOSPC ? __real_write(fd, bytes, size / 2) : 0;
    errno = call.error();
    return written;
}

int stream_close(void *cookie)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    const noted call("stream close", ON_FD);
    (void)__real_close(fd);
    if (!call.fail) return 0;
    errno = call.error();
    return -1;
}

FILE *__real_fdopen(int, const char *);
FILE *__wrap_fdopen(int fd, const char *mode)
{
    const noted call("fdopen", {"", mode, fd, 0});
    if (call.fail) return nullptr;
    if (!watches_streams()) return __real_fdopen(fd, mode);
    return ::fopencookie(reinterpret_cast<void *>(static_cast<intptr_t>(fd)), mode,
                         {nullptr, stream_write, nullptr, stream_close});
}

int __real_fcntl(int, int, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    const long argument = va_arg(args, long);
    va_end(args);
    const noted call("fcntl", {"", std::to_string(argument), fd, command});
    return call.fail ? -1 : __real_fcntl(fd, command, argument);
}

WATCHED_INT(fstat, (int fd, struct stat *st), ON_FD, (fd, st))
WATCHED_INT(ftruncate, (int fd, off_t size), ON_FD, (fd, size))
WATCHED_INT(fchmod, (int fd, mode_t mode), ON_FD, (fd, mode))
WATCHED_INT(unlink, (const char *path), test::call({"", path, -1, 0}), (path))
WATCHED_INT(rename, (const char *from, const char *to),
            test::call({"", std::string(from) + " " + to, -1, 0}), (from, to))

// ---- The shell ----------------------------------------------------------------------------------

WATCHED_INT(system, (const char *command),
            test::call({"", command == nullptr ? "" : command, -1, 0}), (command))

FILE *__real_popen(const char *, const char *);
FILE *__wrap_popen(const char *command, const char *mode)
{
    const noted call("popen", {"", command, -1, 0});
    return call.fail ? nullptr : __real_popen(command, mode);
}

// ---- Sockets ------------------------------------------------------------------------------------

int __real_socket(int, int, int);
int __wrap_socket(int family, int type, int protocol)
{
    const noted call("socket", {"", std::to_string(protocol), -1, type});
    return call.fail ? -1 : call.result(__real_socket(family, type, protocol));
}

int __real_accept4(int, struct sockaddr *, socklen_t *, int);
int __wrap_accept4(int fd, struct sockaddr *address, socklen_t *length, int flags)
{
    const noted call("accept4", {"", "", -1, flags});
    return call.fail ? -1 : call.result(__real_accept4(fd, address, length, flags));
}

int __real_ioctl(int, unsigned long, ...);
int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    // Those from SIOCGIFNAME to SIOCSIFHWBROADCAST are about one interface
    std::string about;
    if (request >= 0x8910 && request <= 0x8937)
        about.assign(static_cast<const char *>(arg), sizeof(struct ifreq));
    const noted call("ioctl", {"", about, fd, static_cast<int>(request)});
    return call.fail ? -1 : __real_ioctl(fd, request, arg);
}

WATCHED_INT(setsockopt, (int fd, int level, int name, const void *value, socklen_t length), ON_FD,
            (fd, level, name, value, length))
WATCHED_INT(getsockopt, (int fd, int level, int name, void *value, socklen_t *length), ON_FD,
            (fd, level, name, value, length))
WATCHED_INT(bind, (int fd, const struct sockaddr *address, socklen_t length), ON_FD,
            (fd, address, length))
WATCHED_INT(listen, (int fd, int backlog), ON_FD, (fd, backlog))
WATCHED_INT(connect, (int fd, const struct sockaddr *address, socklen_t length), ON_FD,
            (fd, address, length))
WATCHED_INT(select,
            (int count, fd_set *readable, fd_set *writable, fd_set *urgent, struct timeval *wait),
            WITH_FLAGS(microseconds(wait)), (count, readable, writable, urgent, wait))

ssize_t __real_recvfrom(int, void *, size_t, int, struct sockaddr *, socklen_t *);
ssize_t __wrap_recvfrom(int fd, void *bytes, size_t size, int flags, struct sockaddr *address,
                        socklen_t *length)
{
    const int room = length == nullptr ? -1 : static_cast<int>(*length);
    const noted call("recvfrom", {"", "", fd, room});
    return call.fail ? -1 : __real_recvfrom(fd, bytes, size, flags, address, length);
}

// ---- IPC ----------------------------------------------------------------------------------------

WATCHED_INT(semget, (key_t key, int count, int flags), WITH_FLAGS(flags), (key, count, flags))
WATCHED_INT(shmget, (key_t key, size_t size, int flags), WITH_FLAGS(flags), (key, size, flags))

union semctl_argument {
    int value;
    void *pointer;
};
int __real_semctl(int, int, int, ...);
int __wrap_semctl(int id, int number, int command, ...)
{
    semctl_argument argument{};
    if (command != IPC_RMID) {  // which has none, and some machines pass a union by its address
        va_list args;
        va_start(args, command);
        argument = va_arg(args, semctl_argument);
        va_end(args);
    }
    const noted call("semctl", {"", "", -1, command});
    return call.fail ? -1 : __real_semctl(id, number, command, argument);
}

// A System V lock orders what is done under it, which ThreadSanitizer has to be told.
int __real_semop(int, struct sembuf *, size_t);
int __wrap_semop(int id, struct sembuf *operations, size_t count)
{
    const noted call("semop", {"", "", -1, operations->sem_op});
    if (call.fail) return -1;
#if defined(__SANITIZE_THREAD__)
    static char locks[64];
    char *lock = &locks[static_cast<unsigned>(id) % sizeof locks];
    if (operations->sem_op > 0) __tsan_release(lock);
    const int result = __real_semop(id, operations, count);
    if (operations->sem_op < 0 && result == 0) __tsan_acquire(lock);
#else
    const int result = __real_semop(id, operations, count);
#endif
    if (const auto *body = semop_body.load(); body != nullptr && !in_semop_body) {
        in_semop_body = true;
        (*body)(operations->sem_op);
        in_semop_body = false;
    }
    return result;
}

// ---- Threads ------------------------------------------------------------------------------------

WATCHED_PTHREAD(pthread_create,
                (pthread_t * thread, const pthread_attr_t *attr, void *(*body)(void *), void *arg),
                test::call(), (thread, attr, body, arg))
WATCHED_PTHREAD(pthread_setcancelstate, (int state, int *old), WITH_FLAGS(state), (state, old))
WATCHED_PTHREAD(pthread_setcanceltype, (int type, int *old), WITH_FLAGS(type), (type, old))

unsigned __real_sleep(unsigned);
unsigned __wrap_sleep(unsigned seconds)
{
    const noted call("sleep", {"", "", -1, static_cast<int>(seconds)});
    return call.fail ? seconds : __real_sleep(seconds);
}

// ---- Time ---------------------------------------------------------------------------------------

time_t __real_time(time_t *);
time_t __wrap_time(time_t *out)
{
    const time_t fixed = fixed_time.load();
    if (fixed == 0) return __real_time(out);
    if (out != nullptr) *out = fixed;
    return fixed;
}

int __real_clock_gettime(clockid_t, struct timespec *);
int __wrap_clock_gettime(clockid_t clock, struct timespec *out)
{
    const time_t fixed = fixed_time.load();
    if (fixed == 0) return __real_clock_gettime(clock, out);
    *out = {fixed, 0};
    return 0;
}

}  // extern "C"

namespace test {

watch::watch(std::string function, int nth, int error)
{
    static unsigned ids;
    current = new state{++ids, std::move(function), nth, error, 0, false, {}};
}

watch::~watch()
{
    const std::lock_guard lock(guard);
    delete current.exchange(nullptr);
}

std::vector<call> watch::calls(const std::string &function) const
{
    const std::lock_guard lock(guard);
    std::vector<call> some;
    for (const auto &c : current.load()->calls)
        if (c.function == function) some.push_back(c);
    return some;
}

std::vector<call> watch::calls() const
{
    const std::lock_guard lock(guard);
    static const std::set<std::string> shown = {"open", "write", "close", "system", "popen"};
    std::vector<call> some;
    for (const auto &c : current.load()->calls)
        if (shown.contains(c.function)) some.push_back(c);
    return some;
}

bool watch::failed() const
{
    const std::lock_guard lock(guard);
    return current.load()->failed;
}

behind_semop::behind_semop(std::function<void(int)> body) : body_(std::move(body))
{
    semop_body = &body_;
}
behind_semop::~behind_semop() { semop_body = nullptr; }

clock_at::clock_at(time_t now) { set(now); }
clock_at::~clock_at() { set(0); }
void clock_at::set(time_t now) { fixed_time = now; }

}  // namespace test
