// SPDX-License-Identifier: MIT
// Programs run without a shell: here a shell is what is run.
#include "process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>

namespace {

using std::string;
using tool::run;
using tool::run_result;

run_result shell(const string &text, const string &input = "", unsigned seconds = 0)
{
    return run({"/bin/sh", "-c", text}, input, seconds);
}

TEST(Process, GivesInputAndTakesBothOutputs)
{
    const run_result r = shell("cat; echo said >&2; exit 3", "given\n");
    EXPECT_FALSE(r.missing || r.ok());
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("given\n", r.out);
    EXPECT_EQ("said\n", r.err);
    EXPECT_TRUE(shell("exit 0").ok());
}

// More than a pipe holds, both ways: a pipe would wait for a reader for ever.
TEST(Process, PassesAMegabyteThrough)
{
    string input(1 << 20, 'x');
    input[4096] = '\0';
    const run_result r = shell("cat; cat <&1 >&2 2>/dev/null", input);
    EXPECT_TRUE(r.out == input);
}

TEST(Process, IsFoundOnThePathAndItsWordsAreNoShells)
{
    const run_result r = run({"printf", "%s,", "a b", "$(echo c)", "", "*"});
    EXPECT_EQ("a b,$(echo c),,*,", r.out);
}

TEST(Process, ThatCannotBeStartedIsMissing)
{
    for (const char *name : {"mordel-no-such-program", "/nowhere/at/all", "/etc/passwd"}) {
        const run_result r = run({name});
        EXPECT_TRUE(r.missing) << name;
        EXPECT_FALSE(r.ok()) << name;
    }
}

TEST(Process, TellsOfTheSignalThatKilledIt)
{
    EXPECT_EQ(128 + SIGTERM, shell("kill -TERM $$").status);
}

// With all that it has started: the second shell would keep on for a minute.
TEST(Process, IsKilledWhenItsTimeIsUp)
{
    const auto begin = std::chrono::steady_clock::now();
    const run_result r = shell("sh -c 'echo $$; sleep 60; echo late' & wait; echo late", "", 1);
    EXPECT_EQ(128 + SIGKILL, r.status);
    EXPECT_GT(std::chrono::seconds(40), std::chrono::steady_clock::now() - begin);
    const pid_t second = std::atoi(r.out.c_str());
    ASSERT_LT(1, second) << r.out;
    // Whoever adopts the dead one may take a while to notice.
    for (int tries = 0; tries < 1000 && ::kill(second, 0) == 0; ++tries)
        if (shell("grep -q '^State:.Z' /proc/" + std::to_string(second) + "/status").ok())
            break;
        else
            (void)::usleep(10000);
    EXPECT_FALSE(
        shell("grep -q '^State:.[SR]' /proc/" + std::to_string(second) + "/status 2>&1").ok());
}

TEST(Process, ThatEndsInTimeIsNotKilled)
{
    const run_result r = shell("echo in time; exit 5", "", 600);
    EXPECT_EQ(5, r.status);
    EXPECT_EQ("in time\n", r.out);
}

TEST(Process, TemporaryFilesAreFreshAndClosedInWhatIsRun)
{
    const auto a = tool::make_temporary();
    const auto b = tool::make_temporary();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(EOF, std::fgetc(a.get()));
    EXPECT_FALSE(shell("test -e /proc/self/fd/" + std::to_string(::fileno(b.get()))).ok());
}

// In a process of its own, that would die of the signal
TEST(UninterruptedDeathTest, SignalsWaitForItsEnd)
{
    const auto end_with = [](int signal) {
        {
            const tool::uninterrupted section;
            (void)::raise(signal);
            std::fprintf(stderr, "finished what was begun\n");
        }
        std::_Exit(0);
    };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE})
        EXPECT_EXIT(end_with(signal), testing::KilledBySignal(signal), "finished what was begun");
}

}  // namespace
