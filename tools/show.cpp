#include "show.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

#include "names.h"
#include "text.h"

namespace tool {
namespace {

using std::string;

class comma_list {
public:
    void add(const string &item) { text_ += (text_.empty() ? "" : ", ") + item; }
    const string &text() const { return text_; }

private:
    string text_;
};

string range_text(u32 first, u32 last)
{
    return first == last ? format("%u", first) : format("%u:%u", first, last);
}

string address_text(u32 first, u32 last)
{
    return first == last ? ipv4_text(first) : ipv4_text(first) + "-" + ipv4_text(last);
}

string flags_text(u8 flags)
{
    string out;
    for (u32 bit = 0; bit < 6; ++bit)
        if (has(flags, bit)) out += string(out.empty() ? "" : "+") + string(flag_names[bit]);
    return out;
}

const char *tos_name(u32 id)
{
    for (std::size_t i = 0; i < std::size(tos_ids); ++i)
        if (tos_ids[i] == id) return tos_names[i].data();
    return "";
}

string dscp_text(u32 mode, u8 raw, u32 id)
{
    return mode == dscp_class ? string(dscp_names[id]) : format("%d", raw);
}

string protocol_text(const qos_match &m)
{
    static const char *const names[] = {"tcp", "udp", "icmp", "tcp+udp", "all protocols"};
    string out = names[m.protocol];
    if (m.sport_start != 0) out += " sport " + range_text(m.sport_start, m.sport_end);
    if (m.dport_start != 0) out += " dport " + range_text(m.dport_start, m.dport_end);
    if (m.tcp_flag_mask != 0)
        out += " flags " + flags_text(m.tcp_flag_comp) + "/" + flags_text(m.tcp_flag_mask);
    return out;
}

string curve_text(const char *name, const hfsc_curve &curve)
{
    if (curve.rate == 0 && curve.umax == 0) return "";
    string out = format("  %s %s", name, rate_text(curve.rate).c_str());
    if (curve.umax != 0) out += " umax " + size_text(curve.umax);
    if (curve.dmax != 0) out += format(" dmax %ums", curve.dmax);
    return out;
}

// The curves that are written
string curves_text(const tree_class &c)
{
    const hfsc_class_param &p = c.hfsc;
    string out = curve_text("ul", p.ul);
    if (p.sc.rate != 0) return out + curve_text("sc", p.sc);
    if (p.ls.rate != 0) return out + curve_text("ls", p.ls);
    return c.has_children ? out : out + curve_text("rt", p.rt);
}

// What a class may send at most, and what it is sure of: kbit/s, 0 where nothing says so
u32 limit_of(const policy_interface &iface, const tree_class &c)
{
    return iface.root_type == R_HTB ? c.htb.ceil : iface.root_type == R_HFSC ? c.hfsc.ul.rate : 0;
}
u32 share_of(const policy_interface &iface, const tree_class &c)
{
    if (iface.root_type == R_HTB) return c.htb.rate;
    if (iface.root_type != R_HFSC) return 0;
    const hfsc_class_param &p = c.hfsc;
    return p.sc.rate != 0 ? p.sc.rate : p.ls.rate != 0 ? p.ls.rate : p.rt.rate;
}

// As the scripts say it
string schedule_text(const qos_sched &s)
{
    string days;
    for (u32 day = 0; day < 7; ++day)
        if (has(s.days, day)) days += string(days.empty() ? "" : ",") + string(day_names[day]);
    return format("schedule %d: %s, ", s.index, days.empty() ? "every day" : days.c_str()) +
           (s.all_day == 1 ? "all day" : format("%d:00 to 0:00", s.start_hour));
}

class tree_printer {
public:
    tree_printer(const policy_interface &iface, const look &how)
        : iface_(iface), how_(how), tree_(tree_of(iface))
    {}

    string print()
    {
        head();
        children(0, "");
        rules_without_class();
        return out_;
    }

private:
    string bold(const string &text) const
    {
        return how_.colour ? "\033[1m" + text + "\033[0m" : text;
    }
    string dim(const string &text) const
    {
        return how_.colour ? "\033[2m" + text + "\033[0m" : text;
    }

    void head()
    {
        out_ += bold(iface_.name) + "  " + string(root_names[iface_.root_type]);
        const u32 *s = iface_.speeds;
        if (s[2] != 0 || s[3] != 0)
            out_ += format("  phy %s out, %s in", rate_text(s[2]).c_str(), rate_text(s[3]).c_str());
        if (s[0] != 0 || s[1] != 0)
            out_ +=
                format("  link %s out, %s in", rate_text(s[0]).c_str(), rate_text(s[1]).c_str());
        if (iface_.root_type == R_pfifo_fast)
            out_ += format("  queue of %u packets", iface_.param.pfifo_fast.queue_len);
        if (iface_.root_type == R_PRIO) {
            out_ += format("  %d bands, by packet priority:", iface_.param.prio.bands);
            for (const u8 band : iface_.param.prio.priomap) out_ += format(" %d", band);
        }
        out_ += "\n";
    }

    void children(u32 parent, const string &indent)
    {
        std::vector<const tree_class *> list;
        for (const tree_class &c : tree_)
            if (c.parent == parent) list.push_back(&c);
        for (const tree_class *c : list) {
            const bool last = c == list.back();
            const char *knot = how_.utf8 ? (last ? "└─ " : "├─ ") : (last ? "`- " : "|- ");
            const char *line = how_.utf8 ? (last ? "   " : "│  ") : (last ? "   " : "|  ");
            const string below = indent + line;
            one_class(*c, indent + knot, below);
            if (c->has_children) children(c->handle, below);
        }
    }

    void one_class(const tree_class &c, const string &first, const string &below)
    {
        string title = format("1:%x", c.handle);
        if (!c.name.empty()) title += " " + c.name;
        out_ += first + bold(title) + rates(c);
        if (!c.has_children) out_ += "  " + leaf_text(c.leaf);
        if (iface_.classful() && c.handle == iface_.param.classful.default_class)
            out_ += "  " + bold("default");
        out_ += "\n";
        // A class's details stand below it, in front of its children.
        const string pad = below + (c.has_children ? (how_.utf8 ? "│  " : "|  ") : "   ");
        if (const string bar = bars(c); !bar.empty()) out_ += pad + bar + "\n";
        for (const string &line : ways_to(c.handle)) out_ += pad + dim(line) + "\n";
    }

    string rates(const tree_class &c) const
    {
        if (iface_.root_type == R_HTB)
            return format("  rate %s ceil %s prio %u", rate_text(c.htb.rate).c_str(),
                          rate_text(c.htb.ceil).c_str(), c.htb.prio);
        return iface_.root_type == R_HFSC ? curves_text(c) : "";
    }

    // Of its parent's limit: full cells up to what the class is sure of, half ones up to its limit
    string bars(const tree_class &c) const
    {
        constexpr u32 cells = 20;
        const tree_class *parent = find_class(tree_, c.parent);
        if (parent == nullptr || limit_of(iface_, *parent) == 0) return "";
        const double whole = limit_of(iface_, *parent);
        const auto cells_of = [&](u32 kbit) {
            return std::min<u32>(cells,
                                 static_cast<u32>(std::lround(kbit * double{cells} / whole)));
        };
        const u32 sure = cells_of(share_of(iface_, c));
        const u32 most = std::max(sure, cells_of(limit_of(iface_, c)));
        string bar;
        for (u32 i = 0; i < cells; ++i) {
            if (how_.utf8)
                bar += i < sure ? "█" : i < most ? "▒" : "·";
            else
                bar += i < sure ? "#" : i < most ? "=" : ".";
        }
        return bar + format("  %.0f%% to %.0f%% of 1:%x", share_of(iface_, c) * 100 / whole,
                            std::min(1.0, limit_of(iface_, c) / whole) * 100, parent->handle);
    }

    std::vector<string> ways_to(u32 handle) const
    {
        std::vector<string> lines;
        for (const policy_rule *rule : in_order()) {
            if (!has(rule->target.flags, target_mark) || rule->target.mark != handle) continue;
            lines.push_back(format("rule %d: %s", rule->index, match_text(rule->match).c_str()));
            if ((rule->target.flags & ~(1U << target_mark)) != 0)
                lines.back() += "; " + target_text(rule->target);
        }
        const automark_value *automark = iface_.automark();
        if (automark == nullptr || automark->enable == 0) return lines;
        comma_list marks;
        for (u32 i = 0; i < std::size(automark->mark); ++i)
            if (automark->mark[i] == handle) marks.add(format("%u", (i + 1) * 100));
        if (!marks.text().empty()) lines.push_back("connection mark " + marks.text());
        return lines;
    }

    void rules_without_class()
    {
        for (const policy_rule *rule : in_order())
            if (!has(rule->target.flags, target_mark))
                out_ += format("rule %d: %s; %s\n", rule->index, match_text(rule->match).c_str(),
                               target_text(rule->target).c_str());
    }

    std::vector<const policy_rule *> in_order() const
    {
        std::vector<const policy_rule *> list;
        for (const policy_rule &rule : iface_.rules) list.push_back(&rule);
        std::sort(list.begin(), list.end(),
                  [](const auto *a, const auto *b) { return a->index < b->index; });
        return list;
    }

    const policy_interface &iface_;
    const look &how_;
    std::vector<tree_class> tree_;
    string out_;
};

using json = nlohmann::ordered_json;

json curve_json(const hfsc_curve &c)
{
    return {{"rate_kbit", c.rate}, {"umax_bytes", c.umax}, {"dmax_ms", c.dmax}};
}

json leaf_json(const leaf_qdisc &leaf)
{
    switch (leaf.type) {
    case L_SFQ:
        return {{"type", "sfq"}, {"perturb_s", leaf.param.sfq.perturb}};
    case L_RED: {
        const red_leaf_param &red = leaf.param.red;
        return {{"type", "red"},
                {"min_bytes", red.min},
                {"max_bytes", red.max},
                {"burst_packets", red.burst},
                {"limit_bytes", red.limit},
                {"avpkt_bytes", red.avpkt}};
    }
    case L_TBF: {
        const tbf_leaf_param &tbf = leaf.param.tbf;
        return {{"type", "tbf"},
                {"latency_ms", tbf.latency},
                {"rate_kbit", tbf.rate},
                {"burst_bytes", tbf.burst}};
    }
    default:
        return {{"type", "pfifo"}, {"limit_packets", leaf.param.pfifo.limit}};
    }
}

json class_json(const policy_interface &iface, const tree_class &c)
{
    json out = {{"handle", c.handle}, {"parent", c.parent}, {"name", c.name}};
    if (iface.root_type == R_HTB) {
        const htb_class_param &p = c.htb;
        out.update({{"rate_kbit", p.rate},
                    {"ceil_kbit", p.ceil},
                    {"burst_bytes", p.burst},
                    {"cburst_bytes", p.cburst},
                    {"prio", p.prio}});
    }
    if (iface.root_type == R_HFSC) {
        const hfsc_class_param &p = c.hfsc;
        out.update({{"ul", curve_json(p.ul)},
                    {"sc", curve_json(p.sc)},
                    {"ls", curve_json(p.ls)},
                    {"rt", curve_json(p.rt)}});
    }
    if (!c.has_children) out["leaf"] = leaf_json(c.leaf);
    return out;
}

json interface_json(const policy_interface &iface)
{
    json out = {{"name", iface.name},
                {"root", root_names[iface.root_type]},
                {"link_tx_kbit", iface.speeds[0]},
                {"link_rx_kbit", iface.speeds[1]},
                {"phy_tx_kbit", iface.speeds[2]},
                {"phy_rx_kbit", iface.speeds[3]}};
    if (iface.classful()) out["default"] = iface.param.classful.default_class;
    if (iface.root_type == R_PRIO) {
        out["bands"] = iface.param.prio.bands;
        out["priomap"] = iface.param.prio.priomap;
    }
    if (iface.root_type == R_pfifo_fast) out["queue_len"] = iface.param.pfifo_fast.queue_len;
    if (const automark_value *automark = iface.automark(); automark && automark->enable != 0)
        out["automark"] = automark->mark;
    out["classes"] = json::array();
    for (const tree_class &c : tree_of(iface)) out["classes"].push_back(class_json(iface, c));
    out["rules"] = json::array();
    for (const policy_rule &rule : iface.rules) {
        json one = {{"index", rule.index},
                    {"match", match_text(rule.match)},
                    {"target", target_text(rule.target)}};
        if (has(rule.target.flags, target_mark)) one["mark"] = rule.target.mark;
        if (rule.match.sched_index != 0) one["schedule"] = rule.match.sched_index;
        out["rules"].push_back(one);
    }
    return out;
}

void dot_interface(const policy_interface &iface, string &out)
{
    const string root = "\"" + iface.name + "\"";
    const auto id = [&](u32 handle) {
        return handle == 0 ? root : format("\"%s 1:%x\"", iface.name.c_str(), handle);
    };
    out += "  " + root + " [shape=box];\n";
    for (const tree_class &c : tree_of(iface)) {
        string label = format("1:%x", c.handle);
        if (!c.name.empty()) label += " " + c.name;
        if (iface.root_type == R_HTB)
            label += "\\n" + rate_text(c.htb.rate) + " to " + rate_text(c.htb.ceil);
        if (iface.root_type == R_HFSC) label += "\\n" + curves_text(c).substr(2);
        if (!c.has_children) label += "\\n" + leaf_text(c.leaf);
        out += format("  %s [label=\"%s\"];\n", id(c.handle).c_str(), label.c_str());
        out += format("  %s -> %s;\n", id(c.parent).c_str(), id(c.handle).c_str());
    }
    for (const policy_rule &rule : iface.rules) {
        if (!has(rule.target.flags, target_mark)) continue;
        const string node = format("\"%s rule %d\"", iface.name.c_str(), rule.index);
        out += format("  %s [shape=note, label=\"%d: %s\"];\n", node.c_str(), rule.index,
                      match_text(rule.match).c_str());
        out += format("  %s -> %s [style=dashed];\n", node.c_str(), id(rule.target.mark).c_str());
    }
}

}  // namespace

string leaf_text(const leaf_qdisc &leaf)
{
    switch (leaf.type) {
    case L_SFQ:
        return leaf.param.sfq.perturb == 0 ? "sfq"
                                           : format("sfq perturb %ds", leaf.param.sfq.perturb);
    case L_RED: {
        const red_leaf_param &red = leaf.param.red;
        return format("red min %s max %s limit %s avpkt %s burst %u packets",
                      size_text(red.min).c_str(), size_text(red.max).c_str(),
                      size_text(red.limit).c_str(), size_text(red.avpkt).c_str(), red.burst);
    }
    case L_TBF: {
        const tbf_leaf_param &tbf = leaf.param.tbf;
        return format("tbf rate %s burst %s latency %ums", rate_text(tbf.rate).c_str(),
                      size_text(tbf.burst).c_str(), tbf.latency);
    }
    default:
        return leaf.param.pfifo.limit == 0 ? "pfifo"
                                           : format("pfifo limit %u", leaf.param.pfifo.limit);
    }
}

string match_text(const qos_match &m)
{
    comma_list list;
    if (has(m.flags, match_protocol)) list.add(protocol_text(m));
    if (m.src_ip_start != 0) list.add("src " + address_text(m.src_ip_start, m.src_ip_end));
    if (m.dst_ip_start != 0) list.add("dst " + address_text(m.dst_ip_start, m.dst_ip_end));
    if (has(m.flags, match_mac)) list.add(string("mac ") + m.src_mac);
    if (has(m.flags, match_dscp))
        list.add("dscp " + dscp_text(m.dscp_mode, m.dscp_value.raw, m.dscp_value.class_id));
    if (has(m.flags, match_tos))
        list.add(format("tos %s precedence %d", tos_name(m.tos), m.precedence));
    if (has(m.flags, match_alg)) list.add("alg " + string(alg_names[m.alg]));
    if (has(m.flags, match_length))
        list.add("length " + range_text(m.pkt_len >> 16, m.pkt_len & 0xffff));
    if (has(m.flags, match_vlan_id)) list.add(format("vlan_id %d", m.vlan_id));
    if (has(m.flags, match_vlan_prio)) list.add(format("vlan_prio %d", m.dot1p_prio));
    if (has(m.flags, match_domain)) list.add(string("domain ") + m.domain);
    if (has(m.flags, match_url)) list.add(string("url ") + m.url);
    if (m.sched_index != 0) list.add(format("schedule %d", m.sched_index));
    return list.text().empty() ? "everything" : list.text();
}

string target_text(const qos_target &t)
{
    comma_list list;
    if (has(t.flags, target_mark)) list.add("mark " + hex(t.mark));
    if (has(t.flags, target_tos))
        list.add(format("set tos %s precedence %d", tos_name(t.kind), t.value.raw));
    if (has(t.flags, target_dscp))
        list.add("set dscp " + dscp_text(t.kind, t.value.raw, t.value.class_id));
    if (has(t.flags, target_mkvlan))
        list.add(format("add vlan %d prio %d%s", t.vlan_id, t.vlan_prio,
                        t.vlan_double != 0 ? " double" : ""));
    if (has(t.flags, target_log)) list.add("log");
    return list.text();
}

string show_tree(const policy &p, const look &how)
{
    string out;
    for (const policy_interface &iface : p.interfaces) {
        if (!out.empty()) out += "\n";
        out += tree_printer(iface, how).print();
    }
    if (!p.schedules.empty()) out += "\n";
    for (const policy_schedule &s : p.schedules) out += schedule_text(s.sched) + "\n";
    return out;
}

string show_dot(const policy &p)
{
    string out = "digraph mordel {\n  rankdir=LR;\n";
    for (const policy_interface &iface : p.interfaces) dot_interface(iface, out);
    return out + "}\n";
}

string show_json(const policy &p)
{
    json out = {{"interfaces", json::array()}};
    for (const policy_interface &iface : p.interfaces)
        out["interfaces"].push_back(interface_json(iface));
    return out.dump(2) + "\n";
}

}  // namespace tool
