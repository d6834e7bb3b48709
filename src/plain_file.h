// SPDX-License-Identifier: MIT
// Files in directories that others may write to: what they could have planted there is not touched.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace mordel {

// Whether a descriptor is a regular file with one name: no FIFO whose reader can go away, and no
// second name for a file that is not ours to touch. Its status goes to st.
inline bool is_plain_file(int fd, struct stat *st)
{
    return ::fstat(fd, st) == 0 && S_ISREG(st->st_mode) && st->st_nlink == 1;
}

// Opens a file for writing; flags: those of open, less O_TRUNC, since a refused file keeps its
// text. A file that is made is of `mode`, less the umask. Returns the descriptor, close-on-exec,
// and the file's status in st; -1 where the path is no plain file of this process's user: a
// symbolic link, another kind of file, another user's file, or one with a second name.
int open_own_file(const char *path, int flags, mode_t mode, struct stat *st);

}  // namespace mordel
