// SPDX-License-Identifier: MIT
// Programs run without a shell: here a shell is what is run.
// Its calls of read, dup2 and setpgid go through the linker's --wrap, to fail when a test wishes.
#include "process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lock.h"

namespace {

// The call that fails, and how many of its kind work first
enum class fault { none, reading, duplicating, grouping };
fault wanted = fault::none;
unsigned calls_until = 0;

bool fails(fault kind)
{
    if (wanted != kind || calls_until-- > 0) return false;
    wanted = fault::none;
    errno = EIO;
    return true;
}

}  // namespace

extern "C" {
ssize_t __real_read(int fd, void *to, size_t size);
ssize_t __wrap_read(int fd, void *to, size_t size)
{
    return fails(fault::reading) ? -1 : __real_read(fd, to, size);
}
int __real_dup2(int from, int to);
int __wrap_dup2(int from, int to) { return fails(fault::duplicating) ? -1 : __real_dup2(from, to); }
int __real_setpgid(pid_t process, pid_t group);
int __wrap_setpgid(pid_t process, pid_t group)
{
    return fails(fault::grouping) ? -1 : __real_setpgid(process, group);
}
}

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

TEST(Process, ThatIsNowhereIsMissing)
{
    for (const char *name : {"mordel-no-such-program", "/nowhere/at/all", "/etc"}) {
        const run_result r = run({name});
        EXPECT_TRUE(r.missing) << name;
        EXPECT_FALSE(r.ok() || r.started) << name;
        EXPECT_EQ("is missing", r.problem);
    }
}

TEST(Process, ThatIsThereButCannotBeStartedIsNotMissing)
{
    string folder = testing::TempDir() + "mordel-process-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(folder.data()));
    const string old_path = std::getenv("PATH");
    (void)::setenv("PATH", folder.c_str(), 1);
    const auto make = [&](const char *name, const char *text, std::filesystem::perms mode) {
        std::ofstream(folder + "/" + name) << text;
        std::filesystem::permissions(folder + "/" + name, mode);
    };
    make("unfit", "#!/bin/sh\n", std::filesystem::perms::owner_read);
    make("orphan", "#!/nowhere/at/all\n", std::filesystem::perms::owner_all);
    make("text", "echo\n", std::filesystem::perms::owner_all);
    const struct {
        const char *name, *problem;
    } cases[] = {{"unfit", "cannot be started: Permission denied"},
                 {"orphan", "cannot be started: No such file or directory"},
                 {"text", "cannot be started: Exec format error"}};
    for (const auto &c : cases) {
        const run_result r = run({c.name});
        EXPECT_FALSE(r.missing || r.ok() || r.started) << c.name;
        EXPECT_EQ(c.problem, r.problem);
        EXPECT_TRUE(tool::is_on_path(c.name));
    }
    (void)::setenv("PATH", old_path.c_str(), 1);
    std::filesystem::remove_all(folder);
}

TEST(Process, WithoutAFreeDescriptorIsNotMissing)
{
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const int lowest = ::dup(0);
    ASSERT_EQ(0, ::close(lowest));
    run_result r;
    unsigned failures = 0;
    // The input's, two outputs' and the report's descriptors are taken away one after the other.
    for (int free = 0; free < 20; ++free) {
        const rlimit low{static_cast<rlim_t>(lowest + free), before.rlim_max};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &low));
        r = shell("exit 0");
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
        if (r.ok()) break;
        ++failures;
        EXPECT_EQ("cannot be started: Too many open files", r.problem);
        EXPECT_FALSE(r.missing || r.started);
    }
    EXPECT_TRUE(r.ok());
    EXPECT_EQ(5U, failures);  // three files and a pipe
}

// Half an output would be half a listing of rules; an unheeded dup2 would leave the program our
// standard input to read its commands from.
TEST(Process, EachFailedCallIsAProblem)
{
    const struct {
        fault kind;
        const char *problem;
    } cases[] = {{fault::grouping, "cannot be started: Input/output error"},
                 {fault::duplicating, "cannot be started: Input/output error"}};
    for (const auto &c : cases)
        for (unsigned nth = 0; nth < (c.kind == fault::grouping ? 1U : 3U); ++nth) {
            wanted = c.kind;
            calls_until = nth;
            const run_result r = shell("echo said");
            wanted = fault::none;
            EXPECT_EQ(c.problem, r.problem) << nth;
            EXPECT_FALSE(r.missing || r.started);
        }
    unsigned failures = 0;
    for (unsigned nth = 0;; ++nth, ++failures) {
        wanted = fault::reading;
        calls_until = nth;
        const run_result r = shell("echo said; echo said >&2");
        const bool failed = wanted == fault::none;
        wanted = fault::none;
        EXPECT_EQ(failed, !r.ok()) << nth;
        EXPECT_FALSE(r.missing);
        if (!failed) break;
        if (nth > 0) { EXPECT_EQ("its output cannot be read: Input/output error", r.problem); }
    }
    EXPECT_EQ(5U, failures);  // the report, and each output with its end
}

TEST(Process, EndsInWordsOfItsOwnOrOurs)
{
    const struct {
        const char *text, *problem;
    } cases[] = {
        {"exit 0", ""},
        {"echo warned >&2", ""},
        {"exit 2", "ended with status 2 and said nothing"},
        {"echo listed; echo >&2; exit 1", "ended with status 1 and said nothing"},
        {"printf 'no\\nlock\\n' >&2; exit 4", "no lock"},
        {"kill -KILL $$", "was killed by signal 9 (Killed)"},
        {"echo half >&2; kill -TERM $$", "was killed by signal 15 (Terminated); it said: half"}};
    for (const auto &c : cases) EXPECT_EQ(c.problem, shell(c.text).problem) << c.text;
    const run_result r = shell("kill -TERM $$");
    EXPECT_EQ(128 + SIGTERM, r.status);
    EXPECT_TRUE(r.started);
    EXPECT_FALSE(r.ended);
}

// A caller's fault: main() sees to it that SIGCHLD is not ignored. Even so the end is not taken for
// a success.
TEST(Process, WhoseEndNobodyTells)
{
    const auto before = ::signal(SIGCHLD, SIG_IGN);
    const run_result r = shell("exit 0");
    (void)::signal(SIGCHLD, before);
    EXPECT_EQ("cannot be waited for: No child processes", r.problem);
    EXPECT_TRUE(r.started);
}

TEST(Process, HasTheUsualPathWhereThereIsNone)
{
    const string old_path = std::getenv("PATH");
    (void)::unsetenv("PATH");
    const run_result r = run({"env"});
    (void)::setenv("PATH", old_path.c_str(), 1);
    EXPECT_NE(string::npos,
              ("\n" + r.out)
                  .find("\nPATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"))
        << r.out;
}

// grep and not a shell, which sets handlers of its own
TEST(Process, HasNoSignalBlockedOrIgnored)
{
    const sigset_t some = tool::signals({SIGINT, SIGUSR1});
    const auto before = ::signal(SIGHUP, SIG_IGN);
    run_result r;
    {
        const tool::signal_block block(some);
        r = run({"grep", "-E", "^Sig(Blk|Ign):", "/proc/self/status"});
    }
    (void)::signal(SIGHUP, before);
    EXPECT_EQ("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n", r.out);
}

// Ctrl-C goes to the terminal's process group; tc is not killed by it halfway.
TEST(Process, HasAProcessGroupOfItsOwn)
{
    EXPECT_EQ("own\n", shell("read -r pid name state parent group rest </proc/$$/stat; "
                             "[ $group = $$ ] && echo own")
                           .out);
}

// ---- The death of the parent --------------------------------------------------------------------

// Waits until a file holds the id of a process; 0 when none comes.
pid_t announced(const string &file)
{
    for (int tries = 0; tries < 3000; ++tries, (void)::usleep(10000)) {
        pid_t pid = 0;
        std::string end;
        if (std::ifstream(file) >> pid >> end && end == ".") return pid;
    }
    return 0;
}

bool lives(pid_t process)
{
    std::ifstream in("/proc/" + std::to_string(process) + "/stat");
    string pid;
    string name;
    char state = 'Z';
    in >> pid >> name >> state;
    return state != 'Z' && state != 'X';
}

bool ends(pid_t process)
{
    for (int tries = 0; tries < 3000 && lives(process); ++tries) (void)::usleep(10000);
    return !lives(process);
}

class Orphan : public testing::Test {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-orphan-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        folder_ = path;
        said_ = folder_ + "/said";
    }
    ~Orphan() override { std::filesystem::remove_all(folder_); }

    // Runs a body in a process, waits until somebody has written an id to said_, and kills the
    // process. The id is given.
    template <typename Body>
    pid_t killed_amid(Body body)
    {
        const pid_t parent = ::fork();
        if (parent == 0) {
            body();
            ::_exit(0);
        }
        const pid_t child = announced(said_);
        (void)::kill(parent, SIGKILL);
        (void)::waitpid(parent, nullptr, 0);
        return child;
    }

    string folder_;
    string said_;
};

TEST_F(Orphan, ThereIsNone)
{
    const pid_t child =
        killed_amid([&] { (void)shell("echo $$ . >" + said_ + "; exec sleep 60"); });
    ASSERT_LT(0, child);
    EXPECT_TRUE(ends(child));
}

TEST_F(Orphan, ThereIsNoneInANetworkOfItsOwn)
{
    if (!tool::in_own_network([] { return std::optional<string>(""); }))
        GTEST_SKIP() << "no network namespace";
    const pid_t child = killed_amid([&] {
        (void)tool::in_own_network([&]() -> std::optional<string> {
            std::ofstream(said_) << ::getpid() << " .\n" << std::flush;
            (void)::sleep(60);
            return std::nullopt;
        });
    });
    ASSERT_LT(0, child);
    EXPECT_TRUE(ends(child));
}

// What tc itself has started outlives it: the lock is held until that has ended too.
TEST_F(Orphan, OfAnOrphanKeepsTheLock)
{
    const string path = folder_ + "/lock";
    const pid_t grandchild = killed_amid([&] {
        const tool::file_lock lock(path, 0);
        (void)shell("sh -c 'echo $$ . >" + said_ + "; exec sleep 60' & wait");
    });
    ASSERT_LT(0, grandchild);
    EXPECT_NE("", tool::file_lock(path, 0).error());
    EXPECT_TRUE(lives(grandchild));
    (void)::kill(grandchild, SIGKILL);
    EXPECT_EQ("", tool::file_lock(path, 30).error());
}

TEST(OwnNetwork, GivesTheBodysText)
{
    const auto text = tool::in_own_network([] { return std::optional<string>("a\nb"); });
    if (!text) GTEST_SKIP() << "no network namespace";
    EXPECT_EQ("a\nb", *text);
    EXPECT_FALSE(tool::in_own_network([] { return std::optional<string>(); }));
    EXPECT_EQ("1\n", tool::in_own_network([] {
                  return std::optional(shell("ls /proc/self/net/dev_snmp6 | wc -l").out);
              }));
}

// ---- Time limits --------------------------------------------------------------------------------

// With all that it has started: the second shell would keep on for a minute.
TEST(Process, IsKilledWhenItsTimeIsUp)
{
    const auto begin = std::chrono::steady_clock::now();
    const run_result r =
        shell("echo slow >&2; sh -c 'echo $$; sleep 60; echo late' & wait; echo late", "", 1);
    EXPECT_EQ(128 + SIGKILL, r.status);
    EXPECT_EQ("did not end within 1 s and was killed; it said: slow", r.problem);
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
