// SPDX-License-Identifier: MIT
// Classification rules, schedules, and the iptables scripts and reports made from them. Owns
// sched_root with the schedules on it, and the rules, which hang on the interface records of
// tarnic_qos. Takes no lock: callers serialise all calls, whatever the interface.

#include "tarnic_iptables.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <iterator>

#include "guards.h"
#include "script_file.h"
#include "tarnic_qos.h"

#define TRACE_SOURCE tarnic_iptables
#include "trace.h"

constinit list_head sched_root = {&sched_root, &sched_root};

namespace mordel {

// ---- Names --------------------------------------------------------------------------------------

constexpr txt_map WeekStrMap[] = {
    {0, "Sun"}, {1, "Mon"}, {2, "Tue"}, {3, "Wed"},
    {4, "Thu"}, {5, "Fri"}, {6, "Sat"}, {-1, "Unknown"},
};

constexpr txt_map DscpClassStrMap[] = {
    {0, "CS0"},   {1, "CS1"},   {2, "CS2"},   {3, "CS3"},   {4, "CS4"},      {5, "CS5"},
    {6, "CS6"},   {7, "CS7"},   {8, "BE"},    {9, "AF11"},  {10, "AF12"},    {11, "AF13"},
    {12, "AF21"}, {13, "AF22"}, {14, "AF23"}, {15, "AF31"}, {16, "AF32"},    {17, "AF33"},
    {18, "AF41"}, {19, "AF42"}, {20, "AF43"}, {21, "EF"},   {-1, "Unknown"},
};

constexpr txt_map TosStrMap[] = {
    {16, "Minimize-Delay"}, {8, "Maximize-Throughput"}, {4, "Maximize-Reliability"},
    {2, "Minimize-Cost"},   {0, "Normal-Service"},      {-1, "Unknown"},
};

constexpr txt_map AlgStrMap[] = {
    {0, "sip"},
    {1, "Q.931"},
    {2, "ftp"},
    {-1, "Unknown"},
};

constexpr txt_map TcpFlagStrMap[] = {
    {0, "SYN"}, {1, "ACK"}, {2, "FIN"}, {3, "RST"}, {4, "URG"}, {5, "PSH"}, {-1, "Unknown"},
};

constexpr txt_map RuleActStrMap[] = {
    {0, "-A"},
    {1, "-D"},
    {-1, "Unknown"},
};

// Two rows have the id 1. A lookup by id finds the first, so that "ALG_H323" is found by its text
// alone. Its place between the others is part of the table.
constexpr txt_map QfStrMap[] = {
    {QF_802_1P, "QF_802_1P"}, {QF_802_1Q, "QF_802_1Q"}, {QF_MAC, "QF_MAC"},
    {QF_IP, "QF_IP"},         {QF_DSCP, "QF_DSCP"},     {QF_TOS, "QF_TOS"},
    {QF_ALG, "QF_ALG"},       {QF_PKTLEN, "QF_PKTLEN"}, {QF_PROTOCOL, "QF_PROTOCOL"},
    {QF_DOMAIN, "QF_DOMAIN"}, {1, "ALG_H323"},          {QF_URL, "QF_URL"},
    {-1, "Unknown"},
};

namespace {

constexpr u32 days_of_week = 7;
constexpr u32 tcp_flags = 6;

constexpr bool has(u32 flags, u32 bit) { return (flags >> bit & 1) != 0; }

// A text that grows by formatted pieces in a caller's buffer. What would pass the buffer's end is
// left out.
class text_writer {
public:
    text_writer(char *buf, size_t size) : buf_(buf), size_(size) { ::memset(buf, 0, size); }

    __attribute__((format(printf, 2, 3))) void add(const char *format, ...)
    {
        va_list args;
        va_start(args, format);
        const int length = ::vsnprintf(end(), room(), format, args);
        va_end(args);
        if (length > 0) length_ = std::min(length_ + static_cast<size_t>(length), size_ - 1);
    }

    // The name of every bit that is set, each followed by a comma.
    void add_names(const txt_map *map, u32 bits)
    {
        for (u32 bit = 0; bits >> bit != 0; ++bit)
            if (has(bits, bit)) add("%s,", name_of(map, bit));
    }

    char *end() { return buf_ + length_; }
    size_t length() const { return length_; }

private:
    size_t room() const { return size_ - length_; }

    char *buf_;
    size_t size_;
    size_t length_ = 0;
};

}  // namespace
}  // namespace mordel

using namespace mordel;

// ---- Rules --------------------------------------------------------------------------------------

list_head *find_rule_list_by_name(const char *ifname)
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    return rec == nullptr ? nullptr : &rec->rules;
}

int add_qos_rule(const char *ifname, u8 index, const qos_match *match, const qos_target *target)
{
    list_head *rules = find_rule_list_by_name(ifname);
    if (rules == nullptr) {
        TRACE_CONSOLE("QoS tree not found!!\n");
        return 0;
    }
    list_head *behind = rules;  // the new rule is linked in front of this node
    for (qos_rule &rule : each<&qos_rule::node>(*rules)) {
        if (rule.index == index) {
            TRACE_CONSOLE("Index already exist!!\n");
            return 0;
        }
        if (index < rule.index) {
            behind = &rule.node;
            break;
        }
    }
    if (has(target->flags, target_mark) && check_Key(ifname, target->mark) == 0) {
        TRACE_CONSOLE("Mark key not found!!\n");
        return 0;
    }
    qos_rule *fresh = allocate<qos_rule>().release();
    if (fresh == nullptr) {
        TRACE_CONSOLE("Memory allocate fail!!\n");
        return 0;
    }
    fresh->index = index;
    fresh->match = *match;
    fresh->target = *target;
    list_add(&fresh->node, behind->prev, behind);
    return 1;
}

// The old rule goes first, on purpose: where the new one is refused, none is left.
int modify_qos_rule(const char *ifname, u8 index, const qos_match *match, const qos_target *target)
{
    return del_qos_rule(ifname, index) == 0 ? 0 : add_qos_rule(ifname, index, match, target);
}

int del_qos_rule(const char *ifname, u8 index)
{
    const list_head *rules = find_rule_list_by_name(ifname);
    if (rules == nullptr) {
        TRACE_CONSOLE("QoS tree not found!!\n");
        return 0;
    }
    for (qos_rule &rule : each<&qos_rule::node>(*rules)) {
        if (rule.index != index) continue;
        list_del(&rule.node);
        ::free(&rule);
        return 1;
    }
    return 0;
}

int get_automark_value(const char *ifname, automark_value *out)
{
    const qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) return 0;
    const automark_value *from = nullptr;
    if (rec->root_type == R_HTB || rec->root_type == R_HFSC) from = &rec->param.classful.automark;
    if (rec->root_type == R_PRIO) from = &rec->param.prio.automark;
    if (from == nullptr) return 0;
    ::memcpy(out, from, sizeof *out);
    return out->enable != 0;
}

// ---- Schedules ----------------------------------------------------------------------------------

int add_sched(const qos_sched *sched)
{
    if (sched->index == 0) return 0;
    qos_sched_node *fresh = allocate<qos_sched_node>().release();
    if (fresh == nullptr) return 0;
    // These four fields alone are taken over, on purpose. stop_hour, start_min and stop_min stay 0.
    fresh->sched.index = sched->index;
    fresh->sched.days = sched->days;
    fresh->sched.all_day = sched->all_day;
    fresh->sched.start_hour = sched->start_hour;
    list_add_tail(&fresh->node, &sched_root);
    return 1;
}

int del_sched(u8 index)
{
    qos_sched_node *old = search_sched(index);
    if (old == nullptr) return 0;
    list_del(&old->node);
    ::free(old);
    return 1;
}

int del_all_sched(void)
{
    for (qos_sched_node &old : each<&qos_sched_node::node>(sched_root)) {
        list_del(&old.node);
        ::free(&old);
    }
    return static_cast<int>(list_empty(&sched_root));
}

qos_sched_node *search_sched(u8 index)
{
    if (index == 0) return nullptr;
    for (qos_sched_node &node : each<&qos_sched_node::node>(sched_root))
        if (node.sched.index == index) return &node;
    return nullptr;
}

namespace {

constexpr u32 sched_text_size = 128;  // the longest schedule takes 82

void render_sched(text_writer &text, const qos_sched &s)
{
    text.add("-m time ");
    if (s.all_day == 1)
        text.add("--timestart 00:00 --timestop 23:59 ");
    else
        text.add("--timestart %d:%02d --timestop %d:%02d ", s.start_hour, s.start_min, s.stop_hour,
                 s.stop_min);
    const u32 days = s.days & ((1U << days_of_week) - 1);
    if (days == 0) return;
    text.add("--days ");
    text.add_names(WeekStrMap, days);
    text.end()[-1] = ' ';  // in place of the last comma
}

}  // namespace

int get_sched_str(u8 index, char *buf, u32 size)
{
    char work[sched_text_size];
    text_writer text(work, sizeof work);
    const qos_sched_node *node = search_sched(index);
    if (node != nullptr) {
        render_sched(text, node->sched);
        // `size` is compared with the text's length. Where they are equal, the NUL lands one byte
        // behind `size`; callers leave room for it.
        if (size >= text.length()) {
            ::memcpy(buf, work, text.length() + 1);
            return 1;
        }
    }
    TRACE_CONSOLE("schedule index not found!!\n");
    return 0;
}

// ---- Rendering ----------------------------------------------------------------------------------

namespace mordel {
namespace {

void add_ports(text_writer &text, const qos_match &m)
{
    if (m.sport_start != 0 && m.sport_end != 0)
        text.add("--sport %u:%u ", m.sport_start, m.sport_end);
    if (m.dport_start != 0 && m.dport_end != 0)
        text.add("--dport %u:%u ", m.dport_start, m.dport_end);
}

void add_tcp_flags(text_writer &text, const qos_match &m)
{
    if (m.tcp_flag_mask == 0 || m.tcp_flag_comp == 0) return;
    char mask[flag_text_size];
    char comp[flag_text_size];
    get_tcp_flag_str(mask, m.tcp_flag_mask);
    get_tcp_flag_str(comp, m.tcp_flag_comp);
    text.add("--tcp-flag %s %s ", mask, comp);
}

struct dotted {
    char text[17];
    explicit dotted(u32 ip) { (void)ip2string(ip, text, sizeof text); }
};

// A range whose ends are both set
void add_ip_range(text_writer &text, const char *option, u32 start, u32 end)
{
    text.add("%s %s-%s ", option, dotted(start).text, dotted(end).text);
}

void add_ip_ranges(text_writer &text, const qos_match &m)
{
    const bool src = m.src_ip_start != 0 && m.src_ip_end != 0;
    const bool dst = m.dst_ip_start != 0 && m.dst_ip_end != 0;
    if (src || dst) text.add("-m iprange ");
    if (src) add_ip_range(text, "--src-range", m.src_ip_start, m.src_ip_end);
    if (dst) add_ip_range(text, "--dst-range", m.dst_ip_start, m.dst_ip_end);
}

// The piece of one match kind. "%.20s" and "%.256s": a text that fills its array has no NUL.
void add_match(text_writer &text, const qos_match &m, u32 kind)
{
    switch (kind) {
    case QF_MAC:
        text.add("-m mac --mac-source %.20s ", m.src_mac);
        break;
    case QF_IP:
        add_ip_ranges(text, m);
        break;
    case QF_DSCP:
        if (m.dscp_mode == 0) text.add("-m dscp --dscp 0x%x ", m.dscp_value.raw);
        if (m.dscp_mode == 1)
            text.add("-m dscp --dscp-class %s ", name_of(DscpClassStrMap, m.dscp_value.class_id));
        break;
    case QF_TOS:
        text.add("-m tos --tos %s --precedence %d ", name_of(TosStrMap, m.tos), m.precedence);
        break;
    case QF_ALG:
        text.add("-m helper --helper %s ", name_of(AlgStrMap, m.alg));
        break;
    case QF_PKTLEN:
        text.add("-m length --length %u:%u ", m.pkt_len >> 16, m.pkt_len & 0xffff);
        break;
    case QF_DOMAIN:
        text.add("-m domain --name \"%.256s\" ", m.domain);
        break;
    case QF_URL:
        text.add("-m urlfilter --url %.256s ", m.url);
        break;
    default:
        break;  // add_vlan writes the two tag kinds, render_protocol the protocol
    }
}

// The priority's bit selects the VLAN id and the id's bit the priority: crossed on purpose. The
// report (show_match) shows each bit's own number.
void add_vlan(text_writer &text, const qos_match &m)
{
    const bool prio = has(m.flags, QF_802_1P);
    const bool tag = has(m.flags, QF_802_1Q);
    if (prio || tag) text.add("-m VLAN ");
    if (prio) text.add("--vlan-id %d ", m.vlan_id);
    if (tag) text.add("--vlan-prio %d ", m.dot1p_prio);
}

// The protocol pieces of a rule. iptables takes one protocol a line: a rule for TCP and UDP needs a
// second piece, for the second line.
struct protocol_texts {
    char first[128];  // the longest takes 108
    char second[128];
    bool both;
};

constexpr const char *protocol_names[] = {"tcp", "udp", "icmp", "tcp", "all"};
static_assert(std::size(protocol_names) == protocols);

// Renders the protocol pieces; both stay empty for a rule without a protocol. False when the
// protocol is unknown.
bool render_protocol(protocol_texts *texts, const qos_match &m)
{
    text_writer first(texts->first, sizeof texts->first);
    text_writer second(texts->second, sizeof texts->second);
    texts->both = false;
    if (!has(m.flags, QF_PROTOCOL)) return true;
    if (m.protocol >= protocols) return false;
    first.add("-p %s ", protocol_names[m.protocol]);
    if (m.protocol == proto_icmp || m.protocol == proto_all) return true;
    add_ports(first, m);
    if (m.protocol == proto_udp) return true;
    add_tcp_flags(first, m);
    if (m.protocol == proto_tcp) return true;
    second.add("-p udp ");
    add_ports(second, m);
    texts->both = true;
    return true;
}

}  // namespace

// The comma behind the last flag stays: iptables takes "SYN,ACK," as "SYN,ACK".
void get_tcp_flag_str(char *text, u8 flags)
{
    text_writer(text, flag_text_size).add_names(TcpFlagStrMap, flags & ((1U << tcp_flags) - 1));
}

// `size` is not heeded: the interface clears rule_text_size bytes, and every caller's text has
// them.
u32 draw_target(u32 kind, char *text, u32 /* size */, const qos_target *target)
{
    text_writer out(text, rule_text_size);
    switch (kind) {
    case target_mark:
        out.add("-j MARK --set-mark 0x%x ", target->mark);
        break;
    case target_tos:
        out.add("-j TOS --set-tos %s --set-precedence %d ", name_of(TosStrMap, target->kind),
                target->value.raw);
        break;
    case target_dscp:
        if (target->kind == 0) out.add("-j DSCP --set-dscp 0x%x ", target->value.raw);
        if (target->kind == 1)
            out.add("-j DSCP --set-dscp %s ", name_of(DscpClassStrMap, target->value.class_id));
        break;
    case target_mkvlan:
        out.add("-j MKVLAN --set-vlan-id %d --set-vlan-prio %d %s ", target->vlan_id,
                target->vlan_prio, target->vlan_double != 0 ? "--double" : " ");
        break;
    case target_log:
        TRACE_CONSOLE("LOG target not implement!!\n");
        break;
    default:
        break;
    }
    return static_cast<u32>(out.length());
}

namespace {

// What all lines of a rule share
struct rule_line {
    const char *action;
    const char *prefix;
    const char *ifname;
    const protocol_texts *protocol;
    const char *match;
};

// The line of one target kind, or two where the rule is for TCP and UDP; none without a text.
void write_target(FILE *out, const rule_line &line, u32 kind, const qos_target &target)
{
    char text[rule_text_size];
    if (draw_target(kind, text, sizeof text, &target) == 0) return;
    const auto write = [&](const char *protocol) {
        ::fprintf(out, "iptables -t mangle %s %s%s %s%s%s\n", line.action, line.prefix, line.ifname,
                  protocol, line.match, text);
    };
    write(line.protocol->first);
    if (line.protocol->both) write(line.protocol->second);
}

}  // namespace

int draw_rule(FILE *out, const qos_rule *rule, u32 action, const char *prefix, const char *ifname)
{
    const qos_match &m = rule->match;
    protocol_texts protocol;
    if (!render_protocol(&protocol, m)) return 0;

    // The longest match, both long texts without a NUL and a schedule included, takes 952.
    char match_text[rule_text_size];
    text_writer match(match_text, sizeof match_text);
    for (u32 kind = 0; kind < match_kinds; ++kind) {
        if (!has(m.flags, kind)) continue;
        add_match(match, m, kind);
        // The protocol has no match piece. That it is traced instead is part of the interface.
        if (kind == QF_PROTOCOL) TRACE_CONSOLE("get %s match type\n", name_of(QfStrMap, kind));
    }
    add_vlan(match, m);
    if (m.sched_index != 0) {
        const auto used = static_cast<u32>(match.length());
        if (get_sched_str(m.sched_index, match.end(), rule_text_size - 1 - used) == 0)
            TRACE_CONSOLE("match buffer is too small or index not found, schedule string doesn't"
                          " attach %d %d!!\n",
                          static_cast<int>(rule_text_size), static_cast<int>(used));
    }

    const rule_line line{name_of(RuleActStrMap, action), prefix, ifname, &protocol, match_text};
    for (u32 kind = 0; kind < target_kinds; ++kind)
        if (has(rule->target.flags, kind)) write_target(out, line, kind, rule->target);
    return 1;
}

// ---- Chains -------------------------------------------------------------------------------------
// Where one chain writer calls another, it passes chain_prefix and not the prefix that it was
// given. Every caller gives chain_prefix; that the prefix is not passed on is part of the
// interface.

namespace {

// The three jumps into an interface's chains. FORWARD and OUTPUT send the packets that leave
// through the interface to its rule chain, which sends those of a marked connection to the automark
// chain.
void write_jumps(FILE *out, const char *action, const char *prefix, const char *ifname)
{
    ::fprintf(out, "iptables -t mangle %s FORWARD -o %s -g %s%s 2>/dev/null\n", action, ifname,
              prefix, ifname);
    ::fprintf(out, "iptables -t mangle %s OUTPUT -o %s -g %s%s 2>/dev/null\n", action, ifname,
              prefix, ifname);
    ::fprintf(out, "iptables -t mangle %s %s%s -m connmark ! --mark 0 -j %s%s%s 2>/dev/null\n",
              action, prefix, ifname, prefix, ifname, automark_suffix);
}

// One command on the rule chain, then on the automark chain.
void write_both_chains(FILE *out, const char *command, const char *prefix, const char *ifname)
{
    for (const char *suffix : {"", automark_suffix})
        ::fprintf(out, "iptables -t mangle %s %s%s%s 2>/dev/null\n", command, prefix, ifname,
                  suffix);
}

}  // namespace

void del_rule_chain_jumps(FILE *out, const char *prefix, const char *ifname)
{
    write_jumps(out, "-D", prefix, ifname);
}

// Deletes the jumps first: a script that runs a second time would add them a second time.
void add_rule_chain_jumps(FILE *out, const char *prefix, const char *ifname)
{
    del_rule_chain_jumps(out, chain_prefix, ifname);
    write_jumps(out, "-A", prefix, ifname);
}

void flush_rule_chains(FILE *out, const char *prefix, const char *ifname)
{
    write_both_chains(out, "-F", prefix, ifname);
}

void delete_rule_chains(FILE *out, const char *prefix, const char *ifname)
{
    flush_rule_chains(out, chain_prefix, ifname);
    write_both_chains(out, "-X", prefix, ifname);
}

void renew_rule_chains(FILE *out, const char *prefix, const char *ifname)
{
    delete_rule_chains(out, chain_prefix, ifname);
    write_both_chains(out, "-N", prefix, ifname);
    add_rule_chain_jumps(out, chain_prefix, ifname);
}

}  // namespace mordel

// ---- Rule scripts -------------------------------------------------------------------------------

int renew_qos_rule(FILE *out, const char *ifname, list_head *rules)
{
    renew_rule_chains(out, chain_prefix, ifname);
    for (const qos_rule &rule : each<&qos_rule::node>(*rules))
        (void)draw_rule(out, &rule, 0, chain_prefix, ifname);
    automark_value automark;
    if (get_automark_value(ifname, &automark) == 0) return 0;
    int connection_mark = 0;
    for (const u16 mark : automark.mark) {
        connection_mark += 100;
        ::fprintf(out,
                  "iptables -t mangle -A %s%s%s -m connmark --mark %d -j MARK --set-mark 0x%x"
                  " 2>/dev/null\n",
                  chain_prefix, ifname, automark_suffix, connection_mark, mark);
    }
    return 0;
}

int remove_qos_rule(FILE *out, const char *ifname)
{
    del_rule_chain_jumps(out, chain_prefix, ifname);
    delete_rule_chains(out, chain_prefix, ifname);
    return 0;
}

namespace mordel {

void rules2script(FILE *out, const char *ifname, list_head *rules)
{
    write_script_header(out);
    (void)renew_qos_rule(out, ifname, rules);
}

}  // namespace mordel

int restart_rule(const char *ifname)
{
    char path[64];
    ::snprintf(path, sizeof path, "/var/tmp/qos_rule_%s", ifname);
    list_head *rules = find_rule_list_by_name(ifname);
    if (rules == nullptr) {
        TRACE_CONSOLE("QoS struct not fuond!!\n");  // the spelling is part of the interface
        return 0;
    }
    {
        const script_file script(path);
        if (script.stream() == nullptr) {
            TRACE_CONSOLE("Can't open tmp file!!\n");
            return 0;
        }
        rules2script(script.stream(), ifname, rules);
    }
    wait_for_writers(path);
    (void)_system("%s", path);
    return 1;
}

// ---- Report -------------------------------------------------------------------------------------

namespace mordel {
namespace {

// The report's line of a protocol; none for an unknown one. Only show_match traces it: the
// function's name stands in the trace.
void add_protocol_line(text_writer &line, const qos_match &m)
{
    switch (m.protocol) {
    case proto_tcp: {
        char mask[flag_text_size];
        char comp[flag_text_size];
        get_tcp_flag_str(mask, m.tcp_flag_mask);
        get_tcp_flag_str(comp, m.tcp_flag_comp);
        line.add("TCP Port/flag:    src:%u~%u dst:%u~%u %s %s \n", m.sport_start, m.sport_end,
                 m.dport_start, m.dport_end, mask, comp);
        break;
    }
    case proto_udp:
        line.add("UDP Port:         src:%u~%u dst:%u~%u\n", m.sport_start, m.sport_end,
                 m.dport_start, m.dport_end);
        break;
    case proto_icmp:
        line.add("ICMP:\n");
        break;
    case proto_both:
        line.add("Both Port:        src:%u~%u dst:%u~%u\n", m.sport_start, m.sport_end,
                 m.dport_start, m.dport_end);
        break;
    case proto_all:
        line.add("ALL:\n");
        break;
    default:
        break;
    }
}

}  // namespace

// Each VLAN bit shows its own number here; in a rendered rule the bits are crossed (add_vlan).
void show_match(const qos_match *match)
{
    const qos_match &m = *match;
    if (has(m.flags, QF_802_1P)) TRACE_CONSOLE("802.1p priority:  %d\n", m.dot1p_prio);
    if (has(m.flags, QF_802_1Q)) TRACE_CONSOLE("802.1q vlanid:    %d\n", m.vlan_id);
    if (has(m.flags, QF_MAC)) TRACE_CONSOLE("src MAC Addr:     %.20s\n", m.src_mac);
    if (has(m.flags, QF_IP)) {
        const dotted src[] = {dotted(m.src_ip_start), dotted(m.src_ip_end)};
        const dotted dst[] = {dotted(m.dst_ip_start), dotted(m.dst_ip_end)};
        TRACE_CONSOLE("ip range src/dst: %s~%s / %s~%s\n", src[0].text, src[1].text, dst[0].text,
                      dst[1].text);
    }
    if (has(m.flags, QF_DSCP) && m.dscp_mode == 0)
        TRACE_CONSOLE("DSCP:             0x%x\n", m.dscp_value.raw);
    if (has(m.flags, QF_DSCP) && m.dscp_mode == 1)
        TRACE_CONSOLE("DSCP:             %s\n", name_of(DscpClassStrMap, m.dscp_value.class_id));
    if (has(m.flags, QF_TOS))
        TRACE_CONSOLE("Precedence/TOS:   0x%x/%s\n", m.precedence, name_of(TosStrMap, m.tos));
    if (has(m.flags, QF_ALG)) TRACE_CONSOLE("Match ALG:        %s\n", name_of(AlgStrMap, m.alg));
    if (has(m.flags, QF_PKTLEN))
        TRACE_CONSOLE("Packet length:    %u~%u\n", m.pkt_len >> 16, m.pkt_len & 0xffff);
    if (has(m.flags, QF_PROTOCOL)) {
        char line[128];  // the longest takes 100
        text_writer text(line, sizeof line);
        add_protocol_line(text, m);
        if (text.length() != 0) TRACE_CONSOLE("%s", line);
    }
    if (has(m.flags, QF_DOMAIN)) TRACE_CONSOLE("Domain String:    %.256s\n", m.domain);
    if (has(m.flags, QF_URL)) TRACE_CONSOLE("URL String:       %.256s\n", m.url);
    char time[sched_text_size];
    if (m.sched_index != 0 && get_sched_str(m.sched_index, time, sizeof time) == 1)
        TRACE_CONSOLE("Time String:      %s\n", time);
}

void show_target(const qos_target *target)
{
    const qos_target &t = *target;
    if (has(t.flags, target_mark)) TRACE_CONSOLE("Set Mark:         %d\n", t.mark);
    if (has(t.flags, target_tos))
        TRACE_CONSOLE("Precedence/TOS:   0x%x/%s\n", t.value.raw, name_of(TosStrMap, t.kind));
    if (has(t.flags, target_dscp) && t.kind == 0)
        TRACE_CONSOLE("DSCP:             0x%x\n", t.value.raw);
    if (has(t.flags, target_dscp) && t.kind == 1)
        TRACE_CONSOLE("DSCP:             %s\n", name_of(DscpClassStrMap, t.value.class_id));
    if (has(t.flags, target_mkvlan))
        TRACE_CONSOLE("Vlan Tag 1p/q:    %d/%d\n", t.vlan_prio, t.vlan_id);
    // Shown by the log byte, whether or not the LOG bit of the flags is set
    if (t.log != 0) TRACE_CONSOLE("Log:              Yes\n");
}

}  // namespace mordel

void show_rule(const char *ifname)
{
    const list_head *rules = find_rule_list_by_name(ifname);
    if (rules == nullptr) {
        TRACE_CONSOLE("QoS tree not found, no rule found!!\n");
        return;
    }
    for (const qos_rule &rule : each<&qos_rule::node>(*rules)) {
        TRACE_CONSOLE("Qos Rule%3d:\n", rule.index);
        TRACE_CONSOLE("===============MATCH===============\n");
        show_match(&rule.match);
        TRACE_CONSOLE("===============TARGET==============\n");
        show_target(&rule.target);
    }
}
