// SPDX-License-Identifier: MIT
// Shaping seen from outside: runs inside the guest of uml-run, where a router's interface lan0 gets
// a tree and its rules by the scripts as the library writes them. Packets are then sent through it,
// and the kernel's counters say which class took them and how fast.
//
// Three network namespaces: a client behind the router, the router, and the far end of lan0, which
// never answers, so that nothing but what a test sends leaves by lan0. One thread holds the sockets
// of all three: a socket stays in the namespace that it was made in.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mordel.h"
#include "support.h"

namespace {

using namespace std::chrono_literals;
using monotonic = std::chrono::steady_clock;

constexpr u32 ipv4(u32 a, u32 b, u32 c, u32 d) { return a << 24 | b << 16 | c << 8 | d; }

constexpr u32 far_end = ipv4(10, 1, 0, 2);

// ---- The network --------------------------------------------------------------------------------

class descriptor {
public:
    explicit descriptor(int fd) : fd_(fd) { EXPECT_LE(0, fd) << std::strerror(errno); }
    descriptor(descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    descriptor &operator=(descriptor &&) = delete;
    ~descriptor()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }

private:
    int fd_;
};

descriptor current_namespace()
{
    return descriptor(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
}

// In another namespace until the end of the scope
class within {
public:
    explicit within(const descriptor &space) : home_(current_namespace())
    {
        EXPECT_EQ(0, ::setns(space.get(), CLONE_NEWNET)) << std::strerror(errno);
    }
    within(const within &) = delete;
    within &operator=(const within &) = delete;
    ~within() { EXPECT_EQ(0, ::setns(home_.get(), CLONE_NEWNET)) << std::strerror(errno); }

private:
    descriptor home_;
};

void ip(const std::vector<std::string> &commands)
{
    std::string text;
    for (const std::string &command : commands) text += " '" + command + "'";
    test::shell("printf '%s\\n'" + text + " | ip -batch -");
}

void set_if_known(const std::string &knob, const std::string &value)
{
    std::ofstream(knob, std::ios::in) << value;  // std::ios::in: never makes it
}

// Neighbour discovery and the like would be counted too.
void without_ipv6()
{
    for (const std::string scope : {"all", "default"})
        set_if_known("/proc/sys/net/ipv6/conf/" + scope + "/disable_ipv6", "1");
}

descriptor new_namespace()
{
    const descriptor home = current_namespace();
    EXPECT_EQ(0, ::unshare(CLONE_NEWNET)) << std::strerror(errno);
    without_ipv6();
    descriptor made = current_namespace();
    EXPECT_EQ(0, ::setns(home.get(), CLONE_NEWNET)) << std::strerror(errno);
    return made;
}

class network {
public:
    network() : router(current_namespace()), far(new_namespace()), client(new_namespace())
    {
        without_ipv6();
        const std::string here = "/proc/" + std::to_string(::getpid()) + "/fd/";
        const std::string mac = "02:00:00:00:00:0";
        ip({"link add lan0 txqueuelen 60 address " + mac + "1 type veth peer name far0 address " +
                mac + "2 netns " + here + std::to_string(far.get()),
            "link add home0 address " + mac + "3 type veth peer name client0 address " + mac +
                "4 netns " + here + std::to_string(client.get()),
            "link set lan0 up", "link set home0 up", "addr add 10.1.0.1/24 dev lan0",
            "addr add 10.2.0.1/24 dev home0",
            "neigh add 10.1.0.2 lladdr " + mac + "2 dev lan0 nud permanent",
            "route add 10.1.1.0/24 via 10.1.0.2"});
        // Those that rules name, and one to either side
        std::vector<std::string> more;
        for (const std::string last : {"10", "11", "12", "13", "14"})
            more.push_back("addr add 10.1.0." + last + "/24 dev lan0");
        ip(more);
        std::ofstream("/proc/sys/net/ipv4/ip_forward") << "1";
        {
            // No route back: the far end keeps silent.
            const within there(far);
            ip({"link set far0 up", "addr add 10.1.0.2/32 dev far0"});
        }
        const within there(client);
        ip({"link set client0 up", "addr add 10.2.0.2/24 dev client0",
            "neigh add 10.2.0.1 lladdr " + mac + "3 dev client0 nud permanent",
            "route add default via 10.2.0.1"});
    }

    const descriptor router, far, client;
};

sockaddr_in address(u32 ip, u16 port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(ip);
    a.sin_port = htons(port);
    return a;
}

const sockaddr *generic(const sockaddr_in &a) { return reinterpret_cast<const sockaddr *>(&a); }

void set_option(const descriptor &s, int level, int option, int value)
{
    EXPECT_EQ(0, ::setsockopt(s.get(), level, option, &value, sizeof value))
        << std::strerror(errno);
}

// ---- What the kernel counts ---------------------------------------------------------------------

struct counter {
    std::string kind;  // tc's name for it
    u64 packets = 0;
    u64 dropped = 0;
};

using counters = std::map<u32, counter>;  // by class handle

// What a command prints, standard error included
std::string said_by(const std::string &command, int &status)
{
    std::string all;
    FILE *out = ::popen((command + " 2>&1").c_str(), "r");
    if (out == nullptr) {
        ADD_FAILURE() << command;
        return all;
    }
    std::array<char, 4096> piece{};
    while (std::fgets(piece.data(), piece.size(), out) != nullptr) all += piece.data();
    const int ended = ::pclose(out);
    status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
    return all;
}

std::string said_by(const std::string &command)
{
    int status = -1;
    std::string all = said_by(command, status);
    EXPECT_EQ(0, status) << command << "\n" << all;
    return all;
}

u32 from_hex(const std::string &text) { return static_cast<u32>(std::stoul(text, nullptr, 16)); }

// By tc's name of an object, "1:10" for a class and "100:" for a qdisc; 0 where it is no leaf. A
// leaf qdisc's number is sixteen times that of its class.
u32 leaf_handle(const std::string &object, const std::string &id)
{
    if (object == "qdisc") return id == "1:" ? 0 : from_hex(id) / 16;
    return id.starts_with("1:") && id != "1:" ? from_hex(id.substr(2)) : 0;
}

// Of the leaf classes, or of the leaf qdiscs
counters read_counters(const std::string &object)
{
    counters all;
    counter *at = nullptr;
    std::istringstream in(said_by("tc -s " + object + " show dev lan0"));
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string word;
        std::string kind;
        std::string id;
        words >> word;
        if (word == object) {
            words >> kind >> id;
            const bool inner = object == "class" && line.find(" leaf ") == std::string::npos;
            const u32 handle = inner ? 0 : leaf_handle(object, id);
            at = handle != 0 ? &all[handle] : nullptr;
            if (at != nullptr) at->kind = kind;
        } else if (word == "Sent" && at != nullptr) {  // Sent B bytes P pkt (dropped D, ...
            words >> word >> word >> at->packets;
            words >> word >> word >> at->dropped;
        }
    }
    return all;
}

u64 sum(const counters &all)
{
    u64 packets = 0;
    for (const auto &[handle, one] : all) packets += one.packets;
    return packets;
}

using packet_counts = std::map<u32, u64>;  // by class handle

packet_counts risen(const counters &before, const counters &after)
{
    packet_counts all;
    for (const auto &[handle, one] : after)
        if (one.packets != before.at(handle).packets)
            all[handle] = one.packets - before.at(handle).packets;
    return all;
}

// ---- Trees and rules ----------------------------------------------------------------------------

// Bits of the flags of a match
enum : u32 { m_ip = 1U << 3, m_dscp = 1U << 4, m_length = 1U << 7, m_protocol = 1U << 8 };

enum : u32 { tcp = 0, udp = 1, icmp = 2, both = 3 };

void add_rule(u8 index, u16 handle, u32 flags, const std::function<void(qos_match &)> &fill)
{
    qos_match match{};
    match.flags = flags;
    fill(match);
    qos_target target{};
    target.flags = 1;  // MARK
    target.mark = handle;
    EXPECT_EQ(1, add_qos_rule("lan0", index, &match, &target));
}

void add_port_rule(u8 index, u16 handle, u32 protocol, u16 first, u16 last)
{
    add_rule(index, handle, m_protocol, [=](qos_match &m) {
        m.protocol = protocol;
        m.dport_start = first;
        m.dport_end = last;
    });
}

void add_tree_class(u32 handle, const void *param, const leaf_qdisc &leaf)
{
    EXPECT_EQ(0, add_class("lan0", 1, handle, param, nullptr));
    EXPECT_EQ(0, add_leaf_qdisc("lan0", handle, &leaf));
}

// While the host is busy elsewhere the guest stands still: what a class may send of that time
// afterwards is its burst, in bytes.
constexpr u32 burst = 80000;

void add_htb_class(u32 handle, u32 rate, u32 ceil, const leaf_qdisc &leaf)
{
    const htb_class_param htb = {rate, ceil, burst, burst, 0};
    add_tree_class(handle, &htb, leaf);
}

void add_hfsc_class(u32 handle, u32 upper, u32 service, const leaf_qdisc &leaf)
{
    hfsc_class_param hfsc{};
    hfsc.ul.rate = upper;
    hfsc.sc.rate = service;
    add_tree_class(handle, &hfsc, leaf);
}

leaf_qdisc pfifo(u32 limit)
{
    leaf_qdisc leaf{};
    leaf.param.pfifo = {limit};
    return leaf;
}

leaf_qdisc sfq()
{
    leaf_qdisc leaf{};
    leaf.type = L_SFQ;
    leaf.param.sfq = {10};
    return leaf;
}

leaf_qdisc red()
{
    leaf_qdisc leaf{};
    leaf.type = L_RED;
    leaf.param.red = {15000, 45000, 25, 120000, 1000};
    return leaf;
}

leaf_qdisc tbf(u32 rate)
{
    leaf_qdisc leaf{};
    leaf.type = L_TBF;
    leaf.param.tbf = {200, rate, burst};
    return leaf;
}

// lan0 with a tree, brought up and taken down by the scripts. A test declares between SetUp and
// start(); TearDown takes down, and looks at what is left.
class Traffic : public test::mordel_test {
protected:
    void SetUp() override
    {
        mordel_test::SetUp();
        static_cast<void>(net());
    }

    void start()
    {
        initial_ = state();
        EXPECT_EQ(1, start_qos("lan0"));
        int status = -1;
        std::istringstream said(said_by("/var/tmp/qos_start", status));
        EXPECT_EQ(0, status);
        // tc tells of every RED queue that it took its default bandwidth.
        for (std::string line; std::getline(said, line);)
            EXPECT_EQ("RED: set bandwidth to 10Mbit", line);
        EXPECT_NE(initial_, state());
    }

    void TearDown() override
    {
        EXPECT_EQ(1, stop_qos("lan0"));
        EXPECT_EQ("", said_by("/var/tmp/qos_stop"));
        EXPECT_EQ(initial_, state());
        EXPECT_TRUE(passes()) << "no packet passes once the tree is gone";
        mordel_test::TearDown();
    }

    // One for all tests: the kernel takes its time to clear a network away.
    static const network &net()
    {
        static const network made;
        return made;
    }

private:
    static std::string state()
    {
        return said_by("printf '%s show dev lan0\\n' qdisc class filter | tc -batch -") +
               said_by("iptables -t mangle -S");
    }

    static bool passes()
    {
        const within there(net().far);
        const descriptor in(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_in to = address(far_end, 7);
        EXPECT_EQ(0, ::bind(in.get(), generic(to), sizeof to)) << std::strerror(errno);
        const within home(net().router);
        const descriptor out(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(1, ::sendto(out.get(), "x", 1, 0, generic(to), sizeof to));
        char got = '\0';
        return test::eventually([&] { return ::recv(in.get(), &got, 1, 0) == 1; }) && got == 'x';
    }

    std::string initial_;
};

// ---- Which class --------------------------------------------------------------------------------

// The classes of the tree that counts: one for each rule
enum : u16 {
    c_default = 3,
    c_length = 0x10,
    c_dscp_raw,
    c_dscp_af41,
    c_dscp_cs1,
    c_udp_dport,  // 20
    c_udp_sport,
    c_tcp_dport,
    c_both,
    c_both_two_ends,
    c_icmp,
    c_syn,
    c_source,
    c_destination,
    c_two_addresses,
    c_override,
    c_last = c_override
};

constexpr u8 tcp_syn = 0x02;
constexpr u8 tcp_ack = 0x10;

struct packet {
    int protocol = IPPROTO_UDP;
    u32 src = 0;  // the first octet most significant; 0: the interface's own
    u32 dst = far_end;
    u16 sport = 40000;
    u16 dport = 40000;
    u8 dscp = 0;
    u8 tcp_flags = tcp_ack;
    std::size_t length = 60;  // of the IP packet
};

struct packet_kind {
    const char *what;
    packet p;
    u16 handle;
};

// Raw sockets: their packets are what they are given, with no answer, no second try and no
// handshake. The far end throws them away, for want of a checksum if nothing else.
void send_packets(const packet &p, unsigned count)
{
    const descriptor s(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, p.protocol));
    set_option(s, IPPROTO_IP, IP_TOS, p.dscp << 2);
    if (p.src != 0) {
        const sockaddr_in from = address(p.src, 0);
        ASSERT_EQ(0, ::bind(s.get(), generic(from), sizeof from)) << std::strerror(errno);
    }
    std::vector<u8> body(p.length - 20);
    const auto put16 = [&body](std::size_t at, std::size_t value) {
        body[at] = static_cast<u8>(value >> 8);
        body[at + 1] = static_cast<u8>(value);
    };
    if (p.protocol == IPPROTO_ICMP) {
        body[0] = 8;  // echo request
    } else {
        put16(0, p.sport);
        put16(2, p.dport);
    }
    if (p.protocol == IPPROTO_UDP) put16(4, body.size());
    if (p.protocol == IPPROTO_TCP) {
        body[12] = 5 << 4;  // length of the header, in words
        body[13] = p.tcp_flags;
    }
    const sockaddr_in to = address(p.dst, 0);
    for (unsigned i = 0; i < count; ++i)
        ASSERT_EQ(static_cast<ssize_t>(body.size()),
                  ::sendto(s.get(), body.data(), body.size(), 0, generic(to), sizeof to))
            << std::strerror(errno);
}

class Classes : public Traffic {
protected:
    void declare()
    {
        const u32 speeds[4] = {20000, 20000, 100000, 100000};
        class_root_param root{};
        root.default_class = c_default;
        // Connection marks 100, 300 and 800 have classes of their own, the others one more.
        root.automark = {1,
                         0,
                         {c_length, c_dscp_raw, c_dscp_af41, c_dscp_raw, c_dscp_raw, c_dscp_raw,
                          c_dscp_raw, c_dscp_cs1}};
        EXPECT_EQ(0, add_root_qdisc(speeds, "lan0", R_HTB, &root));
        for (u32 handle = c_length; handle <= c_last; ++handle)
            add_htb_class(handle, 1000, 100000, pfifo(0));
        add_packet_rules();
        add_protocol_rules();
        add_address_rules();
        // The last rule that picks a packet decides.
        add_port_rule(200, c_override, udp, 4005, 4005);
    }

    // Sends packets of a kind from the current namespace; exactly these, in exactly that class.
    void expect_class(const packet_kind &kind)
    {
        SCOPED_TRACE(kind.what);
        constexpr unsigned count = 5;
        send_packets(kind.p, count);
        counters now;
        {
            const within home(net().router);
            for (int i = 0; i < 20; ++i) {
                now = read_counters("class");
                if (sum(now) >= sum(counted) + count) break;
            }
        }
        const packet_counts got = risen(counted, now);
        EXPECT_EQ((packet_counts{{kind.handle, count}}), got);
        std::printf("| %-52s | 1:%-3x |", kind.what, kind.handle);
        for (const auto &[handle, packets] : got)
            std::printf(" %u in 1:%x", static_cast<unsigned>(packets), handle);
        std::printf(" |\n");
        counted = now;
    }

    counters counted;  // up to now

private:
    static void add_packet_rules()
    {
        add_rule(10, c_length, m_length, [](qos_match &m) { m.pkt_len = 600U << 16 | 700U; });
        add_rule(20, c_dscp_raw, m_dscp, [](qos_match &m) { m.dscp_value.raw = 46; });
        for (const auto &[index, handle, id] :
             {std::array<u8, 3>{21, c_dscp_af41, 18}, std::array<u8, 3>{22, c_dscp_cs1, 1}})
            add_rule(index, handle, m_dscp, [id = id](qos_match &m) {
                m.dscp_mode = 1;
                m.dscp_value.class_id = id;
            });
    }

    static void add_protocol_rules()
    {
        add_port_rule(30, c_udp_dport, udp, 4000, 4010);
        add_rule(31, c_udp_sport, m_protocol, [](qos_match &m) {
            m.protocol = udp;
            m.sport_start = 5000;
            m.sport_end = 5010;
        });
        add_port_rule(32, c_tcp_dport, tcp, 4000, 4010);
        add_port_rule(33, c_both, both, 6000, 6010);
        add_rule(34, c_both_two_ends, m_protocol, [](qos_match &m) {
            m.protocol = both;
            m.sport_start = 7000;
            m.sport_end = 7010;
            m.dport_start = 8000;
            m.dport_end = 8000;
        });
        add_rule(35, c_icmp, m_protocol, [](qos_match &m) { m.protocol = icmp; });
        add_rule(36, c_syn, m_protocol, [](qos_match &m) {
            m.protocol = tcp;
            m.tcp_flag_mask = 0x03;  // of SYN and ACK,
            m.tcp_flag_comp = 0x01;  // SYN
        });
    }

    static void add_address_rules()
    {
        add_rule(40, c_source, m_ip, [](qos_match &m) {
            m.src_ip_start = ipv4(10, 1, 0, 11);
            m.src_ip_end = ipv4(10, 1, 0, 13);
        });
        add_rule(41, c_destination, m_ip, [](qos_match &m) {
            m.dst_ip_start = ipv4(10, 1, 1, 20);
            m.dst_ip_end = ipv4(10, 1, 1, 22);
        });
        add_rule(42, c_two_addresses, m_ip, [](qos_match &m) {
            m.src_ip_start = ipv4(10, 1, 0, 11);
            m.src_ip_end = ipv4(10, 1, 0, 12);
            m.dst_ip_start = ipv4(10, 1, 1, 22);
            m.dst_ip_end = ipv4(10, 1, 1, 30);
        });
    }
};

u32 own(u32 last) { return ipv4(10, 1, 0, last); }
u32 beyond(u32 last) { return ipv4(10, 1, 1, last); }

// The ports 21020 and 21153 give marks 20 (a class) and 153.
std::vector<packet_kind> packet_kinds()
{
    return {
        {"nothing that a rule names", {}, c_default},
        {"marked before, with a class", {.dport = 21020}, c_udp_dport},
        {"marked before, with no class", {.dport = 21153}, c_default},
        {"marked before, and picked by a rule", {.dport = 21020, .dscp = 46}, c_dscp_raw},
        {"length 599", {.length = 599}, c_default},
        {"length 600", {.length = 600}, c_length},
        {"length 700", {.length = 700}, c_length},
        {"length 701", {.length = 701}, c_default},
        {"DSCP 45", {.dscp = 45}, c_default},
        {"DSCP 46", {.dscp = 46}, c_dscp_raw},
        {"DSCP 47", {.dscp = 47}, c_default},
        {"DSCP 34 (AF41)", {.dscp = 34}, c_dscp_af41},
        {"DSCP 8 (CS1)", {.dscp = 8}, c_dscp_cs1},
        {"DSCP 36 (AF42)", {.dscp = 36}, c_default},
    };
}

std::vector<packet_kind> protocol_kinds()
{
    return {
        {"UDP to 3999", {.dport = 3999}, c_default},
        {"UDP to 4000", {.dport = 4000}, c_udp_dport},
        {"UDP to 4010", {.dport = 4010}, c_udp_dport},
        {"UDP to 4011", {.dport = 4011}, c_default},
        {"UDP to 4005, a later rule", {.dport = 4005}, c_override},
        {"UDP from 4999", {.sport = 4999}, c_default},
        {"UDP from 5000", {.sport = 5000}, c_udp_sport},
        {"UDP from 5010", {.sport = 5010}, c_udp_sport},
        {"UDP from 5011", {.sport = 5011}, c_default},
        {"UDP from 5005 to 4000: the later rule", {.sport = 5005, .dport = 4000}, c_udp_sport},
        {"TCP to 3999", {.protocol = IPPROTO_TCP, .dport = 3999}, c_default},
        {"TCP to 4000", {.protocol = IPPROTO_TCP, .dport = 4000}, c_tcp_dport},
        {"TCP to 4010", {.protocol = IPPROTO_TCP, .dport = 4010}, c_tcp_dport},
        {"TCP to 4011", {.protocol = IPPROTO_TCP, .dport = 4011}, c_default},
        {"TCP to 6000", {.protocol = IPPROTO_TCP, .dport = 6000}, c_both},
        {"UDP to 6010", {.dport = 6010}, c_both},
        {"UDP to 6011", {.dport = 6011}, c_default},
        {"TCP from 7000 to 8000",
         {.protocol = IPPROTO_TCP, .sport = 7000, .dport = 8000},
         c_both_two_ends},
        {"UDP from 7010 to 8000", {.sport = 7010, .dport = 8000}, c_both_two_ends},
        {"UDP from 7011 to 8000", {.sport = 7011, .dport = 8000}, c_default},
        {"UDP from 7000 to 8001", {.sport = 7000, .dport = 8001}, c_default},
        {"ICMP", {.protocol = IPPROTO_ICMP}, c_icmp},
        {"TCP SYN", {.protocol = IPPROTO_TCP, .tcp_flags = tcp_syn}, c_syn},
        {"TCP SYN and ACK", {.protocol = IPPROTO_TCP, .tcp_flags = tcp_syn | tcp_ack}, c_default},
    };
}

std::vector<packet_kind> address_kinds()
{
    return {
        {"from 10.1.0.10", {.src = own(10)}, c_default},
        {"from 10.1.0.11", {.src = own(11)}, c_source},
        {"from 10.1.0.13", {.src = own(13)}, c_source},
        {"from 10.1.0.14", {.src = own(14)}, c_default},
        {"to 10.1.1.19", {.dst = beyond(19)}, c_default},
        {"to 10.1.1.20", {.dst = beyond(20)}, c_destination},
        {"to 10.1.1.22", {.dst = beyond(22)}, c_destination},
        {"to 10.1.1.23", {.dst = beyond(23)}, c_default},
        {"from 10.1.0.12 to 10.1.1.22", {.src = own(12), .dst = beyond(22)}, c_two_addresses},
        {"from 10.1.0.13 to 10.1.1.30", {.src = own(13), .dst = beyond(30)}, c_source},
        {"from 10.1.0.14 to 10.1.1.30", {.src = own(14), .dst = beyond(30)}, c_default},
    };
}

std::vector<packet_kind> forwarded_kinds()
{
    return {
        {"forwarded: nothing that a rule names", {}, c_default},
        {"forwarded: DSCP 46", {.dscp = 46}, c_dscp_raw},
        {"forwarded: UDP to 4010", {.dport = 4010}, c_udp_dport},
        {"forwarded: UDP to 4005, a later rule", {.dport = 4005}, c_override},
        {"forwarded: to 10.1.1.21", {.dst = beyond(21)}, c_destination},
        {"forwarded: marked before, with a class", {.dport = 21020}, c_udp_dport},
        {"forwarded: connection mark 300", {.dport = 20300}, c_dscp_af41},
        {"forwarded: length 700", {.length = 700}, c_length},
    };
}

// The ports 20100, 20300, ... give connection mark 100, 300, ...
std::vector<packet_kind> connection_kinds()
{
    return {
        {"connection mark 100", {.dport = 20100}, c_length},
        {"connection mark 300", {.dport = 20300}, c_dscp_af41},
        {"connection mark 800", {.dport = 20800}, c_dscp_cs1},
        {"connection mark 900", {.dport = 20900}, c_default},
        {"connection mark 300, and picked by a rule", {.sport = 5000, .dport = 20300}, c_udp_sport},
    };
}

void table_head() { std::printf("\n| packets | class asked | counted |\n|---|---|---|\n"); }

// As another program may have them: chains are walked in order, and lan0's is jumped to last.
void add_foreign_marks()
{
    for (const std::string chain : {"OUTPUT", "FORWARD"}) {
        const std::string add = "iptables -t mangle -A " + chain + " -p udp --dport ";
        for (const std::string mark : {"020", "153"})
            test::shell(add + "21" + mark + " -j MARK --set-mark " +
                        std::to_string(std::stoi(mark)));
        for (const std::string mark : {"100", "300", "800", "900"})
            test::shell(add + "20" + mark + " -j CONNMARK --set-mark " + mark);
    }
}

TEST_F(Classes, TakeTheirPacketsAndNoOthers)
{
    add_foreign_marks();
    declare();
    start();
    counted = read_counters("class");
    ASSERT_EQ(2 + c_last - c_length + 1U, counted.size());
    table_head();
    for (const auto &kinds :
         {packet_kinds(), protocol_kinds(), address_kinds(), connection_kinds()})
        for (const packet_kind &kind : kinds) expect_class(kind);

    const within there(net().client);
    for (const packet_kind &kind : forwarded_kinds()) expect_class(kind);
}

// ---- How fast -----------------------------------------------------------------------------------

// A busy machine lets the guest stand still for a while, and then nothing is sent, passed on or
// taken in. So the rates are low, and a burst makes up for every stand-still that is counted. The
// time around a longer one is left out, and the measurement goes on until it has counted enough.

constexpr u32 offered = 800;    // kbit/s, to every class
constexpr u32 held_rate = 400;  // kbit/s, of every class that is held to a rate of its own
constexpr u32 link_rate = 300;  // kbit/s, which the default user class is held to
constexpr u32 phy_rate = 1000000;

// With its IP and UDP headers and that of Ethernet, which the kernel counts too, 10,000 bits
constexpr std::size_t payload = 1208;
constexpr u64 frame_bits = (payload + 8 + 20 + 14) * 8;

constexpr std::chrono::milliseconds time_of(u32 bytes, u32 rate)
{
    return std::chrono::milliseconds(bytes * 8 / rate);
}

constexpr auto window = 4000ms;      // that is to be counted
constexpr auto longest_gap = 800ms;  // that is counted
static_assert(longest_gap < time_of(burst, held_rate));

// Counting begins and ends after a gap this short: none of what passes was saved up before.
constexpr auto short_gap = 40ms;

// At twice its rate a class has used up its burst in the time in which it was saved up.
constexpr auto settling = time_of(burst, held_rate) + longest_gap;

// A guest that runs so little is not to be measured, and ends the test in red with these figures.
constexpr auto patience = 180s;

struct flow {
    const char *what;
    u16 handle;
    const char *leaf;
    u32 asked;                        // kbit/s; 0: no rate holds it
    std::chrono::milliseconds saved;  // the stand-still that its burst makes up for
};

flow held(const char *what, u16 handle, const char *leaf)
{
    return {what, handle, leaf, held_rate, time_of(burst, held_rate)};
}

// The library's own burst
flow held_to_link(u16 handle, const char *leaf)
{
    return {"default", handle, leaf, link_rate, time_of(6000, link_rate)};
}

flow unheld(const char *what, u16 handle, const char *leaf) { return {what, handle, leaf, 0, {}}; }

// UDP from the router to the far end; each flow has a port of its own.
class stream {
public:
    stream(const network &net, const flow &wanted, u16 port)
        : plan(wanted), to_(address(far_end, port)), in_(receiver(net, to_)), out_(sender())
    {}

    // Sends what has become due since the last call, at most that of a gap that counts. What the
    // socket does not take is not sent later.
    void send(monotonic::duration since_start)
    {
        const u64 due = due_in(since_start);
        const u64 most = due_in(longest_gap);
        if (tried_ + most < due) tried_ = due - most;
        const std::array<char, payload> data{};
        for (; tried_ < due; ++tried_)
            if (::sendto(out_.get(), data.data(), data.size(), MSG_DONTWAIT, generic(to_),
                         sizeof to_) == static_cast<ssize_t>(data.size()))
                ++sent;
    }

    // Whether anything had come
    bool receive()
    {
        const u64 before = received;
        std::array<char, payload + 1> data{};
        while (::recv(in_.get(), data.data(), data.size(), MSG_DONTWAIT) ==
               static_cast<ssize_t>(payload))
            ++received;
        return received != before;
    }

    // From here on
    void mark()
    {
        marked_sent_ = sent;
        marked_received_ = received;
    }

    // What came since the mark
    void count(monotonic::duration time)
    {
        counted_sent += sent - marked_sent_;
        counted_received += received - marked_received_;
        if (plan.asked != 0 && time > plan.saved) lost += time - plan.saved;
    }

    const flow plan;
    u64 sent = 0;
    u64 received = 0;
    u64 counted_sent = 0;
    u64 counted_received = 0;
    monotonic::duration lost{};  // of the time counted, what its burst does not make up for

private:
    static u64 due_in(monotonic::duration time)
    {
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
        return static_cast<u64>(ms) * offered / frame_bits;
    }

    static descriptor receiver(const network &net, const sockaddr_in &at)
    {
        const within there(net.far);
        descriptor s(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        set_option(s, SOL_SOCKET, SO_RCVBUFFORCE, 4 << 20);
        EXPECT_EQ(0, ::bind(s.get(), generic(at), sizeof at)) << std::strerror(errno);
        return s;
    }

    static descriptor sender()
    {
        descriptor s(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        set_option(s, SOL_SOCKET, SO_SNDBUFFORCE, 4 << 20);  // no queue is too long for it
        return s;
    }

    sockaddr_in to_;
    descriptor in_;
    descriptor out_;
    u64 tried_ = 0;
    u64 marked_sent_ = 0;
    u64 marked_received_ = 0;
};

double in_ms(monotonic::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

class Rates : public Traffic {
protected:
    // One flow for each class; that of the default class is picked by no rule.
    void load(const char *tree, u16 default_class, const std::vector<flow> &flows)
    {
        u16 port = first_port;
        for (const flow &f : flows) {
            if (f.handle != default_class)
                add_port_rule(static_cast<u8>(port - first_port), f.handle, udp, port, port);
            streams_.emplace_back(net(), f, port++);
        }
        start();
        const counters classes = read_counters("class");
        const counters leaves = read_counters("qdisc");
        measure();
        drain();
        report(tree, risen(classes, read_counters("class")));
        expect_leaves(leaves, read_counters("qdisc"));
    }

private:
    static constexpr u16 first_port = 9000;

    // The guest's clock goes on while the guest stands still, which shows as a gap in front of the
    // next look at it.
    void measure()
    {
        const auto started = monotonic::now();
        auto counts_from = started + settling;
        auto marked = started;
        for (auto last = started; counted_ < window;) {
            ASSERT_GT(started + patience, last)
                << "the guest stands still too often: counted " << in_ms(counted_) << " ms";
            for (stream &s : streams_) s.send(last - started);
            std::this_thread::sleep_for(1ms);
            for (stream &s : streams_) s.receive();
            const auto now = monotonic::now();
            const auto gap = now - std::exchange(last, now);
            if (gap > longest_gap) counts_from = now + settling;
            if (gap > short_gap) continue;
            if (marked >= counts_from) count(now - marked);
            for (stream &s : streams_) s.mark();
            marked = now;
        }
        std::printf("\n%.0f ms counted of %.0f ms\n", in_ms(counted_), in_ms(marked - started));
    }

    void count(monotonic::duration time)
    {
        for (stream &s : streams_) s.count(time);
        counted_ += time;
    }

    // Until all that waits has arrived
    void drain()
    {
        for (int quiet = 0; quiet < 300; ++quiet) {
            for (stream &s : streams_)
                if (s.receive()) quiet = 0;
            std::this_thread::sleep_for(1ms);
        }
    }

    double rate(u64 packets) const
    {
        return static_cast<double>(packets * frame_bits) / in_ms(counted_);
    }

    void report(const char *tree, const packet_counts &counted)
    {
        std::printf("\n| tree | class | leaf | flow | kbit/s offered | asked | measured | packets |"
                    "\n|---|---|---|---|---|---|---|---|\n");
        packet_counts got;
        for (const stream &s : streams_) {
            const flow &f = s.plan;
            SCOPED_TRACE(f.what);
            const double sent = rate(s.counted_sent);
            const double passed = rate(s.counted_received);
            const u64 packets = counted.contains(f.handle) ? counted.at(f.handle) : 0;
            std::printf("| %-4s | 1:%-2x | %-5s | %-22s | %6.1f | %5s | %6.1f | %5u |\n", tree,
                        f.handle, f.leaf, f.what, sent,
                        f.asked != 0 ? std::to_string(f.asked).c_str() : "-", passed,
                        static_cast<unsigned>(packets));
            const double most = f.asked != 0 ? f.asked : sent;
            EXPECT_NEAR(offered, sent, offered * 0.1);
            EXPECT_GE(most * 1.1, passed);
            EXPECT_LE(most * 0.9 * (1 - s.lost / std::chrono::duration<double>(counted_)), passed);
            got[f.handle] = s.received;
        }
        EXPECT_EQ(got, counted);  // all that a class let pass has arrived, and none by another
    }

    void expect_leaves(const counters &before, const counters &after)
    {
        for (const stream &s : streams_) {
            SCOPED_TRACE(s.plan.what);
            const u32 handle = s.plan.handle;
            ASSERT_TRUE(before.contains(handle) && after.contains(handle));
            const counter &now = after.at(handle);
            EXPECT_EQ(s.plan.leaf, now.kind);
            const u64 dropped = now.dropped - before.at(handle).dropped;
            EXPECT_EQ(s.received, now.packets - before.at(handle).packets);
            EXPECT_EQ(s.sent, s.received + dropped);
            // What is not held has no queue to speak of.
            if (s.plan.asked == 0) { EXPECT_EQ(0U, dropped); }
        }
    }

    std::vector<stream> streams_;
    monotonic::duration counted_{};
};

TEST_F(Rates, OfHtb)
{
    const u32 speeds[4] = {link_rate, link_rate, phy_rate, phy_rate};
    class_root_param root{};
    root.default_class = 3;
    EXPECT_EQ(0, add_root_qdisc(speeds, "lan0", R_HTB, &root));
    add_htb_class(0x10, 100, held_rate, pfifo(50));
    add_htb_class(0x11, held_rate, held_rate, red());
    add_htb_class(0x12, 200, phy_rate, tbf(held_rate));
    load("HTB", root.default_class,
         {unheld("free", 2, "sfq"), held_to_link(3, "pfifo"), held("held by ceil", 0x10, "pfifo"),
          held("held by rate and ceil", 0x11, "red"), held("held by its leaf", 0x12, "tbf")});
}

// No TBF leaf: while it waits, HFSC stops at its class, and the others fall short.
TEST_F(Rates, OfHfsc)
{
    const u32 speeds[4] = {link_rate, link_rate, phy_rate, phy_rate};
    class_root_param root{};
    root.default_class = 3;
    EXPECT_EQ(0, add_root_qdisc(speeds, "lan0", R_HFSC, &root));
    add_hfsc_class(0x10, held_rate, 100, sfq());
    add_hfsc_class(0x11, held_rate, held_rate, red());
    load("HFSC", root.default_class,
         {unheld("free", 2, "sfq"), held_to_link(3, "pfifo"), held("held by ul", 0x10, "sfq"),
          held("held by ul and sc", 0x11, "red")});
}

TEST_F(Rates, OfPrio)
{
    const u32 speeds[4] = {};
    prio_root_param root{};
    root.bands = 4;
    std::memset(root.priomap, 3, sizeof root.priomap);  // what no rule picks: the last band
    EXPECT_EQ(0, add_root_qdisc(speeds, "lan0", R_PRIO, &root));
    const leaf_qdisc leaves[] = {pfifo(0), tbf(held_rate), red(), sfq()};
    for (u32 i = 0; i < std::size(leaves); ++i)
        EXPECT_EQ(0, add_leaf_qdisc("lan0", i + 1, &leaves[i]));
    load("PRIO", 4,
         {unheld("free", 1, "pfifo"), held("held by its leaf", 2, "tbf"),
          unheld("free, behind it", 3, "red"), unheld("default", 4, "sfq")});
}

}  // namespace
