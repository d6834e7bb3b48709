// SPDX-License-Identifier: MIT
// Sockets over the loopback: opening, connecting, listening; whole buffers through them; addresses.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "faults.h"
#include "fence.h"
#include "support.h"
#include "tarnic_network.h"

namespace {

using test::traced;
using test::traces;

constexpr u32 others = 0xFFF8F8F8;  // the bits that are no options
constexpr u32 stream = SOCKET_OPT_TCP;

traced network(const char *function, const std::string &message)
{
    return {"tarnic_network", function, message};
}

// An address and port as they lie in memory in network byte order.
ipport at(u8 a, u8 b, u8 c, u8 d, u16 port)
{
    const u8 ip_bytes[] = {a, b, c, d};
    const u8 port_bytes[] = {static_cast<u8>(port >> 8), static_cast<u8>(port & 0xFF)};
    ipport out{};
    std::memcpy(&out.ip, ip_bytes, sizeof out.ip);
    std::memcpy(&out.port, port_bytes, sizeof out.port);
    return out;
}

ipport loopback(u16 port) { return at(127, 0, 0, 1, port); }

// "127.0.0.1:80", from the bytes in memory.
std::string text(const ipport &address)
{
    u8 ip[4];
    u8 port[2];
    std::memcpy(ip, &address.ip, sizeof ip);
    std::memcpy(port, &address.port, sizeof port);
    std::string out;
    for (const u8 byte : ip) out += (out.empty() ? "" : ".") + std::to_string(byte);
    return out + ":" + std::to_string(port[0] * 256 + port[1]);
}

sockaddr_in system_address(const ipport &address)
{
    sockaddr_in out{};
    out.sin_family = AF_INET;
    out.sin_addr.s_addr = address.ip;
    out.sin_port = address.port;
    return out;
}

using name_call = int (*)(int, sockaddr *, socklen_t *);

// The address that the kernel tells of a socket; zeros when it has none.
ipport named(int fd, name_call name)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (name(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) return {};
    return {address.sin_addr.s_addr, address.sin_port};
}

ipport local_of(int fd) { return named(fd, ::getsockname); }
ipport peer_of(int fd) { return named(fd, ::getpeername); }
u16 port_of(int fd) { return ntohs(local_of(fd).port); }

int option(int fd, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, ::getsockopt(fd, level, name, &value, &length)) << std::strerror(errno);
    return value;
}

// All that the options decide, and what they never change.
std::string described(int fd)
{
    const int protocol = option(fd, SOL_SOCKET, SO_PROTOCOL);
    const int flags = ::fcntl(fd, F_GETFD);
    return (protocol == IPPROTO_TCP   ? "tcp"
            : protocol == IPPROTO_UDP ? "udp"
                                      : std::to_string(protocol)) +
           (option(fd, SOL_SOCKET, SO_REUSEADDR) == 1 ? " reuse" : "") +
           (option(fd, SOL_SOCKET, SO_ACCEPTCONN) == 1 ? " listening" : "") +
           ((::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0 ? " nonblocking" : "") +
           ((flags & FD_CLOEXEC) != 0 ? " " : " inherited ") + text(local_of(fd));
}

class SocketTest : public test::silent_test {
protected:
    void SetUp() override
    {
        silent_test::SetUp();
        descriptors_ = test::open_descriptors();
        ::alarm(300);  // a call that hangs ends the program
    }

    void TearDown() override
    {
        ::alarm(0);
        for (const int fd : kept_) ::close(fd);
        EXPECT_EQ(descriptors_, test::open_descriptors());
        silent_test::TearDown();
    }

    // To be closed with the test.
    int keep(int fd)
    {
        EXPECT_LE(0, fd) << std::strerror(errno);
        if (fd >= 0) kept_.push_back(fd);
        return fd;
    }

    void close_now(int fd)
    {
        std::erase(kept_, fd);
        ::close(fd);
    }

    int bound(int type, const ipport &address = loopback(0))
    {
        const int fd = keep(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
        const sockaddr_in to = system_address(address);
        EXPECT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to));
        return fd;
    }

    int listening(const ipport &address = loopback(0))
    {
        const int fd = bound(SOCK_STREAM, address);
        EXPECT_EQ(0, ::listen(fd, 8));
        return fd;
    }

    int accepted(int listener) { return keep(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)); }

    // A socket connected to a loopback port.
    int connected(int type, u16 port)
    {
        const int fd = keep(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
        const sockaddr_in to = system_address(loopback(port));
        EXPECT_EQ(0, ::connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to));
        return fd;
    }

    // Both ends of a TCP connection.
    std::pair<int, int> tcp_pair()
    {
        const int listener = listening();
        const int client = connected(SOCK_STREAM, port_of(listener));
        const std::pair<int, int> ends = {client, accepted(listener)};
        close_now(listener);
        return ends;
    }

    // Both ends of a local stream, whose buffers are small and whose bytes are there at once.
    std::pair<int, int> local_pair(int type = SOCK_STREAM)
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(0, ::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds));
        const int room = 16 << 10;
        EXPECT_EQ(0, ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room));
        return {keep(fds[0]), keep(fds[1])};
    }

    // What is no socket.
    int file() { return keep(::open("/dev/null", O_RDWR | O_CLOEXEC)); }

    // The socket that the library opened last.
    static int last_opened(const test::watch &watch)
    {
        const auto opened = watch.calls("socket");
        return opened.empty() ? -1 : opened.back().fd;
    }

private:
    size_t descriptors_ = 0;
    std::vector<int> kept_;
};

// ---- Words and options -------------------------------------------------------------------------

TEST(SocketWords, AreThese)
{
    const struct {
        int id;
        std::string word;
    } rows[] = {
        {0, "malloc fail!!"},
        {1, "error args!!"},
        {2, "socket"},
        {3, "error"},
        {4, "open error"},
        {5, "listen error"},
        {6, "bind error"},
        {7, "accept error"},
        {8, "socketopt error"},
        {9, "pthread create error"},
        {10, "pthread handler set error"},
        {11, "send error"},
        {12, "recv error"},
        {-1, "*unknown*"},
    };
    const txt_map *at_row = LogStrMap;
    for (const auto &row : rows) {
        EXPECT_EQ(row.id, at_row->id);
        EXPECT_EQ(row.word, at_row->text);
        EXPECT_EQ(row.word, TxtMapById(LogStrMap, row.id));
        ++at_row;
    }
    EXPECT_STREQ("*unknown*", TxtMapById(LogStrMap, 13));
}

TEST(SocketOptions, AreTheseBits)
{
    EXPECT_EQ(0x1, SOCKET_OPT_TCP);
    EXPECT_EQ(0x2, SOCKET_OPT_REUSE);
    EXPECT_EQ(0x4, SOCKET_OPT_BIND);
    EXPECT_EQ(0x100, SOCKET_OPT_SENDTO);
    EXPECT_EQ(0x200, SOCKET_OPT_SEND_NONBLOCK);
    EXPECT_EQ(0x400, SOCKET_OPT_SEND_NOSIGNAL);
    EXPECT_EQ(0x10000, SOCKET_OPT_RECVFROM);
    EXPECT_EQ(0x20000, SOCKET_OPT_RECV_PEEK);
    EXPECT_EQ(0x40000, SOCKET_OPT_RECV_WAITALL);
}

// ---- Opening -----------------------------------------------------------------------------------

class SocketOpen : public SocketTest {
protected:
    // What opening yields, which must succeed.
    int opened(const char *ifname, const ipport &address, u32 options)
    {
        const test::fenced<ipport> local(address);
        int fd = -77;
        EXPECT_EQ(0, socket_open(ifname, local, options, &fd));
        return keep(fd);
    }

    static void fails(const char *ifname, const ipport &address, u32 options)
    {
        int fd = -77;
        EXPECT_EQ(1, socket_open(ifname, &address, options, &fd));
        EXPECT_EQ(-77, fd);
    }
};

TEST_F(SocketOpen, HeedsItsThreeOptionsAlone)
{
    for (const u32 more : {0U, 8U, 0x70700U, 0xFFFFFFF8U})
        for (u32 low = 0; low < 8; ++low) {
            SCOPED_TRACE(more | low);
            const test::watch watch;
            const int fd = opened(nullptr, loopback(18080), more | low);
            const bool tcp = (low & 1) != 0;
            EXPECT_EQ(std::string(tcp ? "tcp" : "udp") + ((low & 2) != 0 ? " reuse " : " ") +
                          ((low & 4) != 0 ? "127.0.0.1:18080" : "0.0.0.0:0"),
                      described(fd));
            const auto calls = watch.calls("socket");
            ASSERT_EQ(1U, calls.size());
            EXPECT_EQ((tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, calls[0].flags);
            EXPECT_EQ(fd, calls[0].fd);
            EXPECT_EQ((low & 2) != 0 ? 1U : 0U, watch.calls("setsockopt").size());
            EXPECT_EQ((low & 4) != 0 ? 1U : 0U, watch.calls("bind").size());
            EXPECT_EQ(0U, watch.calls("ioctl").size());
            close_now(fd);
        }
}

TEST_F(SocketOpen, BindsToTheAddressAndPortGiven)
{
    const ipport cases[] = {at(0, 0, 0, 0, 18081), at(127, 1, 2, 3, 65535), at(127, 0, 0, 1, 1),
                            at(127, 200, 0, 9, 256)};
    for (const auto &address : cases)
        for (const u32 type : {0U, stream})
            EXPECT_EQ(text(address),
                      text(local_of(opened(nullptr, address, type | SOCKET_OPT_BIND))));
    EXPECT_NE(0U, port_of(opened(nullptr, loopback(0), SOCKET_OPT_BIND)));
}

TEST_F(SocketOpen, ReuseIsSetBeforeBinding)
{
    for (int i = 0; i < 2; ++i)
        (void)opened(nullptr, loopback(18082), SOCKET_OPT_REUSE | SOCKET_OPT_BIND);
    fails(nullptr, loopback(18082), SOCKET_OPT_BIND);
    EXPECT_EQ(1U, test::trace_log().size());
}

TEST_F(SocketOpen, InterfaceGivesTheAddress)
{
    test::shell("ip link add veth0 type veth peer name veth1 && "
                "ip addr add 10.77.0.5/24 dev veth0");
    for (const u32 type : {0U, stream}) {
        // Not what the caller's record says, which is no address of this machine
        const u32 options = type | SOCKET_OPT_BIND;
        EXPECT_EQ("127.0.0.1:18083",
                  text(local_of(opened("lo", at(203, 0, 113, 9, 18083), options))));
        EXPECT_EQ("10.77.0.5:18083",
                  text(local_of(opened("veth0", at(203, 0, 113, 9, 18083), options))));
        EXPECT_EQ("0.0.0.0:0", text(local_of(opened("veth0", loopback(18083), type))));
    }
    test::shell("ip link del veth0");
}

TEST_F(SocketOpen, InterfaceWithoutAddressFailsWhateverTheOptions)
{
    test::shell("ip link add veth0 type veth peer name veth1");
    for (const char *ifname : {"veth0", "none0", "", "abcdefghijklmnop"})
        for (const u32 options : {0U, 1U, 2U, 4U, 7U, 0xFFFFFFFFU}) {
            const test::watch watch;
            fails(ifname, loopback(18084), options);
            EXPECT_EQ(
                (traces{network("socket_open", std::string("Can't resolve ifname=") + ifname)}),
                test::trace_log());
            for (const auto &call : watch.calls("socket"))
                EXPECT_EQ(SOCK_RAW | SOCK_CLOEXEC, call.flags);
            EXPECT_EQ(0U, watch.calls("bind").size());
        }
    test::shell("ip link del veth0");
}

TEST_F(SocketOpen, SocketThatCannotBeHadIsTraced)
{
    for (const u32 options : {0U, 7U}) {
        const test::watch watch("socket", 1, EMFILE);
        fails(nullptr, loopback(18085), options);
        EXPECT_EQ((traces{network("socket_open", "socket open error!!")}), test::trace_log());
        EXPECT_EQ(1U, watch.calls("socket").size());
        EXPECT_EQ(0U, watch.calls("setsockopt").size() + watch.calls("bind").size());
    }
    {
        const test::watch watch("socket", 1, EMFILE);
        fails("lo", loopback(18085), 7);
        EXPECT_EQ((traces{network("socket_open", "Can't resolve ifname=lo")}), test::trace_log());
    }
    const test::watch watch("socket", 2, EMFILE);
    fails("lo", loopback(18085), 7);
    EXPECT_EQ((traces{network("socket_open", "socket open error!!")}), test::trace_log());
}

TEST_F(SocketOpen, ReuseThatCannotBeSetIsTraced)
{
    for (const u32 options : {2U, 3U, 6U, 7U}) {
        const test::watch watch("setsockopt", 1, ENOPROTOOPT);
        fails(nullptr, loopback(18086), options);
        EXPECT_EQ((traces{network("socket_open",
                                  "socket setsocketopt error SOCKET_OPT_REUSE failed. fd=" +
                                      std::to_string(last_opened(watch)))}),
                  test::trace_log());
        EXPECT_EQ(0U, watch.calls("bind").size());
    }
}

TEST_F(SocketOpen, BindFailureIsTracedWithTheCallersAddress)
{
    (void)listening(loopback(18087));
    const struct {
        const char *ifname;
        ipport address;
        const char *traced;
    } cases[] = {
        {nullptr, loopback(18087), "127.0.0.1,port=18087"},  // in use
        {nullptr, at(0, 0, 0, 0, 18087), "0.0.0.0,port=18087"},
        {"lo", at(203, 0, 113, 9, 18087), "203.0.113.9,port=18087"},
        {nullptr, at(1, 2, 3, 4, 258), "1.2.3.4,port=258"},  // not this machine's
        {nullptr, at(200, 255, 128, 254, 65535), "200.255.128.254,port=65535"},
        {nullptr, at(192, 0, 2, 1, 0), "192.0.2.1,port=0"},
    };
    for (const auto &row : cases)
        for (const u32 reuse : {0U, 2U}) {
            const test::watch watch;
            fails(row.ifname, row.address, stream | SOCKET_OPT_BIND | reuse);
            EXPECT_EQ((traces{network("socket_open",
                                      "socket bind error fd=" + std::to_string(last_opened(watch)) +
                                          ",ip=" + row.traced)}),
                      test::trace_log());
        }
}

TEST_F(SocketOpen, InjectedBindFailureIsTracedToo)
{
    const test::watch watch("bind", 1, EACCES);
    fails(nullptr, at(10, 20, 30, 40, 0x1234), SOCKET_OPT_BIND);
    EXPECT_EQ((traces{network("socket_open",
                              "socket bind error fd=" + std::to_string(last_opened(watch)) +
                                  ",ip=10.20.30.40,port=4660")}),
              test::trace_log());
    EXPECT_EQ(1U, watch.calls("bind").size());
}

TEST_F(SocketOpen, LogThatCannotBeOpenedChangesNoResult)
{
    const test::watch watch("open", -1, EACCES);
    fails(nullptr, at(192, 0, 2, 1, 0), SOCKET_OPT_BIND);
    fails("none0", loopback(0), 0);
    int fd = -77;
    EXPECT_EQ(1, socket_connect(nullptr, nullptr, 0, &fd));
    const ipport address = loopback(18088);
    EXPECT_EQ(1, socket_listen(&address, 0, 1, &fd));
    u32 count = 1;
    EXPECT_EQ(1, socket_send(-1, 0, "", &count, nullptr));
    EXPECT_EQ(-77, fd);
    int wanted = 1;
    EXPECT_EQ(1, socket_recv(-1, 0, nullptr, &wanted, nullptr));
    EXPECT_EQ(6U, watch.calls("open").size());
}

// ---- Connecting --------------------------------------------------------------------------------

class SocketConnect : public SocketTest {
protected:
    int made(const ipport *local, const ipport &peer, u32 options)
    {
        const test::fenced<ipport> to(peer);
        int fd = -77;
        EXPECT_EQ(0, socket_connect(local, to, options, &fd));
        return keep(fd);
    }

    static void fails(const ipport *local, const ipport *peer, u32 options)
    {
        int fd = -77;
        EXPECT_EQ(1, socket_connect(local, peer, options, &fd));
        EXPECT_EQ(-77, fd);
    }
};

TEST_F(SocketConnect, ReachesThePeer)
{
    const int listener = listening();
    const ipport peer = loopback(port_of(listener));
    const int fd = made(nullptr, peer, stream);
    const int other = accepted(listener);
    EXPECT_EQ(text(peer), text(peer_of(fd)));
    EXPECT_EQ(text(local_of(fd)), text(peer_of(other)));
    EXPECT_EQ("tcp " + text(local_of(fd)), described(fd));
    EXPECT_EQ(3, ::write(fd, "abc", 3));
    char got[4] = {};
    EXPECT_EQ(3, ::read(other, got, sizeof got));
    EXPECT_STREQ("abc", got);
}

TEST_F(SocketConnect, UsesTheLocalAddressOnlyToBind)
{
    const int listener = listening(at(0, 0, 0, 0, 0));
    const ipport peer = loopback(port_of(listener));
    const ipport any_port = at(127, 5, 6, 7, 0);
    const ipport elsewhere = at(203, 0, 113, 9, 1);  // not this machine's
    for (const u32 type : {0U, stream}) {
        SCOPED_TRACE(type);
        EXPECT_EQ(any_port.ip, local_of(made(&any_port, peer, type | SOCKET_OPT_BIND)).ip);
        EXPECT_EQ(loopback(0).ip, local_of(made(&any_port, peer, type)).ip);
        EXPECT_EQ(loopback(0).ip, local_of(made(&elsewhere, peer, type)).ip);
        EXPECT_EQ(loopback(0).ip, local_of(made(nullptr, peer, type | SOCKET_OPT_BIND)).ip);
    }
    const ipport exact = at(127, 5, 6, 7, 18090);
    EXPECT_EQ("udp 127.5.6.7:18090", described(made(&exact, peer, SOCKET_OPT_BIND)));
}

TEST_F(SocketConnect, DatagramSocketGetsAPeer)
{
    const int other = bound(SOCK_DGRAM);
    const int fd = made(nullptr, loopback(port_of(other)), 0);
    EXPECT_EQ(text(local_of(other)), text(peer_of(fd)));
    EXPECT_EQ("udp " + text(local_of(fd)), described(fd));
}

TEST_F(SocketConnect, HeedsTwoOptionsAlone)
{
    const int listener = listening();
    const ipport peer = loopback(port_of(listener));
    const ipport elsewhere = at(203, 0, 113, 9, 1);
    for (const u32 options : {0x2U, 0x3U, 0xFFFFFFFAU, 0xFFFFFFFBU}) {
        SCOPED_TRACE(options);
        const test::watch watch;
        const int fd = made(&elsewhere, peer, options);
        EXPECT_EQ(((options & 1) != 0 ? "tcp " : "udp ") + text(local_of(fd)), described(fd));
        EXPECT_EQ(0U, watch.calls("setsockopt").size() + watch.calls("bind").size());
        EXPECT_EQ(1U, watch.calls("connect").size());
    }
    const test::watch watch;
    const ipport local = loopback(0);
    (void)made(&local, peer, 0xFFFFFFFF);
    EXPECT_EQ(0U, watch.calls("setsockopt").size());
    EXPECT_EQ(1U, watch.calls("bind").size());
}

TEST_F(SocketConnect, PeerMustHaveAddressAndPort)
{
    const test::watch watch;
    const ipport no_ip = at(0, 0, 0, 0, 80);
    const ipport no_port = loopback(0);
    const ipport neither{};
    const ipport local = loopback(0);
    for (const ipport *peer : {static_cast<const ipport *>(nullptr), &no_ip, &no_port, &neither})
        for (const u32 options : {0U, stream, 5U}) {
            fails(&local, peer, options);
            EXPECT_EQ((traces{network("socket_connect", "error args!!")}), test::trace_log());
        }
    EXPECT_EQ(0U, watch.calls("socket").size());
}

TEST_F(SocketConnect, EveryBitOfAddressAndPortCounts)
{
    // A single bit in any byte is an address, and a port
    const ipport local = loopback(0);
    for (const ipport &peer : {at(0, 0, 0, 1, 1), at(1, 0, 0, 0, 256), at(0, 0, 1, 0, 1)}) {
        const test::watch watch("connect", 1, ENETUNREACH);
        fails(&local, &peer, 0);
        EXPECT_TRUE(watch.failed()) << text(peer);
    }
}

TEST_F(SocketConnect, SocketThatCannotBeOpenedIsTracedTwice)
{
    const ipport peer = loopback(1);
    const traced second = network("socket_connect", "socket open error");
    {
        const test::watch watch("socket", 1, EMFILE);
        fails(nullptr, &peer, stream);
        EXPECT_EQ((traces{network("socket_open", "socket open error!!"), second}),
                  test::trace_log());
    }
    const ipport elsewhere = at(203, 0, 113, 9, 0x0102);
    const test::watch watch;
    fails(&elsewhere, &peer, stream | SOCKET_OPT_BIND);
    EXPECT_EQ((traces{network("socket_open",
                              "socket bind error fd=" + std::to_string(last_opened(watch)) +
                                  ",ip=203.0.113.9,port=258"),
                      second}),
              test::trace_log());
    EXPECT_EQ(0U, watch.calls("connect").size());
}

TEST_F(SocketConnect, RefusalIsSilentAndClosesTheSocket)
{
    const ipport peer = loopback(1);
    for (int i = 0; i < 3; ++i) {
        const test::watch watch;
        fails(nullptr, &peer, stream);
        const auto closed = watch.calls("close");
        ASSERT_EQ(1U, closed.size());
        EXPECT_EQ(last_opened(watch), closed[0].fd);
    }
    for (const int error : {EINTR, EINPROGRESS, EAGAIN}) {  // none of them retried
        const test::watch watch("connect", -1, error);
        fails(nullptr, &peer, stream);
        EXPECT_EQ(1U, watch.calls("connect").size());
        EXPECT_EQ(1U, watch.calls("close").size());
    }
}

// ---- Listening ---------------------------------------------------------------------------------

class SocketListen : public SocketTest {
protected:
    int made(const ipport &address, u32 options, int backlog)
    {
        const test::fenced<ipport> local(address);
        int fd = -77;
        EXPECT_EQ(0, socket_listen(local, options, backlog, &fd));
        return keep(fd);
    }

    static void fails(const ipport &address, u32 options, int backlog = 1)
    {
        int fd = -77;
        EXPECT_EQ(1, socket_listen(&address, options, backlog, &fd));
        EXPECT_EQ(-77, fd);
    }
};

TEST_F(SocketListen, ReusesAndBindsWhateverTheOptions)
{
    for (const u32 options : {1U, 3U, 5U, 7U, 9U, 0xFFFFFFF9U, 0xFFFFFFFFU}) {
        const int fd = made(loopback(18100), options, 1);
        EXPECT_EQ("tcp reuse listening 127.0.0.1:18100", described(fd)) << options;
        close_now(fd);
    }
    EXPECT_EQ("tcp reuse listening 0.0.0.0:18100",
              described(made(at(0, 0, 0, 0, 18100), stream, INT_MAX)));
}

TEST_F(SocketListen, TakesConnections)
{
    const int listener = made(loopback(18101), stream, 4);
    const int client = connected(SOCK_STREAM, 18101);
    EXPECT_EQ(text(local_of(client)), text(peer_of(accepted(listener))));
}

// What the kernel tells of a listening socket; none when it tells nothing.
std::optional<u32> backlog_of(int fd, u16 port)
{
    struct tcp_info info {};
    socklen_t length = sizeof info;
    if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 &&
        length > offsetof(tcp_info, tcpi_sacked))
        return info.tcpi_sacked;
    // qemu-user knows TCP_INFO as a number of four bytes. ss asks the kernel itself.
    const std::string said = "/var/tmp/.listening";
    test::shell("ss -Hltn 'sport = :" + std::to_string(port) + "' >" + said);
    u32 backlog = 0;
    if (std::sscanf(test::read_file(said).c_str(), "LISTEN %*u %u ", &backlog) != 1) return {};
    return backlog;
}

TEST_F(SocketListen, BacklogIsTheCallers)
{
    u16 port = 18102;
    for (const int backlog : {1, 7, 100}) {
        const int fd = made(loopback(port), stream, backlog);
        const std::optional<u32> told = backlog_of(fd, port++);
        if (!told) GTEST_SKIP() << "the host tells no backlog";
        EXPECT_EQ(static_cast<u32>(backlog), *told);
    }
}

TEST_F(SocketListen, PortAndBacklogMustNotBeZero)
{
    const test::watch watch;
    const traces refused = {network("socket_listen", "error args!!")};
    for (const u32 options : {0U, stream, 7U}) {
        fails(loopback(0), options, 1);
        EXPECT_EQ(refused, test::trace_log());
        for (const int backlog : {0, -1, INT_MIN}) {
            fails(loopback(18105), options, backlog);
            EXPECT_EQ(refused, test::trace_log()) << backlog;
        }
    }
    EXPECT_EQ(0U, watch.calls("socket").size());
}

TEST_F(SocketListen, DatagramSocketCannot)
{
    for (const u32 options : {0U, 6U, 0xFFFFFFFEU}) {
        const test::watch watch;
        fails(loopback(18106), options);
        EXPECT_EQ((traces{network("socket_listen", "socket listen error")}), test::trace_log());
        EXPECT_EQ(SOCK_DGRAM | SOCK_CLOEXEC, watch.calls("socket").at(0).flags);
        EXPECT_EQ(1U, watch.calls("bind").size());
        EXPECT_EQ(1U, watch.calls("listen").size());
    }
}

TEST_F(SocketListen, AddressInUseIsTracedTwice)
{
    (void)made(loopback(18107), stream, 1);
    const test::watch watch;
    fails(loopback(18107), stream);
    EXPECT_EQ((traces{network("socket_open",
                              "socket bind error fd=" + std::to_string(last_opened(watch)) +
                                  ",ip=127.0.0.1,port=18107"),
                      network("socket_listen", "socket open error")}),
              test::trace_log());
    EXPECT_EQ(0U, watch.calls("listen").size());
}

TEST_F(SocketListen, FailureOfAnyStepIsTraced)
{
    const traced open_failed = network("socket_listen", "socket open error");
    {
        const test::watch watch("socket", 1, EMFILE);
        fails(loopback(18108), stream);
        EXPECT_EQ((traces{network("socket_open", "socket open error!!"), open_failed}),
                  test::trace_log());
    }
    {
        const test::watch watch("setsockopt", 1, ENOPROTOOPT);
        fails(loopback(18108), stream);
        EXPECT_EQ((traces{network("socket_open",
                                  "socket setsocketopt error SOCKET_OPT_REUSE failed. fd=" +
                                      std::to_string(last_opened(watch))),
                          open_failed}),
                  test::trace_log());
    }
    const test::watch watch("listen", 1, EADDRINUSE);
    fails(loopback(18108), stream);
    EXPECT_EQ((traces{network("socket_listen", "socket listen error")}), test::trace_log());
}

// ---- Closing and asking ------------------------------------------------------------------------

class SocketQuery : public SocketTest {};

// The kernel then fills two bytes of the address.
TEST_F(SocketQuery, AddressOfAnotherFamilyIsNotWhatLayThere)
{
    int pair[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    for (const auto query : {get_socket_peer, get_socket_local}) {
        ipport out = {1, 2};
        EXPECT_EQ(0, query(pair[0], &out));
        EXPECT_EQ(0U, out.ip);
        EXPECT_EQ(0U, out.port);
    }
    for (const int fd : pair) keep(fd);
}

TEST_F(SocketQuery, ClosingAlwaysSucceeds)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, socket_close(fd));
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
    for (const int bad : {fd, -1, INT_MIN, INT_MAX}) EXPECT_EQ(0, socket_close(bad));
    const test::watch watch("close", -1, EINTR);
    const int other = bound(SOCK_DGRAM);
    EXPECT_EQ(0, socket_close(other));
    const auto closed = watch.calls("close");
    ASSERT_EQ(1U, closed.size());
    EXPECT_EQ(other, closed[0].fd);
}

TEST_F(SocketQuery, TellsStateAddressAndPeer)
{
    const int listener = listening();
    const int client = connected(SOCK_STREAM, port_of(listener));
    const int served = accepted(listener);
    const int udp = bound(SOCK_DGRAM, at(127, 9, 8, 7, 18110));
    const int talking = connected(SOCK_DGRAM, 18111);
    const int fresh = keep(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const std::string none = "none";
    const struct {
        int fd;
        std::string local, peer;
    } cases[] = {
        {listener, text(local_of(listener)), none},
        {client, text(local_of(client)), text(local_of(listener))},
        {served, text(local_of(listener)), text(local_of(client))},
        {udp, "127.9.8.7:18110", none},
        {talking, text(local_of(talking)), "127.0.0.1:18111"},
        {fresh, "0.0.0.0:0", none},
        {file(), none, none},
        {-1, none, none},
        {INT_MAX, none, none},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.fd);
        const auto expect = [](const std::string &address, int result, const ipport &out) {
            EXPECT_EQ(address == "none" ? 1 : 0, result);
            EXPECT_EQ(address == "none" ? "9.9.9.9:9" : address, text(out));
        };
        EXPECT_EQ(row.peer == none ? 1 : 0, get_socket_state(row.fd));
        ipport out = at(9, 9, 9, 9, 9);
        expect(row.peer, get_socket_peer(row.fd, &out), out);
        out = at(9, 9, 9, 9, 9);
        expect(row.local, get_socket_local(row.fd, &out), out);
        out = at(9, 9, 9, 9, 9);
        expect(row.local, mordel::get_socket_addr(row.fd, &out, 0), out);
        out = at(9, 9, 9, 9, 9);
        expect(row.peer, mordel::get_socket_addr(row.fd, &out, 1), out);
        EXPECT_EQ(row.local == none ? 1 : 0, mordel::get_socket_addr(row.fd, nullptr, 0));
        EXPECT_EQ(row.peer == none ? 1 : 0, mordel::get_socket_addr(row.fd, nullptr, 1));
        EXPECT_EQ(row.local == none ? 1 : 0, get_socket_local(row.fd, nullptr));
        EXPECT_EQ(row.peer == none ? 1 : 0, get_socket_peer(row.fd, nullptr));
    }
}

TEST_F(SocketQuery, KnowsNoThirdAddress)
{
    const auto [fd, other] = tcp_pair();
    for (const int which : {2, 3, -1, INT_MIN, INT_MAX, 256}) {
        ipport out = at(9, 9, 9, 9, 9);
        EXPECT_EQ(1, mordel::get_socket_addr(fd, &out, which));
        EXPECT_EQ("9.9.9.9:9", text(out));
        EXPECT_EQ(1, mordel::get_socket_addr(fd, nullptr, which));
    }
}

// ---- What sending and receiving share ----------------------------------------------------------

// A result and what became of the count; of receiving, the bytes too.
struct outcome {
    int result;
    long long count;
    std::string bytes;
    bool operator==(const outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const outcome &o)
{
    return out << o.result << " " << o.count << " \"" << o.bytes.substr(0, 80) << "\"";
}

std::string pattern(size_t size)
{
    std::string out(size, '\0');
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>((i * 7 + i / 251) & 0x7F);
    return out;
}

// What is there to read now.
std::string drained(int fd)
{
    std::string out;
    std::vector<char> some(65536);
    for (;;) {
        const ssize_t n = ::recv(fd, some.data(), some.size(), MSG_DONTWAIT);
        if (n <= 0) return out;
        out.append(some.data(), static_cast<size_t>(n));
    }
}

// Waits for `size` bytes, or the end of the stream.
std::string read_up_to(int fd, size_t size)
{
    std::string out(size, '\0');
    size_t got = 0;
    for (ssize_t n = 1; n > 0 && got<size; got += n> 0 ? static_cast<size_t>(n) : 0)
        n = ::read(fd, &out[got], size - got);
    out.resize(got);
    return out;
}

// While it lives, SIGUSR1 does nothing but end the call that waits.
class interruptible {
public:
    interruptible()
    {
        struct sigaction nothing {};
        nothing.sa_handler = [](int) {};  // and no SA_RESTART
        ::sigaction(SIGUSR1, &nothing, &before_);
    }
    ~interruptible() { ::sigaction(SIGUSR1, &before_, nullptr); }
    interruptible(const interruptible &) = delete;
    interruptible &operator=(const interruptible &) = delete;

private:
    struct sigaction before_ {};
};

// Interrupts the thread that made it again and again, while it lives.
class interruptions {
public:
    interruptions()
    {
        thread_ = std::thread([this, whom = ::pthread_self()] {
            while (!stop_) {
                ::pthread_kill(whom, SIGUSR1);
                ::usleep(2000);
            }
        });
    }
    ~interruptions()
    {
        stop_ = true;
        thread_.join();
    }
    interruptions(const interruptions &) = delete;
    interruptions &operator=(const interruptions &) = delete;

private:
    interruptible handler_;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

std::string with_errno(const char *words, int error)
{
    return std::string(words) + " errno=" + std::to_string(error);
}

// ---- Sending -----------------------------------------------------------------------------------

class SocketSend : public SocketTest {
protected:
    static outcome sent(int fd, u32 options, const std::string &bytes, const ipport *dest = nullptr)
    {
        const test::fenced_bytes buf(bytes.data(), bytes.size());
        const test::fenced<ipport> to(dest != nullptr ? *dest : ipport{});
        u32 count = static_cast<u32>(bytes.size());
        errno = EIO;
        const int result = socket_send(fd, options, buf.data(), &count,
                                       dest != nullptr ? static_cast<const ipport *>(to) : nullptr);
        return {result, count, ""};
    }

    // A refusal before anything was tried: traced, the count as it was.
    static void refused(int fd, u32 options, const ipport *dest, const std::string &message)
    {
        EXPECT_EQ((outcome{1, 3, ""}), sent(fd, options, "abc", dest));
        EXPECT_EQ((traces{network("socket_send", message)}), test::trace_log());
    }

    // Whether a signal of a broken pipe came; it is blocked meanwhile.
    static bool pipe_signal(const std::function<void()> &during)
    {
        sigset_t pipe;
        sigset_t before;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, &before);
        during();
        const struct timespec now {};
        const bool came = ::sigtimedwait(&pipe, nullptr, &now) == SIGPIPE;
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return came;
    }

    static constexpr char send_error[] = "socket send error";
};

TEST_F(SocketSend, StreamTakesTheWholeBuffer)
{
    const auto [fd, other] = tcp_pair();
    const std::string bytes = pattern(4 << 20);
    std::string got;
    std::thread reader([&, from = other] { got = read_up_to(from, bytes.size()); });
    const outcome result = sent(fd, 0, bytes);
    ::shutdown(fd, SHUT_WR);
    reader.join();
    EXPECT_EQ((outcome{0, 4 << 20, ""}), result);
    EXPECT_TRUE(bytes == got);
}

TEST_F(SocketSend, StreamReadsNeitherDestinationNorOtherBits)
{
    // Of a local stream the kernel would refuse an address
    const ipport dest = loopback(18120);
    for (const u32 options : {0U, 0x100U, others, 0xFFFFF8FFU, 0xFFFFFFFFU}) {
        const auto [fd, other] = local_pair();
        EXPECT_EQ((outcome{0, 3, ""}), sent(fd, options, "abc"));
        EXPECT_EQ((outcome{0, 3, ""}), sent(fd, options, "def", &dest));
        EXPECT_EQ("abcdef", drained(other)) << options;
        const auto [client, served] = tcp_pair();
        EXPECT_EQ((outcome{0, 3, ""}), sent(client, options, "abc", &dest));
        std::string got;
        EXPECT_TRUE(test::eventually([&, from = served] {
            got += drained(from);
            return got == "abc";
        }));
    }
}

TEST_F(SocketSend, DatagramGoesToThePeer)
{
    const int other = bound(SOCK_DGRAM);
    const int elsewhere = bound(SOCK_DGRAM);
    const int fd = connected(SOCK_DGRAM, port_of(other));
    const ipport dest = loopback(port_of(elsewhere));
    for (const u32 options : {0U, 0x200U, 0x400U, 0xFFFFFEFFU}) {
        EXPECT_EQ((outcome{0, 5, ""}), sent(fd, options, "hello"));
        EXPECT_EQ((outcome{0, 2, ""}), sent(fd, options, "hi", &dest));
        char got[16];
        EXPECT_EQ(5, ::recv(other, got, sizeof got, 0));
        EXPECT_EQ("hello", std::string(got, 5));
        EXPECT_EQ("hi", drained(other));
    }
    EXPECT_EQ("", drained(elsewhere));
}

TEST_F(SocketSend, DatagramGoesToTheDestinationWhenAsked)
{
    const int other = bound(SOCK_DGRAM);
    const int elsewhere = bound(SOCK_DGRAM, at(127, 3, 2, 1, 0));
    const ipport dest = at(127, 3, 2, 1, port_of(elsewhere));
    const int unconnected = keep(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    for (const int fd : {unconnected, connected(SOCK_DGRAM, port_of(other))})
        for (const u32 options : {0x100U, 0x700U, 0xFFFFFDFFU}) {
            EXPECT_EQ((outcome{0, 5, ""}), sent(fd, options, "hello", &dest));
            EXPECT_EQ("hello", drained(elsewhere));
        }
    EXPECT_EQ("", drained(other));
}

TEST_F(SocketSend, DatagramMustHaveWhereToGo)
{
    const int other = bound(SOCK_DGRAM);
    const ipport dest = loopback(port_of(other));
    const int unconnected = bound(SOCK_DGRAM);
    for (const u32 options : {0U, 0x600U, 0xFFFFFEFFU}) {
        refused(unconnected, options, nullptr, send_error);
        refused(unconnected, options, &dest, send_error);
    }
    for (const int fd : {unconnected, connected(SOCK_DGRAM, port_of(other))})
        for (const u32 options : {0x100U, 0x700U, 0xFFFFFFFFU})
            refused(fd, options, nullptr, send_error);
    EXPECT_EQ("", drained(other));
}

TEST_F(SocketSend, WhatIsNoSocketIsRefused)
{
    const ipport dest = loopback(18121);
    for (const int fd : {-1, INT_MIN, file(), INT_MAX}) {
        refused(fd, 0, nullptr, send_error);
        refused(fd, 0x700, &dest, send_error);
    }
    const int fd = connected(SOCK_DGRAM, 18121);
    const test::watch watch("getsockopt", 1, ENOBUFS);
    refused(fd, 0, nullptr, send_error);
    EXPECT_TRUE(watch.failed());
}

TEST_F(SocketSend, OtherTypesAreRefusedByNumber)
{
    const ipport dest = loopback(18122);
    const int raw = keep(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    const int packets = local_pair(SOCK_SEQPACKET).first;
    for (const u32 options : {0U, 0x700U}) {
        refused(raw, options, &dest, "socket Can't handle SO_TYPE=3");
        refused(packets, options, nullptr, "socket Can't handle SO_TYPE=5");
    }
}

TEST_F(SocketSend, NothingIsSentOfACountThatIsZeroOrNegative)
{
    const int other = bound(SOCK_DGRAM);
    const int fd = connected(SOCK_DGRAM, port_of(other));
    const ipport dest = loopback(port_of(other));
    for (u32 count : {0U, 0x80000000U, 0x80000001U, 0xFFFFFFFFU})
        for (const u32 options : {0U, 0x100U}) {
            u32 in_out = count;
            EXPECT_EQ(0, socket_send(fd, options, nullptr, &in_out, &dest));
            EXPECT_EQ(0U, in_out) << count;
        }
    // An empty datagram would have been one too
    EXPECT_EQ((outcome{0, 3, ""}), sent(fd, 0, "end"));
    char got[16];
    EXPECT_EQ(3, ::recv(other, got, sizeof got, 0));
    u32 none = 0;
    EXPECT_EQ(1, socket_send(-1, 0, nullptr, &none, nullptr));
    EXPECT_EQ((traces{network("socket_send", send_error)}), test::trace_log());
}

TEST_F(SocketSend, FullBufferEndsANonblockingCallWithThePartialCount)
{
    const std::string bytes = pattern(16 << 20);
    const traces full = {network("socket_send", with_errno(send_error, EAGAIN))};
    for (const u32 options : {0x200U, 0x300U, 0x600U, 0xFFFFFFFFU}) {
        const auto [fd, other] = local_pair();
        const outcome partial = sent(fd, options, bytes);
        EXPECT_EQ(1, partial.result);
        EXPECT_LT(0, partial.count);
        EXPECT_GT(16 << 20, partial.count);
        EXPECT_EQ(full, test::trace_log());
        EXPECT_EQ((outcome{1, 0, ""}), sent(fd, options, "more"));
        EXPECT_EQ(full, test::trace_log());
        EXPECT_TRUE(bytes.substr(0, static_cast<size_t>(partial.count)) == drained(other));
    }
}

TEST_F(SocketSend, PartialCountOverTcpIsWhatArrives)
{
    const auto [fd, other] = tcp_pair();
    const std::string bytes = pattern(64 << 20);
    const outcome partial = sent(fd, SOCKET_OPT_SEND_NONBLOCK, bytes);
    EXPECT_EQ((traces{network("socket_send", with_errno(send_error, EAGAIN))}), test::trace_log());
    EXPECT_EQ(1, partial.result);
    ::shutdown(fd, SHUT_WR);
    const std::string got = read_up_to(other, bytes.size());
    EXPECT_EQ(partial.count, static_cast<long long>(got.size()));
    EXPECT_TRUE(bytes.starts_with(got));
}

TEST_F(SocketSend, FullBufferIsWaitedForOtherwise)
{
    const std::string bytes = pattern(1 << 20);
    for (const u32 options : {0U, 0x400U, 0xFFFFFDFFU}) {
        const auto [fd, other] = local_pair();
        std::string got;
        std::thread reader([&, from = other] { got = read_up_to(from, bytes.size()); });
        const outcome result = sent(fd, options, bytes);
        ::shutdown(fd, SHUT_WR);
        reader.join();
        EXPECT_EQ((outcome{0, 1 << 20, ""}), result);
        EXPECT_TRUE(bytes == got);
    }
}

TEST_F(SocketSend, BrokenPipeSignalsUnlessAskedNotTo)
{
    const auto [fd, other] = local_pair();
    close_now(other);
    const struct {
        u32 options;
        bool signal;
    } cases[] = {{0, true}, {0x200, true}, {0xFFFFFBFF, true}, {0x400, false}, {0x700, false}};
    for (const auto &row : cases) {
        const bool signalled = pipe_signal([&, to = fd] {
            EXPECT_EQ((outcome{1, 0, ""}), sent(to, row.options, "abc"));
        });
        EXPECT_EQ(row.signal, signalled) << row.options;
        EXPECT_EQ((traces{network("socket_send", with_errno(send_error, EPIPE))}),
                  test::trace_log());
    }
}

TEST_F(SocketSend, FailedCallIsTracedWithItsError)
{
    // Too long for a datagram; a stream without a peer
    const int other = bound(SOCK_DGRAM);
    const int fd = connected(SOCK_DGRAM, port_of(other));
    EXPECT_EQ((outcome{1, 0, ""}), sent(fd, 0, pattern(65508)));
    EXPECT_EQ((traces{network("socket_send", with_errno(send_error, EMSGSIZE))}),
              test::trace_log());
    const int fresh = keep(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ((outcome{1, 0, ""}), sent(fresh, SOCKET_OPT_SEND_NOSIGNAL, "abc"));
    EXPECT_EQ((traces{network("socket_send", with_errno(send_error, EPIPE))}), test::trace_log());
    EXPECT_EQ("", drained(other));
}

TEST_F(SocketSend, InterruptionEndsTheCallWithThePartialCount)
{
    const auto [fd, other] = local_pair();
    const std::string bytes = pattern(1 << 20);
    outcome partial{};
    {
        const interruptions interrupted;
        partial = sent(fd, 0, bytes);
    }
    EXPECT_EQ((traces{network("socket_send", with_errno(send_error, EINTR))}), test::trace_log());
    EXPECT_EQ(1, partial.result);
    EXPECT_LT(0, partial.count);
    EXPECT_TRUE(bytes.substr(0, static_cast<size_t>(partial.count)) == drained(other));
}

TEST_F(SocketSend, CallThatTookOnlyAPartIsFollowedByTheRest)
{
    const interruptible handler;
    const auto [fd, other] = local_pair();
    const std::string bytes = pattern(1 << 20);
    std::string got;
    std::thread reader([&, from = other, whom = ::pthread_self()] {
        EXPECT_TRUE(test::eventually([&] {
            int pending = 0;
            return ::ioctl(from, FIONREAD, &pending) == 0 && pending > 0;
        }));
        // The call has begun to fill the buffer, and ends with what it has taken
        ::pthread_kill(whom, SIGUSR1);
        got = read_up_to(from, bytes.size());
    });
    const outcome result = sent(fd, 0, bytes);
    ::shutdown(fd, SHUT_WR);
    reader.join();
    EXPECT_EQ((outcome{0, 1 << 20, ""}), result);
    EXPECT_TRUE(bytes == got);
}

// ---- Receiving ---------------------------------------------------------------------------------

class SocketRecv : public SocketTest {
protected:
    // Behind the bytes received the buffer is as it was.
    static outcome received(int fd, u32 options, int want, const ipport *src = nullptr)
    {
        const size_t room = want > 0 ? static_cast<size_t>(want) : 0;
        std::vector<u8> buf(room + 16, '.');
        const test::fenced<ipport> from(src != nullptr ? *src : ipport{});
        int count = want;
        errno = EIO;
        const int result =
            socket_recv(fd, options, buf.data(), &count,
                        src != nullptr ? static_cast<const ipport *>(from) : nullptr);
        std::string bytes(buf.begin(), buf.end());
        EXPECT_EQ(std::string(16, '.'), bytes.substr(room));
        bytes.resize(room);
        while (!bytes.empty() && bytes.back() == '.') bytes.pop_back();
        return {result, count, bytes};
    }

    // A refusal before anything was tried: traced, the count as it was.
    static void refused(int fd, u32 options, const ipport *src, const std::string &message)
    {
        EXPECT_EQ((outcome{1, 3, ""}), received(fd, options, 3, src));
        EXPECT_EQ((traces{network("socket_recv", message)}), test::trace_log());
    }

    static void put_in(int fd, const std::string &bytes)
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL))
            << std::strerror(errno);
    }

    // Both ends of a datagram conversation, each the other's peer.
    std::pair<int, int> udp_pair()
    {
        const int fd = bound(SOCK_DGRAM);
        const int other = connected(SOCK_DGRAM, port_of(fd));
        const sockaddr_in to = system_address(local_of(other));
        EXPECT_EQ(0, ::connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to));
        return {fd, other};
    }

    static constexpr char recv_error[] = "socket recv error";
};

TEST_F(SocketRecv, StreamFillsTheWholeBuffer)
{
    const auto [fd, other] = tcp_pair();
    const std::string bytes = pattern(1 << 20);
    std::thread writer([&, to = other] {
        for (size_t i = 0; i < bytes.size(); i += 10007) put_in(to, bytes.substr(i, 10007));
    });
    const outcome got = received(fd, 0, 1 << 20);
    writer.join();
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(1 << 20, got.count);
    EXPECT_TRUE(bytes == got.bytes);
}

TEST_F(SocketRecv, StreamGivesNoMoreThanWanted)
{
    const auto [fd, other] = tcp_pair();
    put_in(other, "abcdef");
    EXPECT_EQ((outcome{0, 4, "abcd"}), received(fd, 0, 4));
    EXPECT_EQ((outcome{0, 2, "ef"}), received(fd, 0, 2));
}

TEST_F(SocketRecv, EndOfStreamEndsTheCallSilently)
{
    for (const u32 options : {0U, 0x10000U, 0x40000U, 0xFFFFFFFFU & ~0x20000U}) {
        const auto [fd, other] = tcp_pair();
        put_in(other, "abcd");
        ::shutdown(other, SHUT_WR);
        EXPECT_EQ((outcome{1, 4, "abcd"}), received(fd, options, 10));
        EXPECT_EQ((outcome{1, 0, ""}), received(fd, options, 10));
        EXPECT_EQ((outcome{0, 0, ""}), received(fd, options, 0));
        const auto [local, gone] = local_pair();
        put_in(gone, "xyz");
        close_now(gone);
        EXPECT_EQ((outcome{0, 3, "xyz"}), received(local, options, 3));
        EXPECT_EQ((outcome{1, 0, ""}), received(local, options, 1));
    }
}

TEST_F(SocketRecv, DatagramsFillTheBufferOneAfterAnother)
{
    const auto [fd, other] = udp_pair();
    const ipport src = loopback(18130);
    for (const u32 options : {0U, 0x10000U, 0x40000U, others}) {
        const ipport *from = (options & 0x10000) != 0 ? &src : nullptr;
        for (const char *datagram : {"abc", "", "d", "", "", "efg"}) put_in(other, datagram);
        EXPECT_EQ((outcome{0, 7, "abcdefg"}), received(fd, options, 7, from));
        // What a datagram has more than fits is lost
        for (const char *datagram : {"abc", "defg", "hij"}) put_in(other, datagram);
        EXPECT_EQ((outcome{0, 4, "abcd"}), received(fd, options, 4, from));
        EXPECT_EQ((outcome{0, 3, "hij"}), received(fd, options, 3, from));
    }
}

TEST_F(SocketRecv, DatagramsOfAnySenderComeWithoutAPeer)
{
    const int fd = bound(SOCK_DGRAM);
    const int one = connected(SOCK_DGRAM, port_of(fd));
    const int two = connected(SOCK_DGRAM, port_of(fd));
    // The record is only read, and does not choose the sender
    for (const ipport &src : {ipport{}, at(203, 0, 113, 9, 9), local_of(one)}) {
        put_in(one, "abc");
        put_in(two, "def");
        put_in(one, "ghi");
        EXPECT_EQ((outcome{0, 9, "abcdefghi"}), received(fd, SOCKET_OPT_RECVFROM, 9, &src));
    }
}

TEST_F(SocketRecv, SendersAddressIsNotStoredBeyondItsRoom)
{
    // A local name, far longer than an IPv4 address, with each of several datagrams
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::memset(&name.sun_path[1], 'n', sizeof name.sun_path - 1);
    const int fd = keep(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr *>(&name), sizeof name));
    const int other = keep(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, ::connect(other, reinterpret_cast<sockaddr *>(&name), sizeof name));
    name.sun_path[1] = 'm';
    ASSERT_EQ(0, ::bind(other, reinterpret_cast<sockaddr *>(&name), sizeof name));
    const ipport src = loopback(18134);
    for (const char *datagram : {"abc", "", "def", "ghi"}) put_in(other, datagram);
    const test::watch watch;
    EXPECT_EQ((outcome{0, 9, "abcdefghi"}), received(fd, SOCKET_OPT_RECVFROM, 9, &src));
    std::vector<int> rooms;
    for (const test::call &call : watch.calls("recvfrom")) rooms.push_back(call.flags);
    EXPECT_EQ((std::vector<int>{4, 4, 4, 4}), rooms);
}

TEST_F(SocketRecv, DatagramSocketMustHaveAPeerOrASource)
{
    const int fd = bound(SOCK_DGRAM);
    const ipport src = loopback(18131);
    put_in(connected(SOCK_DGRAM, port_of(fd)), "abc");
    const std::string message = "getsockopt SO_TYPE Error";
    for (const u32 options : {0U, 0x60000U, 0x700U, 0xFFFEFFFFU}) {
        refused(fd, options, nullptr, message);
        refused(fd, options, &src, message);
    }
    for (const int each : {fd, udp_pair().first})
        for (const u32 options : {0x10000U, 0x70000U, 0xFFFFFFFFU})
            refused(each, options, nullptr, message);
    EXPECT_EQ("abc", drained(fd));
}

TEST_F(SocketRecv, WhatIsNoSocketIsRefusedInTheSendersWords)
{
    const ipport src = loopback(18132);
    for (const int fd : {-1, INT_MIN, file(), INT_MAX}) {
        refused(fd, 0, nullptr, "socket send error");
        refused(fd, 0x70000, &src, "socket send error");
    }
    const int fd = udp_pair().first;
    const test::watch watch("getsockopt", 1, ENOBUFS);
    refused(fd, 0, nullptr, "socket send error");
    EXPECT_TRUE(watch.failed());
}

TEST_F(SocketRecv, OtherTypesAreRefusedByNumber)
{
    const ipport src = loopback(18133);
    const int raw = keep(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    const int packets = local_pair(SOCK_SEQPACKET).first;
    for (const u32 options : {0U, 0x70000U}) {
        refused(raw, options, &src, "socket Can't handle SO_TYPE=3");
        refused(packets, options, nullptr, "socket Can't handle SO_TYPE=5");
    }
}

TEST_F(SocketRecv, NothingIsReadForACountThatIsZeroOrNegative)
{
    const auto [fd, other] = udp_pair();
    put_in(other, "abc");
    for (const int want : {0, -1, INT_MIN}) {
        int count = want;
        EXPECT_EQ(0, socket_recv(fd, 0, nullptr, &count, nullptr));
        EXPECT_EQ(0, count) << want;
    }
    EXPECT_EQ("abc", drained(fd));
    int none = 0;
    EXPECT_EQ(1, socket_recv(-1, 0, nullptr, &none, nullptr));
    EXPECT_EQ((traces{network("socket_recv", "socket send error")}), test::trace_log());
}

TEST_F(SocketRecv, PeekingFillsTheBufferWithTheSameBytesAgain)
{
    const auto [stream_fd, stream_other] = tcp_pair();
    const auto [fd, other] = udp_pair();
    put_in(stream_other, "abcd");
    put_in(other, "abcd");
    for (const u32 options : {0x20000U, 0xFFFAFFFFU}) {
        EXPECT_EQ((outcome{0, 10, "abcdabcdab"}), received(stream_fd, options, 10));
        EXPECT_EQ((outcome{0, 10, "abcdabcdab"}), received(fd, options, 10));
        EXPECT_EQ((outcome{0, 3, "abc"}), received(fd, options, 3));
    }
    EXPECT_EQ((outcome{0, 4, "abcd"}), received(stream_fd, 0xFFFDFFFF, 4));
    EXPECT_EQ((outcome{0, 4, "abcd"}), received(fd, 0, 4));
    EXPECT_EQ("", drained(stream_fd));
    EXPECT_EQ("", drained(fd));
}

TEST_F(SocketRecv, WaitingForAllLetsAPeekSeeWhatComesLater)
{
    const auto [fd, other] = tcp_pair();
    put_in(other, "abcd");
    const test::watch watch;
    std::thread later([&, to = other] {  // when the call has begun
        EXPECT_TRUE(test::eventually([&] { return !watch.calls("recvfrom").empty(); }));
        put_in(to, "efgh");
    });
    const outcome got = received(fd, SOCKET_OPT_RECV_PEEK | SOCKET_OPT_RECV_WAITALL, 8);
    later.join();
    EXPECT_EQ((outcome{0, 8, "abcdefgh"}), got);
}

TEST_F(SocketRecv, FailedCallLeavesThePartialCount)
{
    const traces nothing_there = {network("socket_recv", with_errno(recv_error, EAGAIN))};
    const std::pair<int, int> pairs[] = {tcp_pair(), udp_pair(), local_pair()};
    for (const auto &[fd, other] : pairs) {
        ASSERT_EQ(0, ::fcntl(fd, F_SETFL, O_NONBLOCK));
        put_in(other, "abcd");
        EXPECT_EQ((outcome{1, 4, "abcd"}), received(fd, 0, 10));
        EXPECT_EQ(nothing_there, test::trace_log());
        EXPECT_EQ((outcome{1, 0, ""}), received(fd, 0, 10));
        EXPECT_EQ(nothing_there, test::trace_log());
    }
}

TEST_F(SocketRecv, FailedCallIsTracedWithItsError)
{
    // A stream without a peer; a peer that does not exist
    const int fresh = keep(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ((outcome{1, 0, ""}), received(fresh, 0, 3));
    EXPECT_EQ((traces{network("socket_recv", with_errno(recv_error, ENOTCONN))}),
              test::trace_log());
    const int fd = connected(SOCK_DGRAM, 1);
    put_in(fd, "abc");
    EXPECT_EQ((outcome{1, 0, ""}), received(fd, 0, 3));
    EXPECT_EQ((traces{network("socket_recv", with_errno(recv_error, ECONNREFUSED))}),
              test::trace_log());
}

TEST_F(SocketRecv, InterruptionEndsTheCallWithThePartialCount)
{
    for (const u32 options : {0U, 0x40000U}) {
        const auto [fd, other] = tcp_pair();
        put_in(other, "abcd");
        outcome partial{};
        {
            const interruptions interrupted;
            partial = received(fd, options, 10);
        }
        EXPECT_EQ((outcome{1, 4, "abcd"}), partial);
        EXPECT_EQ((traces{network("socket_recv", with_errno(recv_error, EINTR))}),
                  test::trace_log());
    }
}

// ---- Addresses and ports -----------------------------------------------------------------------

class AddressAndPort : public test::silent_test {
protected:
    static constexpr u32 ip_before = 0x5A5A5A5A;
    static constexpr u16 port_before = 0xA5A5;

    static std::string bytes_of(const void *what, size_t size)
    {
        return std::string(static_cast<const char *>(what), size);
    }
};

TEST_F(AddressAndPort, NetworkOrderIsStoredUnchanged)
{
    for (const u32 ip : {0U, 1U, 0x01020304U, 0xC0A80001U, 0xFFFFFFFFU})
        for (const int port : {0, 1, 80, 0x1F90, 0x901F, 0xFFFF}) {
            ipport out{ip_before, port_before};
            EXPECT_EQ(0, ipport_convert_n2n(ip, static_cast<u16>(port), &out));
            EXPECT_EQ(ip, out.ip);
            EXPECT_EQ(port, out.port);
        }
}

TEST_F(AddressAndPort, HostOrderIsConverted)
{
    const struct {
        u32 ip;
        u16 port;
        std::string ip_bytes, port_bytes;
    } cases[] = {
        {0xC0A80001, 8080, {"\300\250\000\001", 4}, {"\037\220", 2}},  // 192.168.0.1, 31 144
        {0x01020304, 0x0506, {"\001\002\003\004", 4}, {"\005\006", 2}},
        {0x7F000001, 80, {"\177\000\000\001", 4}, {"\000\120", 2}},
        {0, 0, {"\000\000\000\000", 4}, {"\000\000", 2}},
        {0xFFFFFFFF, 65535, {"\377\377\377\377", 4}, {"\377\377", 2}},
        {0x000000FF, 256, {"\000\000\000\377", 4}, {"\001\000", 2}},
    };
    for (const auto &row : cases) {
        ipport out{ip_before, port_before};
        EXPECT_EQ(0, ipport_convert_h2n(row.ip, row.port, &out));
        EXPECT_EQ(row.ip_bytes, bytes_of(&out.ip, sizeof out.ip)) << row.ip;
        EXPECT_EQ(row.port_bytes, bytes_of(&out.port, sizeof out.port)) << row.port;
    }
}

TEST_F(AddressAndPort, TextIsParsed)
{
    const struct {
        const char *ip_text;
        std::string ip_bytes;
    } cases[] = {
        {"192.168.0.1", {"\300\250\000\001", 4}}, {"1.2.3.4", {"\001\002\003\004", 4}},
        {"0.0.0.0", {"\000\000\000\000", 4}},     {"255.255.255.255", {"\377\377\377\377", 4}},
        {"10.1", {"\012\000\000\001", 4}},
    };
    for (const auto &row : cases) {
        const test::fenced_text ip_text(row.ip_text);
        ipport out{ip_before, port_before};
        EXPECT_EQ(0, ipport_string_convert_h2n(ip_text, 8080, &out));
        EXPECT_EQ(row.ip_bytes, bytes_of(&out.ip, sizeof out.ip)) << row.ip_text;
        EXPECT_EQ(std::string("\037\220"), bytes_of(&out.port, sizeof out.port));
        out = {ip_before, port_before};
        EXPECT_EQ(0, ipport_string_convert_n2n(ip_text, 0x1234, &out));
        EXPECT_EQ(row.ip_bytes, bytes_of(&out.ip, sizeof out.ip)) << row.ip_text;
        EXPECT_EQ(0x1234, out.port);
    }
}

TEST_F(AddressAndPort, TextThatIsNoAddressLeavesThePort)
{
    for (const char *ip_text : {"300.1.1.1", "", "eth0", "1.2.3.4.5", "255.255.255.256"}) {
        ipport out{ip_before, port_before};
        EXPECT_EQ(1, ipport_string_convert_h2n(ip_text, 80, &out)) << ip_text;
        EXPECT_EQ(port_before, out.port);
        EXPECT_EQ(1, ipport_string_convert_n2n(ip_text, 80, &out)) << ip_text;
        EXPECT_EQ(port_before, out.port);
    }
}

}  // namespace
