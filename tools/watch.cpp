// SPDX-License-Identifier: MIT
// Owns the terminal while `watch` runs. The library's monitor samples the interfaces in a thread of
// its own; the main thread copies its histories under the monitor's lock and draws them.
#include "watch.h"

#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "list_range.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using clock = std::chrono::steady_clock;

// A signal only sets a flag: the terminal must be put right, and the monitor's semaphore removed,
// which as a System V object would outlive the process.
volatile std::sig_atomic_t signalled = 0;
void on_signal(int) { signalled = 1; }

// Has the terminal deliver single keys and shows one picture after the other; the destructor
// restores keys, cursor and what stood on the screen before.
class screen {
public:
    screen()
    {
        if (::tcgetattr(STDIN_FILENO, &before_) == 0) {
            termios keys = before_;
            // Without ICANON a "q" comes without Enter; without ECHO it does not blot the picture.
            keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            // Ctrl-Z and Ctrl-\ off: a suspended or dumped process runs no destructor. The shell
            // would be left on the second screen, without cursor or echo.
            keys.c_cc[VSUSP] = keys.c_cc[VQUIT] = _POSIX_VDISABLE;
            keys_ = ::tcsetattr(STDIN_FILENO, TCSANOW, &keys) == 0;
        }
        // 1049h: the terminal's second screen; 25l: no cursor. The destructor undoes both.
        std::fputs("\033[?1049h\033[?25l", stdout);
    }
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;
    ~screen()
    {
        std::fputs("\033[?25h\033[?1049l", stdout);
        (void)std::fflush(stdout);
        if (keys_) (void)::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }

    bool keys() const { return keys_; }

    static std::size_t width()
    {
        winsize size{};
        return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    }

    static void draw(const std::vector<string> &rows)
    {
        // Drawn over the old picture and each line's rest erased (K), then the rows below (J):
        // clearing first would flicker.
        string picture = "\033[H";
        for (const string &row : rows) picture += row + "\033[K\r\n";
        picture += "\033[J";
        std::fputs(picture.c_str(), stdout);
    }

private:
    termios before_{};
    bool keys_ = false;
};

struct rates {
    string name;
    std::vector<u64> rx;  // bytes/s, oldest first
    std::vector<u64> tx;
};

// The registry outlives main: its thread is detached and may look at it until the process ends.
bm_list registry;

// A copy of the histories, made under the monitor's lock, for the thread changes the lists. No
// slow terminal is written to while the lock is held.
std::vector<rates> histories()
{
    std::vector<rates> all;
    (void)downdown(registry.semid, __FILE__, __LINE__, __func__);
    for (const bm_iface &iface : mordel::each<&bm_iface::node>(registry.list)) {
        rates r;
        r.name = iface.ifname;
        for (const bm_sample &sample : mordel::each<&bm_sample::node>(iface.history)) {
            r.rx.push_back(sample.rx_rate);
            r.tx.push_back(sample.tx_rate);
        }
        all.push_back(r);
    }
    (void)upup(registry.semid, __FILE__, __LINE__, __func__);
    return all;
}

// Samples are in bytes/s, shown rates in bit/s.
string rate_of(const std::vector<u64> &list)
{
    return list.empty() ? "-" : measured_rate(static_cast<double>(list.back()) * 8);
}

string peak_of(const std::vector<u64> &list)
{
    const u64 most = list.empty() ? 0 : *std::max_element(list.begin(), list.end());
    return measured_rate(static_cast<double>(most) * 8);
}

// The monitor keeps the last rates of an interface that has gone: shown, they would look alive.
bool is_gone(const string &name) { return ::if_nametoindex(name.c_str()) == 0; }

std::vector<string> picture(const watch_options &o, const look &how)
{
    std::vector<string> rows = {format("every %us; q quits", o.interval), ""};
    // Names, rate and peak take 36 columns of a row. At least 8 cells are drawn, at most 120.
    const std::size_t cells =
        std::min<std::size_t>(screen::width() > 50 ? screen::width() - 48 : 8, 120);
    for (const rates &r : histories()) {
        const string name = harmless(r.name);
        rows.push_back(how.colour ? "\033[1m" + name + "\033[0m" : name);
        if (is_gone(r.name)) {
            rows.insert(rows.end(), {"  gone", ""});
            continue;
        }
        for (const auto &[what, list] : {std::pair{"in", &r.rx}, std::pair{"out", &r.tx}})
            rows.push_back(format("  %-4s %10s  peak %10s  ", what, rate_of(*list).c_str(),
                                  peak_of(*list).c_str()) +
                           sparkline(*list, cells, how.utf8));
        rows.emplace_back();
    }
    return rows;
}

void print_lines(const watch_options &o)
{
    using json = nlohmann::ordered_json;
    for (const rates &r : histories()) {
        // No history yet: the monitor needs two samples for a rate.
        if (r.rx.empty() || is_gone(r.name)) continue;
        const json one = {
            {"name", r.name}, {"in_bit", r.rx.back() * 8}, {"out_bit", r.tx.back() * 8}};
        if (o.json)
            std::puts(one.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
        else
            std::printf("%s in %s out %s\n", harmless(r.name).c_str(), rate_of(r.rx).c_str(),
                        rate_of(r.tx).c_str());
    }
}

// Waits until a moment, or for the user: true when a signal or q asks for the end.
bool wait_until(clock::time_point until, bool keys)
{
    while (signalled == 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - clock::now()).count();
        if (left <= 0) return false;
        // 200 ms at most: a signal between the test of `signalled` and poll interrupts nothing, and
        // would be noticed only at the end of an interval of up to 255 s.
        pollfd in{keys ? STDIN_FILENO : -1, POLLIN, 0};
        if (::poll(&in, 1, static_cast<int>(std::min<decltype(left)>(left, 200))) <= 0) continue;
        char key = 0;
        if (::read(STDIN_FILENO, &key, 1) <= 0)
            keys = false;  // the terminal is gone
        else if (key == 'q' || key == 'Q')
            return true;
    }
    return true;
}

bool start_monitor(const watch_options &o)
{
    // IPC_PRIVATE: a semaphore without a key, which no other program can meet.
    if (init_bm(&registry, IPC_PRIVATE, static_cast<u8>(o.interval), 1) != 1) {
        std::fprintf(stderr, "mordel: no semaphore for the monitor: %s\n", std::strerror(errno));
        return false;
    }
    for (const string &name : o.names) (void)add_bm_by_iface(name.c_str(), &registry);
    if (bm_start(&registry) == 0) return true;
    std::fprintf(stderr, "mordel: no thread for the monitor\n");
    return false;
}

// The status after a failed write. EPIPE is success: `watch | head` ends when head has enough.
int ended_by(int error)
{
    if (error == EPIPE) return 0;
    std::fprintf(stderr, "mordel: cannot write: %s\n", std::strerror(error));
    return 1;
}

// Shows o.count samples, or goes on until q, a signal, a closed output or the last interface's end.
int show_samples(const watch_options &o, const look &how, bool terminal)
{
    std::optional<screen> drawing;
    if (terminal) drawing.emplace();
    const bool keys = drawing && drawing->keys();
    // 100 ms behind the monitor's own samples: at the same moment the newest sample would be in one
    // picture and miss the next.
    auto next = clock::now() + std::chrono::milliseconds(100);
    if (drawing) screen::draw(picture(o, how));
    for (unsigned shown = 0; o.count == 0 || shown < o.count; ++shown) {
        if (std::fflush(stdout) != 0) return ended_by(errno);
        next += std::chrono::seconds(o.interval);
        if (wait_until(next, keys)) break;
        if (std::all_of(o.names.begin(), o.names.end(), is_gone)) {
            // The message would vanish with the second screen.
            drawing.reset();
            std::fprintf(stderr, "mordel: nothing is left to watch\n");
            return 1;
        }
        if (drawing)
            screen::draw(picture(o, how));
        else
            print_lines(o);
    }
    return std::fflush(stdout) == 0 ? 0 : ended_by(errno);
}

}  // namespace

string sparkline(const std::vector<u64> &list, std::size_t cells, bool utf8)
{
    // Scaled to the highest rate shown, not to the link's: a small flow has a shape too. Level 0 is
    // a low block, so that an idle interface has a line and not a gap.
    static const char *const blocks[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static const char *const signs[] = {"_", ".", ":", "-", "=", "+", "*", "#"};
    const std::size_t first = list.size() > cells ? list.size() - cells : 0;
    u64 most = 0;
    for (std::size_t i = first; i < list.size(); ++i) most = std::max(most, list[i]);
    string out;
    for (std::size_t i = first; i < list.size(); ++i) {
        const auto level = most == 0
                               ? 0
                               : static_cast<std::size_t>(std::lround(
                                     static_cast<double>(list[i]) * 7 / static_cast<double>(most)));
        out += utf8 ? blocks[level] : signs[level];
    }
    return out;
}

int watch(const watch_options &o, const look &how)
{
    for (const string &name : o.names) {
        if (::if_nametoindex(name.c_str()) != 0) continue;
        std::fprintf(stderr, "mordel: there is no interface %s\n", tool::quoted(name).c_str());
        return 1;
    }
    // No SA_RESTART: a signal interrupts poll and the end comes at once.
    struct sigaction action {};
    action.sa_handler = on_signal;
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM})
        (void)::sigaction(number, &action, nullptr);
    // Ignored: the write fails with EPIPE instead, and the semaphore is still removed.
    (void)std::signal(SIGPIPE, SIG_IGN);
    if (!start_monitor(o)) return 1;
    const bool terminal = !o.json && ::isatty(STDOUT_FILENO) == 1;
    const int status = show_samples(o, how, terminal);
    (void)sem_delete(registry.semid);
    return status;
}

}  // namespace tool
