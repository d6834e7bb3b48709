// SPDX-License-Identifier: MIT
// Owns the handler of SIGINT, SIGTERM and SIGHUP and what it may touch: a handler can be handed
// nothing, so its number and its texts are globals. It runs between any two instructions of the
// program's one thread, and calls write(2) alone.

#include "interruption.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace tool {
namespace {

volatile std::sig_atomic_t first_signal = 0;

// Two texts: left() writes the one that the handler does not read, and then swaps.
struct message {
    char text[512];
    std::size_t size;
};
constinit message messages[2] = {};
volatile std::sig_atomic_t shown = 0;  // the index of the one for the handler

volatile std::sig_atomic_t too_late = 0;
volatile std::sig_atomic_t late_signal = 0;

void say(std::string_view text)
{
    // Best effort: a terminal that is gone takes no message.
    (void)!::write(STDERR_FILENO, text.data(), text.size());
}

void on_signal(int number)
{
    if (too_late != 0) {
        late_signal = number;
        return;
    }
    const int error = errno;
    if (first_signal == 0) {
        first_signal = number;
        say("mordel: finishing this step, then taking back; once more to be told what is left\n");
    } else {
        const message &m = messages[shown];
        say({m.text, m.size});
    }
    errno = error;
}

void set_message(std::string_view what)
{
    constexpr std::string_view opening = "mordel: still to do: ";
    constexpr std::size_t most = 400;
    const int next = 1 - shown;
    message &m = messages[next];
    what = what.substr(0, most);
    char *end = std::copy(opening.begin(), opening.end(), m.text);
    end = std::copy(what.begin(), what.end(), end);
    *end++ = '\n';
    m.size = static_cast<std::size_t>(end - m.text);
    // The text is whole in memory before the handler is shown it.
    std::atomic_signal_fence(std::memory_order_release);
    shown = next;
}

}  // namespace

interruption::interruption()
{
    first_signal = 0;
    too_late = 0;
    late_signal = 0;
    set_message("nothing has begun");
    sigset_t suspend;
    (void)::sigemptyset(&suspend);
    // Ctrl-Z, Ctrl-\ and a terminal that stops its background writers would leave half a policy,
    // and the lock held.
    for (const int number : {SIGQUIT, SIGTSTP, SIGTTIN, SIGTTOU})
        (void)::sigaddset(&suspend, number);
    (void)::sigprocmask(SIG_BLOCK, &suspend, &mask_before_);
    for (std::size_t i = 0; i < std::size(numbers); ++i) {
        (void)::sigaction(numbers[i], nullptr, &before_[i]);
        if (before_[i].sa_handler == SIG_IGN) continue;
        struct sigaction action {};
        // A pipe whose reader is gone fails the write of the report, not the apply.
        action.sa_handler = numbers[i] == SIGPIPE ? SIG_IGN : on_signal;
        (void)::sigemptyset(&action.sa_mask);
        // One handler at a time, or two texts would mix. SA_RESTART: no call fails for a signal.
        for (const int number : numbers) (void)::sigaddset(&action.sa_mask, number);
        action.sa_flags = SA_RESTART;
        (void)::sigaction(numbers[i], &action, nullptr);
    }
}

interruption::~interruption()
{
    if (too_late != 0) return;
    for (std::size_t i = 0; i < std::size(numbers); ++i)
        (void)::sigaction(numbers[i], &before_[i], nullptr);
    (void)::sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
}

int interruption::signal() const { return first_signal; }

void interruption::over() { too_late = 1; }

int interruption::late() { return late_signal; }

void interruption::left(const std::string &what) { set_message(what); }

}  // namespace tool
