// SPDX-License-Identifier: MIT
// Owns the timer's process. The time itself is in the journal, so that it is over for every later
// run too when that process has been killed.

#include "timer.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <vector>

#include "journal.h"
#include "lock.h"
#include "recover.h"
#include "text.h"

namespace tool {
namespace {

using std::string;

// Standard input, output and error go nowhere: the terminal may be closed. All else is closed too,
// the lock above all, which the parent gives up when it ends.
void let_go_of_files()
{
    const int nothing = ::open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd) (void)::dup2(nothing, fd);
    std::vector<int> open;
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", none))
        open.push_back(static_cast<int>(std::strtol(entry.path().filename().c_str(), nullptr, 10)));
    for (const int fd : open)
        if (fd > 2) (void)::close(fd);
}

// Whether the journal is still that of the apply that this timer was started for. Another time is
// that of another apply, which has its own timer. A journal that cannot be read now may be later.
bool waits(const state_folder &state, double until)
{
    string why;
    const auto j = journal_file(state).read(why);
    return j ? j->what == journal::phase::unconfirmed && j->until == until : !why.empty();
}

// True when the time has come; false when nothing waits for it any more, which is looked at once a
// second.
bool time_comes(const state_folder &state, double until)
{
    while (waits(state, until)) {
        const double left = until - boot_seconds();
        if (left <= 0) return true;
        timespec pause{left < 1 ? 0 : 1, left < 1 ? static_cast<long>(left * 1e9) : 0};
        (void)::clock_nanosleep(CLOCK_BOOTTIME, 0, &pause, nullptr);
    }
    return false;
}

// The life of the timer's process. Nobody reads its output: it tells the system's log.
void wait_and_take_back(const state_folder &state, double until)
{
    constexpr unsigned an_hour = 3600;
    if (!time_comes(state, until)) return;
    ::openlog("mordel", LOG_PID, LOG_DAEMON);
    const file_lock lock(state.lock_path(), an_hour);
    if (!lock.error().empty()) return ::syslog(LOG_ERR, "%s", lock.error().c_str());
    if (!waits(state, until)) return;
    const recovery r = recover(state, an_hour, false);
    for (const string &line : recovery_lines(r)) ::syslog(LOG_WARNING, "%s", line.c_str());
}

}  // namespace

string start_timer(const state_folder &state, double until)
{
    const pid_t child = ::fork();
    if (child < 0) return format("cannot start the timer: %s", std::strerror(errno));
    if (child == 0) {
        // A second fork: the timer is no leader of its session, so that no terminal becomes its
        // own.
        const pid_t timer = ::setsid() < 0 ? -1 : ::fork();
        if (timer != 0) ::_exit(timer < 0 ? 1 : 0);
        let_go_of_files();
        (void)std::signal(SIGHUP, SIG_IGN);
        for (const int number : {SIGINT, SIGTERM}) (void)std::signal(number, SIG_DFL);
        (void)::chdir("/");
        try {
            wait_and_take_back(state, until);
        } catch (const std::exception &e) {
            ::syslog(LOG_ERR, "%s", e.what());
        }
        ::_exit(0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    return status == 0 ? "" : "cannot start the timer";
}

}  // namespace tool
