// SPDX-License-Identifier: MIT
// Signals while the kernel is being changed. Each case runs in a process of its own, whose standard
// error is compared whole.
#include "interruption.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using tool::interruption;

constexpr char first[] =
    "mordel: finishing this step, then taking back; once more to be told what is left\n";

void say(const char *text) { (void)!::write(STDERR_FILENO, text, std::strlen(text)); }

[[noreturn]] void ends_with(const interruption &i) { std::_Exit(128 + i.signal()); }

TEST(InterruptionDeathTest, OfEachSignalIsNoticedAndNotObeyed)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        EXPECT_EXIT(
            {
                const interruption i;
                if (i.signal() != 0) say("too early\n");
                (void)::raise(number);
                ends_with(i);
            },
            testing::ExitedWithCode(128 + number), std::string("^") + first + "$");
}

TEST(InterruptionDeathTest, OnceMoreTellsWhatIsLeft)
{
    EXPECT_EXIT(
        {
            interruption i;
            (void)::raise(SIGTERM);
            (void)::raise(SIGINT);
            i.left("eth0: 12 tc commands and the rules");
            (void)::raise(SIGINT);
            i.left("eth0: the rules");
            (void)::raise(SIGINT);
            (void)::raise(SIGHUP);
            ends_with(i);
        },
        testing::ExitedWithCode(128 + SIGTERM),
        std::string("^") + first +
            "mordel: still to do: nothing has begun\n"
            "mordel: still to do: eth0: 12 tc commands and the rules\n"
            "mordel: still to do: eth0: the rules\n"
            "mordel: still to do: eth0: the rules\n$");
}

TEST(InterruptionDeathTest, TellsALongTextCut)
{
    EXPECT_EXIT(
        {
            interruption i;
            (void)::raise(SIGINT);
            i.left(std::string(5000, 'x'));
            (void)::raise(SIGINT);
            ends_with(i);
        },
        testing::ExitedWithCode(130),
        std::string("^") + first + "mordel: still to do: " + std::string(400, 'x') + "\n$");
}

TEST(InterruptionDeathTest, ThatWasIgnoredBeforeStaysIgnored)
{
    EXPECT_EXIT(
        {
            (void)std::signal(SIGHUP, SIG_IGN);
            {
                const interruption i;
                (void)::raise(SIGHUP);
                if (i.signal() != 0) std::_Exit(1);
            }
            (void)::raise(SIGHUP);
            say("alive\n");
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "^alive\n$");
}

// Ctrl-Z and Ctrl-\ wait; a closed pipe fails a write and nothing else.
TEST(InterruptionDeathTest, OtherSignalsWaitForItsEnd)
{
    for (const int number : {SIGQUIT, SIGINT})
        EXPECT_EXIT(
            {
                {
                    const interruption i;
                    (void)::raise(SIGQUIT);
                    (void)::raise(SIGTSTP);
                    (void)::raise(SIGPIPE);
                    say("finished\n");
                    // Not stopped by what waits, once the mask is as before
                    (void)std::signal(SIGTSTP, SIG_IGN);
                    if (number != SIGQUIT) (void)std::signal(SIGQUIT, SIG_IGN);
                }
                (void)::raise(number);
                std::_Exit(0);
            },
            testing::KilledBySignal(number), "^finished\n");
}

// A second transaction begins without the first one's signal.
TEST(InterruptionDeathTest, IsForgottenByTheNext)
{
    EXPECT_EXIT(
        {
            {
                const interruption i;
                (void)::raise(SIGINT);
            }
            const interruption i;
            ends_with(i);
        },
        testing::ExitedWithCode(128), std::string("^") + first + "$");
}

}  // namespace
