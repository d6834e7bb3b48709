// SPDX-License-Identifier: MIT
// Opens files where others may have planted some. No state.

#include "plain_file.h"

#include <fcntl.h>

#include "guards.h"

namespace mordel {

int open_own_file(const char *path, int flags, mode_t mode, struct stat *st)
{
    // O_NONBLOCK: opening a planted FIFO that has no reader would wait for one for ever.
    fd_guard fd{::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode)};
    if (!fd || !is_plain_file(fd.get(), st) || st->st_uid != ::geteuid()) return -1;
    return fd.release();
}

}  // namespace mordel
