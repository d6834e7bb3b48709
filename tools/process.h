// SPDX-License-Identifier: MIT
// Other programs, run without a shell.
#pragma once

#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "guards.h"

namespace tool {

struct run_result {
    bool missing = false;  // the program could not be started
    int status = 0;        // its exit status; 128 and the signal's number when it was killed
    std::string problem;   // why it is no success, on one line; "" for a success
    std::string out;       // its standard output, whole
    std::string err;       // its standard error, whole
    bool ok() const { return !missing && status == 0; }
};

// A name without a slash is looked for in the folders of PATH.
bool is_on_path(const std::string &program);

// Runs a program, found on the PATH, with a text as its standard input, and waits for its end.
// seconds: after so many the program is killed with its process group; 0: waits without end.
run_result run(const std::vector<std::string> &command, const std::string &input = "",
               unsigned seconds = 0);

// A file without a name, in memory where the kernel can; null when there is no room.
mordel::stream_guard make_temporary();

// All that is left to read of a descriptor; nullopt, with errno, when a read fails.
std::optional<std::string> read_rest(int fd);
// All of a file that a child may have written to; nullopt when it cannot be read.
std::optional<std::string> contents(FILE *file);

// While one lives, the signals by which a terminal or a supervisor ends or suspends a program are
// blocked: an apply that has begun is finished, or taken back, before the signal takes effect.
// Programs that run() starts inherit the block, so that Ctrl-C does not kill tc halfway.
class uninterrupted {
public:
    uninterrupted();
    uninterrupted(const uninterrupted &) = delete;
    uninterrupted &operator=(const uninterrupted &) = delete;
    ~uninterrupted();

private:
    sigset_t before_{};
};

// Runs a body in a child process with a network namespace of its own, and gives the text that the
// body returns; none when the body gives none or the kernel gives no namespace. A child, because
// unshare would take this process away from the machine's interfaces for good. The answer comes by
// a file that parent and child share.
std::optional<std::string> in_own_network(const std::function<std::optional<std::string>()> &body);

}  // namespace tool
