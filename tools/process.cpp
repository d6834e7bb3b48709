// SPDX-License-Identifier: MIT
// Owns the running of other programs: started with fork and exec, their input and output in files
// without a name. Pipes hold 64 KiB: a program that writes more to one while we write to the other
// would stand still, and we too. A file takes all; the output is read after the program's end.
// The process has one thread wherever programs are run: after fork a child may allocate.

#include "process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
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

#include "text.h"

namespace tool {
namespace {

using std::string;
using files = std::array<int, 3>;  // a program's standard input, output and error

// Where programs are when PATH is unset, as under some supervisors: tc and iptables are mostly in
// /sbin, which the C library would leave out.
constexpr char usual_places[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

constexpr int not_started = 127;  // the status of a child whose exec failed

string why_not_started(int error) { return format("cannot be started: %s", std::strerror(error)); }

// ---- The PATH -----------------------------------------------------------------------------------

bool is_file(const string &path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The path of a program: the first file of that name that may be run; or else the first that is
// there at all, of which exec can then say what is wrong with it. "" when there is none.
string find_program(const string &program)
{
    if (program.find('/') != string::npos) return is_file(program) ? program : "";
    const char *path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? usual_places : path);
    string first;
    for (string folder; std::getline(folders, folder, ':');) {
        string candidate = folder.append("/").append(program);
        if (!is_file(candidate)) continue;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        if (first.empty()) first = candidate;
    }
    return first;
}

// ---- In the child -------------------------------------------------------------------------------

// Has the kernel kill this process when its parent dies; ends at once when the parent is dead
// already. A tc that outlived its mordel would work beside the tc of the next one.
bool dies_with(pid_t parent)
{
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
    if (::getppid() != parent) ::_exit(not_started);
    return true;
}

// Every signal as a program expects to find it. Ignored first: that drops what came before the
// child had a process group of its own, a Ctrl-C that was meant for the parent.
void reset_signals()
{
    for (int number = 1; number < SIGRTMIN; ++number) {
        (void)::signal(number, SIG_IGN);  // fails for SIGKILL, SIGSTOP and the C library's own
        (void)::signal(number, SIG_DFL);
    }
    const sigset_t none = signals({});
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// A process group of its own: Ctrl-C reaches this process's parent alone, which ends the work in
// order.
bool stand_alone(pid_t parent)
{
    if (::setpgid(0, 0) != 0 || !dies_with(parent)) return false;
    reset_signals();
    return true;
}

bool prepare(const files &io, pid_t parent)
{
    if (!stand_alone(parent)) return false;
    // dup2 makes copies without close-on-exec; the files themselves close at the exec. main() has
    // filled descriptors 0 to 2, so that none of the files is among them.
    for (int fd = 0; fd < 3; ++fd)
        if (::dup2(io[static_cast<unsigned>(fd)], fd) < 0) return false;
    return true;
}

[[noreturn]] void become(const string &path, char *const *argv, const files &io, int report,
                         pid_t parent)
{
    if (prepare(io, parent)) (void)::execv(path.c_str(), argv);
    const int error = errno;
    // Where even this write fails, the parent sees a program that ended with status 127.
    (void)!::write(report, &error, sizeof error);
    ::_exit(not_started);
}

// ---- In the parent ------------------------------------------------------------------------------

bool fill(FILE *stream, const string &text)
{
    // Back to the start, for the child reads from the offset that both share.
    return std::fwrite(text.data(), 1, text.size(), stream) == text.size() &&
           std::fflush(stream) == 0 && ::lseek(::fileno(stream), 0, SEEK_SET) == 0;
}

// A descriptor as a stream; null, with errno, and the descriptor closed, without memory
FILE *opened(int fd)
{
    mordel::fd_guard owner(fd);
    FILE *stream = ::fdopen(fd, "w+e");
    if (stream != nullptr) (void)owner.release();
    return stream;
}

// Waits for a child; false, with errno, when nobody can say how it ended.
bool wait_for(pid_t child, int &status)
{
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return false;
    return true;
}

// The errno of a child that could not become its program; 0 once the program runs. The descriptor
// is close-on-exec in the child: a successful exec closes it without a word.
int error_of(int report)
{
    int error = 0;
    ssize_t n = 0;
    while ((n = ::read(report, &error, sizeof error)) < 0 && errno == EINTR) {}
    if (n < 0) return errno;
    return n == 0 ? 0 : error;
}

// All signals are blocked in a child until it calls stand_alone(): a handler of ours would say a
// second time there what the parent says.
sigset_t all_signals()
{
    sigset_t all;
    (void)::sigfillset(&all);
    return all;
}

// Starts a program; -1, with errno, when it does not come to run.
pid_t start(const string &path, const std::vector<string> &command, const files &io)
{
    std::vector<char *> argv;
    argv.reserve(command.size() + 1);
    for (const string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
    const mordel::fd_guard report(ends[0]);
    mordel::fd_guard child_end(ends[1]);
    const pid_t parent = ::getpid();
    // Unless somebody has set one; the child must not touch our environment.
    (void)::setenv("PATH", usual_places, 0);
    pid_t child = 0;
    {
        const signal_block section(all_signals());
        // vfork: a fork copies the page tables of all our memory, which takes longer than tc's work
        // on a small policy. The child only makes system calls, on memory that is ours.
        child = ::vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
        // NOLINTNEXTLINE(clang-analyzer-unix.Vfork): it never returns
        if (child == 0) become(path, argv.data(), io, child_end.get(), parent);
    }
    if (child < 0) return -1;
    (void)::close(child_end.release());
    const int error = error_of(report.get());
    if (error == 0) return child;
    int status = 0;
    (void)wait_for(child, status);
    errno = error;
    return -1;
}

// Waits for a child until a moment, then kills its process group, so that no grandchild lives on.
// SIGCHLD must be blocked: a child's end then stays to be noticed by sigtimedwait. True when the
// child was killed here.
bool kill_at(pid_t child, std::chrono::steady_clock::time_point end)
{
    using std::chrono::nanoseconds;
    const sigset_t child_ended = signals({SIGCHLD});
    for (;;) {
        siginfo_t info{};
        // WNOWAIT: the child's status stays for wait_for().
        if (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
            info.si_pid == child)
            return false;
        const auto left =
            std::chrono::duration_cast<nanoseconds>(end - std::chrono::steady_clock::now()).count();
        if (left <= 0) break;
        const timespec pause{static_cast<time_t>(left / 1000000000),
                             static_cast<long>(left % 1000000000)};
        (void)::sigtimedwait(&child_ended, nullptr, &pause);
    }
    (void)::kill(-child, SIGKILL);
    return true;
}

// How a program ended, in words; "" for a success
string problem_of(const run_result &r, unsigned killed_after)
{
    string said = brief(r.err);
    if (r.ended && r.status == 0) return "";
    if (r.ended && said.empty()) return format("ended with status %d and said nothing", r.status);
    if (r.ended) return said;
    const int number = r.status - 128;
    const string end = killed_after != 0
                           ? format("did not end within %u s and was killed", killed_after)
                           : format("was killed by signal %d (%s)", number, ::strsignal(number));
    return said.empty() ? end : end + "; it said: " + said;
}

// Waits for a program's end and says how it was. outputs: where it writes, standard output first
void finish(pid_t child, unsigned seconds, const std::array<FILE *, 2> &outputs, run_result &r)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const bool killed = seconds != 0 && kill_at(child, end);
    int status = 0;
    if (!wait_for(child, status)) {
        r.problem = format("cannot be waited for: %s", std::strerror(errno));
        return;
    }
    const auto out = contents(outputs[0]);
    const auto err = out ? contents(outputs[1]) : std::nullopt;
    if (!err) {
        // Taken for empty, the output of a listing would say that there are no rules.
        r.problem = format("its output cannot be read: %s", std::strerror(errno));
        return;
    }
    r.out = *out;
    r.err = *err;
    r.ended = WIFEXITED(status);
    r.status = r.ended ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.problem = problem_of(r, killed ? seconds : 0);
}

}  // namespace

std::optional<string> read_rest(int fd)
{
    string text;
    std::array<char, 4096> piece{};
    for (;;) {
        const ssize_t n = ::read(fd, piece.data(), piece.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) return text;
        text.append(piece.data(), static_cast<std::size_t>(n));
    }
}

std::optional<string> contents(FILE *file)
{
    // By the descriptor: the child's writes have moved its offset, which both share, to the end.
    if (::lseek(::fileno(file), 0, SEEK_SET) != 0) return std::nullopt;
    return read_rest(::fileno(file));
}

mordel::stream_guard make_temporary()
{
    // Kernels before 3.17 know no memfd_create: a deleted file in /tmp then.
    const int fd = ::memfd_create("mordel", MFD_CLOEXEC);
    if (fd >= 0 || errno != ENOSYS) return mordel::stream_guard(fd < 0 ? nullptr : opened(fd));
    mordel::stream_guard file(std::tmpfile());
    // tmpfile leaves its descriptor open over an exec.
    if (file && ::fcntl(::fileno(file.get()), F_SETFD, FD_CLOEXEC) != 0) file.reset();
    return file;
}

bool is_on_path(const string &program) { return !find_program(program).empty(); }

run_result run(const std::vector<string> &command, const string &input, unsigned seconds)
{
    run_result result;
    const string path = find_program(command.front());
    result.missing = path.empty();
    if (result.missing) {
        result.problem = "is missing";
        return result;
    }
    const sigset_t child_ended = signals({SIGCHLD});
    const signal_block block(child_ended);
    const auto in = make_temporary();
    const auto out = in ? make_temporary() : nullptr;
    const auto err = out ? make_temporary() : nullptr;
    const bool ready = err && fill(in.get(), input);
    const pid_t child =
        ready ? start(path, command, {::fileno(in.get()), ::fileno(out.get()), ::fileno(err.get())})
              : -1;
    if (child < 0) {
        result.problem = why_not_started(errno);
        return result;
    }
    result.started = true;
    finish(child, seconds, {out.get(), err.get()}, result);
    return result;
}

std::optional<string> in_own_network(const std::function<std::optional<string>()> &body)
{
    // A child, because unshare would take this process away from the machine's interfaces for good.
    // The answer comes by a file that parent and child share.
    const auto answer = make_temporary();
    if (!answer) return std::nullopt;
    const pid_t parent = ::getpid();
    const sigset_t all = all_signals();
    sigset_t before;
    (void)::sigprocmask(SIG_BLOCK, &all, &before);
    const pid_t child = ::fork();
    if (child != 0) (void)::sigprocmask(SIG_SETMASK, &before, nullptr);
    if (child < 0) return std::nullopt;
    if (child == 0) {
        // _exit, here and below: exit would write our unwritten standard output a second time.
        // In a sandbox without CAP_SYS_ADMIN a namespace is to be had within one of users.
        if (!stand_alone(parent) ||
            (::unshare(CLONE_NEWNET) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0))
            ::_exit(1);
        const std::optional<string> text = body();
        ::_exit(text && fill(answer.get(), *text) ? 0 : 1);
    }
    int status = 0;
    if (!wait_for(child, status) || status != 0) return std::nullopt;
    return contents(answer.get());
}

sigset_t signals(const std::vector<int> &numbers)
{
    sigset_t set;
    (void)::sigemptyset(&set);
    for (const int number : numbers) (void)::sigaddset(&set, number);
    return set;
}

// SIGTSTP (Ctrl-Z) would leave half a tree, and the lock held, until somebody continues us.
// SIGKILL and SIGSTOP cannot be blocked.
uninterrupted::uninterrupted()
    : block_(signals({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGTSTP}))
{}

}  // namespace tool
