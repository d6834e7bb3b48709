// SPDX-License-Identifier: MIT
// The select dispatcher. Each test runs dispatchers of the real thing on loopback sockets. Their
// handlers note what they are told, in order, and change the world between two passes, on the
// dispatcher's own thread, so that the journal of a run is known to the line.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "faults.h"
#include "fence.h"
#include "support.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace fs = std::filesystem;

namespace {

// The record of a cancelled dispatcher is lost, and that is meant.
#if defined(__SANITIZE_ADDRESS__)
using leaks_allowed = __lsan::ScopedDisabler;
#else
struct leaks_allowed {};
#endif

using journal = std::vector<std::string>;
using handlers = socket_select_handlers;
using test::traced;
using test::traces;

constexpr char source[] = "tarnic_network";

std::string text(const traced &t)
{
    std::ostringstream out;
    out << t;
    return out.str();
}

// What a dispatcher's thread traces of itself: "Exit" or "get ExitFlag".
std::string said(const std::string &what)
{
    return text(
        {source, "socket_select_hdlr",
         what + " pid=" + std::to_string(::getpid()) + ",ppid=" + std::to_string(::getppid())});
}

journal operator+(journal a, const journal &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The end by the exit flag, and that of what does not listen by its peer.
journal told_to_end() { return {said("Exit"), "exit 0"}; }
journal told_after_a_timeout() { return {said("get ExitFlag"), said("Exit"), "exit 0"}; }
journal ended_by_peer() { return {"close S", "exit 3", said("Exit")}; }

journal times(int n, const journal &lines)
{
    journal all;
    for (int i = 0; i < n; ++i) all = all + lines;
    return all;
}

bool arrives(int fd, short events)
{
    pollfd p{fd, events, 0};
    return ::poll(&p, 1, 120000) == 1;
}

// Waits for bytes, a connection, a peer's end or an error.
void wait_readable(int fd) { EXPECT_TRUE(arrives(fd, POLLIN)); }

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

void send_bytes(int fd, std::string_view bytes)
{
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
              ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

void reset_on_close(int fd)
{
    const linger reset{1, 0};
    EXPECT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset));
}

std::string take(int fd)
{
    char buf[64];
    const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    EXPECT_LE(0, n);
    return {buf, static_cast<size_t>(std::max<ssize_t>(n, 0))};
}

sockaddr_in local_address(int fd)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length));
    return address;
}

void connect_to(int fd, const sockaddr_in &address)
{
    EXPECT_EQ(0, ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address));
}

// A socket bound to a free port of the loopback address.
int bound_socket(int type)
{
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    return fd;
}

std::set<std::string> tasks()
{
    std::set<std::string> all;
    for (const auto &entry : fs::directory_iterator("/proc/self/task"))
        all.insert(entry.path().filename());
    return all;
}

// Descriptors beyond FD_SETSIZE can be had.
bool many_descriptors()
{
    rlimit limit{};
    EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    constexpr rlim_t wanted = FD_SETSIZE + 100;
    if (limit.rlim_cur >= wanted) return true;
    limit.rlim_cur = wanted;
    return limit.rlim_max >= wanted && ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// The socket under test is "S". A client and the descriptor that it is accepted as have one name.
class Dispatcher : public test::mordel_test {
protected:
    using step = std::function<void(fd_set *watch, int *flag)>;

    void SetUp() override
    {
        test::mordel_test::SetUp();
        current_ = this;
        std::thread([] {}).join();  // with the first thread, a sanitizer starts one of its own
        before_ = tasks();
    }

    void TearDown() override
    {
        EXPECT_TRUE(gone());
        EXPECT_EQ(journal(), collect());
        close_all();
        test::mordel_test::TearDown();
    }

    // ---- Sockets --------------------------------------------------------------------------------

    void use_listener()
    {
        use(bound_socket(SOCK_STREAM));
        EXPECT_EQ(0, ::listen(socket_, 16));
    }

    void use_stream()
    {
        const int listener = bound_socket(SOCK_STREAM);
        EXPECT_EQ(0, ::listen(listener, 1));
        const int client = bound_socket(SOCK_STREAM);
        connect_to(client, local_address(listener));
        use(::accept(listener, nullptr, nullptr));
        peer_ = own(client);
        EXPECT_EQ(0, ::close(listener));
    }

    void use_datagrams()
    {
        use(bound_socket(SOCK_DGRAM));
        peer_ = own(bound_socket(SOCK_DGRAM));
        connect_to(peer_, local_address(socket_));
    }

    // The socket that a client will connect.
    void prepare_client(const std::string &name)
    {
        const int fd = own(bound_socket(SOCK_STREAM));
        clients_[name] = fd;
        client_at_[local_address(fd).sin_port] = name;
    }

    // Connects a client to S, where it then waits.
    void connect_client(const std::string &name)
    {
        connect_to(clients_.at(name), local_address(socket_));
        wait_readable(socket_);
    }

    void client(const std::string &name)
    {
        prepare_client(name);
        connect_client(name);
    }

    // A listener with clients that it accepts one by one before the first step; what is noted.
    journal accepting(const std::vector<std::string> &names, const std::vector<step> &steps)
    {
        use_listener();
        steps_.clear();
        journal lines;
        std::string loop = "loop S";
        for (const auto &n : names) {
            prepare_client(n);
            if (n == names.front())
                connect_client(n);
            else  // no sooner: of several that wait, the order is not certain
                steps_.emplace_back([this, n](auto...) { connect_client(n); });
            loop += " " + n;
            lines = lines + journal{"accept " + n, loop};
        }
        steps_.insert(steps_.end(), steps.begin(), steps.end());
        return lines;
    }

    // The descriptor that a client was accepted as.
    int fd_of(const std::string &name)
    {
        const auto at = accepted_.find(name);
        EXPECT_NE(accepted_.end(), at) << name << " was not accepted";
        return at == accepted_.end() ? -1 : at->second;
    }

    // An accepted client sends; the bytes are there.
    void tell(const std::string &name, std::string_view bytes)
    {
        send_bytes(clients_.at(name), bytes);
        wait_readable(fd_of(name));
    }

    // An accepted client closes; its end is there.
    void hang_up(const std::string &name)
    {
        drop(clients_.at(name));
        EXPECT_TRUE(arrives(fd_of(name), POLLRDHUP));
    }

    // The peer of S closes; its end is there.
    void hang_up()
    {
        drop(peer_);
        EXPECT_TRUE(arrives(socket_, POLLRDHUP));
    }

    // The peer of S sends; the bytes are there.
    void tell(std::string_view bytes)
    {
        send_bytes(peer_, bytes);
        wait_readable(socket_);
    }

    int own(int fd)
    {
        EXPECT_LE(0, fd);
        open_.insert(fd);
        return fd;
    }

    void close_all()
    {
        for (const int fd : open_) EXPECT_EQ(0, ::close(fd)) << fd;
        open_.clear();
        clients_.clear();
        client_at_.clear();
        accepted_.clear();
        names_.clear();
    }

    // Takes every number below FD_SETSIZE; returns the last.
    int fill_the_watchable()
    {
        const int file = own(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        int last = file;
        while (last < FD_SETSIZE - 1) last = own(::fcntl(file, F_DUPFD_CLOEXEC, 0));
        return last;
    }

    void drop(int fd)
    {
        EXPECT_EQ(1U, open_.erase(fd));
        EXPECT_EQ(0, ::close(fd));
    }

    // ---- Runs -----------------------------------------------------------------------------------

    static handlers all()
    {
        handlers h{};
        h.accept_hdlr = [](pthread_t self, int fd, ipport *peer) {
            return current_->on_accept(self, fd, *peer);
        };
        h.recv_hdlr = [](pthread_t self, int fd) {
            return current_->on_fd(self, "recv", fd, current_->at_recv_);
        };
        h.close_hdlr = [](pthread_t self, int fd) {
            return current_->on_fd(self, "close", fd, current_->at_close_);
        };
        h.loop_hdlr = [](pthread_t self, fd_set *watch, int *flag) {
            return current_->on_loop(self, watch, flag);
        };
        h.timeout_hdlr = [](pthread_t self, fd_set *watch) {
            return current_->on_timeout(self, watch);
        };
        h.error_hdlr = [](pthread_t self, int code) {
            return current_->note(self, "error " + std::to_string(code));
        };
        h.exit_hdlr = [](pthread_t self, int reason) {
            current_->note(self, "exit " + std::to_string(reason));
            ++current_->exits_;
            return 1;
        };
        return h;
    }

    pthread_t start(const handlers &h = all(), u32 seconds = 0, u32 microseconds = 0)
    {
        return start_on(socket_, h, seconds, microseconds);
    }

    pthread_t start_on(int fd, const handlers &h, u32 seconds = 0, u32 microseconds = 0)
    {
        next_ = 0;
        pthread_t id{};
        const test::fenced<handlers> table(h);  // gone, page and all, when the call has returned
        EXPECT_EQ(0, socket_select(fd, 0xffffffff, seconds, microseconds, table, &id));
        ids_.push_back(id);
        return id;
    }

    bool gone()
    {
        return test::eventually([this] {
            const auto now = tasks();
            return std::includes(before_.begin(), before_.end(), now.begin(), now.end());
        });
    }

    // Waits until every dispatcher started has ended; what they noted and traced. Descriptors are
    // left alone meanwhile: the dispatcher's next one must not depend on this thread.
    journal finish()
    {
        const bool told = test::eventually([this] { return exits_ >= ids_.size(); });
        EXPECT_TRUE(told) << "no exit_hdlr";
        if (!told)
            for (const pthread_t id : ids_) pthread_cancel(id);
        EXPECT_TRUE(gone());
        return collect();
    }

    journal run(const handlers &h = all(), u32 seconds = 0, u32 microseconds = 0)
    {
        start(h, seconds, microseconds);
        return finish();
    }

    journal collect()
    {
        const std::lock_guard lock(guard_);
        read_traces();
        journal out;
        for (const auto &l : lines_) {
            out.push_back(l.text);
            if (l.traced) continue;
            const auto is_self = [&](pthread_t id) { return pthread_equal(id, l.self) != 0; };
            EXPECT_TRUE(std::any_of(ids_.begin(), ids_.end(), is_self)) << l.text;
        }
        lines_.clear();
        ids_.clear();
        exits_ = 0;
        return out;
    }

    // What one of several dispatchers noted so far.
    journal noted_by(pthread_t id)
    {
        const std::lock_guard lock(guard_);
        journal out;
        for (const auto &l : lines_)
            if (!l.traced && pthread_equal(id, l.self) != 0) out.push_back(l.text);
        return out;
    }

    // S is refused with a trace; nothing is started, called, closed or written.
    void refused(int fd, u32 seconds, u32 microseconds, const handlers &h,
                 const std::string &message)
    {
        const bool open = is_open(fd);
        const size_t descriptors = test::open_descriptors();
        pthread_t id = pthread_self();
        EXPECT_EQ(1, socket_select(fd, 0, seconds, microseconds, &h, &id));
        EXPECT_NE(0, pthread_equal(pthread_self(), id));
        const traces refusal = {{source, "socket_select", message}};
        EXPECT_EQ(refusal, test::trace_log());
        EXPECT_EQ(open, is_open(fd));
        EXPECT_EQ(descriptors, test::open_descriptors());
    }

    int socket_ = -1;
    int peer_ = -1;                       // of S, unless it listens
    std::map<std::string, int> clients_;  // their own ends
    std::map<int, std::string> names_;    // of the descriptors that are, or were, watched

    // What the handlers do besides noting, on the dispatcher's thread: the loop handler takes the
    // next step, and behind the last one it ends the dispatcher.
    std::vector<step> steps_;
    std::function<void(int fd)> at_accept_;
    std::function<void(int fd)> at_recv_;
    std::function<void(int fd)> at_close_;
    std::function<void(fd_set *watch)> at_timeout_;

private:
    struct line {
        pthread_t self;
        bool traced;
        std::string text;
    };

    void use(int fd)
    {
        close_all();
        socket_ = own(fd);
        names_ = {{fd, "S"}};
    }

    void read_traces()
    {
        for (const auto &t : test::trace_log()) lines_.push_back({{}, true, text(t)});
    }

    std::string name(int fd) const
    {
        const auto at = names_.find(fd);
        return at == names_.end() ? "#" + std::to_string(fd) : at->second;
    }

    std::string name(const fd_set *watch) const
    {
        if (watch == nullptr) return " null";
        std::set<std::string> sorted;
        for (int fd = 0; fd < FD_SETSIZE; ++fd)
            if (FD_ISSET(fd, watch)) sorted.insert(name(fd));
        std::string all;
        for (const auto &n : sorted) all += " " + n;
        return all;
    }

    int note(pthread_t self, const std::string &what)
    {
        EXPECT_NE(0, pthread_equal(self, pthread_self()));
        const std::lock_guard lock(guard_);
        read_traces();
        lines_.push_back({self, false, what});
        return 1;
    }

    int on_accept(pthread_t self, int fd, const ipport &peer)
    {
        own(fd);
        const auto at = client_at_.find(peer.port);
        EXPECT_NE(client_at_.end(), at) << ntohs(peer.port);
        const std::string who = at == client_at_.end() ? "somebody" : at->second;
        names_[fd] = who;
        accepted_[who] = fd;
        EXPECT_EQ(htonl(INADDR_LOOPBACK), peer.ip);
        note(self, "accept " + who);
        if (at_accept_) at_accept_(fd);
        return 1;
    }

    int on_fd(pthread_t self, const char *what, int fd, const std::function<void(int)> &act)
    {
        note(self, std::string(what) + " " + name(fd));
        if (act) act(fd);
        return 1;
    }

    int on_timeout(pthread_t self, fd_set *watch)
    {
        note(self, "timeout" + name(watch));
        if (at_timeout_) at_timeout_(watch);
        return 1;
    }

    int on_loop(pthread_t self, fd_set *watch, int *flag)
    {
        note(self, "loop" + name(watch) + (*flag == 0 ? "" : ", flag " + std::to_string(*flag)));
        const size_t now = next_++;
        if (now >= steps_.size())
            *flag = 1;
        else if (steps_[now])
            steps_[now](watch, flag);
        return 1;
    }

    static inline Dispatcher *current_;

    std::set<std::string> before_;  // threads that are not dispatchers
    std::vector<pthread_t> ids_;
    std::atomic<size_t> exits_{0};
    std::atomic<size_t> next_{0};

    std::mutex guard_;  // of lines_ and of the log's reader; all else is handed over with the run
    std::vector<line> lines_;

    std::set<int> open_;
    std::map<u16, std::string> client_at_;  // by their port, in network byte order
    std::map<std::string, int> accepted_;
};

// ---- Refusals -----------------------------------------------------------------------------------

using DispatcherRefusal = Dispatcher;

constexpr char bad_handlers[] = "pthread handler set error";

TEST_F(DispatcherRefusal, NoMemoryComesFirst)
{
    const test::watch watch("calloc", 1);
    refused(-1, 1, 1, {}, "malloc fail!!");
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ(0U, watch.calls("getsockopt").size());
}

TEST_F(DispatcherRefusal, TimeoutNeedsItsHandlerWhateverTheDescriptor)
{
    handlers h = all();
    h.timeout_hdlr = nullptr;
    use_listener();
    // Among them pairs of which the sum is 0 modulo 2^32, and the exclusive or
    const std::pair<u32, u32> timeouts[] = {
        {1, 0},   {0, 1},          {2, 3}, {0x80000000, 0}, {256, 256}, {0x80000000, 0x80000000},
        {1, ~0U}, {0x8000, 0x4000}};
    for (const auto &[seconds, microseconds] : timeouts) {
        SCOPED_TRACE(std::to_string(seconds) + " s " + std::to_string(microseconds) + " us");
        const test::watch watch;
        refused(socket_, seconds, microseconds, h, bad_handlers);
        refused(-1, seconds, microseconds, {}, bad_handlers);
        EXPECT_EQ(0U, watch.calls("getsockopt").size());
    }
}

TEST_F(DispatcherRefusal, DescriptorIsLookedAtBeforeTheOtherHandlers)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
    for (const int fd : ends) {
        refused(fd, 0, 0, {}, "fd " + std::to_string(fd) + " isn't a Socket FD");
        refused(fd, 1, 0, all(), "fd " + std::to_string(fd) + " isn't a Socket FD");
        ::close(fd);
        refused(fd, 0, 0, {}, "getsockopt fail");
    }
    refused(-1, 0, 1, all(), "getsockopt fail");
}

TEST_F(DispatcherRefusal, FailedQueryIsToldFromASocketThatIsNone)
{
    use_listener();
    const std::string none = "fd " + std::to_string(socket_) + " isn't a Socket FD";
    const std::pair<int, std::string> cases[] = {{ENOTSOCK, none},
                                                 {EBADF, "getsockopt fail"},
                                                 {ENOMEM, "getsockopt fail"},
                                                 {ENOPROTOOPT, "getsockopt fail"}};
    for (const auto &[error, message] : cases) {
        const test::watch watch("getsockopt", 1, error);
        refused(socket_, 0, 0, all(), message);
        const auto asked = watch.calls("getsockopt");
        ASSERT_EQ(1U, asked.size());
        EXPECT_EQ(socket_, asked[0].fd);
    }
}

TEST_F(DispatcherRefusal, DescriptorThatSelectCannotWatch)
{
    if (!many_descriptors()) GTEST_SKIP() << "no descriptors beyond FD_SETSIZE";
    use_stream();
    const int fd = own(::fcntl(socket_, F_DUPFD_CLOEXEC, FD_SETSIZE));
    refused(fd, 0, 0, all(), "fd " + std::to_string(fd) + " is too large for select");
    refused(fd, 0, 0, {}, "fd " + std::to_string(fd) + " is too large for select");
    refused(fd, 1, 0, {}, bad_handlers);
    const int file = own(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int none = own(::fcntl(file, F_DUPFD_CLOEXEC, FD_SETSIZE));
    refused(none, 0, 0, all(), "fd " + std::to_string(none) + " isn't a Socket FD");
}

TEST_F(DispatcherRefusal, MissingHandlers)
{
    const auto without = [](auto member) {
        handlers h = all();
        h.*member = nullptr;
        return h;
    };
    const handlers always[] = {without(&handlers::recv_hdlr), without(&handlers::close_hdlr),
                               without(&handlers::error_hdlr), without(&handlers::exit_hdlr)};
    use_stream();
    for (const auto &h : always) refused(socket_, 0, 0, h, bad_handlers);
    use_datagrams();
    for (const auto &h : always) refused(socket_, 0, 1, h, bad_handlers);
    use_listener();
    for (const auto &h : always) refused(socket_, 0, 0, h, bad_handlers);
    refused(socket_, 0, 0, without(&handlers::accept_hdlr), bad_handlers);
    refused(socket_, 0, 0, without(&handlers::loop_hdlr), bad_handlers);
}

TEST_F(DispatcherRefusal, ThreadThatCannotBeMade)
{
    use_listener();
    for (const int error : {EAGAIN, EPERM}) {
        const test::watch watch("pthread_create", 1, error);
        refused(socket_, 0, 0, all(), "pthread create error");
        EXPECT_TRUE(watch.failed());
    }
}

// ---- A listening socket -------------------------------------------------------------------------

TEST_F(Dispatcher, ServesAClientFromItsConnectionToItsEnd)
{
    at_recv_ = [](int fd) { EXPECT_EQ("hello", take(fd)); };
    at_close_ = [](int fd) { EXPECT_EQ("", take(fd)); };
    const auto talk = [this](auto...) { tell("a", "hello"); };
    const auto leave = [this](auto...) { hang_up("a"); };
    const auto next = [this](auto...) { client("b"); };
    const journal lines = accepting({"a"}, {talk, leave, next});
    EXPECT_EQ(lines + journal({"recv a", "loop S a", "close a", "loop S", "accept b", "loop S b"}) +
                  told_to_end(),
              run());
    for (const char *name : {"a", "b"}) EXPECT_TRUE(is_open(fd_of(name))) << name;
    EXPECT_TRUE(is_open(socket_));
}

TEST_F(Dispatcher, PassWithAWaitingConnectionAcceptsItAndDoesNothingElse)
{
    const auto more = [this](auto...) {
        tell("a", "x");
        client("b");
        client("c");
    };
    const auto next = [this](auto...) { wait_readable(socket_); };
    const journal lines = accepting({"a"}, {more, next, nullptr});
    EXPECT_EQ(lines +
                  journal({"accept b", "loop S a b", "accept c", "loop S a b c", "recv a",
                           "loop S a b c"}) +
                  told_to_end(),
              run());
}

TEST_F(Dispatcher, ReadyDescriptorsAreServedFromTheLowestToTheHighestInOnePass)
{
    const auto work = [this](auto...) {
        EXPECT_LT(socket_, fd_of("a"));
        EXPECT_LT(fd_of("a"), fd_of("b"));
        EXPECT_LT(fd_of("b"), fd_of("c"));
        EXPECT_LT(fd_of("c"), fd_of("d"));
        tell("d", "4");
        hang_up("c");
        tell("a", "1");
    };
    const journal lines = accepting({"a", "b", "c", "d"}, {work});
    EXPECT_EQ(lines + journal({"recv a", "close c", "recv d", "loop S a b d"}) + told_to_end(),
              run());
}

TEST_F(Dispatcher, ReadsAndClosesNothingItself)
{
    const auto talk = [this](auto...) { tell("a", "kept"); };
    const auto leave = [this](auto...) { hang_up("a"); };  // the bytes come before the end
    const journal lines = accepting({"a"}, {talk, nullptr, leave, nullptr});
    EXPECT_EQ(lines + times(4, {"recv a", "loop S a"}) + told_to_end(), run());
    EXPECT_EQ("kept", take(fd_of("a")));
}

TEST_F(Dispatcher, ConnectionResetByItsClientIsClosed)
{
    const auto reset = [this](auto...) {
        reset_on_close(clients_.at("a"));
        hang_up("a");
    };
    const journal lines = accepting({"a"}, {reset});
    EXPECT_EQ(lines + journal({"close a", "loop S"}) + told_to_end(), run());
}

TEST_F(Dispatcher, NumberOfAClosedDescriptorServesTheNextClient)
{
    int first = -1;
    at_close_ = [&](int fd) {
        first = fd;
        drop(fd);
    };
    const auto leave = [this](auto...) {
        hang_up("a");
        own(::fcntl(socket_, F_DUPFD_CLOEXEC, 0));  // the client's number
    };
    const auto next = [this](auto...) { connect_client("b"); };
    const auto talk = [this](auto...) { tell("b", "x"); };
    const journal lines = accepting({"a"}, {leave, next, talk});
    prepare_client("b");
    EXPECT_EQ(lines + journal({"close a", "loop S", "accept b", "loop S b", "recv b", "loop S b"}) +
                  told_to_end(),
              run());
    EXPECT_EQ(first, fd_of("b"));
}

TEST_F(Dispatcher, DescriptorBelowTheListeningOneIsServedToo)
{
    const int low = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const auto talk = [this](auto...) { tell("a", "x"); };
    const auto leave = [this](auto...) { hang_up("a"); };
    const journal lines = accepting({"a"}, {talk, leave});
    ::close(low);
    at_recv_ = [](int fd) { EXPECT_EQ("x", take(fd)); };
    EXPECT_EQ(lines + journal({"recv a", "loop S a", "close a", "loop S"}) + told_to_end(), run());
    EXPECT_EQ(low, fd_of("a"));
}

TEST_F(Dispatcher, AcceptedDescriptorsAreCloseOnExecAndBlocking)
{
    const journal lines = accepting({"a"}, {});
    const test::watch watch;
    EXPECT_EQ(lines + told_to_end(), run());
    const auto accepted = watch.calls("accept4");
    ASSERT_EQ(1U, accepted.size());
    EXPECT_EQ(SOCK_CLOEXEC, accepted[0].flags);
    EXPECT_EQ(fd_of("a"), accepted[0].fd);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd_of("a"), F_GETFD));
    EXPECT_EQ(0, ::fcntl(fd_of("a"), F_GETFL) & O_NONBLOCK);
}

TEST_F(Dispatcher, FailedAcceptIsPassedOver)
{
    for (const int n : {1, 2, 3}) {
        SCOPED_TRACE(n);
        journal lines = accepting({"a", "b", "c"}, {nullptr});
        const char *const passed[] = {"loop S", "loop S a", "loop S a b"};
        auto at = lines.begin();
        std::advance(at, 2 * (n - 1));
        lines.insert(at, passed[n - 1]);
        const test::watch watch("accept4", n, ECONNABORTED);
        EXPECT_EQ(lines + told_to_end(), run());
        EXPECT_EQ(4U, watch.calls("accept4").size());
    }
}

// The limit of descriptors, lowered while it lives so that there are no more to be had.
class no_more_descriptors {
public:
    no_more_descriptors()
    {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before_));
        const int next = ::dup(0);
        EXPECT_LE(0, next);
        ::close(next);
        const rlimit none = {static_cast<rlim_t>(next), before_.rlim_max};
        EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
    }
    ~no_more_descriptors() { EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before_)); }
    no_more_descriptors(const no_more_descriptors &) = delete;
    no_more_descriptors &operator=(const no_more_descriptors &) = delete;

private:
    rlimit before_{};
};

// The time-outs of the selects so far, in microseconds; -1 for none.
std::vector<int> waits(const test::watch &watch)
{
    std::vector<int> all;
    for (const test::call &call : watch.calls("select")) all.push_back(call.flags);
    return all;
}

TEST_F(Dispatcher, ShortageLeavesTheListenerOutOfOnePassWhichServesTheOthers)
{
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        SCOPED_TRACE(error);
        const auto work = [this](auto...) {
            connect_client("b");
            tell("a", "x");
        };
        at_recv_ = [](int fd) { EXPECT_EQ("x", take(fd)); };
        const journal lines = accepting({"a"}, {work, nullptr, nullptr});
        prepare_client("b");
        const test::watch watch("accept4", 2, error);
        EXPECT_EQ(lines + journal({"loop S a", "recv a", "loop S a", "accept b", "loop S a b"}) +
                      told_to_end(),
                  run());
        EXPECT_EQ((std::vector<int>{-1, -1, 10000, -1}), waits(watch));
    }
}

TEST_F(Dispatcher, ClientsAreServedWhileTheProcessIsOutOfDescriptors)
{
    std::optional<no_more_descriptors> shortage;
    const auto run_out = [&](auto...) {
        shortage.emplace();
        connect_client("b");
        tell("a", "x");
    };
    const auto leave = [this](auto...) { EXPECT_TRUE(arrives(fd_of("a"), POLLIN)); };
    const auto end = [&](auto...) { shortage.reset(); };
    at_recv_ = [](int fd) { EXPECT_EQ("x", take(fd)); };
    // Accepting fails before and behind the pass that serves
    const journal lines = accepting({"a"}, {run_out, leave, nullptr, end, nullptr});
    prepare_client("b");
    EXPECT_EQ(lines +
                  journal({"loop S a", "recv a", "loop S a", "loop S a", "loop S a", "accept b",
                           "loop S a b"}) +
                  told_to_end(),
              run());
}

// A connection waits all the time, which is no time-out; loop_hdlr may end the dispatcher
// meanwhile.
TEST_F(Dispatcher, RestOfAShortageIsNoTimeout)
{
    const struct {
        u32 seconds, microseconds;
        int usual, rest;  // microseconds
    } rows[] = {{0, 0, -1, 10000},        {0, 1, 1, 1},
                {0, 9999, 9999, 9999},    {0, 10000, 10000, 10000},
                {0, 10001, 10001, 10000}, {1, 0, 1000000, 10000},
                {1, 1, 1000001, 10000},   {600, 0, 600000000, 10000}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.usual);
        use_listener();
        client("a");
        steps_.assign(4, nullptr);
        const test::watch watch("accept4", -1, EMFILE);
        EXPECT_EQ(times(5, {"loop S"}) + told_to_end(), run(all(), r.seconds, r.microseconds));
        EXPECT_EQ((std::vector<int>{r.usual, r.rest, r.usual, r.rest, r.usual}), waits(watch));
        EXPECT_EQ(3U, watch.calls("accept4").size());
    }
}

TEST_F(Dispatcher, TimeoutsGoOnBehindAShortage)
{
    use_listener();
    client("a");
    steps_.assign(3, nullptr);
    const test::watch watch("accept4", 1, EMFILE);
    EXPECT_EQ(journal({"loop S", "loop S", "accept a", "loop S a", "timeout S a", "loop null"}) +
                  told_after_a_timeout(),
              run(all(), 0, 20000));
    EXPECT_EQ((std::vector<int>{20000, 10000, 20000, 20000}), waits(watch));
}

// Taken off the watch, a listener that cannot accept needs no rest.
TEST_F(Dispatcher, ListenerOffTheWatchIsNotRestedFor)
{
    use_listener();
    client("a");
    const auto off = [this](fd_set *watch, int *) { FD_CLR(socket_, watch); };
    at_timeout_ = [this](fd_set *watch) { FD_SET(socket_, watch); };
    steps_ = {off, nullptr};
    const test::watch watch("accept4", 1, EMFILE);
    EXPECT_EQ(journal({"loop S", "timeout", "loop null", "accept a", "loop S a"}) + told_to_end(),
              run(all(), 0, 20000));
    EXPECT_EQ((std::vector<int>{20000, 20000, 20000}), waits(watch));
}

// A select that fails takes everything for ready, the listener too: no silent client is closed.
TEST_F(Dispatcher, FailedSelectOfAShortageClosesNobody)
{
    std::optional<no_more_descriptors> shortage;
    const auto run_out = [&](auto...) {
        shortage.emplace();
        connect_client("b");
    };
    const auto end = [&](auto...) { shortage.reset(); };
    const journal lines = accepting({"a"}, {run_out, nullptr, end});
    prepare_client("b");
    const test::watch watch("select", 3, EINVAL);
    EXPECT_EQ(lines + journal({"loop S a", "error 2", "loop S a, flag 1"}) + told_to_end(), run());
}

// An error from before the attempt to accept, for which nobody waits, is no shortage.
TEST_F(Dispatcher, ListenerWithoutAConnectionIsNotRestedFor)
{
    use_listener();
    steps_ = {[](fd_set *, int *flag) { *flag = 0; }};
    handlers h = all();
    h.error_hdlr = [](pthread_t self, int code) {
        const int result = all().error_hdlr(self, code);
        errno = EMFILE;
        return result;
    };
    const test::watch watch("select", 1, EINVAL);
    EXPECT_EQ(journal({"error 2", "loop S, flag 1", "timeout S", "loop null"}) +
                  told_after_a_timeout(),
              run(h, 0, 20000));
    EXPECT_EQ((std::vector<int>{20000, 20000}), waits(watch));
}

// What the header recommends: newcomers wait in the backlog while there are clients enough.
TEST_F(Dispatcher, CapacityIsKeptByTheLoopHandler)
{
    constexpr size_t capacity = 2;
    const std::vector<std::string> all_clients = {"a", "b", "c", "d", "e"};
    std::set<int> inside;
    size_t most = 0;
    std::vector<std::string> order;
    use_listener();
    for (const auto &n : all_clients) client(n);
    at_accept_ = [&](int fd) {
        inside.insert(fd);
        most = std::max(most, inside.size());
        order.push_back(names_[fd]);
    };
    at_close_ = [&](int fd) {
        inside.erase(fd);
        drop(fd);
    };
    steps_.assign(100, [&](fd_set *watch, int *flag) {
        if (watch == nullptr) return;
        if (inside.size() < capacity)
            FD_SET(socket_, watch);
        else
            FD_CLR(socket_, watch);
        if (inside.size() == capacity) hang_up(order.at(order.size() - inside.size()));
        if (order.size() == all_clients.size()) *flag = 1;
    });
    start();
    (void)finish();
    EXPECT_EQ(capacity, most);
    EXPECT_EQ(all_clients.size(), order.size());
    EXPECT_EQ(std::set<std::string>(all_clients.begin(), all_clients.end()),
              std::set<std::string>(order.begin(), order.end()));
}

// Two dispatchers on one listening socket that does not block: each connection is one's, and both
// go on.
TEST_F(Dispatcher, TwoAcceptorsShareAListenerThatDoesNotBlock)
{
    constexpr size_t count = 40;
    static std::array<std::atomic<int>, count> taken;
    static std::atomic<size_t> accepted;
    static std::atomic<int> ended;
    accepted = 0;
    ended = 0;
    use_listener();
    ASSERT_EQ(0, ::fcntl(socket_, F_SETFL, O_NONBLOCK));
    handlers h = all();
    h.accept_hdlr = [](pthread_t, int fd, ipport *) {
        if (const size_t n = accepted++; n < count) taken[n] = fd;
        return 0;
    };
    h.loop_hdlr = [](pthread_t, fd_set *, int *flag) {
        *flag = accepted >= count ? 1 : 0;
        return 0;
    };
    h.timeout_hdlr = [](pthread_t, fd_set *) { return 0; };
    h.exit_hdlr = [](pthread_t, int reason) {
        EXPECT_EQ(0, reason);
        return ++ended;
    };
    pthread_t ids[2];
    for (pthread_t &id : ids) ASSERT_EQ(0, socket_select(socket_, 0, 0, 10000, &h, &id));
    for (size_t i = 0; i < count; ++i)
        connect_to(own(bound_socket(SOCK_STREAM)), local_address(socket_));
    EXPECT_TRUE(test::eventually([] { return ended == 2; }));
    EXPECT_TRUE(gone());
    EXPECT_EQ(count, accepted);
    for (const auto &fd : taken) own(fd);
    (void)test::trace_log();
}

// The dispatcher's line about connections that it had to refuse.
std::string too_large(int refused)
{
    return text({source, "trace_refusal",
                 "fd 1024 is too large for select, connections refused so far: " +
                     std::to_string(refused)});
}

TEST_F(Dispatcher, AcceptedDescriptorTooLargeForSelectIsClosedAtOnce)
{
    if (!many_descriptors()) GTEST_SKIP() << "no descriptors beyond FD_SETSIZE";
    use_listener();
    client("a");
    prepare_client("b");
    const int last = fill_the_watchable();
    ASSERT_EQ(FD_SETSIZE - 1, last);
    at_recv_ = [](int fd) { EXPECT_EQ("x", take(fd)); };
    steps_ = {
        [&](auto...) {
            EXPECT_TRUE(arrives(clients_.at("a"), POLLRDHUP));
            EXPECT_EQ("", take(clients_.at("a")));
            EXPECT_FALSE(is_open(FD_SETSIZE));
            drop(last);
            connect_client("b");
        },
        [this](auto...) { tell("b", "x"); },
        [this](auto...) { hang_up("b"); },
    };
    const journal lines = {too_large(1), "loop S"};
    EXPECT_EQ(lines + journal({"accept b", "loop S b", "recv b", "loop S b", "close b", "loop S"}) +
                  told_to_end(),
              run());
    EXPECT_EQ(FD_SETSIZE - 1, fd_of("b"));
}

// A client that connects again and again must not fill the log.
TEST_F(Dispatcher, RefusedConnectionsAreTracedOnceAMinuteWithTheirNumber)
{
    if (!many_descriptors()) GTEST_SKIP() << "no descriptors beyond FD_SETSIZE";
    test::clock_at clock(10);                 // shortly after the machine's start
    for (const bool again : {false, true}) {  // each dispatcher counts for itself
        SCOPED_TRACE(again);
        close_all();
        use_listener();
        for (const char *name : {"a", "b", "c", "d", "e", "f"}) prepare_client(name);
        ASSERT_EQ(FD_SETSIZE - 1, fill_the_watchable());
        connect_client("a");
        const auto next = [this](const char *name, time_t seconds) {
            return [=, this](auto...) {
                test::clock_at::set(seconds);
                connect_client(name);
            };
        };
        steps_ = {next("b", 10), next("c", 69), next("d", 70), next("e", 129), next("f", 210)};
        EXPECT_EQ(journal({too_large(1), "loop S", "loop S", "loop S", too_large(4), "loop S",
                           "loop S", too_large(6), "loop S"}) +
                      told_to_end(),
                  run());
        test::clock_at::set(10);
    }
}

TEST_F(Dispatcher, LoopHandlerMayTakeADescriptorOffTheWatch)
{
    const auto off = [this](fd_set *watch, int *) {
        FD_CLR(fd_of("a"), watch);
        tell("a", "x");
        tell("b", "x");
    };
    const journal lines = accepting({"a", "b"}, {off});
    EXPECT_EQ(lines + journal({"recv b", "loop S b"}) + told_to_end(), run());
}

TEST_F(Dispatcher, TimeoutHandlerMayTakeADescriptorOffTheWatch)
{
    at_timeout_ = [this](fd_set *watch) { FD_CLR(fd_of("a"), watch); };
    const auto talk = [this](auto...) {
        tell("a", "x");
        tell("b", "x");
    };
    const journal lines = accepting({"a", "b"}, {nullptr, talk});
    EXPECT_EQ(lines + journal({"timeout S a b", "loop null", "recv b", "loop S b"}) + told_to_end(),
              run(all(), 0, 1));
}

// The watch is one and the same for the dispatcher's life: a handler that has kept it sees when a
// descriptor is added and taken off.
TEST_F(Dispatcher, DescriptorIsWatchedFromBeforeItsAcceptanceUntilBehindItsClosing)
{
    fd_set *kept = nullptr;
    at_accept_ = [&](int fd) { EXPECT_TRUE(kept == nullptr || FD_ISSET(fd, kept)); };
    at_close_ = [&](int fd) { EXPECT_TRUE(FD_ISSET(fd, kept)); };
    at_recv_ = [&](int) { FD_CLR(fd_of("c"), kept); };  // ready already, and served yet
    const auto leave = [&](fd_set *watch, int *) {
        EXPECT_EQ(kept, watch);
        tell("a", "x");
        hang_up("b");
        tell("c", "x");
    };
    const journal lines = accepting({"a", "b", "c"}, {leave, nullptr});
    const step second = steps_.front();
    steps_.front() = [&, second](fd_set *watch, int *flag) {
        kept = watch;
        second(watch, flag);
    };
    EXPECT_EQ(lines + journal({"recv a", "close b", "recv c", "loop S a", "recv a", "loop S a"}) +
                  told_to_end(),
              run());
}

TEST_F(Dispatcher, HandlerMayCloseADescriptorThatIsReadyToo)
{
    int b = -1;
    at_recv_ = [&](int) { drop(b); };
    at_close_ = [&](int fd) { EXPECT_EQ(b, fd); };
    const auto talk = [&](auto...) {
        tell("a", "x");
        tell("b", "x");
        b = fd_of("b");
    };
    const journal lines = accepting({"a", "b"}, {talk});
    EXPECT_EQ(lines + journal({"recv a", "close b", "loop S a"}) + told_to_end(), run());
}

// ---- Any other socket ---------------------------------------------------------------------------

// What a socket that does not listen needs.
handlers least(handlers h)
{
    h.accept_hdlr = nullptr;
    h.timeout_hdlr = nullptr;
    return h;
}

TEST_F(Dispatcher, ConnectionIsServedUntilItsPeerCloses)
{
    use_stream();
    tell("hello");
    at_recv_ = [](int fd) { EXPECT_EQ("hello", take(fd)); };
    at_close_ = [](int fd) { EXPECT_EQ("", take(fd)); };
    steps_ = {
        [this](auto...) { tell("hello"); },
        [this](auto...) { hang_up(); },
    };
    EXPECT_EQ(times(2, {"recv S", "loop S"}) + ended_by_peer(), run(least(all())));
    EXPECT_TRUE(is_open(socket_));
}

TEST_F(Dispatcher, BytesOfAConnectionComeBeforeItsEnd)
{
    use_stream();
    tell("ab");
    hang_up();
    char byte = 0;
    at_recv_ = [&](int fd) { EXPECT_EQ(1, ::recv(fd, &byte, 1, MSG_DONTWAIT)); };
    steps_.resize(2);
    EXPECT_EQ(times(2, {"recv S", "loop S"}) + ended_by_peer(), run());
    EXPECT_EQ('b', byte);
}

TEST_F(Dispatcher, ResetConnectionHasEnded)
{
    use_stream();
    reset_on_close(peer_);
    hang_up();
    EXPECT_EQ(ended_by_peer(), run());
}

TEST_F(Dispatcher, LoopHandlerEndsAConnectionsDispatcher)
{
    use_stream();
    tell("kept");
    steps_.resize(2);
    EXPECT_EQ(times(3, {"recv S", "loop S"}) + told_to_end(), run(least(all())));
    EXPECT_EQ("kept", take(socket_));
}

TEST_F(Dispatcher, DatagramsAreServedLikeAConnection)
{
    use_datagrams();
    tell("one");
    for (const char *more : {"two", "", "three"}) send_bytes(peer_, more);
    std::string got;
    at_recv_ = [&](int fd) { got += take(fd) + "."; };
    steps_.assign(2, [this](auto...) { wait_readable(socket_); });
    EXPECT_EQ(times(2, {"recv S", "loop S"}) + ended_by_peer(), run(least(all())));
    EXPECT_EQ("one.two.", got);
    EXPECT_EQ("", take(socket_));  // which ended it, though more follows
    EXPECT_EQ("three", take(socket_));
}

TEST_F(Dispatcher, LargestDescriptorOfSelectIsServed)
{
    if (!many_descriptors()) GTEST_SKIP() << "no such descriptor";
    use_stream();
    const int fd = own(::fcntl(socket_, F_DUPFD_CLOEXEC, FD_SETSIZE - 1));
    ASSERT_EQ(FD_SETSIZE - 1, fd);
    names_ = {{fd, "S"}};
    tell("x");
    at_recv_ = [this](int from) {
        EXPECT_EQ("x", take(from));
        hang_up();
    };
    steps_ = {nullptr};
    start_on(fd, all());
    EXPECT_EQ(journal({"recv S", "loop S"}) + ended_by_peer(), finish());
}

TEST_F(Dispatcher, EmptyDatagramEnds)
{
    use_datagrams();
    tell("");
    EXPECT_EQ(ended_by_peer(), run());
}

// Nobody listens at the peer's port any more, and the kernel says so on the next occasion.
TEST_F(Dispatcher, RefusedDatagramEnds)
{
    use_datagrams();
    connect_to(socket_, local_address(peer_));
    drop(peer_);
    send_bytes(socket_, "x");
    EXPECT_TRUE(arrives(socket_, POLLERR));
    EXPECT_EQ(ended_by_peer(), run());
}

TEST_F(Dispatcher, MissingLoopHandlerIsLeftOut)
{
    handlers h = all();
    h.loop_hdlr = nullptr;
    use_stream();
    tell("x");
    int passes = 0;
    at_recv_ = [&](int fd) {
        if (++passes < 3) return;
        EXPECT_EQ("x", take(fd));
        hang_up();
    };
    EXPECT_EQ(times(3, {"recv S"}) + ended_by_peer(), run(least(h)));

    use_stream();
    at_timeout_ = [this](auto...) { tell("x"); };
    passes = 2;
    EXPECT_EQ(journal({"timeout S", "recv S"}) + ended_by_peer(), run(h, 0, 1));

    at_recv_ = nullptr;
    for (const u32 microseconds : {0U, 1U}) {  // a failed select ends it nevertheless
        use_stream();
        tell("x");
        const test::watch watch("select", 1, ENOMEM);
        EXPECT_EQ(journal({"error 2", "recv S"}) + told_to_end(), run(h, 0, microseconds));
    }
}

TEST_F(Dispatcher, PendingBytesAreAskedForOncePerReadyDescriptor)
{
    const auto talk = [this](auto...) {
        tell("a", "x");
        tell("c", "x");
    };
    const journal lines = accepting({"a", "b", "c"}, {talk});
    const test::watch watch;
    EXPECT_EQ(lines + journal({"recv a", "recv c", "loop S a b c"}) + told_to_end(), run());
    const auto asked = watch.calls("ioctl");
    ASSERT_EQ(2U, asked.size());
    EXPECT_EQ(fd_of("a"), asked[0].fd);
    EXPECT_EQ(fd_of("c"), asked[1].fd);
    for (const auto &call : asked) EXPECT_EQ(FIONREAD, call.flags);
}

TEST_F(Dispatcher, CountThatCannotBeReadIsNone)
{
    const journal served[] = {
        {"close a", "recv b", "recv c", "loop S b c"},
        {"recv a", "close b", "recv c", "loop S a c"},
        {"recv a", "recv b", "close c", "loop S a b"},
    };
    for (const int n : {1, 2, 3}) {
        SCOPED_TRACE(n);
        const auto talk = [this](auto...) {
            for (const char *name : {"a", "b", "c"}) tell(name, "bytes");
        };
        const journal lines = accepting({"a", "b", "c"}, {talk});
        const test::watch watch("ioctl", n, EIO);
        EXPECT_EQ(lines + served[n - 1] + told_to_end(), run());
        EXPECT_TRUE(watch.failed());
    }
    use_stream();
    tell("bytes");
    steps_ = {nullptr};
    const test::watch watch("ioctl", 2, EIO);
    EXPECT_EQ(journal({"recv S", "loop S"}) + ended_by_peer(), run());
}

// ---- Time-outs ----------------------------------------------------------------------------------

TEST_F(Dispatcher, TimeoutCallsItsHandlerAndTheLoopHandlerWithoutAWatch)
{
    const std::function<void()> kinds[] = {[this] { use_listener(); }, [this] { use_stream(); },
                                           [this] { use_datagrams(); }};
    for (const auto &use_kind : kinds) {
        use_kind();
        steps_.assign(2, nullptr);
        EXPECT_EQ(times(3, {"timeout S", "loop null"}) + told_after_a_timeout(), run(all(), 0, 1));
    }
}

TEST_F(Dispatcher, PassesWithAndWithoutATimeoutMayAlternate)
{
    use_listener();
    at_recv_ = [](int fd) { EXPECT_EQ("x", take(fd)); };
    at_timeout_ = [this, n = 0](auto...) mutable {
        if (++n == 1) client("a");
        if (n == 2) tell("a", "x");
        if (n == 3) hang_up("a");
    };
    steps_.resize(6);
    const journal lines = {"timeout S",   "loop null", "accept a", "loop S a",  //
                           "timeout S a", "loop null", "recv a",   "loop S a",  //
                           "timeout S a", "loop null", "close a",  "loop S",    //
                           "timeout S",   "loop null"};
    EXPECT_EQ(lines + told_after_a_timeout(), run(all(), 0, 1));
}

// Never less than the time-out is waited, in each pass anew.
TEST_F(Dispatcher, TimeoutIsSecondsPlusMicroseconds)
{
    struct row {
        u32 seconds, microseconds;
        int passes;
        std::chrono::milliseconds least;
    };
    using std::chrono::milliseconds;
    const row rows[] = {{0, 100000, 3, milliseconds(300)}, {1, 100000, 1, milliseconds(1100)}};
    for (const auto &r : rows) {
        use_datagrams();
        steps_.assign(static_cast<size_t>(r.passes - 1), nullptr);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(times(r.passes, {"timeout S", "loop null"}) + told_after_a_timeout(),
                  run(all(), r.seconds, r.microseconds));
        EXPECT_LE(r.least, std::chrono::steady_clock::now() - begin);
    }
}

TEST_F(Dispatcher, WithoutATimeoutItWaits)
{
    use_stream();
    const test::watch watch;
    start(least(all()));
    EXPECT_TRUE(test::eventually([&] { return !watch.calls("select").empty(); }));
    tell("x");
    EXPECT_EQ(journal({"recv S", "loop S"}) + told_to_end(), finish());
    EXPECT_EQ(1U, watch.calls("select").size());
}

TEST_F(Dispatcher, OnlyAFlagOfOneEnds)
{
    for (const int value : {2, 3, -1, 0x101, INT_MIN, 0})
        steps_.emplace_back([value](fd_set *, int *flag) { *flag = value; });
    const auto passes = [](const std::string &first, const std::string &loop) {
        journal lines;
        for (const char *flag :
             {"", ", flag 2", ", flag 3", ", flag -1", ", flag 257", ", flag -2147483648", ""})
            lines = lines + journal{first, loop + flag};
        return lines;
    };
    use_stream();
    tell("x");
    EXPECT_EQ(passes("recv S", "loop S") + told_to_end(), run());
    EXPECT_EQ("x", take(socket_));
    EXPECT_EQ(passes("timeout S", "loop null") + told_after_a_timeout(), run(all(), 0, 1));
}

// ---- A failing select ---------------------------------------------------------------------------

TEST_F(Dispatcher, InterruptedSelectDispatchesNothingAndCallsNobody)
{
    for (const int error : {EINTR, EAGAIN})
        for (const int n : {1, 2, 3})
            for (const u32 microseconds : {0U, 1U}) {
                SCOPED_TRACE(std::to_string(error) + " at " + std::to_string(n));
                use_stream();
                tell("x");
                steps_.resize(2);
                const test::watch watch("select", n, error);
                EXPECT_EQ(times(3, {"recv S", "loop S"}) + told_to_end(),
                          run(all(), 0, microseconds));
                EXPECT_EQ(4U, watch.calls("select").size());
                EXPECT_EQ(3U, watch.calls("ioctl").size());
            }
    const journal lines = accepting({"a"}, {});
    const test::watch watch("select", 1, EINTR);
    EXPECT_EQ(lines + told_to_end(), run());
    EXPECT_EQ(1U, watch.calls("accept4").size());
}

TEST_F(Dispatcher, SignalInterruptsNothing)
{
    struct sigaction quiet {};
    struct sigaction old {};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &quiet, &old));
    use_stream();
    const test::watch watch;
    const pthread_t id = start();
    EXPECT_TRUE(test::eventually([&] {
        pthread_kill(id, SIGUSR1);
        return watch.calls("select").size() > 1;
    }));
    tell("x");
    EXPECT_EQ(journal({"recv S", "loop S"}) + told_to_end(), finish());
    EXPECT_EQ(0, ::sigaction(SIGUSR1, &old, nullptr));
}

TEST_F(Dispatcher, FailedSelectOfAConnectionEndsItBehindOneMoreDispatch)
{
    for (const int error : {EBADF, EINVAL, ENOMEM})
        for (const int n : {1, 2, 3})
            for (const u32 microseconds : {0U, 1U}) {
                SCOPED_TRACE(std::to_string(error) + " at " + std::to_string(n));
                use_stream();
                tell("x");
                steps_.assign(static_cast<size_t>(n), nullptr);
                const test::watch watch("select", n, error);
                EXPECT_EQ(times(n - 1, {"recv S", "loop S"}) +
                              journal({"error 2", "recv S", "loop S, flag 1"}) + told_to_end(),
                          run(all(), 0, microseconds));
                EXPECT_EQ(static_cast<size_t>(n), watch.calls("select").size());
            }
}

TEST_F(Dispatcher, FailedSelectOfAConnectionTakenOffTheWatchDispatchesNothing)
{
    use_stream();
    tell("x");
    steps_ = {[this](fd_set *watch, int *) { FD_CLR(socket_, watch); }, nullptr};
    const test::watch watch("select", 2, EINVAL);
    EXPECT_EQ(journal({"recv S", "loop S", "error 2", "loop, flag 1"}) + told_to_end(), run());
}

// The dispatch takes the socket for ready, and without bytes for closed by its peer.
TEST_F(Dispatcher, FailedSelectOfASilentConnectionLooksLikeItsEnd)
{
    use_stream();
    const test::watch watch("select", 1, EINVAL);
    EXPECT_EQ(journal({"error 2"}) + ended_by_peer(), run());
    EXPECT_TRUE(is_open(socket_));
}

TEST_F(Dispatcher, ConnectionThatItsHandlerClosedFailsSelect)
{
    use_stream();
    tell("x");
    at_recv_ = [this](int fd) { drop(fd); };
    steps_ = {nullptr};
    EXPECT_EQ(journal({"recv S", "loop S", "error 2"}) + ended_by_peer(), run());
}

TEST_F(Dispatcher, FailedSelectOfAListenerAcceptsIfSomebodyWaits)
{
    for (const u32 microseconds : {0U, 1U}) {
        const auto more = [this](auto...) {
            tell("a", "x");  // not served, as S counts as ready
            client("b");
        };
        const journal lines = accepting({"a"}, {more, nullptr});
        const test::watch watch("select", 2, EINVAL);
        EXPECT_EQ(lines + journal({"error 2", "accept b", "loop S a b, flag 1"}) + told_to_end(),
                  run(all(), 0, microseconds));
    }
}

TEST_F(Dispatcher, FailedSelectOfAListenerDoesNotWaitForAConnection)
{
    for (const u32 microseconds : {0U, 1U}) {
        const auto talk = [this](auto...) { tell("a", "x"); };
        const journal lines = accepting({"a"}, {talk, nullptr});
        const test::watch watch("select", 2, EINVAL);
        EXPECT_EQ(lines + journal({"error 2", "loop S a, flag 1"}) + told_to_end(),
                  run(all(), 0, microseconds));
        EXPECT_EQ(1U, watch.calls("accept4").size());
        EXPECT_EQ(0U, watch.calls("ioctl").size());
    }
}

TEST_F(Dispatcher, FailedSelectTakesEveryWatchedDescriptorForReady)
{
    const auto work = [this](fd_set *watch, int *) {
        FD_CLR(socket_, watch);
        tell("a", "x");
        tell("c", "x");
    };
    const journal lines = accepting({"a", "b", "c"}, {work, nullptr});
    const test::watch watch("select", 4, EINVAL);
    EXPECT_EQ(lines + journal({"error 2", "recv a", "close b", "recv c", "loop a c, flag 1"}) +
                  told_to_end(),
              run());
}

TEST_F(Dispatcher, LoopHandlerMayCarryOnBehindAFailedSelect)
{
    int a = -1;
    const auto spoil = [&](auto...) {
        a = fd_of("a");
        drop(a);  // select fails from now on
    };
    const auto retry = [](fd_set *, int *flag) { *flag = 0; };
    const auto mend = [&](fd_set *watch, int *flag) {
        FD_CLR(a, watch);
        *flag = 2;
        connect_client("b");
    };
    const auto talk = [this](auto...) { tell("b", "x"); };
    const journal lines = accepting({"a"}, {spoil, retry, mend, talk});
    prepare_client("b");
    EXPECT_EQ(lines + times(2, {"error 2", "loop S a, flag 1"}) +
                  journal({"accept b", "loop S b, flag 2", "recv b", "loop S b, flag 2"}) +
                  told_to_end(),
              run());
    EXPECT_EQ(a, fd_of("b"));
}

// ---- The thread ---------------------------------------------------------------------------------

TEST_F(Dispatcher, ThreadIsDetachedAndCancelledAtAnyPoint)
{
    use_stream();
    tell("x");
    at_recv_ = [](int) {
        pthread_attr_t attr;
        int state = -1;
        EXPECT_EQ(0, pthread_getattr_np(pthread_self(), &attr));
        EXPECT_EQ(0, pthread_attr_getdetachstate(&attr, &state));
        EXPECT_EQ(PTHREAD_CREATE_DETACHED, state);
        pthread_attr_destroy(&attr);
        EXPECT_EQ(0, pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state));
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, state);
        EXPECT_EQ(0, pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &state));
        EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, state);
    };
    EXPECT_EQ(journal({"recv S", "loop S"}) + told_to_end(), run());
}

TEST_F(Dispatcher, FailedCancellationSetupEndsItBeforeTheFirstPass)
{
    for (const char *function : {"pthread_setcancelstate", "pthread_setcanceltype"}) {
        SCOPED_TRACE(function);
        use_stream();
        tell("x");
        const test::watch watch(function, 1, EINVAL);
        EXPECT_EQ(journal({"error 1"}) + told_to_end(), run());
        EXPECT_TRUE(watch.failed());
        EXPECT_EQ(0U, watch.calls("select").size());
    }
}

// A cancellation that struck while the record is freed would leave the heap locked.
TEST_F(Dispatcher, CancellationIsOffWhenTheThreadEnds)
{
    static const test::watch *seen;
    handlers h = all();
    h.exit_hdlr = [](pthread_t self, int reason) {
        EXPECT_EQ(1U, seen->calls("pthread_setcancelstate").size());  // not before the last handler
        return all().exit_hdlr(self, reason);
    };
    for (const bool by_peer : {false, true}) {
        SCOPED_TRACE(by_peer);
        use_stream();
        tell("x");
        if (by_peer) {
            at_recv_ = [this](int fd) {
                EXPECT_EQ("x", take(fd));
                hang_up();
            };
            steps_ = {nullptr};
        }
        const test::watch watch;
        seen = &watch;
        EXPECT_EQ(journal({"recv S", "loop S"}) + (by_peer ? ended_by_peer() : told_to_end()),
                  run(h));
        std::vector<int> states;
        for (const test::call &call : watch.calls("pthread_setcancelstate"))
            states.push_back(call.flags);
        EXPECT_EQ((std::vector<int>{PTHREAD_CANCEL_ENABLE, PTHREAD_CANCEL_DISABLE}), states);
    }
}

TEST_F(Dispatcher, EndsWithoutItsLogToo)
{
    const test::watch watch("open", -1, EACCES);
    use_stream();
    tell("x");
    EXPECT_EQ(journal({"recv S", "loop S", "exit 0"}), run());
    EXPECT_EQ("x", take(socket_));
    EXPECT_EQ(journal({"timeout S", "loop null", "exit 0"}), run(all(), 0, 1));
    hang_up();
    EXPECT_EQ(journal({"close S", "exit 3"}), run());
    EXPECT_EQ(4U, watch.calls("open").size());
}

TEST_F(Dispatcher, OneTableServesSeveralDispatchersAtOnce)
{
    use_stream();
    const int second = own(bound_socket(SOCK_DGRAM));
    const int sender = own(bound_socket(SOCK_DGRAM));
    connect_to(sender, local_address(second));
    names_[second] = "T";
    const pthread_t s = start();
    const pthread_t t = start_on(second, all());
    EXPECT_EQ(0, pthread_equal(s, t));
    tell("x");
    send_bytes(sender, "x");
    EXPECT_TRUE(gone());
    EXPECT_EQ(journal({"recv S", "loop S", "exit 0"}), noted_by(s));
    EXPECT_EQ(journal({"recv T", "loop T", "exit 0"}), noted_by(t));
    const journal lines = finish();
    EXPECT_EQ(8U, lines.size());
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), said("Exit")));
}

// A cancelled thread is unwound from a signal's frame, which aborts under qemu-ppc. Tried in a
// process of its own.
bool threads_can_be_cancelled()
{
#ifdef __powerpc__
    const pid_t child = ::fork();
    if (child == 0) {
        std::atomic<bool> ready{false};
        const auto wait = [](void *flag) -> void * {
            (void)pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
            *static_cast<std::atomic<bool> *>(flag) = true;
            for (;;) ::pause();
        };
        pthread_t id{};
        if (pthread_create(&id, nullptr, wait, &ready) != 0) ::_exit(1);
        while (!ready) ::usleep(1000);
        ::_exit(pthread_cancel(id) == 0 && pthread_join(id, nullptr) == 0 ? 0 : 1);
    }
    int status = -1;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
#else
    return true;
#endif
}

TEST_F(Dispatcher, CancelledOneSaysNothingMore)
{
    if (!threads_can_be_cancelled()) GTEST_SKIP() << "this emulator aborts a cancelled thread";
    at_recv_ = [](int fd) { EXPECT_EQ("x", take(fd)); };
    for (const size_t passes : {0U, 1U}) {
        use_stream();
        if (passes != 0) tell("x");
        steps_.resize(1);
        pthread_t id{};
        {
            const test::watch watch;
            [[maybe_unused]] const leaks_allowed lost;
            id = start();
            EXPECT_TRUE(
                test::eventually([&] { return watch.calls("select").size() == passes + 1; }));
        }
        EXPECT_EQ(0, pthread_cancel(id));
        EXPECT_TRUE(gone());
        EXPECT_EQ(times(static_cast<int>(passes), {"recv S", "loop S"}), collect());
        EXPECT_TRUE(is_open(socket_));
    }
}

// ---- Many clients -------------------------------------------------------------------------------

// What the clients' process and this one share.
struct ledger {
    struct account {
        u16 port;  // network byte order
        u64 bytes;
    };
    std::atomic<u32> accepted;
    std::atomic<u32> closed;
    u32 count;  // of accounts: connections made, in order; read when the clients have ended
    account accounts[1U << 15];
};

// A connection's bytes, by its client's port and their place.
u8 pattern(u16 port, u64 at) { return static_cast<u8>(at * 7 + (at >> 8) * 13 + u64{port} * 31); }

// What is on its way stays little, so that the end of the run does not wait for it.
void small_buffers(int fd)
{
    const int size = 16384;
    EXPECT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size));
    EXPECT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size));
}

// The clients: connect, send and close at random. They run in a process of their own, forked from
// this one, so that both sides have descriptors enough.
class crowd {
public:
    static constexpr size_t size = 500;

    crowd(ledger &book, const sockaddr_in &server) : book_(book), server_(server) {}

    // The exit status: 0, or what went wrong.
    int run(std::chrono::seconds duration)
    {
        using std::chrono::steady_clock;
        for (auto &m : members_)
            if (!join(m) || m.fd < 0) return 2;
        if (!test::eventually([&] { return book_.accepted == size; })) return 3;
        const auto begin = steady_clock::now();
        for (auto now = begin; now < begin + duration; now = steady_clock::now()) {
            // A connection's port rests for a minute, and other tests want some too
            const auto passed = (now - begin) / std::chrono::milliseconds(1);
            may_leave_ = book_.count < std::min<size_t>(size + static_cast<size_t>(passed),
                                                        std::size(book_.accounts) - size);
            if (!act(members_[random(size)])) return 4;
        }
        for (const auto &m : members_)
            if (m.fd >= 0) ::close(m.fd);
        return 0;
    }

private:
    struct member {
        int fd = -1;
        ledger::account *account = nullptr;
    };

    bool act(member &m)
    {
        if (m.fd >= 0) return may_leave_ && random(16) == 0 ? leave(m) : send(m);
        // A client that the server has not seen closing yet still counts
        if (book_.count - book_.closed < size) return join(m);
        ::sched_yield();
        return true;
    }

    bool join(member &m)
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        small_buffers(fd);
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&server_), sizeof server_) != 0) {
            const bool ports_used_up = errno == EADDRNOTAVAIL;  // they come back
            ::close(fd);
            return ports_used_up;
        }
        m = {fd, &book_.accounts[book_.count++]};
        *m.account = {local_address(fd).sin_port, 0};
        return true;
    }

    bool send(member &m)
    {
        u8 bytes[3000];
        const size_t wanted = 1 + random(sizeof bytes);
        for (size_t i = 0; i < wanted; ++i)
            bytes[i] = pattern(m.account->port, m.account->bytes + i);
        const ssize_t sent = ::send(m.fd, bytes, wanted, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0) return errno == EAGAIN;
        m.account->bytes += static_cast<u64>(sent);
        return true;
    }

    static bool leave(member &m)
    {
        const int fd = std::exchange(m.fd, -1);
        return ::close(fd) == 0;
    }

    // Below n; always the same numbers.
    u32 random(u32 n)
    {
        random_ = random_ * 1664525 + 1013904223;
        return (random_ >> 8) % n;
    }

    ledger &book_;
    sockaddr_in server_;
    u32 random_ = 1;
    bool may_leave_ = false;
    std::array<member, size> members_;
};

// The server: reads whatever comes, checks it, and keeps accounts of its own. Its handlers find it
// in `now`; it belongs to the dispatcher's thread until that has ended.
struct server {
    struct connection {
        u16 port;
        u64 *bytes;
    };
    explicit server(ledger &shared) : book(shared) { FD_ZERO(&watched); }

    ledger &book;
    std::map<u16, std::deque<u64>> totals;  // by client port, in the order of their connections
    std::map<int, connection> open;
    fd_set watched;
    size_t peak = 0;
    size_t faults = 0;  // bytes or descriptors other than expected
    std::atomic<bool> stop{false};
    std::atomic<bool> ended{false};

    static inline server *now;

    static int accept(pthread_t, int fd, ipport *peer)
    {
        auto &of_port = now->totals[peer->port];
        of_port.push_back(0);
        if (!now->open.insert({fd, {peer->port, &of_port.back()}}).second) ++now->faults;
        FD_SET(fd, &now->watched);
        now->peak = std::max(now->peak, now->open.size());
        ++now->book.accepted;
        return 0;
    }

    static int recv(pthread_t, int fd)
    {
        u8 bytes[2000];
        const auto at = now->open.find(fd);
        const ssize_t n = ::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (n <= 0 || at == now->open.end()) ++now->faults;
        if (at == now->open.end()) return 0;
        auto &[port, total] = at->second;
        for (ssize_t i = 0; i < n; ++i)
            if (bytes[i] != pattern(port, (*total)++)) ++now->faults;
        return 0;
    }

    static int close(pthread_t, int fd)
    {
        u8 byte;
        if (::recv(fd, &byte, 1, MSG_DONTWAIT) != 0) ++now->faults;
        if (now->open.erase(fd) != 1 || ::close(fd) != 0) ++now->faults;
        FD_CLR(fd, &now->watched);
        ++now->book.closed;
        return 0;
    }

    static int loop(pthread_t, fd_set *watch, int *flag)
    {
        if (watch != nullptr && std::memcmp(watch, &now->watched, sizeof now->watched) != 0)
            ++now->faults;
        if (now->stop) *flag = 1;
        return 0;
    }

    static int timeout(pthread_t, fd_set *) { return 0; }

    static int error(pthread_t, int)
    {
        ++now->faults;
        return 0;
    }

    static int exit(pthread_t, int)
    {
        now->ended = true;
        return 0;
    }
};

TEST_F(Dispatcher, ServesManyClientsAtOnceToTheLastByte)
{
    if (!many_descriptors()) GTEST_SKIP() << "no descriptors for the clients";
    const char *seconds = std::getenv("MORDEL_STRESS_SECONDS");
    const std::chrono::seconds duration(seconds == nullptr ? 10 : std::atoi(seconds));
    void *room =
        ::mmap(nullptr, sizeof(ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, room);
    auto *book = new (room) ledger{};
    use_listener();
    small_buffers(socket_);
    ASSERT_EQ(0, ::listen(socket_, crowd::size));

    const pid_t clients = ::fork();  // before the dispatcher's thread is there
    ASSERT_LE(0, clients);
    if (clients == 0) ::_exit(crowd(*book, local_address(socket_)).run(duration));

    server state(*book);
    FD_SET(socket_, &state.watched);
    server::now = &state;
    const handlers h = {server::accept,  server::recv,  server::close, server::loop,
                        server::timeout, server::error, server::exit};
    pthread_t id;
    ASSERT_EQ(0, socket_select(socket_, 0, 0, 100000, &h, &id));
    int status = -1;
    EXPECT_EQ(clients, ::waitpid(clients, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(test::eventually([&] { return book->closed == book->count; }));
    state.stop = true;
    EXPECT_TRUE(test::eventually([&] { return state.ended.load(); }));
    EXPECT_TRUE(gone());

    EXPECT_EQ(book->count, book->accepted);
    EXPECT_EQ(crowd::size, state.peak);
    EXPECT_EQ(0U, state.faults);
    EXPECT_TRUE(state.open.empty());
    std::map<u16, std::deque<u64>> sent;
    for (u32 i = 0; i < book->count; ++i)
        sent[book->accounts[i].port].push_back(book->accounts[i].bytes);
    EXPECT_EQ(sent, state.totals);
    EXPECT_EQ(journal({said("get ExitFlag"), said("Exit")}), collect());
    ::munmap(room, sizeof(ledger));
}

}  // namespace
