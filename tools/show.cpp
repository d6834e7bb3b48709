// SPDX-License-Identifier: MIT
// Owns the drawing of a policy: a tree for a person, a graph for Graphviz, JSON for a program.
// Pure: takes a policy and gives a text. Rates are in kbit/s; the JSON names say so.
#include "show.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

#include "leaf.h"
#include "match.h"
#include "names.h"
#include "root.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;

// A schedule as the scripts have it: days are bits 0 to 6, and the library keeps start_hour but not
// the end, so that each schedule ends at 0:00.
string schedule_text(const qos_sched &s)
{
    const string days = bit_names(s.days & 0x7f, mordel::WeekStrMap, ",");
    return format("schedule %d: %s, ", s.index, days.empty() ? "every day" : days.c_str()) +
           (s.all_day == 1 ? "all day" : format("%d:00 to 0:00", s.start_hour));
}

class tree_printer {
public:
    tree_printer(const policy_interface &iface, const look &how)
        : iface_(iface), kind_(kind_of(iface)), how_(how), tree_(tree_of(iface))
    {}

    // Head, classes depth first, then the rules that lead to no class
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
        out_ += bold(iface_.name) + "  " + string(kind_.name);
        // In the library's order: link out, link in, phy out, phy in; 0 is a speed not given.
        const u32 *s = iface_.speeds;
        if (s[2] != 0 || s[3] != 0)
            out_ += format("  phy %s out, %s in", rate_text(s[2]).c_str(), rate_text(s[3]).c_str());
        if (s[0] != 0 || s[1] != 0)
            out_ +=
                format("  link %s out, %s in", rate_text(s[0]).c_str(), rate_text(s[1]).c_str());
        out_ += kind_.text(iface_);
        out_ += "\n";
    }

    void children(u32 parent, const string &indent)
    {
        // Collected first: the last child has another knot, and no line runs on below it.
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
        out_ += first + bold(title);
        if (const string rates = kind_.classes->text(c); !rates.empty()) out_ += "  " + rates;
        if (!c.has_children) out_ += "  " + kind_of(c.leaf).text(c.leaf);
        if (c.handle == kind_.default_class(iface_)) out_ += "  " + bold("default");
        out_ += "\n";
        // A class's details stand below it, in front of its children.
        const string pad = below + (c.has_children ? (how_.utf8 ? "│  " : "|  ") : "   ");
        if (const string bar = bars(c); !bar.empty()) out_ += pad + bar + "\n";
        for (const string &line : ways_to(c.handle)) out_ += pad + dim(line) + "\n";
    }

    // A bar of 20 cells that stands for the parent's limit: full cells up to the class's guaranteed
    // rate, half ones up to its own limit. No bar without a limit of the parent to scale to.
    string bars(const tree_class &c) const
    {
        constexpr u32 cells = 20;
        const tree_class *parent = find_class(tree_, c.parent);
        if (parent == nullptr || kind_.classes->limit(*parent) == 0) return "";
        const double whole = kind_.classes->limit(*parent);
        const u32 share = kind_.classes->share(c);
        const u32 limit = kind_.classes->limit(c);
        const auto cells_of = [&](u32 kbit) {
            return std::min<u32>(cells,
                                 static_cast<u32>(std::lround(kbit * double{cells} / whole)));
        };
        // A limit below the guaranteed rate must not shorten the bar.
        const u32 sure = cells_of(share);
        const u32 most = std::max(sure, cells_of(limit));
        string bar;
        for (u32 i = 0; i < cells; ++i) {
            if (how_.utf8)
                bar += i < sure ? "█" : i < most ? "▒" : "·";
            else
                bar += i < sure ? "#" : i < most ? "=" : ".";
        }
        // A class never gets more than its parent has, whatever its own limit says.
        return bar + format("  %.0f%% to %.0f%% of 1:%x", share * 100 / whole,
                            std::min(1.0, limit / whole) * 100, parent->handle);
    }

    // The rules and connection marks that lead to a class: a mark is the handle of its class.
    std::vector<string> ways_to(u32 handle) const
    {
        std::vector<string> lines;
        for (const policy_rule *rule : in_order()) {
            if (!has(rule->target.flags, mordel::target_mark) || rule->target.mark != handle)
                continue;
            lines.push_back(
                format("rule %d: %s", rule->index.get(), match_text(rule->match).c_str()));
            // A rule may set a TOS or DSCP besides the mark; the rest is shown where there is any.
            if ((rule->target.flags & ~(1U << mordel::target_mark)) != 0)
                lines.back() += "; " + target_text(rule->target);
        }
        const automark_value *automark = kind_.automark(iface_);
        if (automark == nullptr || automark->enable == 0) return lines;
        // The script of the automark chain gives mark[i] to connections marked (i + 1) * 100.
        string marks;
        for (u32 i = 0; i < std::size(automark->mark); ++i)
            if (automark->mark[i] == handle)
                marks += (marks.empty() ? "" : ", ") + format("%u", (i + 1) * 100);
        if (!marks.empty()) lines.push_back("connection mark " + marks);
        return lines;
    }

    void rules_without_class()
    {
        for (const policy_rule *rule : in_order())
            if (!has(rule->target.flags, mordel::target_mark))
                out_ += format("rule %d: %s; %s\n", rule->index.get(),
                               match_text(rule->match).c_str(), target_text(rule->target).c_str());
    }

    // By index, the order of the script; the file may have another.
    std::vector<const policy_rule *> in_order() const
    {
        std::vector<const policy_rule *> list;
        for (const policy_rule &rule : iface_.rules) list.push_back(&rule);
        std::sort(list.begin(), list.end(),
                  [](const auto *a, const auto *b) { return a->index.get() < b->index.get(); });
        return list;
    }

    const policy_interface &iface_;
    const root_kind &kind_;
    const look &how_;
    std::vector<tree_class> tree_;
    string out_;
};

using json = nlohmann::ordered_json;

// A class with children has no "leaf": the script writes leaf qdiscs for the other classes alone.
json class_json(const root_kind &kind, const tree_class &c)
{
    json out = {{"handle", c.handle}, {"parent", c.parent}, {"name", c.name}};
    kind.classes->json(c, out);
    if (!c.has_children) out["leaf"] = kind_of(c.leaf).json(c.leaf);
    return out;
}

// match and target are the texts that a person sees; mark and schedule are numbers to look up.
json rule_json(const policy_rule &rule)
{
    json out = {{"index", rule.index.get()},
                {"match", match_text(rule.match)},
                {"target", target_text(rule.target)}};
    if (has(rule.target.flags, mordel::target_mark)) out["mark"] = rule.target.mark;
    if (rule.match.sched_index != 0) out["schedule"] = rule.match.sched_index;
    return out;
}

json interface_json(const policy_interface &iface)
{
    const root_kind &kind = kind_of(iface);
    json out = {{"name", iface.name},
                {"root", kind.name},
                {"link_tx_kbit", iface.speeds[0]},
                {"link_rx_kbit", iface.speeds[1]},
                {"phy_tx_kbit", iface.speeds[2]},
                {"phy_rx_kbit", iface.speeds[3]}};
    kind.json(iface, out);
    const automark_value *automark = kind.automark(iface);
    if (automark != nullptr && automark->enable != 0) out["automark"] = automark->mark;
    out["classes"] = json::array();
    for (const tree_class &c : tree_of(iface)) out["classes"].push_back(class_json(kind, c));
    out["rules"] = json::array();
    for (const policy_rule &rule : iface.rules) out["rules"].push_back(rule_json(rule));
    return out;
}

// Node names carry the interface's name: two interfaces in one graph may both have a class 1:10.
// "\\n" is Graphviz's own escape for a new line in a label.
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
        const string rates = kind_of(iface).classes->label(c);
        if (!rates.empty()) label += "\\n" + rates;
        if (!c.has_children) label += "\\n" + kind_of(c.leaf).text(c.leaf);
        out += format("  %s [label=\"%s\"];\n", id(c.handle).c_str(), label.c_str());
        out += format("  %s -> %s;\n", id(c.parent).c_str(), id(c.handle).c_str());
    }
    // Solid edges lead from parent to child, dashed ones from a rule to its class.
    for (const policy_rule &rule : iface.rules) {
        if (!has(rule.target.flags, mordel::target_mark)) continue;
        const string node = format("\"%s rule %d\"", iface.name.c_str(), rule.index.get());
        out += format("  %s [shape=note, label=\"%d: %s\"];\n", node.c_str(), rule.index.get(),
                      match_text(rule.match).c_str());
        out += format("  %s -> %s [style=dashed];\n", node.c_str(), id(rule.target.mark).c_str());
    }
}

}  // namespace

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
