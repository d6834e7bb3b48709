// SPDX-License-Identifier: MIT
// Owns the live view. The rates come from two looks at the kernel's byte counters. The differences
// come from the same comparison that apply plans by. Changes nothing.

#include "status.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <thread>

#include "compare.h"
#include "observe.h"
#include "report.h"
#include "root.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;

// The limits that the kernel enforces on a class; "" for a class of a kind that we do not know
string limits_of(const live_class &c)
{
    const root_kind *kind = find_root_kind(c.kind);
    return kind == nullptr || kind->classes == nullptr ? "" : kind->classes->live_limits(c);
}

// Adds a difference where the rules are known to differ, a note where nobody can tell: without a
// namespace to try rules in, "not compared" is all that may be said.
void compare_chains(const wanted &w, const chains_seen &chains, const memory &before,
                    interface_status &s)
{
    switch (compare_rules(w, chains, before)) {
    case rules_state::absent:
        s.differences.emplace_back("its rules are not there");
        return;
    case rules_state::other:
        s.differences.emplace_back("its rules are others");
        return;
    case rules_state::as_remembered:
    case rules_state::untried:
        s.notes.emplace_back("rules not compared: this kernel gives no namespace to try them in");
        return;
    case rules_state::not_seen:  // the plan's notes say why
    case rules_state::same:
        return;
    }
}

// "lan0  htb, as the policy says"
string headline(const interface_status &s)
{
    string out = s.root;
    if (!s.policy_known) return out + "; no policy was applied, --policy FILE names one";
    return out + (s.differences.empty() ? ", as the policy says" : ", not as the policy says:");
}

}  // namespace

std::vector<class_status> class_rows(const live_tree &first, const live_tree &second,
                                     double seconds, const std::vector<tree_class> &names)
{
    std::vector<class_status> rows;
    // A class that came between the looks has its row, without a rate; one that went has no row.
    for (const live_class &c : second.classes) {
        class_status row;
        // The kernel's id is 0x10010 for 1:10; the policy's handle is its low half.
        row.handle = c.id & 0xffff;
        if (const tree_class *named = find_class(names, row.handle)) row.name = named->name;
        row.limits = limits_of(c);
        row.stats = c.stats;
        const live_class *before = first.find(c.id);
        // A counter that fell belongs to a class made anew between the looks: no rate then.
        if (before != nullptr && c.stats.bytes >= before->stats.bytes && seconds > 0)
            row.bits = static_cast<double>(c.stats.bytes - before->stats.bytes) * 8 / seconds;
        rows.push_back(row);
    }
    // The kernel lists classes in the order of its hash table.
    std::sort(rows.begin(), rows.end(),
              [](const auto &a, const auto &b) { return a.handle < b.handle; });
    return rows;
}

void compare_with(const wanted &w, const live_tree &live, const chains_seen &chains,
                  const memory &before, interface_status &s)
{
    const plan p = plan_apply(w, live, chains, before);
    s.steps = p.steps;
    s.notes = p.notes;
    // Only differences that are seen in the kernel. The steps may hold more: those for parameters
    // that no dump shows, found by the remembered script.
    for (const difference &d : compare(w.iface, live)) s.differences.push_back(difference_text(d));
    compare_chains(w, chains, before, s);
}

std::optional<interface_status> look_at(const string &ifname, const wanted *w, const memory &before,
                                        const status_options &o, string &why)
{
    const auto first = read_kernel(ifname, why);
    if (!first) return std::nullopt;
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
    const auto second = read_kernel(ifname, why);
    if (!second) return std::nullopt;
    // The time that really passed, not o.seconds: a busy router wakes us late.
    const double passed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

    interface_status s;
    s.name = ifname;
    s.root = second->root() == nullptr ? "default" : second->root()->kind;
    s.policy_known = w != nullptr;
    if (w != nullptr)
        // After both looks, for trying the rules takes processes: their time would lengthen the
        // interval.
        compare_with(*w, *second, look_at_chains(iptables(ifname, o.wait), *w), before, s);
    s.classes = class_rows(*first, *second, passed,
                           w == nullptr ? std::vector<tree_class>() : tree_of(w->iface));
    return s;
}

string status_text(const interface_status &s, const look &how)
{
    const char *bold = how.colour ? "\033[1m" : "";
    const char *red = how.colour ? "\033[31m" : "";
    const char *plain = how.colour ? "\033[0m" : "";
    // harmless: an interface's name and a qdisc's kind may hold escape sequences, which a terminal
    // would obey.
    string out = format("%s%s%s  %s\n", bold, harmless(s.name).c_str(), plain,
                        harmless(headline(s)).c_str());
    for (const string &d : s.differences)
        out += format("  %s%s%s\n", red, harmless(d).c_str(), plain);
    for (const string &n : s.notes) out += "  (" + harmless(n) + ")\n";
    if (s.classes.empty()) return out;
    out += format("  %-6s %-16s %10s  %-22s %14s %10s %8s %10s\n", "class", "name", "now", "limits",
                  "sent", "packets", "drops", "backlog");
    for (const class_status &c : s.classes)
        out += format("  1:%-4x %-16s %10s  %-22s %13llub %10llu %8u %9ub\n", c.handle,
                      c.name.c_str(), measured_rate(c.bits).c_str(), c.limits.c_str(),
                      static_cast<unsigned long long>(c.stats.bytes),
                      static_cast<unsigned long long>(c.stats.packets), c.stats.drops,
                      c.stats.backlog);
    return out;
}

string status_json(const std::vector<interface_status> &all, unsigned to_confirm)
{
    nlohmann::ordered_json out = {{"interfaces", nlohmann::ordered_json::array()}};
    for (const interface_status &s : all) {
        nlohmann::ordered_json one = {{"name", s.name}, {"root", s.root}};
        one["policy"] = !s.policy_known ? "unknown" : s.differences.empty() ? "same" : "differs";
        one["differences"] = s.differences;
        one["notes"] = s.notes;
        one["steps"] = steps_json(s.steps);
        one["classes"] = nlohmann::ordered_json::array();
        for (const class_status &c : s.classes)
            one["classes"].push_back({{"handle", c.handle},
                                      {"name", c.name},
                                      {"rate_bit", std::llround(c.bits)},
                                      {"bytes", c.stats.bytes},
                                      {"packets", c.stats.packets},
                                      {"drops", c.stats.drops},
                                      {"backlog_bytes", c.stats.backlog},
                                      {"backlog_packets", c.stats.waiting}});
        out["interfaces"].push_back(one);
    }
    if (to_confirm != 0) out["confirm_seconds_left"] = to_confirm;
    // replace: an interface's name may be no UTF-8, and dump would throw.
    return out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace tool
