// Scripts lie in a directory that everybody may write to and are run by root: what somebody else
// could have planted there, or could still change, is not written to.

#include "script_file.h"

#include <fcntl.h>

#include "plain_file.h"

namespace mordel {
namespace {

// Not truncated yet: a refused file keeps its text. Non-blocking for a FIFO without a reader.
int open_for_writing(const char *path, int flags)
{
    return ::open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags,
                  S_IRWXU);
}

// A descriptor of a file that is ours alone; -1 when it cannot be had.
int open_own(const char *path)
{
    fd_guard fd{open_for_writing(path, 0)};
    struct stat st;
    if (!fd || !is_plain_file(fd.get(), &st) || st.st_uid != ::geteuid()) return -1;
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return fd.release();
    // Others could have opened it, and would keep their way in: a new file takes its place.
    return ::unlink(path) == 0 ? open_for_writing(path, O_EXCL) : -1;
}

}  // namespace

stream_guard open_script(const char *path)
{
    fd_guard fd{open_own(path)};
    if (!fd) return nullptr;
    stream_guard script{::fdopen(fd.get(), "w")};
    if (!script) return nullptr;
    const int own = fd.release();  // the stream's from here on
    if (::ftruncate(own, 0) != 0) return nullptr;
    (void)::fchmod(own, S_IRWXU);  // best effort: some file systems know no modes
    return script;
}

void write_script_header(FILE *out)
{
    ::fputs("#!/bin/sh\n"
            "#Generate by tarnic\n"
            "#Author: Ora Vel\n",
            out);
}

}  // namespace mordel
