// SPDX-License-Identifier: MIT
// What a policy may say and what it means, and the texts that are read and written with it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "policy_read.h"
#include "text.h"
#include "tree.h"

namespace {

using std::optional;
using std::string;
using std::string_view;
using tool::diagnostics;
using tool::kernel_kind;
namespace fs = std::filesystem;

constexpr optional<u32> none = std::nullopt;

string contents(const fs::path &file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// As the command prints them, less the file's name
string lines(const diagnostics &found)
{
    string all;
    for (const tool::diagnostic &d : found.sorted())
        all += tool::format("%u:%u: %s%s\n", d.at.line, d.at.column, d.warning ? "warning: " : "",
                            d.text.c_str());
    return all;
}

string answer(string_view text, kernel_kind kernel = kernel_kind::mainline)
{
    diagnostics found;
    (void)tool::read_policy(text, kernel, found);
    return lines(found);
}

std::vector<fs::path> files(const fs::path &folder, const char *extension)
{
    std::vector<fs::path> all;
    for (const auto &entry : fs::directory_iterator(folder))
        if (entry.path().extension() == extension) all.push_back(entry.path());
    std::sort(all.begin(), all.end());
    return all;
}

// ---- Bad policies, and the examples -------------------------------------------------------------

TEST(Policy, EveryBadOneGetsItsWholeAnswer)
{
    const fs::path folder = MORDEL_POLICIES "/bad";
    const auto policies = files(folder, ".toml");
    EXPECT_GE(policies.size(), 60U);
    EXPECT_EQ(policies.size(), files(folder, ".expected").size());
    for (fs::path file : policies) {
        SCOPED_TRACE(file.filename().string());
        const string text = contents(file);
        const kernel_kind kernel =
            text.starts_with("# kernel vendor\n") ? kernel_kind::vendor : kernel_kind::mainline;
        const string expected = contents(file.replace_extension(".expected"));
        EXPECT_FALSE(expected.empty()) << "no .expected beside it";
        EXPECT_EQ(answer(text, kernel), expected);
        string other;  // lines that end as on other systems
        for (const char c : text) other += c == '\n' ? "\r\n" : string(1, c);
        EXPECT_EQ(answer(other, kernel), answer(text, kernel));
    }
}

TEST(Policy, ExamplesAreGood)
{
    const auto examples = files(MORDEL_EXAMPLES, ".toml");
    EXPECT_FALSE(examples.empty());
    for (const fs::path &file : examples) {
        SCOPED_TRACE(file.filename().string());
        diagnostics found;
        const tool::policy p = tool::read_policy(contents(file), kernel_kind::vendor, found);
        EXPECT_FALSE(found.failed()) << lines(found);
        EXPECT_EQ(lines(found).find("mainline"), string::npos) << lines(found);
        EXPECT_FALSE(p.interfaces.empty());
        EXPECT_EQ(answer(contents(file)).find("error"), string::npos);
    }
}

TEST(Policy, WhatIsNoTomlIsOneErrorAtItsLine)
{
    const struct {
        const char *fault;
        string text;
        unsigned line;
    } rows[] = {
        {"no TOML at all", "interface eth0 {\n  root htb;\n}\n", 1},
        {"an open text", "[[interface]]\nname = \"eth0\nroot = \"htb\"\n", 2},
        {"an open array", "[[interface]]\nname = [1,", 2},
        {"a key twice", "[[interface]]\nname = \"a\"\nroot = \"htb\"\nname = \"b\"\n", 4},
        {"a table twice", "[a]\n[b]\n[a]\n", 3},
        {"no value", "\n\nkey =\n", 3},
        {"a NUL", string("[[interface]]\nname = \"a\0b\"\n", 27), 2},
        {"a NUL alone", string("\0", 1), 1},
        {"no UTF-8", "[[interface]]\nname = \"\xff\xfe\"\n", 2},
        {"UTF-8 cut off", "name = \"\xe2\x82", 1},
        {"UTF-8 too long", "name = \"\xc0\xaf\"\n", 1},
        {"half a surrogate pair", "name = \"\\ud800\"\n", 1},
        {"UTF-16", string("\xff\xfe[\0[\0", 6), 1},
        {"a number of 65 bits", "a = 99999999999999999999\n", 1},
        {"a date that is none", "a = 2024-13-41\n", 1},
        {"a bare return", "a = 1\rb = 2\n", 1},
        {"arrays too deep", "a = " + string(100000, '['), 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.fault);
        diagnostics found;
        const tool::policy p = tool::read_policy(row.text, kernel_kind::mainline, found);
        EXPECT_TRUE(p.interfaces.empty());
        ASSERT_EQ(found.all().size(), 1U) << lines(found);
        const tool::diagnostic &d = found.all().front();
        EXPECT_FALSE(d.warning);
        EXPECT_EQ(d.at.line, row.line) << d.text;
        EXPECT_TRUE(d.text.starts_with("this is no TOML: ")) << d.text;
        EXPECT_TRUE(
            std::all_of(d.text.begin(), d.text.end(), [](char c) { return c >= ' ' && c <= '~'; }));
    }
}

TEST(Policy, ColumnsCountCharactersAndTabsAsOne)
{
    EXPECT_EQ(answer("[[interface]]\nname = \"eth0\" # b\xc3\xbc\nroot = \"pfifo_fast\"\n"
                     "queue_len\t=\t-1\n"),
              "4:13: queue_len is -1; it is a whole number from 0 to 4294967295\n");
    EXPECT_EQ(
        answer("interface = [{ name = \"\xc3\xbc\", root = \"cbq\" }]\n"),
        "1:23: name is \"\\xc3\\xbc\"; it goes into a script as it is: 1 to 15 letters, digits and"
        " . _ -, no dash or dot first\n"
        "1:35: root is \"cbq\"; it is one of pfifo_fast, htb, hfsc or prio\n");
}

TEST(Policy, MayBeginWithAByteOrderMark)
{
    EXPECT_EQ(answer("\xef\xbb\xbf[[interface]]\nname = \"eth0\"\nroot = \"pfifo_fast\"\n"
                     "queue_len = 9\n"),
              "");
}

// ---- What is read -------------------------------------------------------------------------------

tool::policy parsed(const string &text)
{
    diagnostics found;
    tool::policy p = tool::parse_policy(text, found);
    EXPECT_FALSE(found.failed()) << lines(found);
    return p;
}

tool::policy_interface interface_of(const string &keys)
{
    tool::policy p = parsed("[[interface]]\nname = \"eth0\"\nphy_tx = 100\nlink_tx = 90\n" + keys);
    EXPECT_EQ(p.interfaces.size(), 1U);
    p.interfaces.resize(1);
    return p.interfaces.front();
}

tool::policy_rule rule_of(const string &keys)
{
    auto rules = interface_of("root = \"htb\"\n[[interface.rule]]\nindex = 7\n" + keys).rules;
    EXPECT_EQ(rules.size(), 1U);
    rules.resize(1);
    return rules.front();
}

tool::policy_class class_of(const string &root, const string &keys)
{
    const string text = "root = \"" + root + "\"\n[[interface.class]]\nhandle = 0x10\n" + keys;
    auto classes = interface_of(text).classes;
    EXPECT_EQ(classes.size(), 1U);
    classes.resize(1);
    return classes.front();
}

template <typename Record>
struct meaning {
    string text;
    std::function<void(Record &)> set;
};

// All of the record is compared: a value that lands in a neighbour's field is seen there too.
template <typename Record>
void expect_record(const Record &got, const std::function<void(Record &)> &set)
{
    Record expected;
    std::memset(&expected, 0, sizeof expected);
    set(expected);
    const auto *a = reinterpret_cast<const unsigned char *>(&got);
    const auto *b = reinterpret_cast<const unsigned char *>(&expected);
    for (std::size_t i = 0; i < sizeof got; ++i)
        ASSERT_EQ(a[i], b[i]) << "byte " << i << " of the record";
}

constexpr u32 bit(u32 n) { return u32{1} << n; }

void expect_matches(const std::vector<meaning<qos_match>> &rows)
{
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        expect_record<qos_match>(
            rule_of("match = { " + row.text + " }\ntarget = { mark = 2 }\n").match, row.set);
    }
}

TEST(Policy, ProtocolsPortsAndFlagsAreRead)
{
    std::vector<meaning<qos_match>> rows = {
        {"", [](qos_match &) {}},
        {"protocol = \"udp\", sport = 1, dport = 65535",
         [](qos_match &m) {
             m.flags = bit(8);
             m.protocol = 1;
             m.sport_start = m.sport_end = 1;
             m.dport_start = m.dport_end = 65535;
         }},
        {"protocol = \"tcp\", sport = \"1024:2047\", dport = \"1:65535\"",
         [](qos_match &m) {
             m.flags = bit(8);
             m.sport_start = 1024;
             m.sport_end = 2047;
             m.dport_start = 1;
             m.dport_end = 65535;
         }},
        {"protocol = \"both\", dport = \"80:80\"",
         [](qos_match &m) {
             m.flags = bit(8);
             m.protocol = 3;
             m.dport_start = m.dport_end = 80;
         }},
        {"protocol = \"both\", tcp_flags = { mask = [\"syn\", \"ACK\", \"Fin\", \"RST\", \"URG\","
         " \"psh\"], set = [\"PSH\", \"ACK\", \"ack\"] }",
         [](qos_match &m) {
             m.flags = bit(8);
             m.protocol = 3;
             m.tcp_flag_mask = 0x3f;
             m.tcp_flag_comp = 0x22;
         }},
    };
    const char *const protocols[][3] = {{"tcp", "TCP", "tCp"},
                                        {"udp", "UDP", "Udp"},
                                        {"icmp", "ICMP", "Icmp"},
                                        {"both", "BOTH", "boTH"},
                                        {"all", "ALL", "All"}};
    for (u32 id = 0; id < std::size(protocols); ++id)
        for (const char *word : protocols[id])
            rows.push_back({tool::format("protocol = \"%s\"", word), [id](qos_match &m) {
                                m.flags = bit(8);
                                m.protocol = id;
                            }});
    const char *const flags[] = {"SYN", "ACK", "FIN", "RST", "URG", "PSH"};
    for (u32 n = 0; n < std::size(flags); ++n)
        rows.push_back({tool::format("protocol = \"tcp\", tcp_flags = { mask = [\"%s\"], set = "
                                     "[\"%s\"] }",
                                     flags[n], flags[n]),
                        [n](qos_match &m) {
                            m.flags = bit(8);
                            m.tcp_flag_mask = m.tcp_flag_comp = static_cast<u8>(bit(n));
                        }});
    expect_matches(rows);
}

TEST(Policy, AddressesAreRead)
{
    const struct {
        const char *text;
        u32 first;
        u32 last;
    } rows[] = {
        {"192.168.1.7", 0xc0a80107, 0xc0a80107},
        {"0.0.0.1", 1, 1},
        {"255.255.255.255", 0xffffffff, 0xffffffff},
        {"192.168.1.0/24", 0xc0a80100, 0xc0a801ff},
        {"192.168.1.7/24", 0xc0a80100, 0xc0a801ff},
        {"192.168.1.7/32", 0xc0a80107, 0xc0a80107},
        {"192.168.1.7/31", 0xc0a80106, 0xc0a80107},
        {"200.0.0.1/1", 0x80000000, 0xffffffff},
        {"10.0.0.0/8", 0x0a000000, 0x0affffff},
        {"192.168.1.100-192.168.1.109", 0xc0a80164, 0xc0a8016d},
        {"10.0.0.9-10.0.0.9", 0x0a000009, 0x0a000009},
        {"0.0.0.1-255.255.255.255", 1, 0xffffffff},
    };
    for (const auto &row : rows)
        expect_matches({{tool::format("src = \"%s\"", row.text),
                         [&](qos_match &m) {
                             m.flags = bit(3);
                             m.src_ip_start = row.first;
                             m.src_ip_end = row.last;
                         }},
                        {tool::format("dst = \"%s\"", row.text), [&](qos_match &m) {
                             m.flags = bit(3);
                             m.dst_ip_start = row.first;
                             m.dst_ip_end = row.last;
                         }}});
    expect_matches(
        {{"src = \"1.2.3.4\", dst = \"5.6.7.8\", mac = \"00:11:22:aA:Bb:ff\"", [](qos_match &m) {
              m.flags = bit(3) | bit(2);
              m.src_ip_start = m.src_ip_end = 0x01020304;
              m.dst_ip_start = m.dst_ip_end = 0x05060708;
              std::memcpy(m.src_mac, "00:11:22:aA:Bb:ff", 17);
          }}});
}

constexpr const char *dscp_classes[] = {
    "CS0",  "CS1",  "CS2",  "CS3",  "CS4",  "CS5",  "CS6",  "CS7",  "BE",   "AF11", "AF12",
    "AF13", "AF21", "AF22", "AF23", "AF31", "AF32", "AF33", "AF41", "AF42", "AF43", "EF"};

const struct {
    const char *name;
    u32 id;
} tos_words[] = {{"Minimize-Delay", 16},      {"minimize-delay", 16},
                 {"Maximize-Throughput", 8},  {"MAXIMIZE-THROUGHPUT", 8},
                 {"Maximize-Reliability", 4}, {"Minimize-Cost", 2},
                 {"Normal-Service", 0}};

TEST(Policy, DscpAndTosAreRead)
{
    std::vector<meaning<qos_match>> rows = {
        {"dscp = 0", [](qos_match &m) { m.flags = bit(4); }},
        {"dscp = 63",
         [](qos_match &m) {
             m.flags = bit(4);
             m.dscp_value.raw = 63;
         }},
        {"dscp = \"ef\"",
         [](qos_match &m) {
             m.flags = bit(4);
             m.dscp_mode = 1;
             m.dscp_value.class_id = 21;
         }},
        {"tos = \"Minimize-Cost\", precedence = 7", [](qos_match &m) {
             m.flags = bit(5);
             m.tos = 2;
             m.precedence = 7;
         }}};
    for (u32 id = 0; id < std::size(dscp_classes); ++id)
        rows.push_back({tool::format("dscp = \"%s\"", dscp_classes[id]), [id](qos_match &m) {
                            m.flags = bit(4);
                            m.dscp_mode = 1;
                            m.dscp_value.class_id = id;
                        }});
    for (const auto &tos : tos_words)
        rows.push_back({tool::format("tos = \"%s\"", tos.name), [&tos](qos_match &m) {
                            m.flags = bit(5);
                            m.tos = tos.id;
                        }});
    expect_matches(rows);
}

TEST(Policy, OtherMatchesAreRead)
{
    const string longest(255, 'a');
    std::vector<meaning<qos_match>> rows = {
        {"length = 0", [](qos_match &m) { m.flags = bit(7); }},
        {"length = 1500",
         [](qos_match &m) {
             m.flags = bit(7);
             m.pkt_len = 1500U << 16 | 1500U;
         }},
        {"length = \"0:65535\"",
         [](qos_match &m) {
             m.flags = bit(7);
             m.pkt_len = 65535;
         }},
        {"length = \"1400:1500\"",
         [](qos_match &m) {
             m.flags = bit(7);
             m.pkt_len = 1400U << 16 | 1500U;
         }},
        // The scripts write the id under the bit of the priority, and the other way round.
        {"vlan_id = 4095",
         [](qos_match &m) {
             m.flags = bit(0);
             m.vlan_id = 4095;
         }},
        {"vlan_prio = 7",
         [](qos_match &m) {
             m.flags = bit(1);
             m.dot1p_prio = 7;
         }},
        {"vlan_id = 0, vlan_prio = 0", [](qos_match &m) { m.flags = bit(0) | bit(1); }},
        {"domain = \"www.Example_1-a.org\"",
         [](qos_match &m) {
             m.flags = bit(9);
             std::strcpy(m.domain, "www.Example_1-a.org");
         }},
        {"domain = \"" + longest + "\"",
         [&](qos_match &m) {
             m.flags = bit(9);
             std::memcpy(m.domain, longest.data(), 255);
         }},
        {"url = \"http://a.org:80/b%20c+d,e=f@g_h-i\"",
         [](qos_match &m) {
             m.flags = bit(10);
             std::strcpy(m.url, "http://a.org:80/b%20c+d,e=f@g_h-i");
         }},
        {"url = \"" + longest + "\"",
         [&](qos_match &m) {
             m.flags = bit(10);
             std::memcpy(m.url, longest.data(), 255);
         }},
        {"schedule = 1", [](qos_match &m) { m.sched_index = 1; }},
        {"schedule = 255", [](qos_match &m) { m.sched_index = 255; }},
    };
    const char *const algs[][2] = {{"sip", "SIP"}, {"Q.931", "q.931"}, {"ftp", "Ftp"}};
    for (u32 id = 0; id < std::size(algs); ++id)
        for (const char *word : algs[id])
            rows.push_back({tool::format("alg = \"%s\"", word), [id](qos_match &m) {
                                m.flags = bit(6);
                                m.alg = id;
                            }});
    expect_matches(rows);
}

TEST(Policy, TargetsAreRead)
{
    std::vector<meaning<qos_target>> rows = {
        {"mark = 0x10",
         [](qos_target &t) {
             t.flags = bit(0);
             t.mark = 0x10;
         }},
        {"dscp = 63",
         [](qos_target &t) {
             t.flags = bit(2);
             t.value.raw = 63;
         }},
        {"tos = \"Minimize-Delay\", precedence = 5",
         [](qos_target &t) {
             t.flags = bit(1);
             t.kind = 16;
             t.value.raw = 5;
         }},
        // The one pair that shares its storage in peace
        {"tos = \"Normal-Service\", precedence = 5, dscp = 5",
         [](qos_target &t) {
             t.flags = bit(1) | bit(2);
             t.value.raw = 5;
         }},
        {"mkvlan = { id = 4095, prio = 7, double = true }",
         [](qos_target &t) {
             t.flags = bit(3);
             t.vlan_id = 4095;
             t.vlan_prio = 7;
             t.vlan_double = 1;
         }},
        {"mkvlan = { id = 0, double = false }", [](qos_target &t) { t.flags = bit(3); }},
        {"mark = 2, log = true",
         [](qos_target &t) {
             t.flags = bit(0) | bit(4);
             t.mark = 2;
             t.log = 1;
         }},
        {"mark = 2, log = false", [](qos_target &t) {
             t.flags = bit(0);
             t.mark = 2;
         }}};
    for (u32 id = 0; id < std::size(dscp_classes); ++id)
        rows.push_back({tool::format("dscp = \"%s\"", dscp_classes[id]), [id](qos_target &t) {
                            t.flags = bit(2);
                            t.kind = 1;
                            t.value.class_id = id;
                        }});
    for (const auto &tos : tos_words)
        rows.push_back({tool::format("tos = \"%s\"", tos.name), [&tos](qos_target &t) {
                            t.flags = bit(1);
                            t.kind = tos.id;
                        }});
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const tool::policy_rule rule = rule_of("target = { " + row.text + " }\n");
        EXPECT_EQ(rule.index.get(), 7U);
        expect_record<qos_target>(rule.target, row.set);
    }
}

TEST(Policy, ClassesAreRead)
{
    const tool::policy_class c =
        class_of("htb", "parent = 0xfff\nname = \"a b\"\nrate = \"2mbit\"\n"
                        "ceil = 3000\nprio = 7\nburst = \"6kb\"\n"
                        "cburst = 1500\n");
    EXPECT_EQ(c.handle.get(), 0x10U);
    EXPECT_EQ(c.parent.get(), 0xfffU);
    EXPECT_EQ(c.name.get(), "a b");
    EXPECT_FALSE(c.existing);
    EXPECT_TRUE(c.leaf.is_absent());
    expect_record<htb_class_param>(c.param.htb, [](auto &p) { p = {2000, 3000, 6144, 1500, 7}; });

    const tool::policy_class plain = class_of("htb", "rate = 4294967295\n");
    EXPECT_EQ(plain.parent.get(), 1U);
    expect_record<htb_class_param>(plain.param.htb, [](auto &p) {
        p = {0xffffffff, 0xffffffff, 0, 0, 0};
    });

    const tool::policy_class h = class_of(
        "hfsc", "parent = 0\nul = \"9mbit\"\nsc = { umax = 1500, dmax = \"20ms\", rate = 5 }\n"
                "ls = { rate = \"1gbit\", dmax = \"1s\" }\nrt = { rate = 7, umax = \"2kb\" }\n");
    EXPECT_EQ(h.parent.get(), 0U);
    expect_record<hfsc_class_param>(h.param.hfsc, [](auto &p) {
        p.ul = {0, 0, 9000};
        p.sc = {1500, 20, 5};
        p.ls = {0, 1000, 1000000};
        p.rt = {2048, 0, 7};
    });
}

TEST(Policy, EntriesForClassesThatAreThereAreTold)
{
    const string entries = "\n[[interface.class]]\nhandle = 3\nname = \"rest\"\n";
    for (const char *root : {"htb", "hfsc", "prio"}) {
        SCOPED_TRACE(root);
        const auto iface = interface_of(tool::format("root = \"%s\"\n", root) + entries);
        ASSERT_EQ(iface.classes.size(), 1U);
        EXPECT_TRUE(iface.classes[0].existing);
        EXPECT_EQ(iface.classes[0].name.get(), "rest");
    }
    const auto bare = interface_of("root = \"htb\"\ndefault_tree = false\ndefault = 3\n" + entries +
                                   "rate = 5\n[[interface.class]]\nhandle = 1\nrate = 6\n");
    ASSERT_EQ(bare.classes.size(), 2U);
    EXPECT_FALSE(bare.default_tree);
    EXPECT_FALSE(bare.classes[0].existing);
    EXPECT_EQ(bare.classes[0].param.htb.rate, 5U);
    EXPECT_EQ(bare.classes[1].parent.get(), 0U);
}

TEST(Policy, LeavesAreRead)
{
    const meaning<leaf_qdisc> rows[] = {
        {"type = \"pfifo\"", [](leaf_qdisc &) {}},
        {"type = \"PFIFO\", limit = 50", [](leaf_qdisc &l) { l.param.pfifo.limit = 50; }},
        {"type = \"pfifo\", limit = 0", [](leaf_qdisc &) {}},
        {"type = \"sfq\"", [](leaf_qdisc &l) { l.type = L_SFQ; }},
        {"type = \"Sfq\", perturb = 255",
         [](leaf_qdisc &l) {
             l.type = L_SFQ;
             l.param.sfq.perturb = 255;
         }},
        {"type = \"red\", min = 15000, max = \"45kb\", burst = 25, limit = \"1mb\", avpkt = "
         "\"1000b\"",
         [](leaf_qdisc &l) {
             l.type = L_RED;
             l.param.red = {15000, 46080, 25, 1048576, 1000};
         }},
        {"type = \"TBF\", rate = \"8mbit\", burst = 10000, latency = \"400ms\"", [](leaf_qdisc &l) {
             l.type = L_TBF;
             l.param.tbf = {400, 8000, 10000};
         }}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const auto c = class_of("htb", "rate = 9\nleaf = { " + row.text + " }\n");
        EXPECT_TRUE(c.leaf.is_good());
        expect_record<leaf_qdisc>(c.leaf.get(), row.set);
    }
}

TEST(Policy, InterfacesAreRead)
{
    for (const auto &[word, type] :
         {std::pair{"htb", R_HTB}, {"HTB", R_HTB}, {"hfsc", R_HFSC}, {"Hfsc", R_HFSC}}) {
        SCOPED_TRACE(word);
        const auto iface = interface_of(tool::format("root = \"%s\"\nphy_rx = \"1gbit\"\nlink_rx = "
                                                     "3\nautomark = [1, 2, 3, 4, 5, 6, 7, 0xfff]\n",
                                                     word));
        EXPECT_EQ(iface.name, "eth0");
        EXPECT_EQ(iface.root_type, type);
        EXPECT_TRUE(iface.known);
        EXPECT_TRUE(iface.default_tree);
        const u32 speeds[] = {90, 3, 100, 1000000};  // link_tx, link_rx, phy_tx, phy_rx
        EXPECT_TRUE(std::equal(std::begin(speeds), std::end(speeds), iface.speeds));
        expect_record<class_root_param>(iface.param.classful, [](auto &p) {
            p.default_class = 3;
            p.automark = {1, 0, {1, 2, 3, 4, 5, 6, 7, 0xfff}};
        });
    }
    EXPECT_EQ(interface_of("root = \"htb\"\ndefault = 0\n").param.classful.default_class, 0);
    EXPECT_EQ(interface_of("root = \"htb\"\ndefault = 0xfff\n").param.classful.default_class,
              0xfff);

    const auto off =
        interface_of("root = \"htb\"\n"
                     "automark = { enable = false, marks = [2, 0, 0, 0, 0, 0, 0, 0] }\n");
    EXPECT_EQ(off.param.classful.automark.enable, 0);
    EXPECT_EQ(off.param.classful.automark.mark[0], 2);
    EXPECT_EQ(interface_of("root = \"htb\"\nautomark = { marks = [2, 2, 2, 2, 2, 2, 2, 2] }\n")
                  .param.classful.automark.enable,
              1);
    EXPECT_EQ(interface_of("root = \"htb\"\n").param.classful.automark.enable, 0);

    const auto usual = interface_of("root = \"PRIO\"\n").param.prio;
    expect_record<prio_root_param>(usual, [](auto &p) {
        p.bands = 3;
        std::memcpy(p.priomap, "\1\2\2\2\1\2\0\0\1\1\1\1\1\1\1\1", 16);
    });
    const auto own =
        interface_of("root = \"prio\"\nbands = 16\nautomark = [1, 2, 3, 4, 5, 6, 7, 16]\n"
                     "priomap = [0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15]\n")
            .param.prio;
    expect_record<prio_root_param>(own, [](auto &p) {
        p.bands = 16;
        for (u8 i = 0; i < 16; ++i) p.priomap[i] = i;
        p.automark = {1, 0, {1, 2, 3, 4, 5, 6, 7, 16}};
    });

    for (const auto &[text, length] :
         {std::pair{"0", 0U}, {"100", 100U}, {"4294967295", 0xffffffffU}}) {
        const auto iface =
            interface_of(tool::format("root = \"pfifo_fast\"\nqueue_len = %s\n", text));
        EXPECT_EQ(iface.root_type, u32{R_pfifo_fast});
        EXPECT_EQ(iface.param.pfifo_fast.queue_len, length);
    }
}

TEST(Policy, SchedulesAreRead)
{
    const meaning<qos_sched> rows[] = {
        {"index = 1\nall_day = true",
         [](qos_sched &s) {
             s.index = 1;
             s.all_day = 1;
         }},
        {"index = 255\nall_day = true\ndays = [\"Sun\", \"sat\", \"WED\"]",
         [](qos_sched &s) {
             s.index = 255;
             s.all_day = 1;
             s.days = 0x49;
         }},
        {"index = 2\ndays = [\"Mon\", \"Tue\", \"Thu\", \"Fri\"]\nstart = \"8:00\"\nstop = "
         "\"17:30\"",
         [](qos_sched &s) {
             s.index = 2;
             s.days = 0x36;
             s.start_hour = 8;
             s.stop_hour = 17;
             s.stop_min = 30;
         }},
        {"index = 3\nstart = \"23:59\"\nstop = \"00:01\"", [](qos_sched &s) {
             s.index = 3;
             s.start_hour = 23;
             s.start_min = 59;
             s.stop_min = 1;
         }}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const auto p =
            parsed("[[interface]]\nname = \"eth0\"\nroot = \"pfifo_fast\"\nqueue_len = 1\n"
                   "[[schedule]]\n" +
                   row.text + "\n");
        ASSERT_EQ(p.schedules.size(), 1U);
        expect_record<qos_sched>(p.schedules[0].sched, row.set);
    }
}

// ---- Sizes that people do not write -------------------------------------------------------------

string big_policy(unsigned classes, const std::function<u32(u32)> &handle,
                  const std::function<u32(u32)> &parent)
{
    string text = "[[interface]]\nname = \"eth0\"\nroot = \"htb\"\nphy_tx = 100\nlink_tx = 9\n";
    for (u32 i = 0; i < classes; ++i)
        text += tool::format("[[interface.class]]\nhandle = %u\nparent = %u\nrate = 5\n", handle(i),
                             parent(i));
    return text;
}

TEST(Policy, TakesEveryHandleInOneChain)
{
    const string chain = big_policy(
        0xfff - 3, [](u32 i) { return i + 4; }, [](u32 i) { return i == 0 ? 1 : i + 3; });
    diagnostics found;
    const auto p = tool::read_policy(chain, kernel_kind::mainline, found);
    EXPECT_EQ(lines(found), "");
    ASSERT_EQ(p.interfaces.size(), 1U);
    const auto tree = tool::tree_of(p.interfaces[0]);
    ASSERT_EQ(tree.size(), 0xfffU);
    // The chain hangs behind classes 2 and 3 in class 1.
    EXPECT_EQ(tree.back().handle, 0xfffU);
    EXPECT_FALSE(tree.back().has_children);
}

TEST(Policy, SaysOfEachOfTenThousandClassesThatItIsThereTwice)
{
    diagnostics found;
    (void)tool::read_policy(big_policy(
                                10000, [](u32) { return 0x10; }, [](u32) { return 1; }),
                            kernel_kind::mainline, found);
    EXPECT_EQ(found.all().size(), 9999U);
}

// In a process of its own: a stack that overflows ends it.
TEST(PolicyDeathTest, KeysOfVeryManyPartsAreErrors)
{
    const auto depth = [](const string &before, const string &behind) {
        string keys = "a";
        for (int i = 1; i < 200000; ++i) keys += ".a";
        return before + keys + behind;
    };
    for (const auto &[before, behind] :
         {std::pair{"", " = 1\n"}, {"[", "]\n"}, {"[[", "]]\n"}, {"a = { ", " = 1 }\n"}}) {
        SCOPED_TRACE(before);
        EXPECT_EXIT(
            {
                diagnostics found;
                (void)tool::read_policy(depth(before, behind), kernel_kind::mainline, found);
                std::_Exit(found.failed() ? 0 : 1);
            },
            testing::ExitedWithCode(0), "");
    }
}

TEST(Policy, CyclesAreErrors)
{
    const string text = answer(big_policy(
        3, [](u32 i) { return 0x10 + i; }, [](u32 i) { return 0x10 + (i + 1) % 3; }));
    EXPECT_EQ(text, "8:10: class 0x10 stands before its parent 0x11; move it behind\n"
                    "12:10: class 0x11 stands before its parent 0x12; move it behind\n");
}

// ---- Texts --------------------------------------------------------------------------------------

void expect_parsed(optional<u32> (*parse)(string_view), std::initializer_list<string_view> refused,
                   std::initializer_list<std::pair<string_view, u32>> taken)
{
    for (const string_view text : refused) EXPECT_EQ(parse(text), none) << text;
    for (const auto &[text, value] : taken) EXPECT_EQ(parse(text), optional(value)) << text;
}

TEST(Text, RatesAreWholeKbits)
{
    expect_parsed(tool::parse_rate,
                  {"",
                   "5",
                   "kbit",
                   "kbps",
                   "1kbps",
                   "1mbps",
                   "1bps",
                   "1kib",
                   "1kb",
                   "1b",
                   "1ms",
                   "1kbits",
                   "1 kbit",
                   " 1kbit",
                   "1kbit ",
                   "1\tkbit",
                   "1kbit\n",
                   "+1kbit",
                   "-1kbit",
                   "-0kbit",
                   "1e3kbit",
                   "1e+3kbit",
                   "0x10kbit",
                   "inf",
                   "infkbit",
                   "nan",
                   "nankbit",
                   ".5mbit",
                   "1,5mbit",
                   "1.2.3mbit",
                   "1bit",
                   "999bit",
                   "1500bit",
                   "0.5kbit",
                   "1.0005mbit",
                   "4294967296kbit",
                   "4294.967296gbit",
                   "4295gbit",
                   "99999999999999999999999gbit",
                   string_view("1kbit\0", 6),
                   "1kbit;reboot"},
                  {{"0kbit", 0},
                   {"1kbit", 1},
                   {"1000bit", 1},
                   {"8000bit", 8},
                   {"500kbit", 500},
                   {"500KBIT", 500},
                   {"500Kbit", 500},
                   {"20mbit", 20000},
                   {"20MBit", 20000},
                   {"1.5gbit", 1500000},
                   {"1.5GBIT", 1500000},
                   {"0.001mbit", 1},
                   {"1.001mbit", 1001},
                   {"007kbit", 7},
                   {"4294967295kbit", 0xffffffff},
                   {"4294967295000BIT", 0xffffffff},
                   {"4294.967295gbit", 0xffffffff},
                   {"4294967.295mbit", 0xffffffff}});
    EXPECT_EQ(tool::parse_rate(string(5000, '9') + "kbit"), none);
    EXPECT_EQ(tool::parse_rate("0." + string(5000, '0') + "1kbit"), none);
}

TEST(Text, SizesAreWholeBytes)
{
    expect_parsed(tool::parse_size,
                  {"", "1", "1k", "1kbit", "1kbps", "1gb", "0.5b", "1.0001kb", "4294967296b",
                   "4096mb", "-1b", "+1b", "1 b", "1e3b"},
                  {{"0b", 0},
                   {"1500b", 1500},
                   {"1500B", 1500},
                   {"15kb", 15360},
                   {"15KB", 15360},
                   {"1.5kb", 1536},
                   {"1mb", 1048576},
                   {"1Mb", 1048576},
                   {"4095mb", 4293918720},
                   {"4294967295b", 0xffffffff}});
}

TEST(Text, TimesAreWholeMilliseconds)
{
    expect_parsed(tool::parse_time,
                  {"", "1", "1us", "1min", "1h", "1m", "0.5ms", "1.0005s", "4294967296ms",
                   "4294968s", "-1s", "1 s"},
                  {{"0ms", 0},
                   {"20ms", 20},
                   {"20MS", 20},
                   {"1s", 1000},
                   {"1S", 1000},
                   {"0.25s", 250},
                   {"4294967295ms", 0xffffffff},
                   {"4294967.295s", 0xffffffff}});
}

TEST(Text, RatesAndSizesAreWrittenInTheLargestUnitThatIsExact)
{
    const std::pair<u64, const char *> rates[] = {{0, "0kbit"},
                                                  {1, "1kbit"},
                                                  {999, "999kbit"},
                                                  {1000, "1mbit"},
                                                  {1001, "1001kbit"},
                                                  {20000, "20mbit"},
                                                  {1500000, "1500mbit"},
                                                  {1000000, "1gbit"},
                                                  {5000000000, "5000gbit"},
                                                  {4294967295, "4294967295kbit"}};
    for (const auto &[kbit, text] : rates) {
        EXPECT_EQ(tool::rate_text(kbit), text);
        const auto again = kbit <= 0xffffffff ? optional(static_cast<u32>(kbit)) : none;
        EXPECT_EQ(tool::parse_rate(text), again) << text;
    }
    const std::pair<u64, const char *> sizes[] = {
        {0, "0b"},       {1, "1b"},       {1023, "1023b"}, {1024, "1kb"},
        {1025, "1025b"}, {6000, "6000b"}, {15360, "15kb"}, {4294967295, "4294967295b"}};
    for (const auto &[bytes, text] : sizes) {
        EXPECT_EQ(tool::size_text(bytes), text);
        EXPECT_EQ(tool::parse_size(text), optional(static_cast<u32>(bytes))) << text;
    }
}

TEST(Text, MeasuredRatesHaveThreeDigits)
{
    const std::pair<double, const char *> rows[] = {
        {0, "0bit"},         {1, "1bit"},           {999, "999bit"},    {999.6, "1.00kbit"},
        {1000, "1.00kbit"},  {1234567, "1.23mbit"}, {9994, "9.99kbit"}, {9996, "10.0kbit"},
        {12345, "12.3kbit"}, {99940, "99.9kbit"},   {99960, "100kbit"}, {123456, "123kbit"},
        {999400, "999kbit"}, {999600, "1.00mbit"},  {1e9, "1.00gbit"},  {1.5e13, "15000gbit"}};
    for (const auto &[bits, text] : rows) EXPECT_EQ(tool::measured_rate(bits), text);
}

TEST(Text, AddressesAreFourPlainNumbers)
{
    expect_parsed(
        tool::parse_ipv4,
        {"",         ".",        "1",         "1.2.3",     "1.2.3.",    ".1.2.3",
         "1..2.3",   "1.2.3.4.", "1.2.3.4.5", "256.0.0.1", "1.2.3.256", "1.2.3.4294967297",
         "01.2.3.4", "1.2.3.04", "00.0.0.0",  "1.2.3.x",   "1.2.3.4 ",  " 1.2.3.4",
         "+1.2.3.4", "-1.2.3.4", "0x1.2.3.4", "1,2,3,4"},
        {{"0.0.0.0", 0},
         {"1.2.3.4", 0x01020304},
         {"192.168.1.100", 0xc0a80164},
         {"255.255.255.255", 0xffffffff}});
    // It ends where the text does, not at a NUL.
    EXPECT_EQ(tool::parse_ipv4(string_view("1.2.3.45").substr(0, 7)), optional(0x01020304U));
    EXPECT_EQ(tool::parse_ipv4(string_view("1.2.3.4").substr(0, 6)), none);
    EXPECT_EQ(tool::parse_ipv4({}), none);
    EXPECT_EQ(tool::ipv4_text(0xc0a80164), "192.168.1.100");
    EXPECT_EQ(tool::ipv4_text(0), "0.0.0.0");
    EXPECT_EQ(tool::ipv4_text(0xffffffff), "255.255.255.255");
}

TEST(Text, OnlyCharactersThatNoShellReadsAreSafe)
{
    const string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    const struct {
        bool (*safe)(string_view);
        string_view more;
        string_view not_first;
    } rows[] = {{tool::safe_name, "._-", ".-"},
                {tool::safe_domain, "._-", "-"},
                {tool::safe_url, "._-/:%+,=@", "-"}};
    for (const auto &row : rows) {
        EXPECT_FALSE(row.safe(""));
        for (int byte = 0; byte < 256; ++byte) {
            SCOPED_TRACE(byte);
            const char c = static_cast<char>(byte);
            const bool known =
                plain.find(c) != string_view::npos || row.more.find(c) != string_view::npos;
            EXPECT_EQ(row.safe(string("a") + c), known);
            EXPECT_EQ(row.safe(string("a") + c + "b"), known);
            EXPECT_EQ(row.safe(string(1, c)), known && row.not_first.find(c) == string_view::npos);
        }
    }
}

TEST(Text, MacAddressesAreSixPairsOfDigits)
{
    const string_view digits = "0123456789abcdefABCDEF";
    const string mac = "00:11:22:33:44:55";
    EXPECT_TRUE(tool::is_mac(mac));
    for (const char *text : {"", "00:11:22:33:44", "00:11:22:33:44:5", "00:11:22:33:44:555",
                             "00:11:22:33:44:55:66", "00-11-22-33-44-55", "0:11:22:33:44:555"})
        EXPECT_FALSE(tool::is_mac(text)) << text;
    for (std::size_t i = 0; i < mac.size(); ++i)
        for (int byte = 0; byte < 256; ++byte) {
            string other = mac;
            other[i] = static_cast<char>(byte);
            EXPECT_EQ(tool::is_mac(other),
                      i % 3 == 2 ? byte == ':' : digits.find(other[i]) != string_view::npos)
                << i << ' ' << byte;
        }
}

TEST(Text, QuotedTextsAreSafeOnATerminal)
{
    EXPECT_EQ(tool::quoted(""), "\"\"");
    EXPECT_EQ(tool::quoted("eth0"), "\"eth0\"");
    EXPECT_EQ(tool::quoted("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(tool::quoted("a\nb"), "\"a\\nb\"");
    EXPECT_EQ(tool::quoted("\x1b[31m\t\r\x7f"), "\"\\x1b[31m\\x09\\x0d\\x7f\"");
    EXPECT_EQ(tool::quoted("\xc3\xbc"), "\"\\xc3\\xbc\"");
    EXPECT_EQ(tool::quoted(string_view("\0", 1)), "\"\\x00\"");
    EXPECT_EQ(tool::quoted(string(60, 'a')), '"' + string(60, 'a') + '"');
    EXPECT_EQ(tool::quoted(string(61, 'a')), '"' + string(60, 'a') + "...\"");
    for (int byte = 0; byte < 256; ++byte) {
        const string text = tool::quoted(string(1, static_cast<char>(byte)));
        EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) {
            return c >= ' ' && c <= '~';
        })) << byte;
    }
    EXPECT_EQ(tool::one_line("a\nb\x1b"
                             "c\xff"),
              "a b c ");
}

TEST(Text, TheNearestWordIsFound)
{
    const string_view known[] = {"rate", "ceil",    "burst",       "cburst",
                                 "prio", "default", "default_tree"};
    const std::pair<string_view, string_view> rows[] = {{"rates", "rate"},
                                                        {"rat", "rate"},
                                                        {"rute", "rate"},
                                                        {"cburs", "cburst"},
                                                        {"burts", "burst"},
                                                        {"ciel", "ceil"},
                                                        {"bursts", "burst"},
                                                        {"defualt", "default"},
                                                        {"default-tree", "default_tree"},
                                                        {"colour", ""},
                                                        {"", ""},
                                                        {"x", ""},
                                                        {"priority", ""}};
    for (const auto &[word, meant] : rows) EXPECT_EQ(tool::nearest(word, known), meant) << word;
    EXPECT_EQ(tool::nearest("rate", {}), "");
    EXPECT_EQ(tool::nearest(string(10000, 'r'), known), "");
}

TEST(Text, WordsAreListed)
{
    const string_view words[] = {"a", "b", "c"};
    EXPECT_EQ(tool::joined({}), "");
    EXPECT_EQ(tool::joined(std::span(words).first(1)), "a");
    EXPECT_EQ(tool::joined(std::span(words).first(2)), "a or b");
    EXPECT_EQ(tool::joined(words), "a, b or c");
    EXPECT_EQ(tool::hex(0), "0x0");
    EXPECT_EQ(tool::hex(0xfff), "0xfff");
}

}  // namespace
