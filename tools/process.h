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
    bool missing = false;  // no file of the program's name is on the PATH
    bool started = false;  // it has run, if only for a moment
    bool ended = false;    // it ended by itself, with an exit status
    int status = 0;        // its exit status; 128 and the signal's number when it was killed
    // Why it is no success, to stand behind the program's name and a colon: what it said on its
    // standard error, on one line, or "was killed by signal 9 (Killed)", "ended with status 2 and
    // said nothing", "cannot be started: Too many open files". "" for a success.
    std::string problem;
    std::string out;  // its standard output, whole
    std::string err;  // its standard error, whole
    bool ok() const { return problem.empty(); }
};

// Whether a name without a slash is that of a file in a folder of PATH, or a path is that of a
// file. The file may be one that cannot be started: run() says why.
bool is_on_path(const std::string &program);

// Runs a program, found on the PATH, with a text as its standard input, and waits for its end. The
// program has a process group of its own, no blocked and no ignored signal, and is killed when this
// process dies.
// seconds: after so many the program is killed with its process group; 0: waits without end.
run_result run(const std::vector<std::string> &command, const std::string &input = "",
               unsigned seconds = 0);

// A file without a name, in memory where the kernel can; null, with errno, when there is no room.
mordel::stream_guard make_temporary();

// All that is left to read of a descriptor; nullopt, with errno, when a read fails.
std::optional<std::string> read_rest(int fd);
// All of a file that a child may have written to; nullopt, with errno, when it cannot be read.
std::optional<std::string> contents(FILE *file);

// Runs a body in a child process with a network namespace of its own, and gives the text that the
// body returns; none when the body gives none or the kernel gives no namespace. The child is killed
// when this process dies.
std::optional<std::string> in_own_network(const std::function<std::optional<std::string>()> &body);

// Blocks some signals until it is destroyed.
class signal_block {
public:
    explicit signal_block(const sigset_t &set) { (void)::sigprocmask(SIG_BLOCK, &set, &before_); }
    signal_block(const signal_block &) = delete;
    signal_block &operator=(const signal_block &) = delete;
    ~signal_block() { (void)::sigprocmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

// A set for signal_block
sigset_t signals(const std::vector<int> &numbers);

// While one lives, the signals by which a terminal or a supervisor ends or suspends a program are
// blocked: a stop that has begun is finished before the signal takes effect.
class uninterrupted {
public:
    uninterrupted();

private:
    signal_block block_;
};

}  // namespace tool
