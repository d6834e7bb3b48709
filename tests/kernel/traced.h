// SPDX-License-Identifier: MIT
// For the tests that send mordel a signal at one of its system calls. Its children are not traced:
// they run on while mordel stands still.
#pragma once

#include <sys/ptrace.h>

#include <cerrno>

#include "transaction.h"

namespace guest {

struct traced {
    result ended;
    unsigned calls = 0;  // of the system, by mordel itself
};

inline void be_traced()
{
    (void)::setenv("SPY_MORDEL", std::to_string(::getpid()).c_str(), 1);
    (void)::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    (void)::raise(SIGSTOP);
}

// Runs mordel; when `is_now` is true at the entry of one of its system calls, which are counted
// from 1, it gets the signal after `pause` microseconds.
inline traced run_traced(const lines &words, const std::function<bool(unsigned call)> &is_now,
                         int signal, unsigned pause = 0)
{
    remove_notes();
    program p(command_line(words), "", {spies + ":" + plain_path, {}, be_traced});
    int status = 0;
    (void)::waitpid(p.pid(), &status, WUNTRACED);
    (void)::ptrace(PTRACE_SETOPTIONS, p.pid(), nullptr, PTRACE_O_TRACESYSGOOD);
    unsigned stops = 0;
    int pass_on = 0;
    for (;;) {
        if (::ptrace(PTRACE_SYSCALL, p.pid(), nullptr, pass_on) != 0 && errno != ESRCH) break;
        if (::waitpid(p.pid(), &status, 0) != p.pid() || !WIFSTOPPED(status)) break;
        const int why = WSTOPSIG(status);
        pass_on = why == (SIGTRAP | 0x80) || why == SIGTRAP ? 0 : why;
        // Each call stops twice, when it is entered and when it ends.
        if (why != (SIGTRAP | 0x80) || ++stops % 2 != 0 || !is_now(stops / 2)) continue;
        (void)::usleep(pause);
        (void)::kill(p.pid(), signal);
    }
    p.ended_with(status);
    return {p.end(), stops / 2};
}

// At the call number `at`
inline traced run_traced(const lines &words, unsigned at, int signal, unsigned pause = 0)
{
    return run_traced(
        words, [at](unsigned call) { return call == at; }, signal, pause);
}

}  // namespace guest
