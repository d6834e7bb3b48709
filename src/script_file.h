// SPDX-License-Identifier: MIT
// Generated scripts as files.
#pragma once

#include <cstdio>

#include "guards.h"

namespace mordel {

// A script while it is written. Its destructor closes it. Where any write, or the close, has failed
// (a full disk), the script is cut back to its opening lines, or to nothing where the disk has no
// room for these: run half-written, it could end in `iptables -t mangle -F`, which without its
// chain's name flushes the whole table.
class script_file {
public:
    // Opens the script: empty, mode 0700.
    explicit script_file(const char *path);
    ~script_file();
    script_file(const script_file &) = delete;
    script_file &operator=(const script_file &) = delete;

    // Where to write it. Null, and an old file is as it was, when the path cannot be opened for
    // writing or is no plain file of ours (open_own_file).
    FILE *stream() const { return stream_.get(); }

private:
    fd_guard file_;        // still open once the stream is closed, to cut the file back
    stream_guard stream_;  // on a descriptor of its own
};

// The three opening lines of every script.
void write_script_header(FILE *out);

// Waits, a second or so at most, until no process has a script open for writing.
void wait_for_writers(const char *path);

}  // namespace mordel
