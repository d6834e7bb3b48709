// SPDX-License-Identifier: MIT
// Generated scripts: how they are opened, closed and made ready to run. No state; who calls for one
// path serialises.
//
// Scripts lie in a directory that everybody may write to and are run by root, so a file that
// somebody else planted there, or could still change, is not written to.

#include "script_file.h"

#include <fcntl.h>

#include <csignal>
#include <ctime>

#include "plain_file.h"

namespace mordel {
namespace {

constexpr char opening_lines[] = "#!/bin/sh\n"
                                 "#Generate by tarnic\n"
                                 "#Author: Ora Vel\n";
constexpr ssize_t opening_length = sizeof opening_lines - 1;

// A descriptor of a script that only we can write to; -1 when it cannot be had.
int open_own_script(const char *path)
{
    constexpr int flags = O_WRONLY | O_CREAT;
    struct stat st;
    fd_guard fd{open_own_file(path, flags, S_IRWXU, &st)};
    if (!fd || (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return fd.release();
    // Somebody else could have opened this file and could still write to it, whatever mode it gets:
    // a new file takes its place. O_EXCL: a file planted since the unlink is refused.
    return ::unlink(path) == 0 ? open_own_file(path, flags | O_EXCL, S_IRWXU, &st) : -1;
}

stream_guard open_stream(int fd)
{
    fd_guard copy{::fcntl(fd, F_DUPFD_CLOEXEC, 0)};
    if (!copy) return nullptr;
    stream_guard stream{::fdopen(copy.get(), "w")};
    if (!stream) return nullptr;
    (void)copy.release();  // the stream's from here on
    if (::ftruncate(fd, 0) != 0) return nullptr;
    (void)::fchmod(fd, S_IRWXU);  // best effort: some file systems know no modes
    return stream;
}

// Shortening a file takes no room on a full disk. The opening lines are written again because they
// too may have failed to get there; in place of what was there they mostly need no room either.
void cut_back(int fd)
{
    if (::ftruncate(fd, opening_length) != 0 ||
        ::pwrite(fd, opening_lines, opening_length, 0) != opening_length)
        (void)!::ftruncate(fd, 0);
}

}  // namespace

script_file::script_file(const char *path)
    : file_(open_own_script(path)), stream_(file_ ? open_stream(file_.get()) : nullptr)
{}

script_file::~script_file()
{
    if (!stream_) return;
    // The stream remembers an error even where later writes succeeded. fclose writes what is still
    // buffered, and some file systems (NFS) report a full disk at the close alone. The file is cut
    // back once the stream is gone: a stream that keeps what it could not write tries again there.
    const bool failed = ::ferror(stream_.get()) != 0;
    if (::fclose(stream_.release()) != 0 || failed) cut_back(file_.get());
}

void write_script_header(FILE *out) { ::fputs(opening_lines, out); }

// While another thread starts a process, the new process has a copy of our descriptor until it runs
// its program. A file that is open for writing cannot be executed: the shell would say "Text file
// busy" and the old rules would stay. The kernel grants a read lease on a file that nobody has open
// for writing, and says EAGAIN while somebody has.
void wait_for_writers(const char *path)
{
    constexpr int tries = 100;
    constexpr timespec pause = {0, 10'000'000};  // 10 ms
    const fd_guard fd{::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    // Who opens the script for writing while we hold the lease makes the kernel signal us. SIGURG
    // is ignored by default; the usual SIGIO would end the process.
    if (!fd || ::fcntl(fd.get(), F_SETSIG, SIGURG) != 0) return;
    for (int i = 0; i < tries; ++i) {
        if (::fcntl(fd.get(), F_SETLEASE, F_RDLCK) == 0) {
            // Given back at once, and by name: a process started meanwhile has a copy of this
            // descriptor too, so that closing ours alone would keep the lease.
            (void)::fcntl(fd.get(), F_SETLEASE, F_UNLCK);
            return;
        }
        if (errno != EAGAIN) return;  // a file system without leases tells us nothing
        (void)::nanosleep(&pause, nullptr);
    }
}

}  // namespace mordel
