// SPDX-License-Identifier: MIT
// Rule scripts: the text for a caller's stream, the script that is run at once, and how the three
// scripts of the library treat the file they find.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <sstream>
#include <string_view>
#include <thread>

#include "faults.h"
#include "support.h"
#include "tarnic_iptables.h"
#include "tarnic_qos.h"

namespace fs = std::filesystem;

namespace {

using test::not_found;
using test::put;
using test::traced;
using test::traces;

const traced protocol_seen = {"tarnic_iptables", "draw_rule", "get QF_PROTOCOL match type"};
const traced log_seen = {"tarnic_iptables", "draw_target", "LOG target not implement!!"};
const traced no_script = {"tarnic_iptables", "restart_rule", "Can't open tmp file!!"};
const traced no_interface = {"tarnic_iptables", "restart_rule", "QoS struct not fuond!!"};

constexpr char rule_script[] = "/var/tmp/qos_rule_eth0";

constexpr char opening_lines[] = "#!/bin/sh\n"
                                 "#Generate by tarnic\n"
                                 "#Author: Ora Vel\n";

constexpr u32 bit(unsigned n) { return 1U << n; }

// The text with the interface's name in place of every @.
std::string named(std::string_view text, const std::string &name)
{
    std::string out;
    for (const char c : text) out += c == '@' ? name : std::string(1, c);
    return out;
}

// The lines that flush, delete, make, unlink and link an interface's chains.
std::string chain_lines(const std::string &name)
{
    return named("iptables -t mangle -F QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -F QOS_@_AUTO 2>/dev/null\n"
                 "iptables -t mangle -X QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -X QOS_@_AUTO 2>/dev/null\n"
                 "iptables -t mangle -N QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -N QOS_@_AUTO 2>/dev/null\n"
                 "iptables -t mangle -D FORWARD -o @ -g QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -D OUTPUT -o @ -g QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -D QOS_@ -m connmark ! --mark 0 -j QOS_@_AUTO 2>/dev/null\n"
                 "iptables -t mangle -A FORWARD -o @ -g QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -A OUTPUT -o @ -g QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -A QOS_@ -m connmark ! --mark 0 -j QOS_@_AUTO 2>/dev/null\n",
                 name);
}

automark_value automark(int enable)
{
    automark_value value{};
    value.enable = static_cast<u8>(enable);
    value.reserved = 0xff;
    const u16 marks[8] = {0, 1, 0x10, 0xab, 0x100, 0x8000, 0xabcd, 0xffff};
    std::memcpy(value.mark, marks, sizeof marks);
    return value;
}

// The eight lines of automark(1) for `n`.
std::string automark_lines(const std::string &n)
{
    const char *const marks[] = {"0", "1", "10", "ab", "100", "8000", "abcd", "ffff"};
    std::string lines;
    for (size_t i = 0; i < 8; ++i)
        lines += "iptables -t mangle -A QOS_" + n + "_AUTO -m connmark --mark " +
                 std::to_string(i + 1) + "00 -j MARK --set-mark 0x" + marks[i] + " 2>/dev/null\n";
    return lines;
}

void add_htb(const char *ifname, int enable = 0)
{
    const u32 speeds[4] = {20000, 0, 100000, 0};
    class_root_param param{};
    param.default_class = 3;
    param.automark = automark(enable);
    ASSERT_EQ(0, add_root_qdisc(speeds, ifname, R_HTB, &param));
}

qos_target marking(int mark)
{
    qos_target target{};
    target.flags = bit(mordel::target_mark);
    target.mark = static_cast<u16>(mark);
    return target;
}

void add_rule(int index, const qos_match &match, const qos_target &target)
{
    ASSERT_EQ(1, add_qos_rule("eth0", static_cast<u8>(index), &match, &target)) << index;
}

void add_all_day(int index)
{
    qos_sched sched{};
    sched.index = static_cast<u8>(index);
    sched.days = 0x41;
    sched.all_day = 1;
    ASSERT_EQ(1, add_sched(&sched));
}

std::string renewed(const char *ifname, list_head *rules)
{
    return test::written([&](FILE *out) { EXPECT_EQ(0, renew_qos_rule(out, ifname, rules)); });
}

std::string removed(const char *ifname)
{
    return test::written([&](FILE *out) { remove_qos_rule(out, ifname); });
}

size_t open_descriptors()
{
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// eth0 is an HTB interface with its default tree and automark in use. Every test hands back the
// descriptors it found.
class RuleScript : public test::mordel_test {
protected:
    void SetUp() override
    {
        mordel_test::SetUp();
        add_htb("eth0", 1);
        test::console();
        descriptors = open_descriptors();
    }
    void TearDown() override
    {
        EXPECT_EQ(descriptors, open_descriptors());
        mordel_test::TearDown();
    }
    size_t descriptors = 0;
};

// ---- Text for a stream -------------------------------------------------------------------------

TEST_F(RuleScript, WithoutRulesIsChainsAndAutomark)
{
    EXPECT_EQ(chain_lines("eth0") + automark_lines("eth0"),
              renewed("eth0", find_rule_list_by_name("eth0")));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleScript, AutomarkLinesNeedAnEnabledRoot)
{
    const u32 speeds[4] = {};
    const pfifo_fast_root_param fifo{};
    class_root_param classful{};
    prio_root_param prio{};
    struct {
        u32 type;
        const void *param;
        int enable;
        bool lines;
    } const cases[] = {
        {R_pfifo_fast, &fifo, 1, false}, {R_HTB, &classful, 0, false},
        {R_HTB, &classful, 1, true},     {R_HFSC, &classful, 0, false},
        {R_HFSC, &classful, 255, true},  {R_PRIO, &prio, 0, false},
        {R_PRIO, &prio, 2, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << ' ' << c.enable);
        classful.automark = prio.automark = automark(c.enable);
        ASSERT_EQ(0, add_root_qdisc(speeds, "ppp0", c.type, c.param));
        test::console();
        EXPECT_EQ(chain_lines("ppp0") + (c.lines ? automark_lines("ppp0") : ""),
                  renewed("ppp0", find_rule_list_by_name("ppp0")));
        EXPECT_EQ(traces{}, test::console());
        ASSERT_EQ(0, del_root_qdisc("ppp0"));
    }
}

TEST_F(RuleScript, RulesStandInAscendingOrder)
{
    for (const int index : {5, 2, 9}) {
        qos_match match{};
        match.flags = bit(mordel::QF_802_1P);
        match.vlan_id = static_cast<u16>(index);
        add_rule(index, match, marking(3));
    }
    const std::string line = "iptables -t mangle -A QOS_eth0 -m VLAN --vlan-id ";
    EXPECT_EQ(chain_lines("eth0") + line + "2 -j MARK --set-mark 0x3 \n" + line +
                  "5 -j MARK --set-mark 0x3 \n" + line + "9 -j MARK --set-mark 0x3 \n" +
                  automark_lines("eth0"),
              renewed("eth0", find_rule_list_by_name("eth0")));
}

TEST_F(RuleScript, ARuleThatRendersNothingHoldsUpNoOther)
{
    qos_match match{};
    add_rule(1, match, marking(2));
    match.flags = bit(mordel::QF_PROTOCOL);
    match.protocol = 5;
    add_rule(2, match, marking(2));
    match.protocol = mordel::proto_icmp;
    qos_target target{};
    target.flags = bit(mordel::target_log);
    add_rule(3, match, target);
    match.protocol = mordel::proto_all;
    match.sched_index = 77;
    add_rule(4, match, marking(3));
    EXPECT_EQ(chain_lines("eth0") + "iptables -t mangle -A QOS_eth0 -j MARK --set-mark 0x2 \n" +
                  "iptables -t mangle -A QOS_eth0 -p all -j MARK --set-mark 0x3 \n" +
                  automark_lines("eth0"),
              renewed("eth0", find_rule_list_by_name("eth0")));
    EXPECT_EQ((traces{protocol_seen,
                      log_seen,
                      protocol_seen,
                      {"tarnic_iptables", "get_sched_str", "schedule index not found!!"},
                      {"tarnic_iptables", "draw_rule",
                       "match buffer is too small or index not found, "
                       "schedule string doesn't attach 1024 0!!"}}),
              test::console());
}

TEST_F(RuleScript, TheListGivenIsTheListWritten)
{
    add_rule(1, {}, marking(2));
    list_head own = {&own, &own};
    EXPECT_EQ(chain_lines("eth0") + automark_lines("eth0"), renewed("eth0", &own));
    qos_rule rule{};
    rule.target = marking(0x4d2);
    list_add_tail(&rule.node, &own);
    EXPECT_EQ(chain_lines("eth0") + "iptables -t mangle -A QOS_eth0 -j MARK --set-mark 0x4d2 \n" +
                  automark_lines("eth0"),
              renewed("eth0", &own));
}

TEST_F(RuleScript, NamesOfAnyLengthAreWrittenWhole)
{
    list_head rules = {&rules, &rules};
    qos_rule rule{};
    rule.target = marking(1);
    list_add_tail(&rule.node, &rules);
    for (const std::string &name : {std::string(31, 'i'), std::string(32, 'j'),
                                    std::string(200, 'n'), std::string("%s%n%d"), std::string()}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(chain_lines(name) + "iptables -t mangle -A QOS_" + name +
                      " -j MARK --set-mark 0x1 \n",
                  renewed(name.c_str(), &rules));
        EXPECT_EQ((traces{not_found(name)}), test::console());  // the automark lookup's
    }
    const std::string longest(31, 'i');
    add_htb(longest.c_str(), 1);
    test::console();
    EXPECT_EQ(chain_lines(longest) + "iptables -t mangle -A QOS_" + longest +
                  " -j MARK --set-mark 0x1 \n" + automark_lines(longest),
              renewed(longest.c_str(), &rules));
    EXPECT_EQ(traces{}, test::console());
}

// The lines that unlink, flush and delete an interface's chains.
std::string removal_lines(const std::string &name)
{
    return named("iptables -t mangle -D FORWARD -o @ -g QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -D OUTPUT -o @ -g QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -D QOS_@ -m connmark ! --mark 0 -j QOS_@_AUTO 2>/dev/null\n"
                 "iptables -t mangle -F QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -F QOS_@_AUTO 2>/dev/null\n"
                 "iptables -t mangle -X QOS_@ 2>/dev/null\n"
                 "iptables -t mangle -X QOS_@_AUTO 2>/dev/null\n",
                 name);
}

TEST_F(RuleScript, RemovingIsUnlinkingFlushingAndDeleting)
{
    add_rule(1, {}, marking(2));
    for (const char *name : {"eth0", "eth9", "a_name_of_more_than_31_characters_%s%n"})
        EXPECT_EQ(removal_lines(name), removed(name));
    EXPECT_EQ(traces{}, test::console());
    EXPECT_EQ(0U, list_empty(find_rule_list_by_name("eth0")));
}

// ---- The script that is run --------------------------------------------------------------------

// An iptables of our own in front of PATH: it appends its words, "[-t][mangle]...", to a file.
class RuleScriptRun : public RuleScript {
protected:
    void SetUp() override
    {
        RuleScript::SetUp();
        const char *before = std::getenv("PATH");
        path = before == nullptr ? "/usr/bin:/bin" : before;
        fs::create_directory("/var/tmp/bin");
        record(0);
        test::write_file("/var/tmp/calls", "");
        ::setenv("PATH", ("/var/tmp/bin:" + path).c_str(), 1);
    }
    void TearDown() override
    {
        ::setenv("PATH", path.c_str(), 1);
        RuleScript::TearDown();
    }

    static void record(int status)
    {
        const char *const file = "/var/tmp/bin/iptables";
        test::write_file(file, "#!/bin/sh\n"
                               "{ printf '[%s]' \"$@\"; echo; } >>/var/tmp/calls\n"
                               "exit " +
                                   std::to_string(status) + "\n");
        fs::permissions(file, fs::perms::owner_all);
    }

    static std::vector<std::string> calls()
    {
        std::vector<std::string> all;
        std::istringstream in(test::read_file("/var/tmp/calls"));
        for (std::string line; std::getline(in, line);) all.push_back(line);
        return all;
    }

    std::string path;
};

// Rules of every protocol, target and match kind, added out of order.
void add_golden_rules()
{
    qos_match match{};
    match.flags = 0x7ff;
    match.dot1p_prio = 7;
    match.vlan_id = 4094;
    put(match.src_mac, "00:0A:0b:0C:0d:0E");
    match.src_ip_start = 0xc0a80101;
    match.src_ip_end = 0xc0a801fe;
    match.dst_ip_start = 0x0a000000;
    match.dst_ip_end = 0x0affffff;
    match.dscp_mode = 1;
    match.dscp_value.class_id = 21;
    match.tos = 8;
    match.precedence = 5;
    match.protocol = mordel::proto_both;
    match.sport_start = 1024;
    match.sport_end = 2048;
    match.dport_start = 5060;
    match.dport_end = 5061;
    match.tcp_flag_mask = 0x17;
    match.tcp_flag_comp = 0x01;
    match.pkt_len = 0x004005dc;
    match.alg = 0;
    put(match.url, "example.com/index");
    put(match.domain, "example.com");
    match.sched_index = 3;
    qos_target target = marking(3);
    target.flags = 0x1f;
    target.value.raw = 12;
    target.vlan_id = 17;
    target.vlan_prio = 4;
    target.vlan_double = 1;
    add_all_day(3);
    add_rule(200, match, target);

    match = {};
    match.flags = bit(mordel::QF_PROTOCOL);
    match.protocol = mordel::proto_udp;
    match.dport_start = match.dport_end = 53;
    add_rule(7, match, marking(2));
    match.protocol = 9;
    add_rule(8, match, marking(2));
    target.flags = bit(mordel::target_mkvlan);
    target.vlan_double = 0;
    add_rule(0, {}, target);
}

TEST_F(RuleScriptRun, WritesTheWholeScript)
{
    add_golden_rules();
    test::console();
    EXPECT_EQ(1, restart_rule("eth0"));
    test::expect_golden("qos_rule_eth0", test::read_file(rule_script));
    EXPECT_EQ(0700U, test::mode_of(rule_script));
    EXPECT_EQ("", test::shell_syntax(rule_script));
    EXPECT_EQ((traces{protocol_seen, protocol_seen, log_seen}), test::console());
}

TEST_F(RuleScriptRun, RunsTheScriptThroughTheShell)
{
    const test::watch watch;
    EXPECT_EQ(1, restart_rule("eth0"));
    const auto systems = watch.calls("system");
    ASSERT_EQ(1U, systems.size());
    EXPECT_EQ(rule_script, systems[0].text);
    EXPECT_EQ(12U + 8U, calls().size());  // all there at once: the shell was waited for
}

// Each match kind once, each target kind once, and both together.
void add_recorded_rules()
{
    qos_match full{};
    full.dot1p_prio = 3;
    full.vlan_id = 12;
    put(full.src_mac, "00:11:22:33:44:55");
    full.src_ip_start = 0x0a000001;
    full.src_ip_end = 0x0a000002;
    full.dst_ip_start = 0x0a000003;
    full.dst_ip_end = 0x0a000004;
    full.dscp_value.raw = 46;
    full.tos = 16;
    full.precedence = 6;
    full.sport_start = 1;
    full.sport_end = 2;
    full.dport_start = 3;
    full.dport_end = 4;
    full.tcp_flag_mask = 0x03;
    full.tcp_flag_comp = 0x01;
    full.pkt_len = 0x00400400;
    full.alg = 1;
    put(full.url, "example.net/x?y=1");
    put(full.domain, "two words");
    for (int kind = 0; kind < mordel::match_kinds; ++kind) {
        qos_match match = full;
        match.flags = bit(static_cast<unsigned>(kind));
        add_rule(kind, match, marking(2));
    }
    full.flags = bit(mordel::QF_802_1P) | bit(mordel::QF_802_1Q) | bit(mordel::QF_PROTOCOL);
    full.protocol = mordel::proto_both;
    full.sched_index = 9;
    add_all_day(9);
    add_rule(11, full, marking(3));

    qos_target target{};
    target.vlan_prio = 5;
    target.vlan_id = 99;
    for (int kind = 0; kind < mordel::target_kinds; ++kind) {
        target.flags = bit(static_cast<unsigned>(kind));
        target.mark = 2;
        target.kind = kind == mordel::target_tos ? 4 : 0;
        target.value.raw = 34;
        add_rule(20 + kind, {}, target);
    }
    target.flags = bit(mordel::target_dscp) | bit(mordel::target_mkvlan);
    target.kind = 1;
    target.value.class_id = 18;
    target.vlan_double = 1;
    add_rule(30, {}, target);
}

const std::vector<std::string> recorded_calls = {
    "[-t][mangle][-F][QOS_eth0]",
    "[-t][mangle][-F][QOS_eth0_AUTO]",
    "[-t][mangle][-X][QOS_eth0]",
    "[-t][mangle][-X][QOS_eth0_AUTO]",
    "[-t][mangle][-N][QOS_eth0]",
    "[-t][mangle][-N][QOS_eth0_AUTO]",
    "[-t][mangle][-D][FORWARD][-o][eth0][-g][QOS_eth0]",
    "[-t][mangle][-D][OUTPUT][-o][eth0][-g][QOS_eth0]",
    "[-t][mangle][-D][QOS_eth0][-m][connmark][!][--mark][0][-j][QOS_eth0_AUTO]",
    "[-t][mangle][-A][FORWARD][-o][eth0][-g][QOS_eth0]",
    "[-t][mangle][-A][OUTPUT][-o][eth0][-g][QOS_eth0]",
    "[-t][mangle][-A][QOS_eth0][-m][connmark][!][--mark][0][-j][QOS_eth0_AUTO]",
    "[-t][mangle][-A][QOS_eth0][-m][VLAN][--vlan-id][12][-j][MARK][--set-mark][0x2]",
    "[-t][mangle][-A][QOS_eth0][-m][VLAN][--vlan-prio][3][-j][MARK][--set-mark][0x2]",
    ("[-t][mangle][-A][QOS_eth0][-m][mac][--mac-source][00:11:22:33:44:55]"
     "[-j][MARK][--set-mark][0x2]"),
    ("[-t][mangle][-A][QOS_eth0][-m][iprange][--src-range][10.0.0.1-10.0.0.2]"
     "[--dst-range][10.0.0.3-10.0.0.4][-j][MARK][--set-mark][0x2]"),
    "[-t][mangle][-A][QOS_eth0][-m][dscp][--dscp][0x2e][-j][MARK][--set-mark][0x2]",
    ("[-t][mangle][-A][QOS_eth0][-m][tos][--tos][Minimize-Delay][--precedence][6]"
     "[-j][MARK][--set-mark][0x2]"),
    "[-t][mangle][-A][QOS_eth0][-m][helper][--helper][Q.931][-j][MARK][--set-mark][0x2]",
    "[-t][mangle][-A][QOS_eth0][-m][length][--length][64:1024][-j][MARK][--set-mark][0x2]",
    ("[-t][mangle][-A][QOS_eth0][-p][tcp][--sport][1:2][--dport][3:4]"
     "[--tcp-flag][SYN,ACK,][SYN,][-j][MARK][--set-mark][0x2]"),
    "[-t][mangle][-A][QOS_eth0][-m][domain][--name][two words][-j][MARK][--set-mark][0x2]",
    ("[-t][mangle][-A][QOS_eth0][-m][urlfilter][--url][example.net/x?y=1]"
     "[-j][MARK][--set-mark][0x2]"),
    ("[-t][mangle][-A][QOS_eth0][-p][tcp][--sport][1:2][--dport][3:4]"
     "[--tcp-flag][SYN,ACK,][SYN,][-m][VLAN][--vlan-id][12][--vlan-prio][3]"
     "[-m][time][--timestart][00:00][--timestop][23:59][--days][Sun,Sat]"
     "[-j][MARK][--set-mark][0x3]"),
    ("[-t][mangle][-A][QOS_eth0][-p][udp][--sport][1:2][--dport][3:4]"
     "[-m][VLAN][--vlan-id][12][--vlan-prio][3]"
     "[-m][time][--timestart][00:00][--timestop][23:59][--days][Sun,Sat]"
     "[-j][MARK][--set-mark][0x3]"),
    "[-t][mangle][-A][QOS_eth0][-j][MARK][--set-mark][0x2]",
    "[-t][mangle][-A][QOS_eth0][-j][TOS][--set-tos][Maximize-Reliability][--set-precedence][34]",
    "[-t][mangle][-A][QOS_eth0][-j][DSCP][--set-dscp][0x22]",
    "[-t][mangle][-A][QOS_eth0][-j][MKVLAN][--set-vlan-id][99][--set-vlan-prio][5]",
    "[-t][mangle][-A][QOS_eth0][-j][DSCP][--set-dscp][AF41]",
    "[-t][mangle][-A][QOS_eth0][-j][MKVLAN][--set-vlan-id][99][--set-vlan-prio][5][--double]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][100][-j][MARK][--set-mark][0x0]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][200][-j][MARK][--set-mark][0x1]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][300][-j][MARK][--set-mark][0x10]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][400][-j][MARK][--set-mark][0xab]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][500][-j][MARK][--set-mark][0x100]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][600][-j][MARK][--set-mark][0x8000]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][700][-j][MARK][--set-mark][0xabcd]",
    "[-t][mangle][-A][QOS_eth0_AUTO][-m][connmark][--mark][800][-j][MARK][--set-mark][0xffff]",
};

TEST_F(RuleScriptRun, CallsTheCommandWordByWord)
{
    add_recorded_rules();
    EXPECT_EQ(1, restart_rule("eth0"));
    EXPECT_EQ(recorded_calls, calls());
}

TEST_F(RuleScriptRun, RunsAgainAndStaysOnDisk)
{
    EXPECT_EQ(1, restart_rule("eth0"));
    const std::string text = test::read_file(rule_script);
    EXPECT_EQ(1, restart_rule("eth0"));
    EXPECT_EQ(40U, calls().size());
    EXPECT_EQ(text, test::read_file(rule_script));
    EXPECT_EQ(opening_lines + chain_lines("eth0") + automark_lines("eth0"), text);
}

TEST_F(RuleScriptRun, ReportsNoFailureOfTheScript)
{
    record(3);
    EXPECT_EQ(1, restart_rule("eth0"));
    EXPECT_EQ(20U, calls().size());
    const test::watch watch("system", 1);
    EXPECT_EQ(1, restart_rule("eth0"));
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ(20U, calls().size());
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleScriptRun, IsNamedAfterTheInterface)
{
    const std::string longest(31, 'i');
    add_htb(longest.c_str());
    test::console();
    EXPECT_EQ(1, restart_rule(longest.c_str()));
    const std::string path_of_it = "/var/tmp/qos_rule_" + longest;
    EXPECT_EQ(opening_lines + chain_lines(longest), test::read_file(path_of_it));
    EXPECT_EQ(0700U, test::mode_of(path_of_it));
    EXPECT_EQ("", test::shell_syntax(path_of_it));
    EXPECT_EQ(12U, calls().size());
    EXPECT_FALSE(test::exists(rule_script));
    EXPECT_EQ(traces{}, test::console());
}

// The path reaches the shell as it is, and no part of it is a format.
TEST_F(RuleScriptRun, ANameWithPercentSignsIsNoFormat)
{
    for (const std::string name : {"%s", "%d%%", "%n%s%n", "100%"}) {
        SCOPED_TRACE(name);
        test::write_file("/var/tmp/calls", "");
        add_htb(name.c_str());
        test::console();
        const test::watch watch;
        EXPECT_EQ(1, restart_rule(name.c_str()));
        ASSERT_EQ(1U, watch.calls("system").size());
        EXPECT_EQ("/var/tmp/qos_rule_" + name, watch.calls("system")[0].text);
        EXPECT_EQ(opening_lines + chain_lines(name), test::read_file("/var/tmp/qos_rule_" + name));
        ASSERT_EQ(12U, calls().size());
        EXPECT_EQ("[-t][mangle][-F][QOS_" + name + "]", calls()[0]);
        EXPECT_EQ(traces{}, test::console());
    }
}

TEST_F(RuleScriptRun, UnknownInterfacesHaveNone)
{
    for (const std::string &name :
         {std::string("eth9"), std::string(32, 'i'), std::string(500, 'n'), std::string()}) {
        const test::watch watch;
        EXPECT_EQ(0, restart_rule(name.c_str()));
        EXPECT_EQ((traces{not_found(name), no_interface}), test::console());
        EXPECT_EQ(2U, watch.calls("open").size());  // the console's
        EXPECT_EQ(0U, watch.calls("system").size());
    }
    for (const auto &entry : fs::directory_iterator("/var/tmp"))
        EXPECT_NE(0U, entry.path().string().find("/var/tmp/qos_")) << entry.path();
}

TEST_F(RuleScriptRun, NoFolderNoScript)
{
    add_htb("no/where");
    test::console();
    EXPECT_EQ(0, restart_rule("no/where"));
    EXPECT_EQ((traces{no_script}), test::console());
    EXPECT_EQ(0U, calls().size());
}

// ---- Who has it open for writing ---------------------------------------------------------------

// The commands of fcntl, with their arguments, as "COMMAND ARGUMENT".
std::vector<std::string> fcntls(const test::watch &watch)
{
    std::vector<std::string> all;
    for (const auto &call : watch.calls("fcntl"))
        all.push_back(std::to_string(call.flags) + " " + call.text);
    return all;
}

std::string fcntl_call(int command, int argument)
{
    return std::to_string(command) + " " + std::to_string(argument);
}

const std::string look = fcntl_call(F_SETLEASE, F_RDLCK);

// As a child of another thread's has until it runs its program.
TEST_F(RuleScriptRun, WaitsForAWriter)
{
    EXPECT_EQ(1, restart_rule("eth0"));
    ASSERT_EQ(20U, calls().size());
    const int held = ::open(rule_script, O_WRONLY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    const test::watch watch;
    std::thread writer([&] {
        EXPECT_TRUE(test::eventually([&] {
            const auto all = fcntls(watch);
            return std::count(all.begin(), all.end(), look) > 2;
        }));
        ::close(held);
    });
    EXPECT_EQ(1, restart_rule("eth0"));
    writer.join();
    EXPECT_EQ(40U, calls().size());
}

TEST_F(RuleScriptRun, WaitsForNoWriterForEver)
{
    EXPECT_EQ(1, restart_rule("eth0"));
    const int held = ::open(rule_script, O_WRONLY | O_CLOEXEC);
    ASSERT_GE(held, 0);
    const test::watch watch;
    EXPECT_EQ(1, restart_rule("eth0"));
    ::close(held);
    EXPECT_EQ(20U, calls().size());
    EXPECT_EQ(1U, watch.calls("system").size());
    const auto all = fcntls(watch);
    EXPECT_EQ(100, std::count(all.begin(), all.end(), look));
    EXPECT_EQ(traces{}, test::console());
}

// The lease is given back before the script runs, and whoever breaks it sends a signal that is
// ignored by default: not SIGIO, which ends a process.
TEST_F(RuleScriptRun, LooksOnceWhereThereIsNoWriter)
{
    const test::watch watch;
    EXPECT_EQ(1, restart_rule("eth0"));
    EXPECT_EQ(
        (std::vector<std::string>{fcntl_call(F_DUPFD_CLOEXEC, 0), fcntl_call(F_SETSIG, SIGURG),
                                  look, fcntl_call(F_SETLEASE, F_UNLCK)}),
        fcntls(watch));
    EXPECT_EQ(20U, calls().size());
}

TEST_F(RuleScriptRun, RunsAtOnceOnAFileSystemWithoutLeases)
{
    for (const int nth : {2, 3}) {
        const test::watch watch("fcntl", nth, EINVAL);
        EXPECT_EQ(1, restart_rule("eth0"));
        EXPECT_TRUE(watch.failed());
        EXPECT_EQ(static_cast<size_t>(nth), watch.calls("fcntl").size());
    }
    EXPECT_EQ(40U, calls().size());
    {
        const test::watch watch("open", 2, EMFILE);
        EXPECT_EQ(1, restart_rule("eth0"));
        EXPECT_TRUE(watch.failed());
    }
    EXPECT_EQ(60U, calls().size());
    EXPECT_EQ(traces{}, test::console());
}

// ---- The file of each script -------------------------------------------------------------------

struct script {
    const char *name;
    const char *path;
    int (*write)(const char *);
    bool traced;  // whether a file that cannot be opened is
};

void PrintTo(const script &each, std::ostream *out) { *out << each.name; }

class ScriptFile : public RuleScriptRun, public testing::WithParamInterface<script> {
protected:
    const std::string path = GetParam().path;
    const traces refusal = GetParam().traced ? traces{no_script} : traces{};

    int write() const { return GetParam().write("eth0"); }

    void expect_written() const
    {
        EXPECT_EQ(1, write());
        EXPECT_EQ(0700U, test::mode_of(path));
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
        EXPECT_EQ("", test::shell_syntax(path));
        EXPECT_EQ(traces{}, test::console());
    }

    // Refused at once: a call that waits for a reader of a FIFO is set free, and fails.
    void expect_refused() const
    {
        const test::watch watch;
        std::packaged_task<int()> task([this] { return write(); });
        std::future<int> result = task.get_future();
        std::thread runner(std::move(task));
        if (result.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
            ADD_FAILURE() << "waits for " << path;
            const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
            result.wait();
            ::close(reader);
        }
        runner.join();
        EXPECT_EQ(0, result.get());
        EXPECT_EQ(refusal, test::console());
        EXPECT_EQ(0U, watch.calls("system").size());
    }
};

INSTANTIATE_TEST_SUITE_P(Each, ScriptFile,
                         testing::Values(script{"Rule", rule_script, restart_rule, true},
                                         script{"Start", "/var/tmp/qos_start", start_qos, false},
                                         script{"Stop", "/var/tmp/qos_stop", stop_qos, false}),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_P(ScriptFile, IsOfMode0700WhateverTheMask)
{
    for (const mode_t mask : {0U, 022U, 077U, 0777U}) {
        SCOPED_TRACE(mask);
        fs::remove(path);
        const mode_t before = ::umask(mask);
        EXPECT_EQ(1, write());
        ::umask(before);
        EXPECT_EQ(0700U, test::mode_of(path));
    }
    expect_written();
}

TEST_P(ScriptFile, IsOfMode0700WhateverItWas)
{
    for (const mode_t mode : {0666U, 0U, 0400U, 07777U}) {
        SCOPED_TRACE(mode);
        test::write_file(path, "old\n");
        ASSERT_EQ(0, ::chmod(path.c_str(), mode));
        expect_written();
    }
}

TEST_P(ScriptFile, IsRewrittenWhole)
{
    expect_written();
    const std::string text = test::read_file(path);
    for (const size_t length : {size_t{0}, size_t{1}, text.size(), size_t{100000}}) {
        test::write_file(path, std::string(length, '#'));
        expect_written();
        EXPECT_EQ(text, test::read_file(path));
    }
}

TEST_P(ScriptFile, IsOpenedOnceAndClosedOnExec)
{
    const test::watch watch;
    expect_written();
    int opened = 0;
    for (const auto &call : watch.calls("open")) {
        if (call.text != path) continue;
        opened += (call.flags & O_ACCMODE) != O_RDONLY;
        EXPECT_EQ(O_CLOEXEC, call.flags & O_CLOEXEC);
    }
    EXPECT_EQ(1, opened);
}

// Others may have opened it while they could, and would write to what root runs.
TEST_P(ScriptFile, ThatOthersCouldWriteToIsReplaced)
{
    for (const mode_t mode : {0666U, 0620U, 0602U}) {
        SCOPED_TRACE(mode);
        test::write_file(path, "old\n");
        ASSERT_EQ(0, ::chmod(path.c_str(), mode));
        const int held = ::open(path.c_str(), O_WRONLY);
        expect_written();
        const std::string text = test::read_file(path);
        EXPECT_EQ(4, ::pwrite(held, "id #", 4, 0));
        ::close(held);
        EXPECT_EQ(text, test::read_file(path));
    }
    const test::watch watch("unlink", 1, 13 /* EACCES */);
    test::write_file(path, "old\n");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0666));
    EXPECT_EQ(0, write());
    EXPECT_EQ(refusal, test::console());
    EXPECT_EQ("old\n", test::read_file(path));
}

// What is planted between the removal of the old file and the making of the new one is refused.
TEST_P(ScriptFile, ThatTakesAnOldOnesPlaceIsNew)
{
    test::write_file(path, "old\n");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0666));
    const test::watch watch;
    expect_written();
    std::vector<int> exclusive;
    for (const auto &call : watch.calls("open"))
        if (call.text == path && (call.flags & O_ACCMODE) != O_RDONLY)
            exclusive.push_back(call.flags & (O_CREAT | O_EXCL));
    EXPECT_EQ((std::vector<int>{O_CREAT, O_CREAT | O_EXCL}), exclusive);
}

TEST_P(ScriptFile, OnAFileSystemWithoutModesIsStillWritten)
{
    const test::watch watch("fchmod", 1, 1 /* EPERM */);
    expect_written();
    EXPECT_TRUE(watch.failed());
}

TEST_P(ScriptFile, ThatCannotBeOpenedIsLeftAlone)
{
    for (const char *function : {"open", "fstat", "fcntl", "fdopen", "ftruncate"}) {
        SCOPED_TRACE(function);
        test::write_file(path, "old\n");
        ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
        {
            const test::watch watch(function, 1, 13 /* EACCES */);
            EXPECT_EQ(0, write());
            EXPECT_TRUE(watch.failed());
            EXPECT_EQ(0U, watch.calls("system").size());
        }
        EXPECT_EQ(refusal, test::console());
        EXPECT_EQ("old\n", test::read_file(path));
        EXPECT_EQ(0640U, test::mode_of(path));
    }
}

TEST_P(ScriptFile, ThatCannotBeMadeIsMissed)
{
    const test::watch watch("open", 1, 28 /* ENOSPC */);
    EXPECT_EQ(0, write());
    EXPECT_TRUE(watch.failed());
    EXPECT_FALSE(test::exists(path));
    EXPECT_EQ(refusal, test::console());
}

TEST_P(ScriptFile, IsNoSymbolicLink)
{
    test::write_file("/var/tmp/victim", "precious\n");
    ASSERT_EQ(0, ::chmod("/var/tmp/victim", 0644));
    fs::create_symlink("/var/tmp/victim", path);
    expect_refused();
    EXPECT_EQ("precious\n", test::read_file("/var/tmp/victim"));
    EXPECT_EQ(0644U, test::mode_of("/var/tmp/victim"));
    EXPECT_EQ("/var/tmp/victim", fs::read_symlink(path));
}

TEST_P(ScriptFile, IsNoDanglingSymbolicLink)
{
    fs::create_symlink("/var/tmp/nothing", path);
    expect_refused();
    EXPECT_FALSE(test::exists("/var/tmp/nothing"));
    EXPECT_EQ("/var/tmp/nothing", fs::read_symlink(path));
}

TEST_P(ScriptFile, IsNoDirectory)
{
    fs::create_directory(path);
    ASSERT_EQ(0, ::chmod(path.c_str(), 0755));
    expect_refused();
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(0755U, test::mode_of(path));
}

TEST_P(ScriptFile, IsNoFifo)
{
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    expect_refused();
    EXPECT_EQ(0600U, test::mode_of(path));
}

TEST_P(ScriptFile, IsNoFifoWithAReader)
{
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    expect_refused();
    char byte = 0;
    EXPECT_EQ(0, ::read(reader, &byte, 1));  // no writer is left, and none wrote
    ::close(reader);
    EXPECT_EQ(0600U, test::mode_of(path));
}

TEST_P(ScriptFile, IsNoSocket)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
    expect_refused();
    ::close(fd);
    EXPECT_TRUE(fs::is_socket(path));
    EXPECT_EQ(0600U, test::mode_of(path));
}

TEST_P(ScriptFile, IsNobodyElses)
{
    for (const mode_t mode : {0777U, 0600U}) {
        test::write_file(path, "theirs\n");
        ASSERT_EQ(0, ::chmod(path.c_str(), mode));
        if (::chown(path.c_str(), 12345, 12345) != 0) GTEST_SKIP() << "no second user here";
        expect_refused();
        EXPECT_EQ("theirs\n", test::read_file(path));
        EXPECT_EQ(mode, test::mode_of(path));
        fs::remove(path);
    }
}

TEST_P(ScriptFile, HasNoSecondName)
{
    test::write_file("/var/tmp/victim", "precious\n");
    ASSERT_EQ(0, ::chmod("/var/tmp/victim", 0644));
    fs::create_hard_link("/var/tmp/victim", path);
    expect_refused();
    EXPECT_EQ("precious\n", test::read_file("/var/tmp/victim"));
    EXPECT_EQ(0644U, test::mode_of("/var/tmp/victim"));
    fs::remove("/var/tmp/victim");  // then it is an old file of our own
    expect_written();
}

// ---- A full disk -------------------------------------------------------------------------------

// Scripts of several pages, where they hold the rules.
void add_many_rules()
{
    for (int index = 0; index < 256; ++index) add_rule(index, {}, marking(2));
}

// While it lives, no file gets longer than this many bytes.
class file_limit {
public:
    explicit file_limit(size_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before_));
        rlimit few = before_;
        few.rlim_cur = bytes;
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &few));
    }
    ~file_limit()
    {
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &before_));
        std::signal(SIGXFSZ, handler_);
    }
    file_limit(const file_limit &) = delete;
    file_limit &operator=(const file_limit &) = delete;

private:
    rlimit before_{};
    void (*handler_)(int);
};

TEST_P(ScriptFile, ThatEndsAtAnyByteIsCutBack)
{
    expect_written();
    const std::string whole = test::read_file(path);
    const std::string opening = opening_lines;
    ASSERT_GT(whole.size(), opening.size());
    for (size_t room = 0; room <= whole.size(); ++room) {
        {
            const test::watch watch("system", -1);  // the shell would not fit either
            const file_limit limit(room);
            ASSERT_EQ(1, write());
        }
        const std::string expected = room >= whole.size()     ? whole
                                     : room >= opening.size() ? opening
                                                              : "";
        ASSERT_EQ(expected, test::read_file(path)) << room;
        ASSERT_EQ(0700U, test::mode_of(path));
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_P(ScriptFile, OnAFullFileSystemIsCutBack)
{
    add_many_rules();
    expect_written();
    const std::string whole = test::read_file(path);
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    for (size_t pages = 0; pages <= whole.size() / page + 1; ++pages) {
        SCOPED_TRACE(pages);
        const std::string size = "size=" + std::to_string((pages + 1) * page);
        ASSERT_EQ(0, ::mount("tmpfs", "/var/tmp", "tmpfs", 0, size.c_str()));
        test::write_file("/var/tmp/other", "takes a page");
        const test::watch watch("system", -1);  // what it runs lies below the mount
        EXPECT_EQ(1, write());
        const std::string expected = pages * page >= whole.size() ? whole
                                     : pages > 0                  ? opening_lines
                                                                  : "";
        EXPECT_TRUE(expected == test::read_file(path)) << test::read_file(path).size();
        EXPECT_EQ(0700U, test::mode_of(path));
        ASSERT_EQ(0, ::umount("/var/tmp"));
    }
    EXPECT_EQ(traces{}, test::console());
}

// The nth write fails, of a full disk or for want of memory; those that follow do not.
TEST_P(ScriptFile, WithAHoleIsCutBack)
{
    add_many_rules();
    expect_written();
    const std::string whole = test::read_file(path);
    for (const int error : {ENOSPC, ENOMEM}) {
        int nth = 1;
        for (bool failed = true; failed; ++nth) {
            const test::watch watch("stream write", nth, error);
            EXPECT_EQ(1, write());
            failed = watch.failed();
            const std::string expected = failed ? opening_lines : whole;
            EXPECT_TRUE(expected == test::read_file(path)) << nth << ' ' << error;
            EXPECT_EQ(0700U, test::mode_of(path));
        }
        EXPECT_GE(nth, 3);
    }
    EXPECT_EQ(traces{}, test::console());
}

TEST_P(ScriptFile, ThatFailsAsItIsClosedIsCutBack)
{
    const test::watch watch("stream close", 1, ENOSPC);
    EXPECT_EQ(1, write());
    EXPECT_TRUE(watch.failed());
    EXPECT_EQ(opening_lines, test::read_file(path));
    EXPECT_EQ(0700U, test::mode_of(path));
    EXPECT_EQ(traces{}, test::console());
}

TEST_F(RuleScriptRun, RunsNothingThatWasCutBack)
{
    add_many_rules();
    for (const char *function : {"stream write", "stream close"}) {
        SCOPED_TRACE(function);
        const test::watch watch(function, 1, ENOSPC);
        EXPECT_EQ(1, restart_rule("eth0"));
        EXPECT_TRUE(watch.failed());
        EXPECT_EQ(1U, watch.calls("system").size());
        EXPECT_EQ(std::vector<std::string>{}, calls());
    }
}

TEST_P(ScriptFile, OfAnUnknownInterfaceIsNotTouched)
{
    const bool rule = GetParam().traced;
    const std::string found = rule ? "/var/tmp/qos_rule_eth9" : path;
    test::write_file(found, "old\n");
    ASSERT_EQ(0, ::chmod(found.c_str(), 0640));
    EXPECT_EQ(0, GetParam().write("eth9"));
    EXPECT_EQ("old\n", test::read_file(found));
    EXPECT_EQ(0640U, test::mode_of(found));
    traces expected{not_found("eth9")};
    if (rule) expected.push_back(no_interface);
    EXPECT_EQ(expected, test::console());
}

}  // namespace
