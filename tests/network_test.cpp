// SPDX-License-Identifier: MIT
// Interface queries: of veth pairs, and of counter files made up.
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_link.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "faults.h"
#include "fence.h"
#include "support.h"

namespace fs = std::filesystem;

namespace {

using counters = std::vector<u64>;
using mac_address = std::array<u8, 6>;

counters in_order(const if_rxtx &c)
{
    return {c.rx_bytes,      c.rx_packets,   c.rx_errs,    c.rx_drop,      c.rx_fifo, c.rx_frame,
            c.rx_compressed, c.rx_multicast, c.tx_bytes,   c.tx_packets,   c.tx_errs, c.tx_drop,
            c.tx_fifo,       c.tx_colls,     c.tx_carrier, c.tx_compressed};
}

// Hands on what the kernel tells of an interface by another way than the library's.
void ask_kernel(const std::string &ifname, const std::function<void(const ifaddrs &)> &tell)
{
    struct ifaddrs *all = nullptr;
    ASSERT_EQ(0, ::getifaddrs(&all));
    for (const auto *at = all; at != nullptr; at = at->ifa_next)
        if (at->ifa_name == ifname && at->ifa_addr != nullptr &&
            at->ifa_addr->sa_family == AF_PACKET)
            tell(*at);
    ::freeifaddrs(all);
}

counters kernel_counters(const std::string &ifname)
{
    counters found;
    ask_kernel(ifname, [&](const ifaddrs &at) {
        rtnl_link_stats s;
        std::memcpy(&s, at.ifa_data, sizeof s);
        found = {s.rx_bytes,
                 s.rx_packets,
                 s.rx_errors,
                 s.rx_dropped + s.rx_missed_errors,
                 s.rx_fifo_errors,
                 s.rx_length_errors + s.rx_over_errors + s.rx_crc_errors + s.rx_frame_errors,
                 s.rx_compressed,
                 s.multicast,
                 s.tx_bytes,
                 s.tx_packets,
                 s.tx_errors,
                 s.tx_dropped,
                 s.tx_fifo_errors,
                 s.collisions,
                 s.tx_carrier_errors + s.tx_aborted_errors + s.tx_window_errors +
                     s.tx_heartbeat_errors,
                 s.tx_compressed};
    });
    return found;
}

mac_address kernel_mac(const std::string &ifname)
{
    mac_address mac{};
    ask_kernel(ifname, [&](const ifaddrs &at) {
        sockaddr_ll link;
        std::memcpy(&link, at.ifa_addr, sizeof link);
        std::memcpy(mac.data(), link.sll_addr, mac.size());
    });
    return mac;
}

// An address as it lies in memory in network byte order.
u32 address(u8 a, u8 b, u8 c, u8 d)
{
    const u8 bytes[] = {a, b, c, d};
    u32 ip;
    std::memcpy(&ip, bytes, sizeof ip);
    return ip;
}

// Sends frames of a protocol that nobody knows through an interface, which is up.
void send_frames(const char *ifname, int count, size_t size)
{
    const int fd = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_LE(0, fd);
    struct sockaddr_ll to {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(0x88B5);
    to.sll_ifindex = static_cast<int>(::if_nametoindex(ifname));
    to.sll_halen = 6;
    std::memset(to.sll_addr, 0xFF, 6);
    const std::string frame(size, 'f');
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(static_cast<ssize_t>(size),
                  ::sendto(fd, frame.data(), size, 0, reinterpret_cast<sockaddr *>(&to), sizeof to))
            << std::strerror(errno);
    ::close(fd);
}

class InterfaceQuery : public test::silent_test {
protected:
    void SetUp() override
    {
        silent_test::SetUp();
        descriptors_ = test::open_descriptors();
    }

    void TearDown() override
    {
        EXPECT_EQ(descriptors_, test::open_descriptors());
        for (const auto &name : made_) test::shell("ip link del " + name);
        silent_test::TearDown();
    }

    // A veth pair, for the length of the test. `first` comes first in the counter file.
    void make_pair(const std::string &first, const std::string &second)
    {
        test::shell("ip link add " + second + " type veth peer name " + first);
        made_.push_back(first);
    }

private:
    size_t descriptors_ = 0;
    std::vector<std::string> made_;
};

// ---- Counters ----------------------------------------------------------------------------------

const std::string two_lines =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop"
    " fifo colls carrier compressed\n";

constexpr char numbers[] = " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n";
const counters one_to_sixteen = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

// The first n of 1, 2 ... 16; the rest 0.
counters first(size_t n)
{
    counters some = one_to_sixteen;
    for (size_t i = n; i < some.size(); ++i) some[i] = 0;
    return some;
}

// A counter file instead of the kernel's, while it lives. The entry itself cannot be covered: the
// kernel looks it up anew each time. Its directory can.
class counter_file {
public:
    counter_file()
    {
        fs::create_directory(directory_);
        EXPECT_EQ(0, ::mount(directory_, "/proc/self/net", nullptr, MS_BIND, nullptr))
            << std::strerror(errno);
    }
    explicit counter_file(const std::string &text) : counter_file()
    {
        test::write_file(path, text);
    }
    ~counter_file()
    {
        EXPECT_EQ(0, ::umount2("/proc/self/net", MNT_DETACH)) << std::strerror(errno);
        fs::remove_all(directory_);
    }
    counter_file(const counter_file &) = delete;
    counter_file &operator=(const counter_file &) = delete;

    static constexpr char path[] = "/var/tmp/net/dev";

private:
    static constexpr char directory_[] = "/var/tmp/net";
};

class InterfaceCounters : public InterfaceQuery {
protected:
    // What a query that must have `result` leaves in a record that held 0xEE everywhere.
    static counters queried(const std::string &ifname, int result = 0)
    {
        struct {
            if_rxtx out;
            u64 behind;
        } record;
        std::memset(static_cast<void *>(&record), 0xEE, sizeof record);
        const test::fenced_text name(ifname);
        errno = EINTR;
        EXPECT_EQ(result, get_rxtx_by_ifname(name, &record.out)) << ifname;
        EXPECT_EQ(0xEEEEEEEEEEEEEEEEU, record.behind);
        return in_order(record.out);
    }

    static counters untouched()
    {
        if_rxtx record;
        std::memset(static_cast<void *>(&record), 0xEE, sizeof record);
        return in_order(record);
    }

    // `asked` finds the counters of `meant`, which may be growing.
    static void expect_counters(const std::string &meant, const std::string &asked)
    {
        counters expected;
        counters got;
        (void)test::eventually([&] {
            expected = kernel_counters(meant);
            got = queried(asked);
            return expected == got;
        });
        EXPECT_EQ(expected, got) << asked;
        EXPECT_EQ(16U, expected.size());
        EXPECT_LT(0U, expected.at(0));
    }
};

TEST_F(InterfaceCounters, OfRealInterfacesAreTheKernels)
{
    make_pair("wan", "lan");
    test::shell("ip link set wan up && ip link set lan up");
    // A link that has just come up may drop a first few.
    EXPECT_TRUE(test::eventually([] {
        send_frames("wan", 3, 100);
        send_frames("lan", 5, 1000);
        return kernel_counters("wan").at(8) >= 300 && kernel_counters("lan").at(8) >= 5000;
    }));
    expect_counters("wan", "wan");
    expect_counters("lan", "lan");
    EXPECT_LE(5U * 1000, queried("wan")[0]);
    EXPECT_LE(3U * 100, queried("wan")[8]);
}

TEST_F(InterfaceCounters, NameFindsTheFirstLineThatContainsIt)
{
    make_pair("veth0", "eth0");
    const std::string file = test::read_file("/proc/net/dev");
    ASSERT_LT(file.find(" veth0:"), file.find(" eth0:"));
    ASSERT_NE(std::string::npos, file.find(" eth0:"));
    test::shell("ip link set veth0 up && ip link set eth0 up");
    send_frames("veth0", 2, 200);
    send_frames("eth0", 7, 700);
    EXPECT_NE(kernel_counters("veth0"), kernel_counters("eth0"));
    expect_counters("veth0", "eth0");
    expect_counters("veth0", "veth0");
}

TEST_F(InterfaceCounters, EachColumnHasItsField)
{
    const counter_file file(two_lines +
                            "    lo: 90 91 92 93 94 95 96 97 98 99 89 88 87 86 85 84\n"
                            "  eth0:     101 102    103 104\t105 106 107 108 109 110 111 112 113 "
                            "114 115        116\n"
                            "  eth1:" +
                            std::string(numbers));
    const counters expected = {101, 102, 103, 104, 105, 106, 107, 108,
                               109, 110, 111, 112, 113, 114, 115, 116};
    EXPECT_EQ(expected, queried("eth0"));
    if_rxtx c{};
    EXPECT_EQ(0, get_rxtx_by_ifname("eth0", &c));
    EXPECT_EQ(101U, c.rx_bytes);
    EXPECT_EQ(108U, c.rx_multicast);
    EXPECT_EQ(109U, c.tx_bytes);
    EXPECT_EQ(116U, c.tx_compressed);
    EXPECT_EQ(one_to_sixteen, queried("eth1"));
}

TEST_F(InterfaceCounters, NameIsSoughtInTheWholeLine)
{
    const counter_file file(two_lines + "  veth0:1 2 3 4 5 6 7 8 9 10 11 12 13 14 777 16\n" +
                            "   eth0: 21\n eth0.1: 31\n777:41\n last: 51 52");
    const counters veth0 = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 777, 16};
    const struct {
        const char *ifname;
        counters expected;
    } found[] = {
        {"veth0", veth0},
        {"eth0", veth0},
        {"eth0:", veth0},
        {"777", veth0},
        {"", veth0},
        {" eth0", {21, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"eth0.1", {31, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"777:", {41, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"last", {51, 52, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {" 4 5 6 7 8 9 10 11 12 ", veth0},  // 16 characters and more, too
    };
    for (const auto &row : found) EXPECT_EQ(row.expected, queried(row.ifname)) << row.ifname;
    for (const char *ifname : {"eth1", "ETH0", "veth0 ", "lo", "face", "bytes", "eth0:9"})
        EXPECT_EQ(first(0), queried(ifname, 1)) << ifname;
}

TEST_F(InterfaceCounters, FieldsThatTheLineDoesNotReachAreZero)
{
    const std::string all = numbers;
    for (size_t n = 0, end = 0; n <= 16; ++n) {
        SCOPED_TRACE(n);
        const std::string some = all.substr(0, end);
        for (const char *rest : {"\n", "", " x 7 7 7\n", " : 7 7\n"}) {
            const counter_file file(two_lines + "  eth0:" + some + rest);
            EXPECT_EQ(first(n), queried("eth0")) << rest;
        }
        end = all.find_first_of(" \n", end + 1);
    }
}

TEST_F(InterfaceCounters, CountersAreWhatFollowsTheFirstColon)
{
    const struct {
        const char *line;
        counters expected;
    } cases[] = {
        {"eth0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n", first(0)},
        {"99 eth0 98:1 2 3\n", first(3)},
        {"  eth0:1: 7 7 7\n", first(1)},
        {"1 2 3: eth0 4 5\n", first(0)},
        {":1 2 eth0\n", first(2)},
        {"eth0: 01 002 3 4 05 6 0x7 8\n", {1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"eth0: 010 08 09\n", {10, 8, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto &row : cases) {
        const counter_file file(two_lines + row.line + "eth0: 70 71\n");
        EXPECT_EQ(row.expected, queried("eth0")) << row.line;
    }
}

TEST_F(InterfaceCounters, CounterThatIsTooLargeLeavesItsNeighboursAlone)
{
    constexpr u64 values[] = {0xFFFFFFFF, u64{1} << 32, (u64{1} << 32) + 5,
                              (u64{7} << 61) + 0x89ABCDEF, ~u64{0}};
    for (const u64 value : values)
        for (size_t i = 0; i < 16; ++i) {
            SCOPED_TRACE(i);
            std::string line = "eth0:";
            for (size_t n = 0; n < 16; ++n) line += " " + std::to_string(n == i ? value : n + 1);
            const counter_file file(two_lines + line + "\n");
            const bool wide = i == 0 || i == 1 || i == 8 || i == 9;
            counters expected = one_to_sixteen;
            expected[i] = wide ? value : value & 0xFFFFFFFF;
            EXPECT_EQ(expected, queried("eth0")) << value;
        }
}

// Line i of a router's counter file: the wide columns above 2^32, the others up to their last
// value.
std::string port_name(u64 i) { return "port" + std::to_string(1000 + i); }

counters port_counters(u64 i)
{
    counters all;
    for (u64 n = 0; n < 16; ++n) {
        const bool wide = n == 0 || n == 1 || n == 8 || n == 9;
        all.push_back(wide ? ((i + 1) << 32) * (n + 1) + 0x01020304 : 0xFFFFFFFF - 16 * i - n);
    }
    return all;
}

TEST_F(InterfaceCounters, OfAThousandInterfacesAreEachItsOwn)
{
    constexpr u64 ports = 1000;
    std::string text = two_lines;
    for (u64 i = 0; i < ports; ++i) {
        text += port_name(i) + ":";
        for (const u64 value : port_counters(i)) text += " " + std::to_string(value);
        text += "\n";
    }
    const counter_file file(text);
    for (const u64 i : {u64{0}, ports / 2, ports - 1})
        EXPECT_EQ(port_counters(i), queried(port_name(i))) << port_name(i);
    EXPECT_EQ(first(0), queried(port_name(ports), 1));

    // Once by hand: the bytes sent of the last one
    if_rxtx last{};
    EXPECT_EQ(0, get_rxtx_by_ifname("port1999", &last));
    EXPECT_EQ(4294967296000U + 16909060U, last.rx_bytes);
    EXPECT_EQ(38654705664000U + 16909060U, last.tx_bytes);
    EXPECT_EQ(4294951296U, last.tx_compressed);
}

TEST_F(InterfaceCounters, FirstTwoLinesAreNoInterfaces)
{
    const std::string line = "eth0: 70 71\n";
    const struct {
        std::string file;
        int result;
        counters expected;
    } cases[] = {
        {"", 1, first(0)},
        {line, 1, first(0)},
        {line + line, 1, first(0)},
        {two_lines, 1, first(0)},
        {"\n\n", 1, first(0)},
        {line + line + "eth0:" + numbers, 0, one_to_sixteen},
        {"\n\neth0:" + std::string(numbers), 0, one_to_sixteen},
        {two_lines + "\n\n  lo: 5\n\neth0:" + numbers, 0, one_to_sixteen},
    };
    for (const auto &row : cases) {
        const counter_file file(row.file);
        EXPECT_EQ(row.expected, queried("eth0", row.result)) << row.file;
    }
}

TEST_F(InterfaceCounters, LinesArePiecesOfAtMost255Characters)
{
    std::string line = "eth0: 1 2";
    line.resize(253, ' ');
    const counter_file file(two_lines + line + "34" + "56 eth7 3\n" + "eth1:" + numbers);
    EXPECT_EQ((counters{1, 2, 34, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), queried("eth0"));
    EXPECT_EQ(first(0), queried("eth7"));  // found, and no colon
    EXPECT_EQ(first(0), queried("3456", 1));
    EXPECT_EQ(one_to_sixteen, queried("eth1"));
}

TEST_F(InterfaceCounters, HeaderLineOf255CharactersIsOneLineAndALongerOneTwo)
{
    const struct {
        size_t length;  // without the line feed
        size_t reached;
    } cases[] = {{254, 3}, {255, 2}, {509, 2}, {510, 2}};
    for (const auto &row : cases) {
        const counter_file file(std::string(row.length, '-') +
                                "\neth0: 1 2\neth0: 1 2 3\neth0: 1\n");
        EXPECT_EQ(first(row.reached), queried("eth0")) << row.length;
    }
}

TEST_F(InterfaceCounters, FileThatCannotBeOpenedLeavesTheRecord)
{
    {
        const test::watch watch("fopen", 1, EACCES);
        EXPECT_EQ(untouched(), queried("lo", 1));
        EXPECT_EQ(EACCES, errno);
        EXPECT_TRUE(watch.failed());
    }
    const counter_file none;
    EXPECT_EQ(untouched(), queried("lo", 1));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(InterfaceCounters, FileThatCannotBeReadHasNoLines)
{
    const counter_file file;
    fs::create_directory(counter_file::path);
    EXPECT_EQ(first(0), queried("", 1));
}

TEST_F(InterfaceCounters, FileIsOpenedOnceAndCloseOnExec)
{
    for (const char *ifname : {"lo", "none0"}) {
        const test::watch watch;
        (void)queried(ifname, ifname[0] == 'l' ? 0 : 1);
        const auto opened = watch.calls("fopen");
        ASSERT_EQ(1U, opened.size());
        EXPECT_EQ("/proc/net/dev re", opened[0].text);
        EXPECT_EQ(0U, watch.calls("socket").size());
    }
}

// ---- Addresses ---------------------------------------------------------------------------------

using answer = std::array<u8, 8>;

constexpr answer nothing = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
constexpr mac_address old_mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr mac_address new_mac = {0x06, 0xFE, 0xDC, 0xBA, 0x98, 0x76};

answer answered(u32 ip)
{
    answer out = nothing;
    std::memcpy(out.data(), &ip, sizeof ip);
    return out;
}

answer answered(const mac_address &mac)
{
    answer out = nothing;
    std::memcpy(out.data(), mac.data(), mac.size());
    return out;
}

template <int (*get)(const char *, u32 *)>
int get_address(const char *ifname, answer &out)
{
    u32 value;
    std::memcpy(&value, out.data(), sizeof value);
    const int result = get(ifname, &value);
    std::memcpy(out.data(), &value, sizeof value);
    return result;
}

int get_mac(const char *ifname, answer &out) { return get_mac_by_ifname(ifname, out.data(), 6); }

int set_mac(const char *ifname, answer &)
{
    const test::fenced_bytes mac(new_mac.data(), new_mac.size());
    return set_mac_by_ifname(ifname, reinterpret_cast<const u8 *>(mac.data()));
}

// The five that ask the kernel, with the requests that each makes.
const struct {
    const char *name;
    int (*ask)(const char *ifname, answer &out);
    std::vector<int> requests;
} queries[] = {
    {"ip", get_address<get_ip_by_ifname>, {SIOCGIFADDR}},
    {"mask", get_address<get_mask_by_ifname>, {SIOCGIFNETMASK}},
    {"bcast", get_address<get_bcast_by_ifname>, {SIOCGIFBRDADDR}},
    {"mac", get_mac, {SIOCGIFHWADDR}},
    {"set mac", set_mac, {SIOCGIFHWADDR, SIOCSIFHWADDR}},
};

std::vector<int> requests_of(const test::watch &watch)
{
    std::vector<int> requests;
    for (const auto &call : watch.calls("ioctl")) requests.push_back(call.flags);
    return requests;
}

class InterfaceAddress : public InterfaceQuery {
protected:
    // The pair veth0 and eth0, with addresses and without.
    void SetUp() override
    {
        InterfaceQuery::SetUp();
        make_pair("veth0", "eth0");
        test::shell("ip addr add 10.1.2.3/20 broadcast 10.1.15.254 dev eth0");
        test::shell("ip link set eth0 address 02:11:22:33:44:55");
    }

    static answer asked(int (*ask)(const char *, answer &), const std::string &ifname,
                        int result = 0)
    {
        answer out = nothing;
        const test::fenced_text name(ifname);
        errno = EINTR;
        EXPECT_EQ(result, ask(name, out)) << ifname;
        return out;
    }
};

TEST_F(InterfaceAddress, IsTheOneThatTheInterfaceHas)
{
    make_pair("abcdefghijklmno", "lan");
    test::shell("ip addr add 192.168.77.200/30 broadcast 192.168.77.203 dev veth0");
    test::shell("ip addr add 10.200.0.1/24 broadcast 10.200.0.255 label eth0:7 dev eth0");
    test::shell("ip addr add 172.16.5.6/32 dev abcdefghijklmno");
    test::shell("ip addr add 1.0.0.255/1 broadcast 127.255.255.255 dev lan && ip link set lan up");
    const struct {
        const char *ifname;
        u32 ip, mask, bcast;
    } cases[] = {
        {"eth0", address(10, 1, 2, 3), address(255, 255, 240, 0), address(10, 1, 15, 254)},
        {"veth0", address(192, 168, 77, 200), address(255, 255, 255, 252),
         address(192, 168, 77, 203)},
        {"eth0:7", address(10, 200, 0, 1), address(255, 255, 255, 0), address(10, 200, 0, 255)},
        {"abcdefghijklmno", address(172, 16, 5, 6), address(255, 255, 255, 255), 0},
        {"lan", address(1, 0, 0, 255), address(128, 0, 0, 0), address(127, 255, 255, 255)},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.ifname);
        EXPECT_EQ(answered(row.ip), asked(get_address<get_ip_by_ifname>, row.ifname));
        EXPECT_EQ(answered(row.mask), asked(get_address<get_mask_by_ifname>, row.ifname));
        EXPECT_EQ(answered(row.bcast), asked(get_address<get_bcast_by_ifname>, row.ifname));
    }
    EXPECT_EQ(answered(address(127, 0, 0, 1)), asked(get_address<get_ip_by_ifname>, "lo"));
    EXPECT_EQ(answered(address(255, 0, 0, 0)), asked(get_address<get_mask_by_ifname>, "lo"));
}

TEST_F(InterfaceAddress, IsAskedOnOneRawSocketThatIsClosed)
{
    for (const auto &query : queries) {
        SCOPED_TRACE(query.name);
        const test::watch watch;
        (void)asked(query.ask, "eth0");
        const auto opened = watch.calls("socket");
        ASSERT_EQ(1U, opened.size());
        EXPECT_EQ(SOCK_RAW | SOCK_CLOEXEC, opened[0].flags);
        EXPECT_EQ("255", opened[0].text);  // IPPROTO_RAW
        EXPECT_EQ(query.requests, requests_of(watch));
        for (const auto &call : watch.calls("ioctl")) EXPECT_EQ(opened[0].fd, call.fd);
        const auto closed = watch.calls("close");
        ASSERT_EQ(1U, closed.size());
        EXPECT_EQ(opened[0].fd, closed[0].fd);
        EXPECT_EQ(0U, watch.calls("fopen").size());
    }
}

// What the stack held before must not reach the kernel, which would read an address family there.
TEST_F(InterfaceAddress, RequestIsZeroBehindTheName)
{
    const auto soil_the_stack = [] {
        volatile char soil[8192];
        for (volatile char &byte : soil) byte = '\x02';  // AF_INET is 0x0002 or 0x0200
    };
    for (const auto &query : queries) {
        SCOPED_TRACE(query.name);
        const test::watch watch;
        answer out = nothing;
        soil_the_stack();
        EXPECT_EQ(0, query.ask("eth0", out));
        const auto requests = watch.calls("ioctl");
        ASSERT_FALSE(requests.empty());
        std::string expected(sizeof(struct ifreq), '\0');
        expected.replace(0, 4, "eth0");
        EXPECT_EQ(expected, requests[0].text);
    }
}

TEST_F(InterfaceAddress, FailureOfAnyStepChangesNothing)
{
    for (const auto &query : queries) {
        SCOPED_TRACE(query.name);
        {
            const test::watch watch("socket", 1, EPERM);
            EXPECT_EQ(nothing, asked(query.ask, "eth0", 1));
            EXPECT_EQ(EPERM, errno);
            EXPECT_EQ(0U, watch.calls("ioctl").size() + watch.calls("close").size());
        }
        for (int n = 1; n <= static_cast<int>(query.requests.size()); ++n) {
            const test::watch watch("ioctl", n, ENXIO);
            EXPECT_EQ(nothing, asked(query.ask, "eth0", 1));
            EXPECT_EQ(ENXIO, errno);
            EXPECT_TRUE(watch.failed());
            EXPECT_EQ(static_cast<size_t>(n), watch.calls("ioctl").size());
            EXPECT_EQ(1U, watch.calls("close").size());
        }
        EXPECT_EQ(old_mac, kernel_mac("eth0"));
    }
}

TEST_F(InterfaceAddress, FailedCloseIsNeitherReportedNorRetried)
{
    const struct {
        int (*ask)(const char *, answer &);
        answer expected;
    } cases[] = {
        {get_address<get_ip_by_ifname>, answered(address(10, 1, 2, 3))},
        {get_address<get_mask_by_ifname>, answered(address(255, 255, 240, 0))},
        {get_address<get_bcast_by_ifname>, answered(address(10, 1, 15, 254))},
        {get_mac, answered(old_mac)},
        {set_mac, nothing},
    };
    for (const auto &row : cases) {
        std::vector<test::call> closed;
        {
            const test::watch watch("close", -1, EINTR);
            EXPECT_EQ(row.expected, asked(row.ask, "eth0"));
            closed = watch.calls("close");
        }
        ASSERT_EQ(1U, closed.size());
        EXPECT_EQ(0, ::close(closed[0].fd));
    }
}

TEST_F(InterfaceAddress, UnknownNameIsRefusedByTheKernel)
{
    for (const auto &query : queries)
        for (const char *ifname : {"none0", "eth", "eth00", "ETH0", "", "eth0\n"}) {
            SCOPED_TRACE(query.name);
            EXPECT_EQ(nothing, asked(query.ask, ifname, 1));
            EXPECT_EQ(ENODEV, errno) << ifname;
        }
}

TEST_F(InterfaceAddress, NameOfSixteenCharactersIsRefusedBeforeAnyRequest)
{
    make_pair("abcdefghijklmno", "lan");
    test::shell("ip addr add 172.16.5.6/24 broadcast + dev abcdefghijklmno");
    const mac_address before = kernel_mac("abcdefghijklmno");
    for (const auto &query : queries)
        for (const std::string &ifname :
             {std::string("abcdefghijklmnop"), std::string("abcdefghijklmnopq"),
              "eth0" + std::string(12, '\t'), std::string(5000, 'x')}) {
            SCOPED_TRACE(query.name);
            const test::watch watch;
            EXPECT_EQ(nothing, asked(query.ask, ifname, 1));
            EXPECT_EQ(0U, watch.calls("ioctl").size());
            EXPECT_EQ(watch.calls("socket").size(), watch.calls("close").size());
        }
    EXPECT_EQ(before, kernel_mac("abcdefghijklmno"));
}

TEST_F(InterfaceAddress, InterfaceWithoutOneFails)
{
    for (const auto &query : queries) {
        if (query.requests[0] == SIOCGIFHWADDR) continue;
        SCOPED_TRACE(query.name);
        EXPECT_EQ(nothing, asked(query.ask, "veth0", 1));
        EXPECT_EQ(EADDRNOTAVAIL, errno);
    }
    EXPECT_EQ(answered(kernel_mac("veth0")), asked(get_mac, "veth0"));
}

TEST_F(InterfaceAddress, HardwareAddressIsSixBytesWhateverTheRoom)
{
    for (const u32 size : {6U, 7U, 8U, 0x80000000U, 0xFFFFFFFFU}) {
        answer out = nothing;
        EXPECT_EQ(0, get_mac_by_ifname("eth0", out.data(), size));
        EXPECT_EQ(answered(old_mac), out) << size;
    }
    for (const u32 size : {0U, 1U, 5U}) {
        const test::watch watch;
        answer out = nothing;
        EXPECT_EQ(1, get_mac_by_ifname("eth0", out.data(), size));
        EXPECT_EQ(nothing, out) << size;
        EXPECT_EQ(0U, watch.calls("socket").size());
    }
    EXPECT_EQ(answered(mac_address{}), asked(get_mac, "lo"));
}

TEST_F(InterfaceAddress, HardwareAddressIsChanged)
{
    for (const char *state : {"down", "up"}) {
        SCOPED_TRACE(state);
        test::shell(std::string("ip link set eth0 address 02:11:22:33:44:55 && ip link set eth0 ") +
                    state);
        ASSERT_EQ(old_mac, kernel_mac("eth0"));
        EXPECT_EQ(nothing, asked(set_mac, "eth0"));
        EXPECT_EQ(new_mac, kernel_mac("eth0"));
        EXPECT_EQ(answered(new_mac), asked(get_mac, "eth0"));
    }
}

TEST_F(InterfaceAddress, HardwareAddressOfNoEthernetIsNotWritten)
{
    const test::watch watch;
    EXPECT_EQ(nothing, asked(set_mac, "lo", 1));
    EXPECT_EQ((std::vector<int>{SIOCGIFHWADDR}), requests_of(watch));
    EXPECT_EQ(1U, watch.calls("close").size());
    EXPECT_EQ(mac_address{}, kernel_mac("lo"));
}

TEST_F(InterfaceAddress, HardwareAddressThatTheKernelRefusesFails)
{
    const u8 group[] = {0x01, 0x00, 0x5E, 0x00, 0x00, 0x01};
    EXPECT_EQ(1, set_mac_by_ifname("eth0", group));
    EXPECT_EQ(EADDRNOTAVAIL, errno);
    EXPECT_EQ(old_mac, kernel_mac("eth0"));
}

TEST_F(InterfaceAddress, ThreadsAskWithoutDisturbingEachOther)
{
    test::shell("ip addr add 192.168.77.200/30 dev veth0");
    const counter_file file(two_lines + "eth0:" + numbers + " veth0: 1 2\n");
    std::atomic<int> wrong = 0;
    const auto ask = [&](const char *ifname, u32 ip, const counters &expected) {
        for (int i = 0; i < 100; ++i) {
            u32 got = 0;
            if (get_ip_by_ifname(ifname, &got) != 0 || got != ip) ++wrong;
            if_rxtx out{};
            if (get_rxtx_by_ifname(ifname, &out) != 0 || in_order(out) != expected) ++wrong;
        }
    };
    std::thread other(ask, "eth0", address(10, 1, 2, 3), one_to_sixteen);
    ask("veth0", address(192, 168, 77, 200), first(2));
    other.join();
    EXPECT_EQ(0, wrong.load());
}

// ---- What never succeeds -----------------------------------------------------------------------

TEST_F(InterfaceAddress, FixedFailuresDoNothing)
{
    u32 value = 0xEEEEEEEE;
    const test::watch watch;
    EXPECT_EQ(1, set_ip_by_ifname("eth0", address(10, 1, 2, 4)));
    EXPECT_EQ(1, set_mask_by_ifname("eth0", address(255, 0, 0, 0)));
    EXPECT_EQ(1, set_bcast_by_ifname("eth0", address(10, 1, 2, 255)));
    EXPECT_EQ(1, get_mtu_by_ifname("eth0", &value));
    EXPECT_EQ(1, set_mtu_by_ifname("eth0", 1400));
    EXPECT_EQ(1, set_ip_by_ifname(nullptr, 0));
    EXPECT_EQ(1, set_mask_by_ifname(nullptr, 0));
    EXPECT_EQ(1, set_bcast_by_ifname(nullptr, 0));
    EXPECT_EQ(1, get_mtu_by_ifname(nullptr, nullptr));
    EXPECT_EQ(1, set_mtu_by_ifname(nullptr, 0));
    EXPECT_EQ(0U, watch.calls("socket").size() + watch.calls("fopen").size());
    EXPECT_EQ(0U, watch.calls().size());
    EXPECT_EQ(0xEEEEEEEE, value);
    EXPECT_EQ(answered(address(10, 1, 2, 3)), asked(get_address<get_ip_by_ifname>, "eth0"));
}

class InterfaceOfAddress : public InterfaceAddress {
protected:
    // Looks an address up, in vain; the buffer of 16 stays as it was.
    static void look_up(u32 ip, u32 size = 16)
    {
        char name[16];
        std::memset(name, 'x', sizeof name);
        EXPECT_EQ(1, get_ifname_by_ip(ip, name, size));
        EXPECT_EQ(std::string(16, 'x'), std::string(name, sizeof name));
    }
};

TEST_F(InterfaceOfAddress, IsNeverFound)
{
    for (const u32 ip : {address(10, 1, 2, 3), address(127, 0, 0, 1), address(10, 9, 9, 9), 0U,
                         0xEEEEEEEEU, 0xFFFFFFFFU})
        for (const u32 size : {16U, 5U, 4U, 0U}) look_up(ip, size);
    EXPECT_EQ(1, get_ifname_by_ip(address(127, 0, 0, 1), nullptr, 0));
}

TEST_F(InterfaceOfAddress, IsNotFoundWhateverTheFileHolds)
{
    for (const std::string &text :
         {std::string(), two_lines, two_lines + "\n \t\n:\n::\n    lo: 1 2 3\n  eth0:" + numbers,
          two_lines + "lo\neth0\n", two_lines + "  lo",
          two_lines + "eth0:", two_lines + std::string(5000, ' ') + "lo: 1\n",
          two_lines + std::string(255, ' ') + "lo", two_lines + std::string(5000, 'x')}) {
        SCOPED_TRACE(text);
        const counter_file file(text);
        look_up(address(127, 0, 0, 1));
        look_up(address(10, 1, 2, 3));
    }
    const counter_file file;
    look_up(address(127, 0, 0, 1));
    fs::create_directory(counter_file::path);
    look_up(address(127, 0, 0, 1));
}

TEST_F(InterfaceOfAddress, FailuresOnTheWayLeakNothing)
{
    for (const char *function : {"fopen", "socket", "ioctl"}) {
        SCOPED_TRACE(function);
        const test::watch watch(function, -1, ENFILE);
        look_up(address(127, 0, 0, 1));
        const auto opened = watch.calls("fopen");
        ASSERT_EQ(1U, opened.size());
        EXPECT_EQ("/proc/net/dev re", opened[0].text);
    }
}

TEST_F(InterfaceOfAddress, FileIsReadToItsEnd)
{
    // More than a pipe holds, so that writing all of it takes a reader
    constexpr size_t lines = 5000;
    const std::string line = "  eth0:" + std::string(numbers);
    const counter_file file;
    ASSERT_EQ(0, ::mkfifo(counter_file::path, 0600));
    std::atomic<size_t> written = 0;
    std::thread writer([&] {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        const int fd = ::open(counter_file::path, O_WRONLY | O_CLOEXEC);
        while (written < lines &&
               ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()))
            ++written;
        ::close(fd);
    });
    look_up(address(127, 0, 0, 1));
    ::close(::open(counter_file::path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));  // should it still wait
    writer.join();
    EXPECT_EQ(lines, written.load());
}

}  // namespace
