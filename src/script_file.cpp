// Scripts lie in a directory that everybody may write to and are run by root: what somebody else
// could have planted there, or could still change, is not written to.

#include "script_file.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace mordel {
namespace {

bool is_ours_alone(int fd)
{
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
           st.st_nlink == 1;
}

}  // namespace

stream_guard open_script(const char *path)
{
    // Not truncated yet: a refused file keeps its text. Non-blocking for a FIFO without a reader.
    fd_guard fd{
        ::open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, S_IRWXU)};
    if (!fd || !is_ours_alone(fd.get())) return nullptr;
    stream_guard script{::fdopen(fd.get(), "w")};
    if (!script) return nullptr;
    const int own = fd.release();  // the stream's from here on
    if (::ftruncate(own, 0) != 0) return nullptr;
    (void)::fchmod(own, S_IRWXU);  // best effort: some file systems know no modes
    ::fputs("#!/bin/sh\n"
            "#Generate by tarnic\n"
            "#Author: Ora Vel\n",
            script.get());
    return script;
}

}  // namespace mordel
