// SPDX-License-Identifier: MIT
// Owns the lock file. The lock is the descriptor's, and the kernel closes that with its process: a
// killed mordel leaves no lock behind, though the file stays.

#include "lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "text.h"

namespace tool {

file_lock::file_lock(const std::string &path, unsigned wait)
    : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))
{
    if (!fd_) {
        error_ = format("cannot open %s: %s", path.c_str(), std::strerror(errno));
        return;
    }
    // Tried 20 times a second: flock has no time limit, only "for ever" and "not at all".
    const timespec pause{0, 50000000};
    for (unsigned tries = wait * 20;; --tries) {
        if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) return;
        if (tries == 0) break;
        (void)::nanosleep(&pause, nullptr);
    }
    error_ = format("another mordel is at work and holds %s; waited %u s", path.c_str(), wait);
}

}  // namespace tool
