// SPDX-License-Identifier: MIT
// Interface queries, sockets, the select dispatcher, transfer, addresses and the bandwidth monitor.
//
// This file owns no data but LogStrMap, which is constant. Each dispatcher thread owns its record
// and its watch set alone, and shares nothing with other threads. A bandwidth monitor's registry
// belongs to the caller; its thread and all callers change it under the registry's semaphore.

#include "tarnic_network.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "guards.h"
#include "list_range.h"

#define TRACE_SOURCE tarnic_network
#include "trace.h"

using namespace mordel;

// ---- Interface queries --------------------------------------------------------------------------

namespace {

// Reads /proc/net/dev line by line, less its two header lines. A line longer than the buffer comes
// in pieces, each counted as a line of its own.
class device_lines {
public:
    device_lines() : file_(::fopen("/proc/net/dev", "re")) {}
    explicit operator bool() const { return file_ != nullptr; }
    bool next()
    {
        while (::fgets(text, sizeof text, file_.get()) != nullptr)
            if (header_ == 0 || header_-- == 0) return true;
        return false;
    }

    char text[256];

private:
    stream_guard file_;
    int header_ = 2;
};

// One interface's ioctl requests, over one socket. Each request starts from what the one before it
// has left in data: set_mac_by_ifname so writes back the record that it has read.
class interface_request {
public:
    // A name of IFNAMSIZ characters or more fails: cut to fit, it might name another interface.
    explicit interface_request(const char *ifname)
        : fd_(::strlen(ifname) < IFNAMSIZ ? ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)
                                          : -1)
    {
        // All zero: with stack garbage behind the name, SIOCGIFADDR could find AF_INET and an
        // address there, and would then prefer the alias of that address.
        ::memset(&data, 0, sizeof data);
        ::strncpy(data.ifr_name, ifname, IFNAMSIZ - 1);
    }
    bool send(unsigned long request) { return fd_ && ::ioctl(fd_.get(), request, &data) == 0; }

    struct ifreq data;

private:
    fd_guard fd_;
};

// Stores the IPv4 address that a request answers with, in network byte order. Returns 0; 1 on
// failure, with *out untouched.
int get_address(const char *ifname, unsigned long request, u32 *out)
{
    interface_request about(ifname);
    if (!about.send(request)) return 1;
    struct sockaddr_in address;
    ::memcpy(&address, &about.data.ifr_addr, sizeof address);
    *out = address.sin_addr.s_addr;
    return 0;
}

// Reads a line's sixteen counters into the fields of *out, in their order: eight of what was
// received, then eight of what was sent, and of each eight the first two in 64 bits, the rest
// in 32. Where the text ends early, the fields that are left stay as they are.
void scan_counters(const char *text, if_rxtx *out)
{
    constexpr int columns = 16;
    static_assert(sizeof *out == 2 * (2 * sizeof(u64) + 6 * sizeof(u32)));
    char *field = reinterpret_cast<char *>(out);
    for (int column = 0; column < columns; ++column) {
        char *end = nullptr;
        const u64 wide = ::strtoull(text, &end, 10);
        if (end == text) return;
        text = end;
        if (column % 8 < 2) {
            ::memcpy(field, &wide, sizeof wide);
            field += sizeof wide;
        } else {
            const u32 narrow = static_cast<u32>(wide);
            ::memcpy(field, &narrow, sizeof narrow);
            field += sizeof narrow;
        }
    }
}

constexpr u32 mac_size = 6;

}  // namespace

int get_rxtx_by_ifname(const char *ifname, if_rxtx *out)
{
    device_lines lines;
    if (!lines) return 1;
    ::memset(out, 0, sizeof *out);
    while (lines.next()) {
        // The name is looked for anywhere in the line, on purpose: where veth0's line comes before
        // eth0's, "eth0" gets the counters of veth0.
        if (::strstr(lines.text, ifname) == nullptr) continue;
        char *at = ::strchr(lines.text, ':');
        if (at != nullptr) scan_counters(at + 1, out);
        return 0;
    }
    return 1;
}

int get_ip_by_ifname(const char *ifname, u32 *ip) { return get_address(ifname, SIOCGIFADDR, ip); }

int get_mask_by_ifname(const char *ifname, u32 *mask)
{
    return get_address(ifname, SIOCGIFNETMASK, mask);
}

int get_bcast_by_ifname(const char *ifname, u32 *bcast)
{
    return get_address(ifname, SIOCGIFBRDADDR, bcast);
}

int get_mac_by_ifname(const char *ifname, u8 *mac, u32 size)
{
    if (size < mac_size) return 1;
    interface_request about(ifname);
    if (!about.send(SIOCGIFHWADDR)) return 1;
    ::memcpy(mac, about.data.ifr_hwaddr.sa_data, mac_size);
    return 0;
}

int set_mac_by_ifname(const char *ifname, const u8 *mac)
{
    interface_request about(ifname);
    if (!about.send(SIOCGIFHWADDR)) return 1;
    if (about.data.ifr_hwaddr.sa_family != ARPHRD_ETHER) return 1;
    ::memcpy(about.data.ifr_hwaddr.sa_data, mac, mac_size);
    return about.send(SIOCSIFHWADDR) ? 0 : 1;
}

int get_ifname_by_ip(u32 ip, char *name, u32 size)
{
    device_lines lines;
    if (!lines) return 1;
    while (lines.next()) {
        char *start = lines.text + ::strspn(lines.text, " \t\n\v\f\r");
        char *colon = ::strchr(start, ':');
        if (colon == nullptr) continue;
        // The colon becomes a line feed instead of a NUL, on purpose: the name that is asked for
        // then includes the counters, no interface has such a name, and every address is "not
        // found", as callers know it.
        *colon = '\n';
        u32 found = 0;
        if (get_ip_by_ifname(start, &found) != 0 || found != ip) continue;
        const size_t length = ::strlen(start);
        if (length >= size) return 1;
        ::memcpy(name, start, length + 1);
        return 0;
    }
    return 1;
}

// Exported so that each setter has its getter; none of the five has ever been provided.

int set_ip_by_ifname(const char *, u32) { return 1; }
int set_mask_by_ifname(const char *, u32) { return 1; }
int set_bcast_by_ifname(const char *, u32) { return 1; }
int get_mtu_by_ifname(const char *, u32 *) { return 1; }
int set_mtu_by_ifname(const char *, u32) { return 1; }

// ---- Sockets ------------------------------------------------------------------------------------

namespace {

// The ids of LogStrMap, in its order
enum log_word {
    word_malloc,
    word_args,
    word_socket,
    word_error,
    word_open,
    word_listen,
    word_bind,
    word_accept,
    word_sockopt,
    word_thread,
    word_handler,
    word_send,
    word_recv,
    words
};

}  // namespace

constexpr txt_map LogStrMap[] = {
    {word_malloc, "malloc fail!!"},
    {word_args, "error args!!"},
    {word_socket, "socket"},
    {word_error, "error"},
    {word_open, "open error"},
    {word_listen, "listen error"},
    {word_bind, "bind error"},
    {word_accept, "accept error"},
    {word_sockopt, "socketopt error"},
    {word_thread, "pthread create error"},
    {word_handler, "pthread handler set error"},
    {word_send, "send error"},
    {word_recv, "recv error"},
    {-1, "*unknown*"},
};

namespace {

constexpr const char *text_of(log_word word) { return LogStrMap[word].text; }
static_assert(std::size(LogStrMap) == words + 1);
static_assert([] {
    for (int id = 0; id < words; ++id)
        if (LogStrMap[id].id != id) return false;
    return true;
}());

struct sockaddr_in to_sockaddr(const ipport &from)
{
    struct sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = from.port;
    address.sin_addr.s_addr = from.ip;
    return address;
}

const struct sockaddr *generic(const struct sockaddr_in &address)
{
    return reinterpret_cast<const struct sockaddr *>(&address);
}

struct sockaddr *generic(struct sockaddr_in &address)
{
    return reinterpret_cast<struct sockaddr *>(&address);
}

}  // namespace

int socket_open(const char *ifname, const ipport *addr, u32 options, int *fd_out)
{
    struct sockaddr_in local = to_sockaddr(*addr);
    if (ifname != nullptr && get_ip_by_ifname(ifname, &local.sin_addr.s_addr) != 0) {
        TRACE_FILE("Can't resolve ifname=%s\n", ifname);
        return 1;
    }
    const int type = (options & SOCKET_OPT_TCP) != 0 ? SOCK_STREAM : SOCK_DGRAM;
    fd_guard fd{::socket(AF_INET, type | SOCK_CLOEXEC, 0)};
    if (!fd) {
        TRACE_FILE("%s %s!!\n", text_of(word_socket), text_of(word_open));
        return 1;
    }
    const int on = 1;
    if ((options & SOCKET_OPT_REUSE) != 0 &&
        ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        // The trace reads "setsocketopt error": no blank behind "set", on purpose.
        TRACE_FILE("%s set%s SOCKET_OPT_REUSE failed. fd=%d\n", text_of(word_socket),
                   text_of(word_sockopt), fd.get());
        return 1;
    }
    if ((options & SOCKET_OPT_BIND) != 0 && ::bind(fd.get(), generic(local), sizeof local) != 0) {
        // addr's ip is traced even where an interface's address was to be bound, on purpose.
        const u8 *octets = reinterpret_cast<const u8 *>(&addr->ip);
        TRACE_FILE("%s %s fd=%d,ip=%u.%u.%u.%u,port=%d\n", text_of(word_socket), text_of(word_bind),
                   fd.get(), octets[0], octets[1], octets[2], octets[3], ntohs(addr->port));
        return 1;
    }
    *fd_out = fd.release();
    return 0;
}

int socket_connect(const ipport *local, const ipport *peer, u32 options, int *fd_out)
{
    if (peer == nullptr || peer->ip == 0 || peer->port == 0) {
        TRACE_FILE("%s\n", text_of(word_args));
        return 1;
    }
    const ipport any{};
    int opened = -1;
    if (socket_open(nullptr, local == nullptr ? &any : local,
                    options & (SOCKET_OPT_TCP | SOCKET_OPT_BIND), &opened) != 0) {
        TRACE_FILE("%s %s\n", text_of(word_socket), text_of(word_open));
        return 1;
    }
    fd_guard fd{opened};
    const struct sockaddr_in address = to_sockaddr(*peer);
    if (::connect(fd.get(), generic(address), sizeof address) != 0) return 1;
    *fd_out = fd.release();
    return 0;
}

int socket_listen(const ipport *addr, u32 options, int backlog, int *fd_out)
{
    if (addr->port == 0 || backlog <= 0) {
        TRACE_FILE("%s\n", text_of(word_args));
        return 1;
    }
    int opened = -1;
    if (socket_open(nullptr, addr, (options & SOCKET_OPT_TCP) | SOCKET_OPT_REUSE | SOCKET_OPT_BIND,
                    &opened) != 0) {
        TRACE_FILE("%s %s\n", text_of(word_socket), text_of(word_open));
        return 1;
    }
    fd_guard fd{opened};
    if (::listen(fd.get(), backlog) != 0) {
        TRACE_FILE("%s %s\n", text_of(word_socket), text_of(word_listen));
        return 1;
    }
    *fd_out = fd.release();
    return 0;
}

int socket_close(int fd)
{
    (void)::close(fd);  // callers cannot do better about it
    return 0;
}

namespace mordel {

int get_socket_addr(int fd, ipport *out, int which)
{
    if (which != 0 && which != 1) return 1;
    struct sockaddr_in address {};  // zero: for another family the kernel may fill in less
    socklen_t length = sizeof address;
    const auto ask = which == 0 ? ::getsockname : ::getpeername;
    if (ask(fd, generic(address), &length) != 0) return 1;
    if (out != nullptr) {
        out->ip = address.sin_addr.s_addr;
        out->port = address.sin_port;
    }
    return 0;
}

}  // namespace mordel

int get_socket_state(int fd) { return get_socket_addr(fd, nullptr, 1); }

int get_socket_peer(int fd, ipport *out) { return get_socket_addr(fd, out, 1); }

int get_socket_local(int fd, ipport *out) { return get_socket_addr(fd, out, 0); }

// ---- Select dispatcher --------------------------------------------------------------------------

namespace {

// What a dispatcher is to do. socket_select makes the record and its thread frees it; a thread that
// is cancelled does not, and the record is lost.
struct socket_select_ctx {
    int fd;
    socket_select_handlers handlers;
    struct timeval timeout;  // of each select, where has_timeout is 1
    u8 has_timeout;
    int listening;  // SO_ACCEPTCONN: non-zero for a listening socket
    pthread_t self;
};

// Starts a detached thread. Returns false when it could not be made.
bool start_detached(void *(*body)(void *), void *arg, pthread_t *thread)
{
    pthread_attr_t attr;
    ::pthread_attr_init(&attr);
    ::pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    const int error = ::pthread_create(thread, &attr, body, arg);
    ::pthread_attr_destroy(&attr);
    return error == 0;
}

// Whether a readable socket has bytes. A socket whose count cannot be read has none, and so counts
// as closed.
bool has_bytes(int fd)
{
    int pending = 0;
    return ::ioctl(fd, FIONREAD, &pending) == 0 && pending != 0;
}

// What a dispatcher keeps from one pass to the next, on its thread's stack.
struct dispatch_state {
    fd_set watch;  // handlers get its address, and may clear and set descriptors
    int lowest;    // of all descriptors ever watched; never rises
    int highest;   // of all descriptors ever watched; never falls
    int exit_flag = 0;
    bool starved = false;   // the last pass could not accept, see is_shortage
    u32 refused = 0;        // connections whose descriptor select cannot watch
    time_t refusal_at = 0;  // when one was last traced, by the monotonic clock

    explicit dispatch_state(int fd) : lowest(fd), highest(fd)
    {
        FD_ZERO(&watch);
        FD_SET(fd, &watch);
    }
    void add(int fd)
    {
        FD_SET(fd, &watch);
        lowest = std::min(lowest, fd);
        highest = std::max(highest, fd);
    }
};

// Calls the handler of a readable socket. Returns true when the socket has closed; it is then no
// longer watched.
bool serve(const socket_select_ctx &ctx, int fd, dispatch_state *state)
{
    if (has_bytes(fd)) {
        ctx.handlers.recv_hdlr(ctx.self, fd);
        return false;
    }
    ctx.handlers.close_hdlr(ctx.self, fd);
    FD_CLR(fd, &state->watch);
    return true;
}

// Accepts a connection, close-on-exec. Returns -1 when there is none, with errno 0 when nobody
// waits. accept alone would block the dispatcher when the client has gone again since select, or
// when select has failed; poll is asked first for that. (Another acceptor on the same socket can
// still take the connection between poll and accept.)
int accept_waiting(int listening, ipport *peer)
{
    errno = 0;
    struct pollfd waiting = {listening, POLLIN, 0};
    if (::poll(&waiting, 1, 0) <= 0) return -1;
    struct sockaddr_in address {};
    socklen_t length = sizeof address;
    const int fd = ::accept4(listening, generic(address), &length, SOCK_CLOEXEC);
    *peer = {address.sin_addr.s_addr, address.sin_port};
    return fd;
}

// Whether accept failed for want of descriptors or memory. The connection then stays in the
// listener's queue, and select goes on to call the listener ready.
bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Traces a connection that was refused; a client that connects again and again must not fill the
// log, so a dispatcher traces one such line a minute.
void trace_refusal(int fd, dispatch_state *state)
{
    constexpr time_t seconds_apart = 60;
    struct timespec now {};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    const bool first = state->refused++ == 0;
    if (!first && now.tv_sec - state->refusal_at < seconds_apart) return;
    state->refusal_at = now.tv_sec;
    TRACE_FILE("fd %d is too large for select, connections refused so far: %u\n", fd,
               state->refused);
}

// Accepts one connection and hands it to accept_hdlr.
void accept_one(const socket_select_ctx &ctx, dispatch_state *state)
{
    ipport peer;
    fd_guard fresh{accept_waiting(ctx.fd, &peer)};
    if (!fresh) {
        state->starved = is_shortage(errno);
    } else if (fresh.get() >= FD_SETSIZE) {
        trace_refusal(fresh.get(), state);
    } else {
        const int fd = fresh.release();  // the handlers' from here on
        state->add(fd);
        ctx.handlers.accept_hdlr(ctx.self, fd, &peer);
    }
}

// Waits for a watched descriptor, as select does. A starved dispatcher leaves its listener out and
// waits 10 ms at most: a listener that cannot accept stays ready, and with it every pass would be
// one more vain attempt, in which no client is served.
int wait_ready(const socket_select_ctx &ctx, const dispatch_state &state, bool starved,
               fd_set *ready)
{
    constexpr struct timeval rest = {0, 10000};
    struct timeval wait = ctx.timeout;
    bool bounded = ctx.has_timeout != 0;
    *ready = state.watch;
    if (starved) {
        FD_CLR(ctx.fd, ready);
        if (!bounded || timercmp(&rest, &wait, <)) wait = rest;
        bounded = true;
    }
    return ::select(state.highest + 1, ready, nullptr, nullptr, bounded ? &wait : nullptr);
}

// Calls the handlers of what is ready. Returns true when the peer of a socket that does not listen
// has closed, which ends the dispatcher.
bool dispatch(const socket_select_ctx &ctx, const fd_set &ready, dispatch_state *state)
{
    if (ctx.listening == 0) return FD_ISSET(ctx.fd, &ready) && serve(ctx, ctx.fd, state);
    if (FD_ISSET(ctx.fd, &ready)) {
        accept_one(ctx, state);  // and nothing else in this pass
        return false;
    }
    for (int fd = state->lowest; fd <= state->highest; ++fd)
        if (FD_ISSET(fd, &ready)) (void)serve(ctx, fd, state);
    return false;
}

// Lets pthread_cancel end this thread wherever it is, in a handler too: callers rely on it.
bool allow_cancel()
{
    return ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr) == 0 &&
           // NOLINTNEXTLINE(cert-pos47-c): the callers' contract
           ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr) == 0;
}

void *socket_select_hdlr(void *arg)
{
    const heap_guard<socket_select_ctx> ctx{static_cast<socket_select_ctx *>(arg)};
    const socket_select_handlers &on = ctx->handlers;
    const pthread_t self = ctx->self = ::pthread_self();
    dispatch_state state(ctx->fd);
    bool peer_closed = false;
    if (!allow_cancel()) {
        on.error_hdlr(self, 1);
        state.exit_flag = 1;
    }
    while (state.exit_flag != 1 && !peer_closed) {
        // A listener that loop_hdlr has taken off the watch since is in nobody's way.
        const bool starved = std::exchange(state.starved, false) && FD_ISSET(ctx->fd, &state.watch);
        fd_set ready;
        const int count = wait_ready(*ctx, state, starved, &ready);
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            // The pass goes on, with all that is watched; loop_hdlr may yet withdraw the flag.
            on.error_hdlr(self, 2);
            state.exit_flag = 1;
            ready = state.watch;
        }
        // The rest of a starved dispatcher is no time-out: a connection is waiting.
        if (count == 0 && ctx->has_timeout != 0 && !starved) {
            on.timeout_hdlr(self, &state.watch);
            if (on.loop_hdlr != nullptr) on.loop_hdlr(self, nullptr, &state.exit_flag);
            if (state.exit_flag == 1)
                TRACE_FILE("get ExitFlag pid=%d,ppid=%d\n", ::getpid(), ::getppid());
            continue;
        }
        peer_closed = dispatch(*ctx, ready, &state);
        if (!peer_closed && on.loop_hdlr != nullptr)
            on.loop_hdlr(self, &state.watch, &state.exit_flag);
    }
    if (peer_closed) on.exit_hdlr(self, 3);
    TRACE_FILE("Exit pid=%d,ppid=%d\n", ::getpid(), ::getppid());
    if (!peer_closed) on.exit_hdlr(self, 0);
    // No cancellation from here on: one that struck while free holds the heap's lock would leave
    // the heap locked for the whole process.
    (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    return nullptr;
}

}  // namespace

int socket_select(int fd, u32 /* reserved */, u32 seconds, u32 microseconds,
                  const socket_select_handlers *handlers, pthread_t *thread_out)
{
    heap_guard<socket_select_ctx> ctx = allocate<socket_select_ctx>();
    if (!ctx) {
        TRACE_FILE("%s\n", text_of(word_malloc));
        return 1;
    }
    ctx->fd = fd;
    ctx->handlers = *handlers;
    ctx->timeout.tv_sec = static_cast<time_t>(seconds);
    ctx->timeout.tv_usec = static_cast<suseconds_t>(microseconds);
    ctx->has_timeout = (seconds | microseconds) != 0;
    const socket_select_handlers &on = ctx->handlers;
    if (ctx->has_timeout != 0 && on.timeout_hdlr == nullptr) {
        TRACE_FILE("%s\n", text_of(word_handler));
        return 1;
    }
    socklen_t length = sizeof ctx->listening;
    if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &ctx->listening, &length) != 0) {
        if (errno == ENOTSOCK)
            TRACE_FILE("fd %d isn't a Socket FD\n", fd);
        else
            TRACE_FILE("getsockopt fail\n");
        return 1;
    }
    if (fd >= FD_SETSIZE) {
        TRACE_FILE("fd %d is too large for select\n", fd);
        return 1;
    }
    // Only a listener must have a loop_hdlr, though every kind of socket's is called.
    const bool for_listener =
        ctx->listening == 0 || (on.accept_hdlr != nullptr && on.loop_hdlr != nullptr);
    if (!for_listener || on.recv_hdlr == nullptr || on.close_hdlr == nullptr ||
        on.error_hdlr == nullptr || on.exit_hdlr == nullptr) {
        TRACE_FILE("%s\n", text_of(word_handler));
        return 1;
    }
    pthread_t thread;
    if (!start_detached(socket_select_hdlr, ctx.get(), &thread)) {
        TRACE_FILE("%s\n", text_of(word_thread));
        return 1;
    }
    (void)ctx.release();  // the thread frees it
    *thread_out = thread;
    return 0;
}

// ---- Send and receive ---------------------------------------------------------------------------

namespace {

// A socket's kind: SOCK_STREAM, SOCK_DGRAM, ...; -1 when fd is no socket.
int type_of(int fd)
{
    int type = -1;
    socklen_t length = sizeof type;
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 ? type : -1;
}

// The message flag of an option, where the option is set; else 0
int flag_if(u32 options, u32 option, int flag) { return (options & option) != 0 ? flag : 0; }

}  // namespace

int socket_send(int fd, u32 options, const void *buf, u32 *len, const ipport *dest)
{
    const int type = type_of(fd);
    const bool datagram = type == SOCK_DGRAM;
    const bool to_dest = datagram && (options & SOCKET_OPT_SENDTO) != 0;
    if (type == -1 || (to_dest && dest == nullptr) ||
        (datagram && !to_dest && get_socket_state(fd) != 0)) {
        TRACE_FILE("%s %s\n", text_of(word_socket), text_of(word_send));
        return 1;
    }
    if (!datagram && type != SOCK_STREAM) {
        TRACE_FILE("%s Can't handle SO_TYPE=%d\n", text_of(word_socket), type);
        return 1;
    }
    struct sockaddr_in address;
    if (to_dest) address = to_sockaddr(*dest);
    const int flags = flag_if(options, SOCKET_OPT_SEND_NONBLOCK, MSG_DONTWAIT) |
                      flag_if(options, SOCKET_OPT_SEND_NOSIGNAL, MSG_NOSIGNAL);
    // The count is compared signed, so that 2 GiB and more sends nothing and succeeds.
    const int wanted = static_cast<int>(*len);
    int sent = 0;
    while (sent < wanted) {
        const ssize_t now = ::sendto(
            fd, static_cast<const char *>(buf) + sent, static_cast<size_t>(wanted - sent), flags,
            to_dest ? generic(address) : nullptr, to_dest ? socklen_t{sizeof address} : 0);
        if (now < 0) {
            *len = static_cast<u32>(sent);
            TRACE_FILE("%s %s errno=%d\n", text_of(word_socket), text_of(word_send), errno);
            return 1;
        }
        sent += static_cast<int>(now);
    }
    *len = static_cast<u32>(sent);
    return 0;
}

int socket_recv(int fd, u32 options, u8 *buf, int *len, const ipport *src)
{
    const int type = type_of(fd);
    const bool datagram = type == SOCK_DGRAM;
    const bool from_any = datagram && (options & SOCKET_OPT_RECVFROM) != 0;
    if (type == -1) {
        TRACE_FILE("%s %s\n", text_of(word_socket), text_of(word_send));  // not recv, on purpose
        return 1;
    }
    if (datagram && (from_any ? src == nullptr : get_socket_state(fd) != 0)) {
        TRACE_FILE("getsockopt SO_TYPE Error\n");
        return 1;
    }
    if (!datagram && type != SOCK_STREAM) {
        TRACE_FILE("%s Can't handle SO_TYPE=%d\n", text_of(word_socket), type);
        return 1;
    }
    struct sockaddr_in address;  // recvfrom writes the sender's there; nobody reads it
    if (from_any) address = to_sockaddr(*src);
    const int flags = flag_if(options, SOCKET_OPT_RECV_PEEK, MSG_PEEK) |
                      flag_if(options, SOCKET_OPT_RECV_WAITALL, MSG_WAITALL);
    const int wanted = *len;
    int received = 0;
    while (received < wanted) {
        // Room for 4 bytes of the sender's address, set anew: recvfrom leaves 16 there, the length
        // that it would have written.
        socklen_t length = 4;
        const ssize_t now =
            ::recvfrom(fd, buf + received, static_cast<size_t>(wanted - received), flags,
                       from_any ? generic(address) : nullptr, from_any ? &length : nullptr);
        if (now < 0) {
            *len = received;
            TRACE_FILE("%s %s errno=%d\n", text_of(word_socket), text_of(word_recv), errno);
            return 1;
        }
        if (now == 0 && !datagram) {  // the stream has ended: every further call would return 0
            *len = received;
            return 1;
        }
        received += static_cast<int>(now);
    }
    *len = received;
    return 0;
}

// ---- Addresses and ports ------------------------------------------------------------------------

int ipport_convert_n2n(u32 ip, u16 port, ipport *out)
{
    *out = {ip, port};
    return 0;
}

int ipport_convert_h2n(u32 ip, u16 port, ipport *out)
{
    return ipport_convert_n2n(htonl(ip), htons(port), out);
}

int ipport_string_convert_n2n(const char *ip_text, u16 port, ipport *out)
{
    if (string2ip(ip_text, &out->ip) != 0) return 1;
    out->port = port;
    return 0;
}

int ipport_string_convert_h2n(const char *ip_text, u16 port, ipport *out)
{
    return ipport_string_convert_n2n(ip_text, htons(port), out);
}

// ---- Bandwidth monitor --------------------------------------------------------------------------

namespace {

constexpr u16 sampled = 1;          // bm_iface.flags
constexpr u8 stop_wanted = 1;       // bm_list.stop
constexpr u16 history_limit = 257;  // entries of bm_iface.history

// Reads a field of the registry that its owner may write without the lock.
template <typename Field>
Field read_shared(const Field *field)
{
    return __atomic_load_n(field, __ATOMIC_ACQUIRE);
}

// Holds a registry's lock. A failing downdown or upup traces the holder's place, and the holder
// goes on all the same. Gives back the semaphore that it took, though the registry may name another
// by then, or be freed.
class registry_lock {
public:
    registry_lock(const bm_list &registry, int line, const char *function)
        : semid_(read_shared(&registry.semid)), line_(line), function_(function)
    {
        (void)downdown(semid_, "tarnic_network", line_, function_);
    }
    registry_lock(const registry_lock &) = delete;
    registry_lock &operator=(const registry_lock &) = delete;
    ~registry_lock() { (void)upup(semid_, "tarnic_network", line_, function_); }

private:
    int semid_;
    int line_;
    const char *function_;
};

bm_iface *find_iface(const bm_list &registry, const char *ifname)
{
    for (bm_iface &iface : each<&bm_iface::node>(registry.list))
        if (::strcmp(iface.ifname, ifname) == 0) return &iface;
    return nullptr;
}

// Bytes per second between two readings of a counter. The difference is taken modulo 2^64, so that
// a counter that went backwards yields a huge rate, as callers know it. seconds: 1..255.
// The division is done as on paper, by digits of 32, 16 and 16 bits: a 64-bit division would bring
// 1 KiB of libgcc into a 32-bit library.
u64 rate_of(u64 now, u64 last, u32 seconds)
{
    const u64 bytes = now - last;
    const u32 high = static_cast<u32>(bytes >> 32);
    const u32 low = static_cast<u32>(bytes);
    const u32 middle = high % seconds << 16 | low >> 16;
    const u32 end = middle % seconds << 16 | (low & 0xffff);
    return u64{high / seconds} << 32 | (middle / seconds << 16 | end / seconds);
}

// Appends an interface's rates to its history; a full history reuses its oldest entry. Without
// memory for a new entry the history goes without these rates.
void keep_rates(bm_iface *iface)
{
    bm_sample *entry = nullptr;
    if (iface->history_cnt >= history_limit) {
        entry = &record_of<&bm_sample::node>(iface->history.next);
        list_del(&entry->node);
        --iface->history_cnt;
    } else {
        entry = allocate<bm_sample>().release();
        if (entry == nullptr) return;
    }
    entry->rx_rate = iface->rx_rate;
    entry->tx_rate = iface->tx_rate;
    ++iface->history_cnt;
    list_add_tail(&entry->node, &iface->history);
}

// Takes one sample of an interface. The first one has nothing to compare with and only keeps the
// counters.
void sample(bm_iface *iface, bool keep_history, u32 seconds)
{
    if_rxtx now{};
    if (get_rxtx_by_ifname(iface->ifname, &now) != 0) return;
    if ((iface->flags & sampled) != 0) {
        iface->rx_rate = rate_of(now.rx_bytes, iface->last_rx, seconds);
        iface->tx_rate = rate_of(now.tx_bytes, iface->last_tx, seconds);
        if (keep_history) keep_rates(iface);
    }
    iface->flags |= sampled;
    iface->last_rx = now.rx_bytes;
    iface->last_tx = now.tx_bytes;
}

}  // namespace

int init_bm(bm_list *registry, int key, u8 interval, u8 keep_history)
{
    ::memset(registry, 0, sizeof *registry);
    registry->interval = interval;
    registry->keep_history = keep_history;
    list_init(&registry->list);
    return sem_create(key, &registry->semid) == 0;
}

int add_bm_by_iface(const char *ifname, bm_list *registry)
{
    char name[sizeof bm_iface::ifname] = {};
    ::strncpy(name, ifname, sizeof name - 1);
    (void)del_bm_by_iface(name, registry);
    bm_iface *fresh = allocate<bm_iface>().release();
    if (fresh == nullptr) return 0;
    ::memcpy(fresh->ifname, name, sizeof name);
    list_init(&fresh->history);
    const registry_lock lock(*registry, __LINE__, __func__);
    list_add_tail(&fresh->node, &registry->list);
    ++registry->count;
    return 1;
}

int del_bm_by_iface(const char *ifname, bm_list *registry)
{
    const registry_lock lock(*registry, __LINE__, __func__);
    bm_iface *old = find_iface(*registry, ifname);
    if (old == nullptr) return 0;
    for (bm_sample &entry : each<&bm_sample::node>(old->history)) ::free(&entry);
    list_del(&old->node);
    ::free(old);
    return 1;
}

int query_bm_by_iface(const char *ifname, bm_list *registry, bm_sample *out)
{
    const registry_lock lock(*registry, __LINE__, __func__);
    const bm_iface *iface = find_iface(*registry, ifname);
    if (iface == nullptr || (iface->flags & sampled) == 0) return 0;
    out->rx_rate = iface->rx_rate;
    out->tx_rate = iface->tx_rate;
    return 1;
}

namespace mordel {

void bm_scan(bm_list *registry, u32 seconds)
{
    const bool keep_history = read_shared(&registry->keep_history) != 0;
    for (bm_iface &iface : each<&bm_iface::node>(registry->list))
        sample(&iface, keep_history, seconds);
}

void *bmThread(void *arg)
{
    // Blocks all signals: one would make semop in downdown fail with EINTR; the upup after it would
    // raise the semaphore to 2 and the lock would exclude nobody.
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    auto *registry = static_cast<bm_list *>(arg);
    u32 seconds = 1;
    for (;;) {
        {
            const registry_lock lock(*registry, __LINE__, __func__);
            if ((read_shared(&registry->stop) & stop_wanted) != 0) break;
            bm_scan(registry, seconds);
            seconds = std::max<u32>(read_shared(&registry->interval), 1);
        }
        ::sleep(seconds);
    }
    TRACE_CONSOLE("bmThread Exit\n");
    const registry_lock lock(*registry, __LINE__, __func__);
    // The owner may free the registry as soon as its list reads empty, even if he looks without the
    // lock. So the list is emptied by one store, the last access to the registry, and its records
    // are freed afterwards, along the chain that they still form.
    list_head *const head = &registry->list;
    list_head *node = head->next;
    head->prev = head;
    __atomic_store_n(&head->next, head, __ATOMIC_RELEASE);
    while (node != head) {
        bm_iface *gone = &record_of<&bm_iface::node>(node);
        node = node->next;
        ::free(gone);  // but not its history, on purpose: a caller may still hold those entries
    }
    return nullptr;
}

}  // namespace mordel

int bm_start(bm_list *registry)
{
    pthread_t thread;
    return start_detached(bmThread, registry, &thread) ? 0 : 1;
}
