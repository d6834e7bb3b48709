#include "status.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <thread>

#include "rules.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;

string limits_of(const live_class &c)
{
    if (c.kind == "htb") return rate_text(c.rate / 125) + " to " + rate_text(c.ceil / 125);
    if (c.usc) return "to " + rate_text(c.usc->m2 / 125);
    return "";
}

void compare_rules(const string &script, unsigned wait, interface_status &s)
{
    if (::geteuid() != 0) {
        s.notes.emplace_back("rules not looked at: that takes root");
        return;
    }
    std::vector<string> commands;
    for (const string &line : lines_of(script))
        if (const string c = rule_command(line); !c.empty()) commands.push_back(c);
    const rule_chains chains(s.name, wait);
    string why;
    const auto present = chains.list(why);
    if (!present) {
        s.notes.push_back("rules not looked at: " + why);
        return;
    }
    if (present->empty()) {
        s.differences.emplace_back("its rules are not there");
        return;
    }
    const auto expected = chains.expected(commands);
    if (!expected)
        s.notes.emplace_back("rules not compared: this kernel gives no namespace to try them in");
    else if (*expected != *present)
        s.differences.emplace_back("its rules are others");
}

// "lan0  htb, as the policy says"
string headline(const interface_status &s)
{
    string out = s.root;
    if (!s.policy_known) return out + "; no policy was applied, --policy FILE names one";
    return out + (s.differences.empty() ? ", as the policy says" : ", not as the policy says:");
}

}  // namespace

std::optional<interface_status> look_at(const string &ifname, const policy_interface *policy,
                                        const string &script, double seconds, unsigned wait,
                                        string &why)
{
    const auto first = read_kernel(ifname, why);
    if (!first) return std::nullopt;
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const auto second = read_kernel(ifname, why);
    if (!second) return std::nullopt;
    const double passed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

    interface_status s;
    s.name = ifname;
    s.root = second->root() == nullptr ? "default" : second->root()->kind;
    s.policy_known = policy != nullptr;
    std::vector<tree_class> tree;
    if (policy != nullptr) {
        tree = tree_of(*policy);
        for (const difference &d : compare(*policy, *second))
            s.differences.push_back(
                d.handle == 0 ? d.text : format("class 1:%x: %s", d.handle, d.text.c_str()));
        compare_rules(script, wait, s);
    }
    for (const live_class &c : second->classes) {
        class_status row;
        row.handle = c.id & 0xffff;
        if (const tree_class *named = find_class(tree, row.handle)) row.name = named->name;
        row.limits = limits_of(c);
        row.stats = c.stats;
        const live_class *before = first->find(c.id);
        if (before != nullptr && c.stats.bytes >= before->stats.bytes && passed > 0)
            row.bits = static_cast<double>(c.stats.bytes - before->stats.bytes) * 8 / passed;
        s.classes.push_back(row);
    }
    std::sort(s.classes.begin(), s.classes.end(),
              [](const auto &a, const auto &b) { return a.handle < b.handle; });
    return s;
}

string status_text(const interface_status &s, const look &how)
{
    const char *bold = how.colour ? "\033[1m" : "";
    const char *red = how.colour ? "\033[31m" : "";
    const char *plain = how.colour ? "\033[0m" : "";
    string out = format("%s%s%s  %s\n", bold, harmless(s.name).c_str(), plain, headline(s).c_str());
    for (const string &d : s.differences) out += format("  %s%s%s\n", red, d.c_str(), plain);
    for (const string &n : s.notes) out += "  (" + n + ")\n";
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

string status_json(const std::vector<interface_status> &all)
{
    nlohmann::ordered_json out = {{"interfaces", nlohmann::ordered_json::array()}};
    for (const interface_status &s : all) {
        nlohmann::ordered_json one = {{"name", s.name}, {"root", s.root}};
        one["policy"] = !s.policy_known ? "unknown" : s.differences.empty() ? "same" : "differs";
        one["differences"] = s.differences;
        one["notes"] = s.notes;
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
    return out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace tool
