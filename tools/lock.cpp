// SPDX-License-Identifier: MIT
// Owns the lock file. The lock is the descriptor's: the kernel lets go of it when the last process
// that holds the descriptor has ended. Programs that mordel starts inherit the descriptor, so a tc
// that outlives a killed mordel keeps the next mordel waiting. The file stays.

#include "lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <ctime>

#include "own_file.h"
#include "text.h"

namespace tool {

file_lock::file_lock(const std::string &path, unsigned wait)
    : fd_(open_own(path, O_RDWR | O_CREAT, error_))  // no O_CLOEXEC: programs inherit it
{
    if (!fd_) return;
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
