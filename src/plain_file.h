// What may be written to in a directory that everybody may write to.
#pragma once

#include <sys/stat.h>

namespace mordel {

// Whether a descriptor is a regular file with one name: no FIFO whose reader can go away, and no
// second name for a file that is not ours to touch. Its status goes to st.
inline bool is_plain_file(int fd, struct stat *st)
{
    return ::fstat(fd, st) == 0 && S_ISREG(st->st_mode) && st->st_nlink == 1;
}

}  // namespace mordel
