// SPDX-License-Identifier: MIT
// Calls of the C library, watched and made to fail. The test program is linked with --wrap for
// those in CMakeLists.txt, so that no test hook stands in the library itself.
#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace test {

// One watched call, in order.
struct call {
    std::string function;  // "open"
    std::string text;      // open, unlink: the path; fopen: "PATH MODE"; rename: "FROM TO";
                           // socket: the protocol's number; fcntl: the argument's;
                           // ioctl about an interface: its struct ifreq;
                           // write, stream write: the bytes; system, popen: the command
    int fd = -1;           // open, socket, accept4: what it returned; what takes one: its argument
    int flags = 0;         // open: its flags; socket: its type; ioctl, fcntl: the request;
                           // recvfrom: the room for an address, -1 without one;
                           // select: the time-out in microseconds, -1 without one;
                           // pthread_setcancelstate, _setcanceltype: what is set;
                           // sleep: the seconds
};

// While it lives, calls of the wrapped functions are recorded, and the nth call of `function`
// (counted from 1, from when the watch began) fails as that function does: null or -1 with errno
// `error`, or, of the pthread functions, `error` itself. nth 0 fails none; nth -1 fails every one.
// The rest reach the C library. "stream write" and "stream close" are what a stream of fdopen's
// does: a write that fails with ENOSPC has written half, one of any other error nothing, and a
// close that fails has closed. Calls of every thread count; one watch lives at a time.
class watch {
public:
    explicit watch(std::string function = "", int nth = 0, int error = 12 /* ENOMEM */);
    ~watch();
    watch(const watch &) = delete;
    watch &operator=(const watch &) = delete;

    std::vector<call> calls(const std::string &function) const;
    std::vector<call> calls() const;  // of open, write, close, system and popen
    bool failed() const;              // whether the fault was reached
};

// While it lives, a body runs behind every semop, on that semop's thread; it is given the step, -1
// when a lock was taken and 1 when one was given back.
class behind_semop {
public:
    explicit behind_semop(std::function<void(int)> body);
    ~behind_semop();
    behind_semop(const behind_semop &) = delete;
    behind_semop &operator=(const behind_semop &) = delete;

private:
    std::function<void(int)> body_;
};

// While it lives, time() and clock_gettime() tell what it is set to.
class clock_at {
public:
    explicit clock_at(time_t now);
    ~clock_at();
    clock_at(const clock_at &) = delete;
    clock_at &operator=(const clock_at &) = delete;
    static void set(time_t now);
};

}  // namespace test
