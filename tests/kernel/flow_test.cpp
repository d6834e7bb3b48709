// SPDX-License-Identifier: MIT
// What a change in place leaves alone, against a real kernel: the classes, packets and counters of
// a tree that it does not touch, and the counters of rules.
#include <arpa/inet.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "transaction.h"

namespace {

using namespace guest;
using monotonic = std::chrono::steady_clock;

// ---- Many classes -------------------------------------------------------------------------------

string many_classes(const string &name, unsigned last)
{
    string text =
        "[[interface]]\nname = \"" + name +
        "\"\nroot = \"htb\"\nphy_tx = \"2gbit\"\nlink_tx = \"1gbit\"\n"
        "default_tree = false\ndefault = 0\nclass = [\n  { handle = 1, rate = \"2gbit\" },\n";
    for (unsigned i = 2; i <= last; ++i)
        text += "  { handle = " + std::to_string(i) + ", rate = \"" + std::to_string(1000 + i) +
                "kbit\" },\n";
    return text + "]\n";
}

double seconds_since(monotonic::time_point then)
{
    return std::chrono::duration<double>(monotonic::now() - then).count();
}

TEST(InPlace, OneClassMoreAmongTwoThousandIsOneClassOneLeafOneFilter)
{
    const string q = make_interface();
    const auto begin = monotonic::now();
    apply_file(policy_file(many_classes(q, 2001)));
    const auto built = monotonic::now();
    send(q, 500, 4);
    apply_file(policy_file(many_classes(q, 2002)));
    const double more = seconds_since(built);
    std::printf("2,001 classes built in %.1f s; one more in %.1f s\n", seconds_since(begin) - more,
                more);
    const lines all = changes();
    ASSERT_EQ(3U, all.size()) << joined(all, "\n").substr(0, 500);
    EXPECT_TRUE(has(all[0], "tc class add dev " + q) && has(all[0], "classid 1:0x7d2 ")) << all[0];
    EXPECT_TRUE(has(all[1], "tc qdisc add dev " + q) && has(all[1], "parent 1:0x7d2 ")) << all[1];
    EXPECT_TRUE(has(all[2], "tc filter add dev " + q) && has(all[2], "classid 1:0x7d2")) << all[2];
    auto now = counters_of(q);
    EXPECT_EQ(2002U, now.size());
    EXPECT_EQ(4U, now["1:1f4"].packets);
    apply_file(policy_file(many_classes(q, 2001)));
    const lines back = changes();
    ASSERT_LE(2U, back.size());
    ASSERT_GE(3U, back.size()) << joined(back, "\n").substr(0, 500);
    EXPECT_EQ(2001U, counters_of(q).size());
}

// ---- A flow -------------------------------------------------------------------------------------

constexpr unsigned flow_port = 5001;
constexpr unsigned packets_a_second = 1200;  // of 1,042 bytes: 10 Mbit/s

// A veth pair; its far end is in a namespace of its own and answers nothing.
void make_flow_interface()
{
    by_hand("ip netns add far;"
            "ip link add flow0 txqueuelen 1000 address 02:00:00:00:00:01 type veth peer name far0 "
            "address 02:00:00:00:00:02 netns far;"
            "ip addr add 10.8.0.1/24 dev flow0; ip link set flow0 up;"
            "ip -n far addr add 10.8.0.2/24 dev far0; ip -n far link set far0 up;"
            "ip neigh replace 10.8.0.2 lladdr 02:00:00:00:00:02 dev flow0 nud permanent");
    interfaces.emplace_back("flow0");
}

sockaddr_in far_address()
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(flow_port);
    to.sin_addr.s_addr = htonl(0x0a080002);
    return to;
}

// 10 Mbit/s as long as it lives. A guest that stood still sends afterwards what it owes.
class flow {
public:
    flow() : receiver_([this] { receive(); })
    {
        EXPECT_TRUE(comes_true([this] { return listening_.load(); }));
        sender_ = std::thread([this] { send(); });
    }
    flow(const flow &) = delete;
    flow &operator=(const flow &) = delete;
    ~flow() { end(); }

    unsigned sent() const { return sent_; }
    unsigned received() const { return received_; }

    // What still waits in the classes is waited for.
    void end()
    {
        if (!sender_.joinable()) return;
        ending_ = true;
        sender_.join();
        (void)comes_true([this] { return received() == sent(); }, 10);
        ended_ = true;
        receiver_.join();
    }

private:
    void send()
    {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const sockaddr_in to = far_address();
        const string body(1000, 'x');
        const auto begin = monotonic::now();
        while (!ending_) {
            const auto due = static_cast<unsigned>(seconds_since(begin) * packets_a_second);
            for (; sent_ < due && !ending_; ++sent_)
                (void)::sendto(fd, body.data(), body.size(), 0,
                               reinterpret_cast<const sockaddr *>(&to), sizeof to);
            (void)::usleep(1000);
        }
        (void)::close(fd);
    }

    void receive()
    {
        const int space = ::open("/run/netns/far", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(0, ::setns(space, CLONE_NEWNET));
        (void)::close(space);
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const int room = 64 << 20;
        (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
        const timeval patience{0, 100000};
        (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        const sockaddr_in here = far_address();
        EXPECT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof here));
        listening_ = true;
        std::array<char, 2048> packet{};
        while (!ended_)
            if (::recv(fd, packet.data(), packet.size(), 0) == 1000) ++received_;
        (void)::close(fd);
    }

    std::atomic<bool> listening_{false}, ending_{false}, ended_{false};
    std::atomic<unsigned> sent_{0}, received_{0};
    std::thread receiver_, sender_;
};

// The flow's class has a little more than it needs, so that a packet or two always wait in it; its
// queue takes all that a guest owes that stood still.
string flow_policy(unsigned fallback, unsigned more_classes)
{
    string text = R"([[interface]]
name = "flow0"
root = "htb"
phy_tx = "1gbit"
link_tx = "500mbit"
default = )" + std::to_string(fallback) +
                  R"(
class = [
  { handle = 0x10, rate = "12mbit", burst = 1600, cburst = 1600, )"
                  R"(leaf = { type = "pfifo", limit = 20000 } },
)";
    for (unsigned i = 0; i < more_classes; ++i)
        text += "  { handle = " + std::to_string(0x100 + i) + ", rate = \"100kbit\" },\n";
    return text +
           "]\nrule = [{ index = 1, match = { protocol = \"udp\", dport = 5001 }, target = { mark "
           "= 0x10 } }]\n";
}

struct seen {
    unsigned sent, lost, counted;
};

// The flow while one file after the other is applied
seen during(const lines &files)
{
    flow f;
    (void)::usleep(200000);
    for (const string &file : files) apply_file(file);
    (void)::usleep(200000);
    f.end();
    return {f.sent(), f.sent() - f.received(), counters_of("flow0")["1:10"].packets};
}

void print(const char *what, const seen &s)
{
    std::printf("%s: %u packets sent, %u lost, %u counted by the class\n", what, s.sent, s.lost,
                s.counted);
}

TEST(InPlace, AFlowThroughAnUntouchedClassLosesNothing)
{
    make_flow_interface();
    const string few = policy_file(flow_policy(3, 0));
    const string many = policy_file(flow_policy(3, 100));
    apply_file(few);
    const seen in_place = during({many, few, many});
    print("100 classes come, go and come, in place", in_place);
    EXPECT_LT(packets_a_second / 10, in_place.sent);
    EXPECT_EQ(0U, in_place.lost);
    EXPECT_EQ(in_place.sent, in_place.counted);

    const string other_default = policy_file(flow_policy(0x10, 0));
    apply_file(few);
    const seen rebuilt = during({other_default, few});
    print("another default class and back, built anew", rebuilt);
    // Counters begin again with a new tree: otherwise the first figures prove nothing.
    EXPECT_GT(rebuilt.sent, rebuilt.counted);
    by_hand("ip netns del far");
}

// ---- Rules --------------------------------------------------------------------------------------

void send_dscp(const string &name, int dscp, int count)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int tos = dscp << 2;
    ASSERT_EQ(0, ::setsockopt(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos));
    ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name.c_str(), 4));
    sockaddr_in to = far_address();
    to.sin_addr.s_addr =
        htonl(0x0a090002U | (static_cast<std::uint32_t>(std::stoul(name.substr(1))) << 8));
    for (int i = 0; i < count; ++i)
        (void)::sendto(fd, "x", 1, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    (void)::close(fd);
}

// The packets that a rule with this text has counted; -1: there is none.
int packets_of(const string &rule, const string &chain)
{
    for (const string &line : lines_of(run({"iptables", "-w", "-t", "mangle", "-vS", chain}).out)) {
        const std::size_t at = line.find(" -c ");
        if (has(line, rule) && at != string::npos) return std::atoi(line.c_str() + at + 4);
    }
    return -1;
}

// dscp 46, 10 and 12 have counted 7, 5 and 3 packets; those that are not expected do not matter.
void expect_counted(const string &q, const std::map<string, int> &wanted_packets)
{
    for (const auto &[rule, packets] : wanted_packets)
        EXPECT_EQ(packets, packets_of(rule, "QOS_" + q)) << rule;
    EXPECT_EQ(15, packets_of("-o " + q + " ", "OUTPUT"));
}

unsigned loads()
{
    unsigned count = 0;
    for (const json &call : calls())
        if (call["name"] == "iptables-restore" && !call["elsewhere"].get<bool>() &&
            !holds(call["words"].get<lines>(), "--test"))
            ++count;
    return count;
}

TEST(Rules, ThatStayKeepTheirCounters)
{
    const struct {
        const char *what, *from, *to;
        std::map<string, int> counted;
    } edits[] = {
        {"one more",
         "rule = [",
         "rule = [\n  { index = 15, match = { length = 99 }, target = { mark = 0x11 } },",
         {{"0x2e", 7}, {"0x0a", 5}, {"0x0c", 3}, {"--length 99", 0}}},
        {"one moved", "index = 15", "index = 25", {{"0x2e", 7}, {"0x0a", 5}, {"0x0c", 3}}},
        {"one changed",
         "match = { length = 99 }",
         "match = { length = 98 }",
         {{"0x2e", 7}, {"0x0a", 5}, {"0x0c", 3}, {"--length 98", 0}, {"--length 99", -1}}},
        {"one removed",
         "  { index = 20, match = { dscp = 10 }, target = { mark = 0x11 } },\n",
         "",
         {{"0x2e", 7}, {"0x0a", -1}, {"0x0c", 3}}},
        {"the last before the first", "index = 30", "index = 5", {{"0x2e", 7}}},
    };
    const string q = make_interface();
    string text = for_interface(two_classes, q);
    apply_file(policy_file(text));
    send_dscp(q, 46, 7);
    send_dscp(q, 10, 5);
    send_dscp(q, 12, 3);
    expect_counted(q, {{"0x2e", 7}, {"0x0a", 5}, {"0x0c", 3}});
    for (const auto &e : edits) {
        SCOPED_TRACE(e.what);
        ASSERT_TRUE(has(text, e.from));
        text = replaced(text, e.from, e.to);
        apply_file(policy_file(text));
        EXPECT_EQ(1U, loads());
        expect_counted(q, e.counted);
    }
}

}  // namespace
