// SPDX-License-Identifier: MIT
// Owns the running of other programs: started with posix_spawn, their input and output in files
// without a name. Pipes hold 64 KiB: a program that writes more to one while we write to the other
// would stand still, and we too. A file takes all; the output is read after the program's end.

#include "process.h"

#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sstream>
#include <thread>

#include "text.h"

namespace tool {
namespace {

bool fill(FILE *stream, const std::string &text)
{
    // Back to the start, for the child reads from the offset that both share.
    return std::fwrite(text.data(), 1, text.size(), stream) == text.size() &&
           std::fflush(stream) == 0 && ::lseek(::fileno(stream), 0, SEEK_SET) == 0;
}

// Waits for a child and gives its exit status. seconds: after so many its process group, which is
// the child's own, is killed, so that no tc of a killed script lives on; 0: waits without end.
int wait_for(pid_t child, unsigned seconds)
{
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const pid_t ended = ::waitpid(child, &status, seconds == 0 ? 0 : WNOHANG);
        if (ended == child) break;
        if (ended < 0 && errno != EINTR) return 127;
        if (ended != 0) continue;
        // With a limit the child is polled every 10 ms: waitpid itself has no time limit.
        if (std::chrono::steady_clock::now() >= end) (void)::kill(-child, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Starts a program with three files as its standard input, output and error. None when it cannot be
// started. own_group: a new process group, with the child's id, for wait_for() to kill.
std::optional<pid_t> spawn(const std::vector<std::string> &command,
                           const std::array<FILE *, 3> &files, bool own_group)
{
    std::vector<char *> argv;
    argv.reserve(command.size() + 1);
    for (const std::string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // dup2 gives the child copies without close-on-exec; the files themselves close at its exec.
    for (int fd = 0; fd < 3; ++fd)
        posix_spawn_file_actions_adddup2(&actions, ::fileno(files[static_cast<unsigned>(fd)]), fd);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    if (own_group) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    pid_t child = 0;
    const int failure =
        ::posix_spawnp(&child, argv.front(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return failure == 0 ? std::optional(child) : std::nullopt;
}

}  // namespace

std::optional<std::string> read_rest(int fd)
{
    std::string text;
    std::array<char, 4096> piece{};
    for (;;) {
        const ssize_t n = ::read(fd, piece.data(), piece.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return text;
        text.append(piece.data(), static_cast<std::size_t>(n));
    }
}

std::optional<std::string> contents(FILE *file)
{
    // By the descriptor: the child's writes have moved its offset, which both share, to the end.
    if (::lseek(::fileno(file), 0, SEEK_SET) != 0) return std::nullopt;
    return read_rest(::fileno(file));
}

mordel::stream_guard make_temporary()
{
    // Kernels before 3.17 know no memfd_create: a deleted file in /tmp then.
    const int fd = ::memfd_create("mordel", MFD_CLOEXEC);
    return mordel::stream_guard(fd >= 0 ? ::fdopen(fd, "w+e") : std::tmpfile());
}

bool is_on_path(const std::string &program)
{
    if (program.find('/') != std::string::npos) return ::access(program.c_str(), X_OK) == 0;
    const char *path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "/bin:/usr/bin" : path);
    for (std::string folder; std::getline(folders, folder, ':');)
        if (::access(folder.append("/").append(program).c_str(), X_OK) == 0) return true;
    return false;
}

run_result run(const std::vector<std::string> &command, const std::string &input, unsigned seconds)
{
    const auto in = make_temporary();
    const auto out = make_temporary();
    const auto err = make_temporary();
    run_result result;
    if (!in || !out || !err || !fill(in.get(), input)) {
        result.missing = true;
        result.err = "no room for a temporary file";
        return result;
    }
    // Under qemu-user posix_spawnp reports no missing program: its child ends with status 127, as a
    // script may do too. So the PATH is searched before.
    std::optional<pid_t> child;
    if (is_on_path(command.front()))
        child = spawn(command, {in.get(), out.get(), err.get()}, seconds != 0);
    result.missing = !child;
    if (!child) return result;
    result.status = wait_for(*child, seconds);
    result.out = contents(out.get()).value_or("");
    result.err = contents(err.get()).value_or("");
    if (result.status == 0) return result;
    result.problem = one_line(result.err);
    result.problem.resize(result.problem.find_last_not_of(' ') + 1);
    if (result.status > 128)
        result.problem = format("was killed by signal %d (%s)", result.status - 128,
                                ::strsignal(result.status - 128));
    else if (result.problem.empty())
        result.problem = format("ended with status %d and said nothing", result.status);
    return result;
}

uninterrupted::uninterrupted()
{
    sigset_t set;
    sigemptyset(&set);
    // SIGTSTP (Ctrl-Z) would leave half a tree, and the lock held, until somebody continues us.
    // SIGKILL and SIGSTOP cannot be blocked.
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGTSTP})
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, &before_);
}

uninterrupted::~uninterrupted() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

std::optional<std::string> in_own_network(const std::function<std::optional<std::string>()> &body)
{
    const auto answer = make_temporary();
    if (!answer) return std::nullopt;
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        // _exit, here and below: exit would write our unwritten standard output a second time.
        if (::unshare(CLONE_NEWNET) != 0) ::_exit(1);
        const std::optional<std::string> text = body();
        if (!text || std::fwrite(text->data(), 1, text->size(), answer.get()) != text->size() ||
            std::fflush(answer.get()) != 0)
            ::_exit(1);
        ::_exit(0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return std::nullopt;
    if (status != 0) return std::nullopt;
    return contents(answer.get());
}

}  // namespace tool
