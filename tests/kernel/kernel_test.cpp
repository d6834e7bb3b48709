// SPDX-License-Identifier: MIT
// The scripts against a real kernel: interfaces are declared through the public interface, their
// scripts run in a user-mode Linux, and what that kernel then holds is compared with the records.
// One guest serves all tests; it is booted before the first one.
#include <sys/wait.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mordel.h"
#include "support.h"

namespace {

using text_list = std::vector<std::string>;

std::string cat(std::initializer_list<std::string_view> pieces)
{
    std::string all;
    for (const std::string_view piece : pieces) all += piece;
    return all;
}

text_list lines_of(const std::string &text)
{
    text_list lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// ---- Facts: tc's output as objects with attributes ---------------------------------------------

using attributes = std::map<std::string, std::string>;
using facts = std::map<std::string, attributes>;  // by object: "class htb 1:2", "qdisc sfq 20:"

// Rates in bit/s, sizes in bytes or packets, times in microseconds
std::string number(double value) { return std::to_string(std::llround(value)); }

std::string hex(std::uint32_t value)
{
    std::ostringstream out;
    out << std::hex << value;
    return out.str();
}

// tc's text of a quantity as a bare number; other text as it is.
std::string plain(const std::string &text)
{
    static const std::vector<std::pair<std::string, double>> units = {
        {"Gbit", 1e9}, {"Mbit", 1e6}, {"Kbit", 1e3}, {"bit", 1},  {"Mb", 1048576}, {"Kb", 1024},
        {"b", 1},      {"p", 1},      {"sec", 1e6},  {"ms", 1e3}, {"us", 1},       {"s", 1e6}};
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    for (const auto &[unit, factor] : units)
        if (end != text.c_str() && unit == end) return number(value * factor);
    return text;
}

// What tc or the kernel decides alone, whatever the scripts say
const std::set<std::string> not_ours = {"refcnt",  "r2q",         "direct_packets_stat",
                                        "ver",     "direct_qlen", "linklayer",
                                        "mpu",     "level",       "chain",
                                        "quantum", "depth",       "flows",
                                        "divisor", "probability", "Scell_log"};

// The words behind an object's name: pairs of key and value, and a few that stand alone.
attributes parse_words(std::istringstream &in)
{
    static const std::set<std::string> curves = {"sc", "ls", "rt", "ul"};
    attributes all;
    std::string curve;
    for (std::string word, value; in >> word;) {
        if (word == "root") {
            all["parent"] = "root";
        } else if (word == "fw") {
            all["kind"] = "fw";
        } else if (curves.contains(word)) {
            curve = word + " ";
        } else if (word == "priomap") {
            std::getline(in >> std::ws, all[word]);
        } else if (in >> value) {
            if (not_ours.contains(word)) continue;
            all[curve + word] = plain(value.substr(0, value.find('/')));  // burst 6000b/1
        } else {
            ADD_FAILURE() << "no value behind " << word;
        }
    }
    return all;
}

// The output of tc class show, tc filter show and tc qdisc show.
facts parse_tc(const std::string &text)
{
    facts all;
    for (const std::string &line : lines_of(text)) {
        std::istringstream in(line);
        std::string name;
        in >> name;
        attributes a;
        if (name == "filter") {
            a = parse_words(in);
            name += " " + a["handle"];
            a.erase("handle");
        } else {
            std::string kind;
            std::string id;
            in >> kind >> id;
            name = cat({name, " ", kind, " ", id});
            a = parse_words(in);
            if (kind == "sfq") a.erase("limit");  // the kernel's own
        }
        EXPECT_TRUE(all.emplace(name, a).second) << "twice: " << name;
    }
    return all;
}

// One object per line, so that a failure shows the lines that differ
std::string listing(const facts &all)
{
    std::ostringstream out;
    for (const auto &[object, values] : all) {
        out << object << " |";
        for (const auto &[key, value] : values) out << "  " << key << ' ' << value;
        out << '\n';
    }
    return out.str();
}

// ---- The same facts, from the records ----------------------------------------------------------

constexpr std::uint32_t queue_length = 100;  // packets; what observe gives every interface
constexpr std::uint32_t tc_burst = 1600;     // bytes; what tc takes where the script says nothing

struct model {
    facts tree;
    std::map<std::pair<std::string, std::string>, double> slack;  // of one object's attribute
    std::size_t reds = 0;                                         // RED leaves
};

template <typename T>
std::vector<const T *> records(const list_head &list, std::size_t node)
{
    std::vector<const T *> all;
    for (const list_head *at = list.next; at != &list; at = at->next)
        all.push_back(reinterpret_cast<const T *>(reinterpret_cast<const char *>(at) - node));
    return all;
}

std::string class_id(const qos_class &c) { return "1:" + hex(c.handle); }
std::string leaf_id(const qos_class &c) { return hex(c.handle * 16U) + ":"; }

double bytes_per_second(std::uint32_t kbit) { return kbit * 125.0; }

// A burst travels as the time that it takes at its rate; tc cuts that to whole microseconds both on
// its way in and on its way out, and then to whole bytes. The kernel itself rounds nothing more.
void expect_burst(model &m, const std::string &object, const std::string &key, std::uint32_t bytes,
                  std::uint32_t kbit)
{
    m.tree[object][key] = number(bytes);
    m.slack[{object, key}] = 1 + bytes_per_second(kbit) * 2e-6;
}

// The averaging constant of RED: the smallest n for which a burst of that many packets fits while
// the average queue stays below min (Floyd's guideline, as tc computes it).
int ewma(const red_leaf_param &red)
{
    const double fill = red.burst + 1 - double(red.min) / red.avpkt;
    for (int n = 1;; ++n) {
        const double weight = std::ldexp(1.0, -n);
        if (fill <= (1 - std::pow(1 - weight, red.burst)) / weight) return n;
    }
}

void expect_tbf(model &m, const std::string &object, const tbf_leaf_param &tbf)
{
    m.tree[object]["rate"] = number(tbf.rate * 1e3);
    expect_burst(m, object, "burst", tbf.burst, tbf.rate);
    // A latency travels as the bytes that may wait, and tc shows three digits of it.
    m.tree[object]["lat"] = number(tbf.latency * 1e3);
    m.slack[{object, "lat"}] = 2e6 / bytes_per_second(tbf.rate) + tbf.latency * 5.0;
}

void expect_leaf(model &m, const qos_class &c)
{
    static const char *const kinds[] = {"pfifo", "sfq", "red", "tbf"};
    const leaf_qdisc &leaf = c.leaf;
    const std::string kind = std::string(kinds[leaf.type]) + " ";
    const std::string object = "qdisc " + kind + leaf_id(c);
    attributes &a = m.tree[object];
    a["parent"] = class_id(c);
    if (leaf.type == L_pfifo) {
        a["limit"] = number(leaf.param.pfifo.limit != 0 ? leaf.param.pfifo.limit : queue_length);
    } else if (leaf.type == L_SFQ) {
        if (leaf.param.sfq.perturb != 0) a["perturb"] = number(leaf.param.sfq.perturb * 1e6);
    } else if (leaf.type == L_RED) {
        ++m.reds;
        a["min"] = number(leaf.param.red.min);
        a["max"] = number(leaf.param.red.max);
        a["limit"] = number(leaf.param.red.limit);
        a["ewma"] = number(ewma(leaf.param.red));
    } else {
        expect_tbf(m, object, leaf.param.tbf);
    }
    // To the kernel these two are classful, with one class of their own.
    if (leaf.type == L_RED || leaf.type == L_TBF)
        m.tree["class " + kind + leaf_id(c) + "1"] = {{"parent", leaf_id(c)}};

    const attributes filter = {
        {"parent", "1:"}, {"protocol", "ip"}, {"pref", "50"}, {"kind", "fw"}};
    m.tree["filter "] = filter;  // tc lists the classifier itself, then its entries
    m.tree["filter 0x" + hex(c.handle)] = filter;
    m.tree["filter 0x" + hex(c.handle)]["classid"] = class_id(c);
}

void expect_htb(model &m, const std::string &object, const htb_class_param &htb)
{
    m.tree[object]["rate"] = number(htb.rate * 1e3);
    m.tree[object]["ceil"] = number(htb.ceil * 1e3);
    expect_burst(m, object, "burst", htb.burst != 0 ? htb.burst : tc_burst, htb.rate);
    expect_burst(m, object, "cburst", htb.cburst != 0 ? htb.cburst : tc_burst, htb.ceil);
}

// A curve is two slopes: m1 for the time d, then m2. A packet of umax bytes within dmax is a first
// slope where that is faster than the rate; else the curve lies flat until the rate alone makes it.
void expect_curve(attributes &a, const std::string &name, const hfsc_curve &curve)
{
    const double rate = bytes_per_second(curve.rate);
    const double dmax = curve.dmax * 1e3;
    double m1 = 0;
    double d = dmax;
    if (curve.umax != 0) {
        const double slope = std::ceil(curve.umax * 1e6 / dmax);
        if (slope > rate)
            m1 = slope;
        else
            d = std::ceil(dmax - curve.umax * 1e6 / rate);
    }
    a[name + " m1"] = number(m1 * 8);
    a[name + " d"] = number(d);
    a[name + " m2"] = number(rate * 8);
}

void expect_hfsc(attributes &a, const hfsc_class_param &hfsc)
{
    expect_curve(a, "ul", hfsc.ul);
    if (hfsc.sc.rate != 0)
        expect_curve(a, "sc", hfsc.sc);
    else
        expect_curve(a, "ls", hfsc.ls);
}

void expect_classes(model &m, const list_head &list, const std::string &parent)
{
    static const char *const kinds[] = {"htb", "hfsc", "prio"};
    for (const qos_class *c : records<qos_class>(list, offsetof(qos_class, node))) {
        const std::string object = "class " + std::string(kinds[c->type]) + " " + class_id(*c);
        attributes &a = m.tree[object];
        a["parent"] = parent;
        if (c->type == C_HTB) expect_htb(m, object, c->param.htb);
        if (c->type == C_HFSC) expect_hfsc(a, c->param.hfsc);
        if (list_empty(&c->children) == 0) {
            expect_classes(m, c->children, class_id(*c));
            continue;
        }
        a["leaf"] = leaf_id(*c);
        if (c->type == C_HTB) a["prio"] = std::to_string(c->param.htb.prio);
        expect_leaf(m, *c);
    }
}

model expect_tree(const qos_if &rec)
{
    model m;
    if (rec.root_type == R_HTB) {
        m.tree["qdisc htb 1:"] = {{"parent", "root"},
                                  {"default", "0x" + hex(rec.param.classful.default_class)}};
        expect_classes(m, rec.classes, "root");
    } else if (rec.root_type == R_HFSC) {
        m.tree["qdisc hfsc 1:"] = {{"parent", "root"},
                                   {"default", hex(rec.param.classful.default_class)}};
        m.tree["class hfsc 1:"] = {{"parent", "root"}};
        expect_classes(m, rec.classes, "1:");
    } else if (rec.root_type == R_PRIO) {
        const prio_root_param &prio = rec.param.prio;
        std::string map;
        for (const unsigned band : prio.priomap) map += (map.empty() ? "" : " ") + number(band);
        m.tree["qdisc prio 1:"] = {
            {"parent", "root"}, {"bands", number(prio.bands)}, {"priomap", map}};
        expect_classes(m, rec.classes, "1:");
    }
    return m;
}

// ---- The interfaces -----------------------------------------------------------------------------

constexpr u32 speeds[4] = {20000, 20000, 100000, 100000};  // LINK, PHY: kbit/s

void tree_ok(int status) { ASSERT_EQ(0, status); }

leaf_qdisc red(u32 min, u32 max, u32 burst, u32 limit, u32 avpkt)
{
    leaf_qdisc leaf{};
    leaf.type = L_RED;
    leaf.param.red = {min, max, burst, limit, avpkt};
    return leaf;
}

leaf_qdisc tbf(u32 latency, u32 rate, u32 burst)
{
    leaf_qdisc leaf{};
    leaf.type = L_TBF;
    leaf.param.tbf = {latency, rate, burst};
    return leaf;
}

leaf_qdisc sfq(u8 perturb)
{
    leaf_qdisc leaf{};
    leaf.type = L_SFQ;
    leaf.param.sfq = {perturb};
    return leaf;
}

leaf_qdisc pfifo(u32 limit)
{
    leaf_qdisc leaf{};
    leaf.param.pfifo = {limit};
    return leaf;
}

void htb_class(u32 parent, u32 handle, const htb_class_param &param)
{
    tree_ok(add_class("htb0", parent, handle, &param, nullptr));
}

// Four levels, every leaf kind, prio 0 to 7, bursts given and left to tc. Rates are whole kbit/s
// below 1 Gbit/s, which tc shows without rounding.
void declare_htb()
{
    class_root_param root{};
    root.default_class = 3;
    root.automark = {1, 0, {2, 3, 0x10, 0x11, 0x12, 0xabc, 2, 3}};
    tree_ok(add_root_qdisc(speeds, "htb0", R_HTB, &root));
    htb_class(1, 4, {30000, 50000, 15000, 16000, 2});
    htb_class(4, 0x10, {512, 2000, 1600, 0, 1});
    htb_class(4, 0x11, {3000, 20500, 0, 5000, 7});
    htb_class(4, 0x12, {1, 100000, 0, 0, 3});
    htb_class(4, 5, {4000, 4000, 6000, 6000, 4});
    htb_class(5, 0xabc, {999, 4000, 2000, 3000, 5});
    const leaf_qdisc red_leaf = red(5000, 15000, 20, 60000, 1000);
    const leaf_qdisc tbf_leaf = tbf(50, 3000, 10000);
    const leaf_qdisc pfifo_leaf = pfifo(50);
    const leaf_qdisc sfq_leaf = sfq(0);
    tree_ok(add_leaf_qdisc("htb0", 0x10, &red_leaf));
    tree_ok(add_leaf_qdisc("htb0", 0x11, &tbf_leaf));
    tree_ok(add_leaf_qdisc("htb0", 0x12, &pfifo_leaf));
    tree_ok(add_leaf_qdisc("htb0", 0xabc, &sfq_leaf));
}

void hfsc_class(const char *ifname, u32 parent, u32 handle, const hfsc_class_param &param)
{
    tree_ok(add_class(ifname, parent, handle, &param, nullptr));
}

// ul with sc and with ls; rates alone, with dmax, with umax and dmax (steeper and flatter than the
// rate); an inner class. tc takes no umax without dmax, and no ul of rate 0.
void declare_hfsc()
{
    class_root_param root{};
    root.default_class = 2;
    tree_ok(add_root_qdisc(speeds, "hfsc0", R_HFSC, &root));
    hfsc_class("hfsc0", 1, 0x10, {{0, 0, 20000}, {1500, 30, 100}, {}, {}});
    hfsc_class("hfsc0", 1, 0x11, {{1500, 10, 100000}, {0, 15, 200}, {}, {}});
    hfsc_class("hfsc0", 1, 4, {{0, 0, 30000}, {}, {0, 0, 15000}, {0, 0, 700}});
    hfsc_class("hfsc0", 4, 0x12, {{0, 5, 30000}, {}, {1500, 20, 500}, {0, 0, 700}});
    hfsc_class("hfsc0", 4, 0x13, {{0, 0, 30000}, {0, 0, 300}, {0, 0, 400}, {}});
    const leaf_qdisc tbf_leaf = tbf(400, 8000, 9000);
    const leaf_qdisc red_leaf = red(15000, 45000, 25, 120000, 1000);
    tree_ok(add_leaf_qdisc("hfsc0", 0x11, &tbf_leaf));
    tree_ok(add_leaf_qdisc("hfsc0", 0x12, &red_leaf));
}

void declare_prio()
{
    prio_root_param root{};
    root.bands = 4;
    const u8 map[16] = {1, 2, 3, 3, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 3};
    std::memcpy(root.priomap, map, sizeof map);
    root.automark = {1, 0, {1, 2, 3, 4, 4, 3, 2, 1}};
    tree_ok(add_root_qdisc(speeds, "prio0", R_PRIO, &root));
    const leaf_qdisc leaf = sfq(60);
    tree_ok(add_leaf_qdisc("prio0", 3, &leaf));
}

void declare_pfifo_fast()
{
    const pfifo_fast_root_param root{250};
    tree_ok(add_root_qdisc(speeds, "fifo0", R_pfifo_fast, &root));
}

// ---- The rules ----------------------------------------------------------------------------------

// Bits of the flags of a match and of a target
enum : u32 {
    m_1p = 1U << 0,
    m_mac = 1U << 2,
    m_ip = 1U << 3,
    m_dscp = 1U << 4,
    m_tos = 1U << 5,
    m_alg = 1U << 6,
    m_length = 1U << 7,
    m_protocol = 1U << 8,
    m_domain = 1U << 9,
    m_url = 1U << 10
};
enum : u32 { t_mark = 1U << 0, t_tos = 1U << 1, t_dscp = 1U << 2, t_mkvlan = 1U << 3 };

// A rule, and how the kernel lists it (behind "-A CHAIN "); or, where it refuses it, its line of
// the script
struct rule_row {
    qos_match match;
    qos_target target;
    text_list lines;
};

// Starting from an empty match, sets its flags and whatever `fill` sets.
template <typename Fill>
qos_match match(u32 flags, Fill fill)
{
    qos_match m{};
    m.flags = flags;
    fill(m);
    return m;
}

qos_match everything() { return {}; }

qos_target mark(u16 handle)
{
    qos_target t{};
    t.flags = t_mark;
    t.mark = handle;
    return t;
}

qos_target dscp(u8 raw, u16 handle = 0)
{
    qos_target t = mark(handle);
    t.flags = handle != 0 ? t_mark | t_dscp : t_dscp;
    t.value.raw = raw;
    return t;
}

constexpr u32 ipv4(u32 a, u32 b, u32 c, u32 d) { return a << 24 | b << 16 | c << 8 | d; }

void source(qos_match &m)
{
    m.src_ip_start = ipv4(192, 168, 1, 100);
    m.src_ip_end = ipv4(192, 168, 1, 109);
}

void destination(qos_match &m)
{
    m.dst_ip_start = ipv4(203, 0, 113, 0);
    m.dst_ip_end = ipv4(203, 0, 113, 255);
}

void both_ranges(qos_match &m)
{
    source(m);
    destination(m);
}

void ports(qos_match &m)
{
    m.sport_start = 1024;
    m.sport_end = 65535;
    m.dport_start = 80;
    m.dport_end = 443;
}

void class_af41(qos_match &m)
{
    m.dscp_mode = 1;
    m.dscp_value.class_id = 18;
}

std::vector<rule_row> packet_rules()
{
    return {
        {match(m_ip, source),
         mark(2),
         {"-m iprange --src-range 192.168.1.100-192.168.1.109 -j MARK --set-xmark 0x2/0xffffffff"}},
        {match(m_ip, both_ranges),
         mark(3),
         {"-m iprange --src-range 192.168.1.100-192.168.1.109 "
          "--dst-range 203.0.113.0-203.0.113.255 -j MARK --set-xmark 0x3/0xffffffff"}},
        {match(m_ip, destination),
         mark(0x10),
         {"-m iprange --dst-range 203.0.113.0-203.0.113.255 -j MARK --set-xmark 0x10/0xffffffff"}},
        {match(m_dscp, [](qos_match &m) { m.dscp_value.raw = 46; }),
         mark(0x11),
         {"-m dscp --dscp 0x2e -j MARK --set-xmark 0x11/0xffffffff"}},
        {match(m_dscp, class_af41),
         mark(0x12),
         {"-m dscp --dscp 0x22 -j MARK --set-xmark 0x12/0xffffffff"}},
        {match(m_alg, [](qos_match &m) { m.alg = 2; }),
         mark(0xabc),
         {"-m helper --helper ftp -j MARK --set-xmark 0xabc/0xffffffff"}},
        {match(m_alg, [](qos_match &m) { m.alg = 0; }),
         mark(2),
         {"-m helper --helper sip -j MARK --set-xmark 0x2/0xffffffff"}},
        {match(m_length, [](qos_match &m) { m.pkt_len = 64U << 16 | 1500U; }),
         mark(2),
         {"-m length --length 64:1500 -j MARK --set-xmark 0x2/0xffffffff"}},
        {match(0, [](qos_match &m) { m.sched_index = 1; }),
         mark(3),
         {"-m time --timestart 00:00:00 --timestop 23:59:00 --datestop 2038-01-19T03:14:07 "
          "-j MARK --set-xmark 0x3/0xffffffff"}},
        {match(0, [](qos_match &m) { m.sched_index = 2; }),
         mark(3),
         {"-m time --timestart 08:00:00 --timestop 00:00:00 --datestop 2038-01-19T03:14:07 "
          "-j MARK --set-xmark 0x3/0xffffffff"}},
    };
}

std::vector<rule_row> protocol_rules()
{
    const auto tcp = [](qos_match &m) {
        ports(m);
        m.tcp_flag_mask = 0x03;  // SYN, ACK
        m.tcp_flag_comp = 0x01;
    };
    const auto both = [](qos_match &m) {
        m.protocol = 3;
        m.dport_start = m.dport_end = 5060;
        m.tcp_flag_mask = m.tcp_flag_comp = 0x3f;
    };
    const auto much = [](qos_match &m) {
        both_ranges(m);
        class_af41(m);
        m.alg = 2;
        m.pkt_len = 40U << 16 | 576U;
        ports(m);
        m.protocol = 1;
    };
    const std::string all_flags = "--tcp-flags FIN,SYN,RST,PSH,ACK,URG FIN,SYN,RST,PSH,ACK,URG";
    return {
        {match(m_protocol, tcp),
         mark(2),
         {"-p tcp -m tcp --sport 1024:65535 --dport 80:443 --tcp-flags SYN,ACK SYN "
          "-j MARK --set-xmark 0x2/0xffffffff"}},
        {match(m_protocol, [](qos_match &m) { m.protocol = 1, m.dport_start = m.dport_end = 53; }),
         dscp(10),
         {"-p udp -m udp --dport 53 -j DSCP --set-dscp 0x0a"}},
        {match(m_protocol, [](qos_match &m) { m.protocol = 2; }),
         mark(3),
         {"-p icmp -j MARK --set-xmark 0x3/0xffffffff"}},
        {match(m_protocol, [](qos_match &m) { m.protocol = 4; }),
         mark(3),
         {"-j MARK --set-xmark 0x3/0xffffffff"}},
        {match(m_protocol, both),
         dscp(46, 0x10),
         {"-p tcp -m tcp --dport 5060 " + all_flags + " -j MARK --set-xmark 0x10/0xffffffff",
          "-p udp -m udp --dport 5060 -j MARK --set-xmark 0x10/0xffffffff",
          "-p tcp -m tcp --dport 5060 " + all_flags + " -j DSCP --set-dscp 0x2e",
          "-p udp -m udp --dport 5060 -j DSCP --set-dscp 0x2e"}},
        {match(m_ip | m_dscp | m_alg | m_length | m_protocol, much),
         mark(0xabc),
         {"-p udp -m udp --sport 1024:65535 --dport 80:443 "
          "-m iprange --src-range 192.168.1.100-192.168.1.109 "
          "--dst-range 203.0.113.0-203.0.113.255 -m dscp --dscp 0x22 -m helper --helper ftp "
          "-m length --length 40:576 -j MARK --set-xmark 0xabc/0xffffffff"}},
        {everything(), mark(0x12), {"-j MARK --set-xmark 0x12/0xffffffff"}},
    };
}

qos_target tos_target()
{
    qos_target t{};
    t.flags = t_tos;
    t.kind = 8;
    t.value.raw = 3;
    return t;
}

qos_target dscp_class_target()
{
    qos_target t{};
    t.flags = t_dscp;
    t.kind = 1;
    t.value.class_id = 21;
    return t;
}

qos_target mkvlan_target()
{
    qos_target t{};
    t.flags = t_mkvlan;
    t.vlan_id = 7;
    return t;
}

// What mainline iptables does not know, or the kernel does not take in a chain that OUTPUT jumps
// to. The lines are those of the script, behind "iptables -t mangle -A CHAIN ".
std::vector<rule_row> refused_rules()
{
    return {
        {match(m_1p, [](qos_match &m) { m.vlan_id = 5; }),
         mark(3),
         {"-m VLAN --vlan-id 5 -j MARK --set-mark 0x3 "}},
        {match(m_mac, [](qos_match &m) { test::put(m.src_mac, "00:11:22:33:44:55"); }),
         mark(3),
         {"-m mac --mac-source 00:11:22:33:44:55 -j MARK --set-mark 0x3 "}},
        {match(m_tos, [](qos_match &m) { m.tos = 16; }),
         mark(3),
         {"-m tos --tos Minimize-Delay --precedence 0 -j MARK --set-mark 0x3 "}},
        {match(m_domain, [](qos_match &m) { test::put(m.domain, "example.org"); }),
         mark(3),
         {"-m domain --name \"example.org\" -j MARK --set-mark 0x3 "}},
        {match(m_url, [](qos_match &m) { test::put(m.url, "/index"); }),
         mark(3),
         {"-m urlfilter --url /index -j MARK --set-mark 0x3 "}},
        {match(0, [](qos_match &m) { m.sched_index = 3; }),
         mark(3),
         {"-m time --timestart 00:00 --timestop 23:59 --days Mon,Fri -j MARK --set-mark 0x3 "}},
        {everything(), tos_target(), {"-j TOS --set-tos Maximize-Throughput --set-precedence 3 "}},
        {everything(), dscp_class_target(), {"-j DSCP --set-dscp EF "}},
        {everything(), mkvlan_target(), {"-j MKVLAN --set-vlan-id 7 --set-vlan-prio 0   "}},
    };
}

// By interface, in the order of their indexes
std::map<std::string, std::vector<rule_row>> all_rules()
{
    std::vector<rule_row> htb = packet_rules();
    for (const rule_row &row : protocol_rules()) htb.push_back(row);
    const rule_row plain_mark = {everything(), mark(2), {"-j MARK --set-xmark 0x2/0xffffffff"}};
    const rule_row plain_dscp = {everything(), dscp(8), {"-j DSCP --set-dscp 0x08"}};
    return {{"fifo0", {plain_dscp}},
            {"hfsc0", {plain_dscp, plain_mark}},
            {"htb0", htb},
            {"prio0", {plain_mark}}};
}

void add_rules(const char *ifname, const std::vector<rule_row> &rows)
{
    u8 index = 0;
    for (const rule_row &row : rows)
        EXPECT_EQ(1, add_qos_rule(ifname, index++, &row.match, &row.target));
}

void add_schedules()
{
    const qos_sched all_day = {1, 0, 1, 0, 0, 0, 0};
    const qos_sched from_eight = {2, 0, 0, 8, 0, 0, 0};  // and it ends at 0:00
    const qos_sched on_days = {3, 0x22, 1, 0, 0, 0, 0};  // Monday and Friday
    for (const qos_sched &sched : {all_day, from_eight, on_days}) EXPECT_EQ(1, add_sched(&sched));
}

// ---- The guest ----------------------------------------------------------------------------------

// In the order in which the guest starts them
constexpr const char *names[] = {"fifo0", "hfsc0", "htb0", "prio0"};

constexpr int cannot_run = 77;  // of uml-run

class Kernel : public test::mordel_test {
protected:
    static void SetUpTestSuite()
    {
        declare();
        for (const char *name : names) write_scripts(name, "/var/tmp/kernel/");
        write_scripts("odd0", "/var/tmp/kernel/refused/");
        for (const qos_if *rec : records<qos_if>(qos_root, offsetof(qos_if, node)))
            models[rec->ifname] = expect_tree(*rec);
        boot();
        while (list_empty(&qos_root) == 0)
            EXPECT_EQ(0, del_root_qdisc(
                             records<qos_if>(qos_root, offsetof(qos_if, node)).front()->ifname));
        del_all_sched();
    }

    void SetUp() override
    {
        mordel_test::SetUp();
        if (status == cannot_run) GTEST_SKIP() << said;
        ASSERT_EQ(0, status) << said;
    }

    static std::string section(const std::string &name)
    {
        EXPECT_TRUE(sections.contains(name)) << "the guest did not come to: " << name;
        return sections[name];
    }

    static text_list section_lines(const std::string &name) { return lines_of(section(name)); }

    static void expect_model(const std::string &name)
    {
        EXPECT_EQ(listing(models[name].tree), listing(shown("started", name)));
    }

    // What the kernel holds, with what tc cannot tell exactly put right where it is near enough
    static facts shown(const std::string &step, const std::string &name)
    {
        facts all = parse_tc(section(step + " tc " + name));
        const model &m = models[name];
        for (const auto &[where, slack] : m.slack) {
            const auto &[object, key] = where;
            const std::string &want = m.tree.at(object).at(key);
            if (!all.contains(object) || !all[object].contains(key)) continue;
            std::string &have = all[object][key];
            if (std::abs(std::stod(have) - std::stod(want)) <= slack) have = want;
        }
        return all;
    }

    static inline std::map<std::string, model> models;  // by interface

private:
    static void declare()
    {
        add_schedules();
        declare_pfifo_fast();
        declare_hfsc();
        declare_htb();
        declare_prio();
        for (const auto &[name, rows] : all_rules()) add_rules(name.c_str(), rows);

        class_root_param root{};
        tree_ok(add_root_qdisc(speeds, "odd0", R_HFSC, &root));
        hfsc_class("odd0", 1, 0x10, {{0, 0, 1000}, {}, {}, {0, 0, 500}});
        add_rules("odd0", refused_rules());
    }

    static void write_scripts(const std::string &name, const std::string &dir)
    {
        std::filesystem::create_directories(dir);
        EXPECT_EQ(1, restart_qos(name.c_str()));
        std::filesystem::copy_file("/var/tmp/qos_start", dir + name + ".start");
        std::filesystem::copy_file("/var/tmp/qos_stop", dir + name + ".stop");
    }

    static void boot()
    {
        const std::string here = MORDEL_KERNEL_DIR;
        const std::string run = "TMPDIR=/var/tmp '" + here + "/uml-run' '" + here +
                                "/observe' /var/tmp/kernel >/var/tmp/out 2>/var/tmp/err";
        const int ended = std::system(run.c_str());
        status = WIFEXITED(ended) ? WEXITSTATUS(ended) : -1;
        said = test::read_file("/var/tmp/err");
        std::string *at = nullptr;
        for (const std::string &line : lines_of(test::read_file("/var/tmp/out")))
            if (line.starts_with("== "))
                at = &sections[line.substr(3)];
            else if (at != nullptr)
                *at += line + "\n";
    }

    static inline std::map<std::string, std::string> sections;
    static inline int status = -1;   // of uml-run
    static inline std::string said;  // by uml-run, on stderr
};

TEST_F(Kernel, StartScriptsSucceedWithoutAWord)
{
    for (const std::string name : names) {
        SCOPED_TRACE(name);
        // tc tells of every RED queue that it took its default bandwidth.
        const text_list notes(models[name].reds, "RED: set bandwidth to 10Mbit");
        EXPECT_EQ(notes, section_lines("start said " + name));
        EXPECT_EQ("0\n", section("start status " + name));
    }
}

TEST_F(Kernel, HtbTreeIsTheModel) { expect_model("htb0"); }

TEST_F(Kernel, HfscTreeIsTheModel) { expect_model("hfsc0"); }

TEST_F(Kernel, PrioTreeIsTheModel) { expect_model("prio0"); }

TEST_F(Kernel, PfifoFastSetsTheQueueLengthAlone)
{
    EXPECT_EQ("100\n", section("before queue fifo0"));
    EXPECT_EQ("250\n", section("started queue fifo0"));
    EXPECT_EQ(section("before tc fifo0"), section("started tc fifo0"));
    for (const std::string name : {"hfsc0", "htb0", "prio0"})
        EXPECT_EQ("100\n", section("started queue " + name));
}

TEST_F(Kernel, MangleTableHoldsTheRules)
{
    text_list want;
    for (const std::string chain : {"PREROUTING", "INPUT", "FORWARD", "OUTPUT", "POSTROUTING"})
        want.push_back("-P " + chain + " ACCEPT");
    EXPECT_EQ(want, section_lines("before mangle"));
    for (const std::string name : names) {
        want.push_back("-N QOS_" + name);
        want.push_back("-N QOS_" + name + "_AUTO");
    }
    for (const std::string chain : {"FORWARD", "OUTPUT"})
        for (const std::string name : names)
            want.push_back(cat({"-A ", chain, " -o ", name, " -g QOS_", name}));

    const std::map<std::string, text_list> automarks = {
        {"htb0", {"0x2", "0x3", "0x10", "0x11", "0x12", "0xabc", "0x2", "0x3"}},
        {"prio0", {"0x1", "0x2", "0x3", "0x4", "0x4", "0x3", "0x2", "0x1"}}};
    const text_list connection_marks = {"0x64",  "0xc8",  "0x12c", "0x190",
                                        "0x1f4", "0x258", "0x2bc", "0x320"};
    const auto rules = all_rules();
    for (const std::string name : names) {
        const std::string add = "-A QOS_" + name;
        want.push_back(cat({add, " -m connmark ! --mark 0x0 -j QOS_", name, "_AUTO"}));
        for (const rule_row &row : rules.at(name))
            for (const std::string &line : row.lines) want.push_back(cat({add, " ", line}));
        if (!automarks.contains(name)) continue;
        for (std::size_t i = 0; i < connection_marks.size(); ++i)
            want.push_back(cat({add, "_AUTO -m connmark --mark ", connection_marks[i],
                                " -j MARK --set-xmark ", automarks.at(name)[i], "/0xffffffff"}));
    }
    EXPECT_EQ(want, section_lines("started mangle"));
}

TEST_F(Kernel, StartingAgainChangesNothing)
{
    for (const std::string name : names) {
        SCOPED_TRACE(name);
        // The rule chain is still jumped to: it is emptied, and so has lost its own jump, but kept.
        const std::string chain = "QOS_" + name;
        text_list failed = {cat({"iptables -t mangle -X ", chain, " 2>/dev/null"}),
                            cat({"iptables -t mangle -N ", chain, " 2>/dev/null"}),
                            cat({"iptables -t mangle -D ", chain, " -m connmark ! --mark 0 -j ",
                                 chain, "_AUTO 2>/dev/null"})};
        if (name == "fifo0")  // has its default qdisc, which cannot be deleted
            failed.insert(failed.begin(), "tc qdisc del dev fifo0 root 2>/dev/null");
        EXPECT_EQ(failed, section_lines("again failed " + name));
        EXPECT_EQ(listing(shown("started", name)), listing(shown("again", name)));
        EXPECT_EQ(section("started queue " + name), section("again queue " + name));
    }
    EXPECT_EQ(section("started mangle"), section("again mangle"));
}

TEST_F(Kernel, StoppingLeavesNothing)
{
    for (const std::string name : names) {
        SCOPED_TRACE(name);
        EXPECT_EQ("", section("stop said " + name));
        EXPECT_EQ("0\n", section("stop status " + name));
        EXPECT_EQ(section("before tc " + name), section("stopped tc " + name));
    }
    EXPECT_EQ(section("before mangle"), section("stopped mangle"));
    // Nothing knows the queue length from before.
    EXPECT_EQ("250\n", section("stopped queue fifo0"));
}

TEST_F(Kernel, LinesThatMainlineRefusesFailAlone)
{
    // tc takes no ul without sc or ls; the class then has no place for its leaf.
    text_list want = {
        "tc class add dev odd0 parent 1:0x1   classid 1:0x10  hfsc ul rate 1000kbit rt rate "
        "500kbit ",
        "tc qdisc add dev odd0 parent 1:0x10  handle 0x100: pfifo "};
    for (const rule_row &row : refused_rules())
        want.push_back("iptables -t mangle -A QOS_odd0 " + row.lines.front());
    text_list failed;
    for (const std::string &line : section_lines("refused failed odd0"))
        if (!line.ends_with(" 2>/dev/null")) failed.push_back(line);
    EXPECT_EQ(want, failed);
}

}  // namespace
