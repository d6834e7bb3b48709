// SPDX-License-Identifier: MIT
// Rules rendered as iptables command lines, and the lines that keep an interface's two chains.
#include <cstring>
#include <string_view>

#include "support.h"
#include "tarnic_iptables.h"

namespace {

using mordel::draw_rule;
using mordel::draw_target;
using mordel::get_tcp_flag_str;
using test::put;
using test::traced;
using test::traces;

const traced protocol_seen = {"tarnic_iptables", "draw_rule", "get QF_PROTOCOL match type"};
const traced log_seen = {"tarnic_iptables", "draw_target", "LOG target not implement!!"};
const traced sched_missing = {"tarnic_iptables", "get_sched_str", "schedule index not found!!"};

traced no_schedule_behind(size_t length)
{
    return {"tarnic_iptables", "draw_rule",
            "match buffer is too small or index not found, schedule string doesn't attach 1024 " +
                std::to_string(length) + "!!"};
}

class Rendering : public test::mordel_test {};

// No match kind in force and MARK as its one target, yet every field filled: what no flag asks for
// must not show.
qos_rule full_rule()
{
    qos_rule rule{};
    rule.match = test::full_match();
    rule.target.flags = 1U << mordel::target_mark;
    rule.target.mark = 0x10;
    rule.target.kind = 1;
    rule.target.value.raw = 21;
    rule.target.vlan_prio = 6;
    rule.target.vlan_id = 200;
    rule.target.log = 1;
    return rule;
}

// A rule of exactly these match kinds, MARK 0x10.
qos_rule matching(u32 flags)
{
    qos_rule rule = full_rule();
    rule.match.flags = flags;
    return rule;
}

std::string drawn(const qos_rule &rule, u32 action = 0, const char *ifname = "eth0")
{
    return test::written(
        [&](FILE *out) { EXPECT_EQ(1, draw_rule(out, &rule, action, "QOS_", ifname)); });
}

constexpr u32 bit(unsigned n) { return 1U << n; }

const std::string add_eth0 = "iptables -t mangle -A QOS_eth0 ";
const std::string mark_16 = "-j MARK --set-mark 0x10 \n";
const std::string tcp_text = "-p tcp --sport 1024:65535 --dport 80:443 "
                             "--tcp-flag SYN,ACK,FIN,RST,URG,PSH, ACK, ";

// The line of full_rule() with these protocol and match pieces.
std::string marked(const std::string &pieces, const std::string &ifname = "eth0")
{
    return "iptables -t mangle -A QOS_" + ifname + " " + pieces + mark_16;
}

// ---- TCP flags ---------------------------------------------------------------------------------

TEST_F(Rendering, TcpFlagsKeepTheirLastComma)
{
    const std::pair<int, const char *> cases[] = {
        {0x00, ""},
        {0x01, "SYN,"},
        {0x02, "ACK,"},
        {0x03, "SYN,ACK,"},
        {0x04, "FIN,"},
        {0x08, "RST,"},
        {0x10, "URG,"},
        {0x20, "PSH,"},
        {0x29, "SYN,RST,PSH,"},
        {0x3f, "SYN,ACK,FIN,RST,URG,PSH,"},
        {0x40, ""},
        {0x80, ""},
        {0xc2, "ACK,"},
        {0xff, "SYN,ACK,FIN,RST,URG,PSH,"},
    };
    for (const auto &[flags, text] : cases) {
        SCOPED_TRACE(flags);
        std::string buf(48, '#');
        get_tcp_flag_str(buf.data(), static_cast<u8>(flags));
        std::string cleared = text;
        cleared.resize(32, '\0');  // 32 bytes are cleared, none behind them
        EXPECT_EQ(cleared + std::string(16, '#'), buf);
    }
}

// ---- Targets -----------------------------------------------------------------------------------

// What draw_target makes of a buffer of '#': the text, zeroes up to 1024, nothing behind that.
std::string target_text(u32 kind, const qos_target &target, u32 size = 1024)
{
    std::string buf(1024 + 64, '#');
    const u32 length = draw_target(kind, buf.data(), size, &target);
    std::string text(buf, 0, buf.find('\0'));
    EXPECT_EQ(text.size(), length);
    EXPECT_EQ(text + std::string(1024 - text.size(), '\0') + std::string(64, '#'), buf);
    return text;
}

TEST_F(Rendering, MarkTargets)
{
    const std::pair<int, const char *> cases[] = {
        {0, "-j MARK --set-mark 0x0 "},         {3, "-j MARK --set-mark 0x3 "},
        {0x10, "-j MARK --set-mark 0x10 "},     {0xabcd, "-j MARK --set-mark 0xabcd "},
        {0xffff, "-j MARK --set-mark 0xffff "},
    };
    qos_target target = full_rule().target;
    for (const auto &[mark, text] : cases) {
        target.mark = static_cast<u16>(mark);
        EXPECT_EQ(text, target_text(0, target));
    }
}

TEST_F(Rendering, TosTargets)
{
    struct {
        u32 tos;
        int precedence;
        const char *text;
    } const cases[] = {
        {16, 0, "-j TOS --set-tos Minimize-Delay --set-precedence 0 "},
        {8, 1, "-j TOS --set-tos Maximize-Throughput --set-precedence 1 "},
        {4, 7, "-j TOS --set-tos Maximize-Reliability --set-precedence 7 "},
        {2, 128, "-j TOS --set-tos Minimize-Cost --set-precedence 128 "},
        {0, 255, "-j TOS --set-tos Normal-Service --set-precedence 255 "},
        {1, 2, "-j TOS --set-tos Unknown --set-precedence 2 "},
        {256 + 16, 2, "-j TOS --set-tos Unknown --set-precedence 2 "},
        {0xffffffff, 2, "-j TOS --set-tos Unknown --set-precedence 2 "},
    };
    qos_target target = full_rule().target;
    for (const auto &c : cases) {
        target.kind = c.tos;
        target.value.class_id = 0;
        target.value.raw = static_cast<u8>(c.precedence);
        EXPECT_EQ(c.text, target_text(1, target));
    }
}

TEST_F(Rendering, DscpTargets)
{
    qos_target target = full_rule().target;
    const std::pair<int, const char *> numbers[] = {{0, "-j DSCP --set-dscp 0x0 "},
                                                    {46, "-j DSCP --set-dscp 0x2e "},
                                                    {255, "-j DSCP --set-dscp 0xff "}};
    target.kind = 0;
    for (const auto &[raw, text] : numbers) {
        target.value.class_id = 0xa5a5a5a5;
        target.value.raw = static_cast<u8>(raw);
        EXPECT_EQ(text, target_text(2, target));
    }
    const char *const names[] = {"CS0",  "CS1",  "CS2",  "CS3",  "CS4",  "CS5",  "CS6",    "CS7",
                                 "BE",   "AF11", "AF12", "AF13", "AF21", "AF22", "AF23",   "AF31",
                                 "AF32", "AF33", "AF41", "AF42", "AF43", "EF",   "Unknown"};
    target.kind = 1;
    for (u32 id = 0; id < 23; ++id) {
        target.value.class_id = id;
        EXPECT_EQ("-j DSCP --set-dscp " + std::string(names[id]) + " ", target_text(2, target));
    }
    target.value.class_id = 256 + 21;  // all 32 bits count
    EXPECT_EQ("-j DSCP --set-dscp Unknown ", target_text(2, target));
    for (const u32 kind : {2U, 3U, 256U, 0xffffffffU}) {
        target.kind = kind;
        EXPECT_EQ("", target_text(2, target));
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Rendering, TosAndDscpTargetsShareKindAndValue)
{
    qos_target target{};
    target.kind = 0;
    target.value.raw = 46;
    EXPECT_EQ("-j TOS --set-tos Normal-Service --set-precedence 46 ", target_text(1, target));
    EXPECT_EQ("-j DSCP --set-dscp 0x2e ", target_text(2, target));
    target.kind = 1;
    target.value.class_id = 0x15151515;
    EXPECT_EQ("-j TOS --set-tos Unknown --set-precedence 21 ", target_text(1, target));
    EXPECT_EQ("-j DSCP --set-dscp Unknown ", target_text(2, target));
    target.kind = 2;
    EXPECT_EQ("-j TOS --set-tos Minimize-Cost --set-precedence 21 ", target_text(1, target));
    EXPECT_EQ("", target_text(2, target));
}

TEST_F(Rendering, VlanTargets)
{
    struct {
        int id, prio, twice;
        const char *text;
    } const cases[] = {
        {200, 6, 0, "-j MKVLAN --set-vlan-id 200 --set-vlan-prio 6   "},  // one tag: a blank more
        {200, 6, 1, "-j MKVLAN --set-vlan-id 200 --set-vlan-prio 6 --double "},
        {0, 0, 0, "-j MKVLAN --set-vlan-id 0 --set-vlan-prio 0   "},
        {65535, 255, 255, "-j MKVLAN --set-vlan-id 65535 --set-vlan-prio 255 --double "},
    };
    qos_target target = full_rule().target;
    for (const auto &c : cases) {
        target.vlan_id = static_cast<u16>(c.id);
        target.vlan_prio = static_cast<u8>(c.prio);
        target.vlan_double = static_cast<u8>(c.twice);
        for (const int reserved : {0, 255}) {
            target.reserved = static_cast<u8>(reserved);
            EXPECT_EQ(c.text, target_text(3, target));
        }
    }
}

TEST_F(Rendering, LogAndUnknownTargetsHaveNoText)
{
    qos_target target = full_rule().target;
    for (const int log : {0, 1}) {
        target.log = static_cast<u8>(log);
        EXPECT_EQ("", target_text(4, target));
        EXPECT_EQ((traces{log_seen}), test::console());
    }
    for (const u32 kind : {5U, 6U, 256U, 0x80000000U, 0xffffffffU})
        EXPECT_EQ("", target_text(kind, target));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Rendering, TargetsClearTheirWholeBufferWhateverTheSize)
{
    const qos_target target = full_rule().target;
    for (const u32 size : {0U, 1U, 10U, 1023U, 1025U, 0xffffffffU}) {
        SCOPED_TRACE(size);
        EXPECT_EQ("-j MARK --set-mark 0x10 ", target_text(0, target, size));
        EXPECT_EQ("", target_text(4, target, size));
        EXPECT_EQ("", target_text(5, target, size));
    }
}

// ---- Rules: prefix and targets -----------------------------------------------------------------

TEST_F(Rendering, ARuleWithoutMatchesIsPrefixAndTarget)
{
    EXPECT_EQ("iptables -t mangle -A QOS_eth0 -j MARK --set-mark 0x10 \n", drawn(matching(0)));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Rendering, ActionsBeginTheLine)
{
    const std::pair<u32, const char *> cases[] = {
        {0, "-A"},      {1, "-D"},        {2, "Unknown"},
        {7, "Unknown"}, {256, "Unknown"}, {0xffffffff, "Unknown"},
    };
    for (const auto &[action, text] : cases)
        EXPECT_EQ(std::string("iptables -t mangle ") + text + " QOS_eth0 " + mark_16,
                  drawn(matching(0), action));
}

TEST_F(Rendering, ChainNamesAreNeverCut)
{
    for (const std::string &ifname : {std::string(), std::string(31, 'i'), std::string(200, 'n'),
                                      std::string(5000, 'x'), std::string("%s%n%d")})
        EXPECT_EQ(marked("", ifname), drawn(matching(0), 0, ifname.c_str()));
    const qos_rule rule = matching(0);
    EXPECT_EQ("iptables -t mangle -D Xeth0 " + mark_16, test::written([&](FILE *out) {
                  EXPECT_EQ(1, draw_rule(out, &rule, 1, "X", "eth0"));
              }));
}

TEST_F(Rendering, EachTargetKindIsALineOfItsOwn)
{
    struct {
        u32 flags;
        const char *targets[4];
    } const cases[] = {
        {bit(0), {"-j MARK --set-mark 0x10 "}},
        {bit(1), {"-j TOS --set-tos Unknown --set-precedence 0 "}},
        {bit(2), {"-j DSCP --set-dscp CS0 "}},
        {bit(3), {"-j MKVLAN --set-vlan-id 200 --set-vlan-prio 6   "}},
        {bit(4), {}},
        {0x1f,
         {"-j MARK --set-mark 0x10 ", "-j TOS --set-tos Unknown --set-precedence 0 ",
          "-j DSCP --set-dscp CS0 ", "-j MKVLAN --set-vlan-id 200 --set-vlan-prio 6   "}},
        {0x0c, {"-j DSCP --set-dscp CS0 ", "-j MKVLAN --set-vlan-id 200 --set-vlan-prio 6   "}},
        {0, {}},
        {0xffffffe0, {}},
    };
    struct {
        u32 match_flags, protocol;
        std::vector<std::string> before_target;
    } const shapes[] = {
        {bit(2), 0, {add_eth0 + "-m mac --mac-source 00:11:22:33:44:55 "}},
        {bit(2) | bit(8), 2, {add_eth0 + "-p icmp -m mac --mac-source 00:11:22:33:44:55 "}},
        {bit(2) | bit(8),
         3,
         {add_eth0 + tcp_text + "-m mac --mac-source 00:11:22:33:44:55 ",
          add_eth0 + "-p udp --sport 1024:65535 --dport 80:443 "
                     "-m mac --mac-source 00:11:22:33:44:55 "}},
    };
    for (const auto &shape : shapes) {
        for (const auto &c : cases) {
            SCOPED_TRACE(testing::Message() << shape.before_target[0] << c.flags);
            qos_rule rule = matching(shape.match_flags);
            rule.match.protocol = shape.protocol;
            rule.target.flags = c.flags;
            rule.target.value.class_id = 0;
            rule.target.kind = 1;
            std::string lines;
            for (const char *target : c.targets)
                for (const std::string &before : shape.before_target)
                    if (target != nullptr) lines += before + target + "\n";
            EXPECT_EQ(lines, drawn(rule));
            traces expected(shape.match_flags >> 8, protocol_seen);
            if ((c.flags & bit(4)) != 0) expected.push_back(log_seen);
            EXPECT_EQ(expected, test::console());
        }
    }
}

TEST_F(Rendering, BothProtocolsWithTwoTargetsAreFourLines)
{
    qos_rule rule{};
    rule.match.flags = bit(8);
    rule.match.protocol = 3;
    rule.target.flags = bit(0) | bit(2);
    rule.target.mark = 2;
    rule.target.value.raw = 10;
    EXPECT_EQ("iptables -t mangle -A QOS_eth0 -p tcp -j MARK --set-mark 0x2 \n"
              "iptables -t mangle -A QOS_eth0 -p udp -j MARK --set-mark 0x2 \n"
              "iptables -t mangle -A QOS_eth0 -p tcp -j DSCP --set-dscp 0xa \n"
              "iptables -t mangle -A QOS_eth0 -p udp -j DSCP --set-dscp 0xa \n",
              drawn(rule));
}

TEST_F(Rendering, ADscpTargetOfUnknownKindIsNoLine)
{
    qos_rule rule = matching(0);
    rule.target.kind = 2;
    rule.target.value.raw = 3;
    rule.target.flags = bit(0) | bit(1) | bit(2);
    const std::string tos = "-j TOS --set-tos Minimize-Cost --set-precedence 3 \n";
    EXPECT_EQ(add_eth0 + mark_16 + add_eth0 + tos, drawn(rule));
}

// ---- Rules: protocols --------------------------------------------------------------------------

TEST_F(Rendering, ProtocolsByTheirNumber)
{
    const std::pair<u32, std::vector<std::string>> cases[] = {
        {mordel::proto_tcp, {tcp_text}},
        {mordel::proto_udp, {"-p udp --sport 1024:65535 --dport 80:443 "}},
        {mordel::proto_icmp, {"-p icmp "}},
        {mordel::proto_both, {tcp_text, "-p udp --sport 1024:65535 --dport 80:443 "}},
        {mordel::proto_all, {"-p all "}},
    };
    for (u32 protocol = 0; protocol < 5; ++protocol) {
        SCOPED_TRACE(protocol);
        EXPECT_EQ(protocol, cases[protocol].first);
        qos_rule rule = matching(bit(8));
        rule.match.protocol = protocol;
        std::string lines;
        for (const std::string &text : cases[protocol].second) lines += marked(text);
        EXPECT_EQ(lines, drawn(rule));
        EXPECT_EQ((traces{protocol_seen}), test::console());  // once, for both too
    }
}

TEST_F(Rendering, InvalidProtocolsRenderNothing)
{
    for (const u32 protocol : {5U, 6U, 255U, 256U, 0x80000000U, 0xffffffffU}) {
        SCOPED_TRACE(protocol);
        qos_rule rule = matching(0x7ff);
        rule.match.protocol = protocol;
        rule.match.sched_index = 9;
        rule.target.flags = 0x1f;
        EXPECT_EQ("", test::written([&](FILE *out) {
                      EXPECT_EQ(0, draw_rule(out, &rule, 0, "QOS_", "eth0"));
                  }));
        EXPECT_EQ(traces{}, test::console());
        rule.match.flags = 0;  // without the flag the number does not matter
        rule.match.sched_index = 0;
        rule.target.flags = 1;
        EXPECT_EQ(add_eth0 + mark_16, drawn(rule));
    }
}

TEST_F(Rendering, PortsAndFlagsNeedBothTheirEnds)
{
    for (unsigned set = 0; set < 64; ++set) {
        SCOPED_TRACE(set);
        qos_rule rule = matching(bit(8));
        qos_match &m = rule.match;
        m.sport_start = set & 1 ? 1 : 0;
        m.sport_end = set & 2 ? 2 : 0;
        m.dport_start = set & 4 ? 65535 : 0;
        m.dport_end = set & 8 ? 40000 : 0;
        m.tcp_flag_mask = set & 16 ? 0x03 : 0;
        m.tcp_flag_comp = set & 32 ? 0x01 : 0;
        std::string ports;
        if (set % 4 == 3) ports += "--sport 1:2 ";
        if (set / 4 % 4 == 3) ports += "--dport 65535:40000 ";
        const std::string flags = set / 16 == 3 ? "--tcp-flag SYN,ACK, SYN, " : "";
        const std::string tcp = marked("-p tcp " + std::string(ports).append(flags));
        const std::string udp = marked("-p udp " + ports);
        m.protocol = mordel::proto_tcp;
        EXPECT_EQ(tcp, drawn(rule));
        m.protocol = mordel::proto_udp;
        EXPECT_EQ(udp, drawn(rule));
        m.protocol = mordel::proto_both;
        EXPECT_EQ(tcp + udp, drawn(rule));
        m.protocol = mordel::proto_icmp;
        EXPECT_EQ(marked("-p icmp "), drawn(rule));
        m.protocol = mordel::proto_all;
        EXPECT_EQ(marked("-p all "), drawn(rule));
    }
}

TEST_F(Rendering, TcpFlagBytesThatNameNoFlagAreEmptyLists)
{
    qos_rule rule = matching(bit(8));
    rule.match.sport_start = rule.match.dport_start = 0;
    rule.match.tcp_flag_mask = 0x40;
    rule.match.tcp_flag_comp = 0x82;
    EXPECT_EQ(add_eth0 + "-p tcp --tcp-flag  ACK, " + mark_16, drawn(rule));
}

// ---- Rules: matches ----------------------------------------------------------------------------

TEST_F(Rendering, EachMatchKindAlone)
{
    const std::pair<unsigned, std::string> cases[] = {
        {mordel::QF_802_1P, "-m VLAN --vlan-id 100 "},  // each bit with the other's option
        {mordel::QF_802_1Q, "-m VLAN --vlan-prio 5 "},
        {mordel::QF_MAC, "-m mac --mac-source 00:11:22:33:44:55 "},
        {mordel::QF_IP, "-m iprange --src-range 10.0.0.1-10.0.0.99 "
                        "--dst-range 192.168.1.2-192.168.255.254 "},
        {mordel::QF_DSCP, "-m dscp --dscp 0x2e "},
        {mordel::QF_TOS, "-m tos --tos Minimize-Delay --precedence 7 "},
        {mordel::QF_ALG, "-m helper --helper ftp "},
        {mordel::QF_PKTLEN, "-m length --length 64:1400 "},
        {mordel::QF_PROTOCOL, tcp_text},
        {mordel::QF_DOMAIN, "-m domain --name \"example.org\" "},
        {mordel::QF_URL, "-m urlfilter --url example.org/a "},
    };
    for (const auto &[kind, piece] : cases) {
        SCOPED_TRACE(kind);
        EXPECT_EQ(marked(piece), drawn(matching(bit(kind))));
        EXPECT_EQ(kind == 8 ? traces{protocol_seen} : traces{}, test::console());
    }
    for (unsigned unused = 11; unused < 32; ++unused)
        EXPECT_EQ(add_eth0 + mark_16, drawn(matching(bit(unused)))) << unused;
}

// The line of full_rule() with these match flags, put together the slow way.
std::string modelled(unsigned flags)
{
    const auto has = [flags](unsigned n) { return flags / (1U << n) % 2 == 1; };
    std::string line = "iptables -t mangle -A QOS_eth0 ";
    if (has(8)) line += tcp_text;
    if (has(2)) line += "-m mac --mac-source 00:11:22:33:44:55 ";
    if (has(3)) line += "-m iprange --src-range 10.0.0.1-10.0.0.99 ";
    if (has(3)) line += "--dst-range 192.168.1.2-192.168.255.254 ";
    if (has(4)) line += "-m dscp --dscp 0x2e ";
    if (has(5)) line += "-m tos --tos Minimize-Delay --precedence 7 ";
    if (has(6)) line += "-m helper --helper ftp ";
    if (has(7)) line += "-m length --length 64:1400 ";
    if (has(9)) line += "-m domain --name \"example.org\" ";
    if (has(10)) line += "-m urlfilter --url example.org/a ";
    if (has(0) || has(1)) line += "-m VLAN ";
    if (has(0)) line += "--vlan-id 100 ";
    if (has(1)) line += "--vlan-prio 5 ";
    return line + "-j MARK --set-mark 0x10 \n";
}

TEST_F(Rendering, EverySetOfMatchKinds)
{
    for (unsigned flags = 0; flags < 2048; ++flags) {
        ASSERT_EQ(modelled(flags), drawn(matching(flags))) << flags;
        ASSERT_EQ(traces(flags / 256 % 2, protocol_seen), test::console()) << flags;
    }
}

TEST_F(Rendering, AddressRangesNeedBothTheirEnds)
{
    const std::string source = "--src-range 1.2.3.4-255.254.253.252 ";
    const std::string dest = "--dst-range 0.0.0.1-128.0.0.0 ";
    const std::string both = "-m iprange " + source + dest;
    for (unsigned set = 0; set < 16; ++set) {
        qos_rule rule = matching(bit(3));
        rule.match.src_ip_start = set & 1 ? 0x01020304 : 0;
        rule.match.src_ip_end = set & 2 ? 0xfffefdfc : 0;
        rule.match.dst_ip_start = set & 4 ? 1 : 0;
        rule.match.dst_ip_end = set & 8 ? 0x80000000 : 0;
        std::string piece;
        if (set == 15) {
            piece = both;
        } else if (set % 4 == 3) {
            piece = "-m iprange " + source;
        } else if (set / 4 == 3) {
            piece = "-m iprange " + dest;
        }
        EXPECT_EQ(marked(piece), drawn(rule)) << set;
    }
}

TEST_F(Rendering, DscpMatches)
{
    struct {
        u32 mode, value;
        const char *piece;
    } const cases[] = {
        {0, 0, "-m dscp --dscp 0x0 "},
        {0, 63, "-m dscp --dscp 0x3f "},
        {0, 255, "-m dscp --dscp 0xff "},
        {1, 0, "-m dscp --dscp-class CS0 "},
        {1, 8, "-m dscp --dscp-class BE "},
        {1, 13, "-m dscp --dscp-class AF22 "},
        {1, 21, "-m dscp --dscp-class EF "},
        {1, 22, "-m dscp --dscp-class Unknown "},
        {1, 256, "-m dscp --dscp-class Unknown "},
        {1, 0xffffffff, "-m dscp --dscp-class Unknown "},
        {2, 21, ""},
        {0xffffffff, 21, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.mode << ' ' << c.value);
        qos_rule rule = matching(bit(4));
        rule.match.dscp_mode = c.mode;
        rule.match.dscp_value.class_id = c.mode == 0 ? 0xa5a5a5a5 : c.value;
        if (c.mode == 0) rule.match.dscp_value.raw = static_cast<u8>(c.value);
        EXPECT_EQ(marked(c.piece), drawn(rule));
    }
    EXPECT_EQ(traces{}, test::console());
}

// A kind that renders nothing narrows nothing: the rule then takes every packet.
TEST_F(Rendering, HalfAnAddressRangeOrNoDscpModeMatchesEveryPacket)
{
    qos_rule rule{};
    rule.target.flags = bit(mordel::target_mark);
    rule.target.mark = 0x10;
    const std::string every_packet = "iptables -t mangle -A QOS_eth0 -j MARK --set-mark 0x10 \n";
    ASSERT_EQ(every_packet, drawn(rule));
    rule.match.flags = bit(mordel::QF_IP);
    rule.match.src_ip_start = 0x0a000001;
    rule.match.dst_ip_end = 0x0a000002;
    EXPECT_EQ(every_packet, drawn(rule));
    rule.match.flags = bit(mordel::QF_DSCP);
    rule.match.dscp_mode = 2;
    EXPECT_EQ(every_packet, drawn(rule));
}

TEST_F(Rendering, TosMatches)
{
    struct {
        u32 tos;
        int precedence;
        const char *piece;
    } const cases[] = {
        {16, 0, "-m tos --tos Minimize-Delay --precedence 0 "},
        {8, 1, "-m tos --tos Maximize-Throughput --precedence 1 "},
        {4, 7, "-m tos --tos Maximize-Reliability --precedence 7 "},
        {2, 128, "-m tos --tos Minimize-Cost --precedence 128 "},
        {0, 255, "-m tos --tos Normal-Service --precedence 255 "},
        {1, 3, "-m tos --tos Unknown --precedence 3 "},
        {256 + 16, 3, "-m tos --tos Unknown --precedence 3 "},
        {0xffffffff, 3, "-m tos --tos Unknown --precedence 3 "},
    };
    for (const auto &c : cases) {
        qos_rule rule = matching(bit(5));
        rule.match.tos = c.tos;
        rule.match.precedence = static_cast<u8>(c.precedence);
        EXPECT_EQ(marked(c.piece), drawn(rule));
    }
}

TEST_F(Rendering, HelperMatches)
{
    const std::pair<u32, const char *> cases[] = {
        {0, "-m helper --helper sip "},       {1, "-m helper --helper Q.931 "},
        {2, "-m helper --helper ftp "},       {3, "-m helper --helper Unknown "},
        {256, "-m helper --helper Unknown "}, {0xffffffff, "-m helper --helper Unknown "}};
    for (const auto &[alg, piece] : cases) {
        qos_rule rule = matching(bit(6));
        rule.match.alg = alg;
        EXPECT_EQ(marked(piece), drawn(rule));
    }
}

TEST_F(Rendering, PacketLengthMatches)
{
    const std::pair<u32, const char *> cases[] = {{0, "-m length --length 0:0 "},
                                                  {0x00010000, "-m length --length 1:0 "},
                                                  {0x0000ffff, "-m length --length 0:65535 "},
                                                  {0x800005dc, "-m length --length 32768:1500 "},
                                                  {0xffffffff, "-m length --length 65535:65535 "}};
    for (const auto &[length, piece] : cases) {
        qos_rule rule = matching(bit(7));
        rule.match.pkt_len = length;
        EXPECT_EQ(marked(piece), drawn(rule));
    }
}

TEST_F(Rendering, VlanMatchesAtTheirEnds)
{
    struct {
        unsigned kinds;
        int id, prio;
        const char *piece;
    } const cases[] = {
        {1, 0, 255, "-m VLAN --vlan-id 0 "},
        {1, 65535, 0, "-m VLAN --vlan-id 65535 "},
        {2, 65535, 0, "-m VLAN --vlan-prio 0 "},
        {2, 0, 255, "-m VLAN --vlan-prio 255 "},
        {3, 65535, 255, "-m VLAN --vlan-id 65535 --vlan-prio 255 "},
        {3, 0, 0, "-m VLAN --vlan-id 0 --vlan-prio 0 "},
    };
    for (const auto &c : cases) {
        qos_rule rule = matching(c.kinds);
        rule.match.vlan_id = static_cast<u16>(c.id);
        rule.match.dot1p_prio = static_cast<u8>(c.prio);
        EXPECT_EQ(marked(c.piece), drawn(rule));
    }
}

std::string text_pieces(const std::string &mac, const std::string &domain, const std::string &url)
{
    return "-m mac --mac-source " + mac + " -m domain --name \"" + domain +
           "\" -m urlfilter --url " + url + " ";
}

TEST_F(Rendering, TextsAreWrittenAsTheyAre)
{
    qos_rule rule = matching(bit(2) | bit(9) | bit(10));
    for (const char *text : {"", "%s%n%d", "a b\tc", "$(x)`y`\"';"}) {
        put(rule.match.src_mac, text);
        put(rule.match.domain, text);
        put(rule.match.url, text);
        EXPECT_EQ(marked(text_pieces(text, text, text)), drawn(rule));
    }
}

// ---- Rules: schedules --------------------------------------------------------------------------

void add_schedule(int index, int days)
{
    qos_sched sched{};
    sched.index = static_cast<u8>(index);
    sched.days = static_cast<u8>(days);
    sched.all_day = 1;
    ASSERT_EQ(1, add_sched(&sched));
}

TEST_F(Rendering, ASchedulesPieceEndsTheMatches)
{
    add_schedule(1, 0x22);
    add_schedule(255, 0);
    const std::string all_day = "-m time --timestart 00:00 --timestop 23:59 ";
    qos_rule rule = matching(0);
    rule.match.sched_index = 1;
    EXPECT_EQ(add_eth0 + all_day + "--days Mon,Fri " + mark_16, drawn(rule));
    rule.match.flags = bit(0) | bit(10);
    rule.match.sched_index = 255;
    EXPECT_EQ(add_eth0 + "-m urlfilter --url example.org/a -m VLAN --vlan-id 100 " + all_day +
                  mark_16,
              drawn(rule));
    EXPECT_EQ(traces{}, test::console());
    rule.match.flags = bit(8);
    rule.match.protocol = mordel::proto_both;
    rule.match.sport_start = rule.match.dport_start = 0;
    rule.match.tcp_flag_mask = 0;
    EXPECT_EQ(add_eth0 + "-p tcp " + all_day + mark_16 + add_eth0 + "-p udp " + all_day + mark_16,
              drawn(rule));
    EXPECT_EQ((traces{protocol_seen}), test::console());
}

TEST_F(Rendering, AMissingScheduleIsTracedAndLeftOut)
{
    add_schedule(1, 0);
    qos_rule rule = matching(0);
    rule.match.sched_index = 2;
    EXPECT_EQ(add_eth0 + mark_16, drawn(rule));
    EXPECT_EQ((traces{sched_missing, no_schedule_behind(0)}), test::console());

    rule.match.flags = bit(1) | bit(4) | bit(8);  // the length counts matches, not the protocol
    rule.match.protocol = mordel::proto_icmp;
    rule.target.flags = 0x1f;
    rule.target.kind = 0;
    EXPECT_EQ(add_eth0 + "-p icmp -m dscp --dscp 0x2e -m VLAN --vlan-prio 5 " + mark_16 + add_eth0 +
                  "-p icmp -m dscp --dscp 0x2e -m VLAN --vlan-prio 5 "
                  "-j TOS --set-tos Normal-Service --set-precedence 21 \n" +
                  add_eth0 +
                  "-p icmp -m dscp --dscp 0x2e -m VLAN --vlan-prio 5 "
                  "-j DSCP --set-dscp 0x15 \n" +
                  add_eth0 +
                  "-p icmp -m dscp --dscp 0x2e -m VLAN --vlan-prio 5 "
                  "-j MKVLAN --set-vlan-id 200 --set-vlan-prio 6   \n",
              drawn(rule));
    EXPECT_EQ((traces{protocol_seen, sched_missing, no_schedule_behind(20 + 22), log_seen}),
              test::console());
}

TEST_F(Rendering, AScheduleIsAttachedBehindMatchesOfAnyLength)
{
    add_schedule(1, 0x7f);
    const std::string time = "-m time --timestart 00:00 --timestop 23:59 "
                             "--days Sun,Mon,Tue,Wed,Thu,Fri,Sat ";
    qos_rule rule = matching(bit(2) | bit(9) | bit(10));
    rule.match.sched_index = 1;
    for (size_t length = 0; length <= 510; ++length) {
        const std::string domain(length < 255 ? length : 255, 'd');
        const std::string url(length - domain.size(), 'u');
        put(rule.match.domain, domain);
        put(rule.match.url, url);
        ASSERT_EQ(marked(text_pieces("00:11:22:33:44:55", domain, url) + time), drawn(rule));
    }
    EXPECT_EQ(traces{}, test::console());
}

// Every text at its longest, the three arrays full to their last byte, without a NUL.
qos_rule longest_rule()
{
    qos_rule rule = matching(0x7ff);
    qos_match &m = rule.match;
    m.dot1p_prio = 255;
    m.vlan_id = 65535;
    std::memset(m.src_mac, 'm', sizeof m.src_mac);
    m.src_ip_start = m.src_ip_end = m.dst_ip_start = m.dst_ip_end = 0xffffffff;
    m.dscp_mode = 1;
    m.dscp_value.class_id = 22;
    m.tos = 4;
    m.precedence = 255;
    m.protocol = mordel::proto_both;
    m.sport_start = m.sport_end = m.dport_start = m.dport_end = 65535;
    m.tcp_flag_mask = m.tcp_flag_comp = 255;
    m.pkt_len = 0xffffffff;
    m.alg = 3;
    std::memset(m.url, 'u', sizeof m.url);
    std::memset(m.domain, 'd', sizeof m.domain);
    m.sched_index = 0x7b;
    rule.target.flags = bit(0) | bit(1);
    rule.target.mark = 0xffff;
    rule.target.kind = 4;
    rule.target.value.raw = 255;
    return rule;
}

// What longest_rule() comes to, with texts of these lengths; `time` is its schedule's piece.
std::string longest_lines(const std::string &ifname, size_t mac, size_t text,
                          const std::string &time)
{
    const std::string any = "255.255.255.255-255.255.255.255 ";
    const std::string flags = "SYN,ACK,FIN,RST,URG,PSH, ";
    const std::string ports = "--sport 65535:65535 --dport 65535:65535 ";
    const std::string match =
        "-m mac --mac-source " + std::string(mac, 'm') + " -m iprange --src-range " + any +
        "--dst-range " + any + "-m dscp --dscp-class Unknown " +
        "-m tos --tos Maximize-Reliability --precedence 255 -m helper --helper Unknown "
        "-m length --length 65535:65535 -m domain --name \"" +
        std::string(text, 'd') + "\" -m urlfilter --url " + std::string(text, 'u') +
        " -m VLAN --vlan-id 65535 --vlan-prio 255 " + time;
    const std::string prefix = "iptables -t mangle -A QOS_" + ifname + " ";
    const std::string tcp = prefix + "-p tcp " + ports + "--tcp-flag " + flags + flags + match;
    const std::string udp = prefix + "-p udp " + ports + match;
    const std::string mark = "-j MARK --set-mark 0xffff \n";
    const std::string tos = "-j TOS --set-tos Maximize-Reliability --set-precedence 255 \n";
    return tcp + mark + udp + mark + tcp + tos + udp + tos;
}

void add_longest_schedule()
{
    qos_sched sched{};
    sched.index = 0x7b;
    sched.days = 0x7f;
    sched.start_hour = 255;
    ASSERT_EQ(1, add_sched(&sched));
    qos_sched &stored = search_sched(0x7b)->sched;
    stored.stop_hour = stored.start_min = stored.stop_min = 255;
}

const std::string longest_time = "-m time --timestart 255:255 --timestop 255:255 "
                                 "--days Sun,Mon,Tue,Wed,Thu,Fri,Sat ";

TEST_F(Rendering, NothingThatFitsItsFieldIsCut)
{
    add_longest_schedule();
    qos_rule rule = longest_rule();
    rule.match.src_mac[19] = rule.match.url[255] = rule.match.domain[255] = '\0';
    for (const std::string &ifname : {std::string(31, 'i'), std::string(200, 'n')})
        EXPECT_EQ(longest_lines(ifname, 19, 255, longest_time), drawn(rule, 0, ifname.c_str()));
    EXPECT_EQ((traces{protocol_seen, protocol_seen}), test::console());
}

TEST_F(Rendering, ArraysWithoutANulAreReadToTheirEnd)
{
    add_longest_schedule();
    EXPECT_EQ(longest_lines("eth0", 20, 256, longest_time), drawn(longest_rule()));
    EXPECT_EQ((traces{protocol_seen}), test::console());
    del_all_sched();
    EXPECT_EQ(longest_lines("eth0", 20, 256, ""), drawn(longest_rule()));
    // MAC 41, addresses 99, DSCP 29, TOS 51, helper 27, length 31, domain 276, URL 276, VLAN 40
    EXPECT_EQ((traces{protocol_seen, sched_missing, no_schedule_behind(870)}), test::console());
}

// ---- Chains ------------------------------------------------------------------------------------

using chain_writer = void (*)(FILE *, const char *, const char *);

std::string chains(chain_writer write, const char *prefix, const char *ifname)
{
    return test::written([&](FILE *out) { write(out, prefix, ifname); });
}

const char *const cut_jumps =
    "iptables -t mangle -D FORWARD -o eth0 -g QOS_eth0 2>/dev/null\n"
    "iptables -t mangle -D OUTPUT -o eth0 -g QOS_eth0 2>/dev/null\n"
    "iptables -t mangle -D QOS_eth0 -m connmark ! --mark 0 -j QOS_eth0_AUTO 2>/dev/null\n";
const char *const set_jumps =
    "iptables -t mangle -A FORWARD -o eth0 -g QOS_eth0 2>/dev/null\n"
    "iptables -t mangle -A OUTPUT -o eth0 -g QOS_eth0 2>/dev/null\n"
    "iptables -t mangle -A QOS_eth0 -m connmark ! --mark 0 -j QOS_eth0_AUTO 2>/dev/null\n";
const char *const flushed = "iptables -t mangle -F QOS_eth0 2>/dev/null\n"
                            "iptables -t mangle -F QOS_eth0_AUTO 2>/dev/null\n";
const char *const deleted = "iptables -t mangle -X QOS_eth0 2>/dev/null\n"
                            "iptables -t mangle -X QOS_eth0_AUTO 2>/dev/null\n";
const char *const made = "iptables -t mangle -N QOS_eth0 2>/dev/null\n"
                         "iptables -t mangle -N QOS_eth0_AUTO 2>/dev/null\n";

TEST_F(Rendering, ChainsOfAnInterface)
{
    const std::string cut = cut_jumps;
    EXPECT_EQ(cut, chains(mordel::del_rule_chain_jumps, "QOS_", "eth0"));
    EXPECT_EQ(cut + set_jumps, chains(mordel::add_rule_chain_jumps, "QOS_", "eth0"));
    EXPECT_EQ(flushed, chains(mordel::flush_rule_chains, "QOS_", "eth0"));
    EXPECT_EQ(std::string(flushed) + deleted, chains(mordel::delete_rule_chains, "QOS_", "eth0"));
    EXPECT_EQ(std::string(flushed) + deleted + made + cut_jumps + set_jumps,
              chains(mordel::renew_rule_chains, "QOS_", "eth0"));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(Rendering, AnotherPrefixIsNotPassedOn)
{
    EXPECT_EQ("iptables -t mangle -D FORWARD -o eth0 -g X_eth0 2>/dev/null\n"
              "iptables -t mangle -D OUTPUT -o eth0 -g X_eth0 2>/dev/null\n"
              "iptables -t mangle -D X_eth0 -m connmark ! --mark 0 -j X_eth0_AUTO 2>/dev/null\n",
              chains(mordel::del_rule_chain_jumps, "X_", "eth0"));
    EXPECT_EQ(std::string(cut_jumps) +
                  "iptables -t mangle -A FORWARD -o eth0 -g X_eth0 2>/dev/null\n"
                  "iptables -t mangle -A OUTPUT -o eth0 -g X_eth0 2>/dev/null\n"
                  "iptables -t mangle -A X_eth0 -m connmark ! --mark 0 -j X_eth0_AUTO"
                  " 2>/dev/null\n",
              chains(mordel::add_rule_chain_jumps, "X_", "eth0"));
    EXPECT_EQ("iptables -t mangle -F X_eth0 2>/dev/null\n"
              "iptables -t mangle -F X_eth0_AUTO 2>/dev/null\n",
              chains(mordel::flush_rule_chains, "X_", "eth0"));
    EXPECT_EQ(std::string(flushed) + "iptables -t mangle -X X_eth0 2>/dev/null\n"
                                     "iptables -t mangle -X X_eth0_AUTO 2>/dev/null\n",
              chains(mordel::delete_rule_chains, "X_", "eth0"));
    EXPECT_EQ(std::string(flushed) + deleted +
                  "iptables -t mangle -N X_eth0 2>/dev/null\n"
                  "iptables -t mangle -N X_eth0_AUTO 2>/dev/null\n" +
                  cut_jumps + set_jumps,
              chains(mordel::renew_rule_chains, "X_", "eth0"));
}

// The lines above for another interface.
std::string renamed(std::string lines, const std::string &ifname)
{
    for (size_t at = 0; (at = lines.find("eth0", at)) != std::string::npos; at += ifname.size())
        lines.replace(at, 4, ifname);
    return lines;
}

TEST_F(Rendering, InterfaceNamesInChainLinesAreNeverCut)
{
    const std::string renewing = std::string(flushed) + deleted + made + cut_jumps + set_jumps;
    for (const std::string &name :
         {std::string(31, 'i'), std::string(2000, 'n'), std::string("%s%n%d")}) {
        EXPECT_EQ(renamed(renewing, name), chains(mordel::renew_rule_chains, "QOS_", name.c_str()));
        EXPECT_EQ(renamed(cut_jumps, name),
                  chains(mordel::del_rule_chain_jumps, "QOS_", name.c_str()));
    }
}

}  // namespace
