// SPDX-License-Identifier: MIT
// Owns the decision whether an interface's rules are loaded, and by which commands. Pure: takes the
// listing of the chains as a record, runs nothing.

#include "plan_rules.h"

#include <algorithm>

#include "chains.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;

string reason(rules_state state, const chains_seen &chains)
{
    switch (state) {
    case rules_state::not_seen:
        return chains.how == chains_seen::looked::guessed ? "new" : "not looked at";
    case rules_state::absent:
        return "its rules are not there";
    case rules_state::other:
        return "its rules are others";
    case rules_state::untried:
        return "its rules cannot be compared";
    case rules_state::same:
    case rules_state::as_remembered:
        break;
    }
    return "";
}

// Whether a line for iptables-restore deletes rules or a chain. A ":CHAIN" line empties the chain
// if it exists, and counts as destructive where the chains were not listed.
bool takes_away(const command &c, const chains_seen &chains)
{
    if (c.text.front() != ':') return c.text.find_first_of("AIN") != 1;
    if (chains.how != chains_seen::looked::listed) return true;
    const auto &all = chains.present;
    return std::find(all.begin(), all.end(), "-N " + c.what.chain) != all.end();
}

step restore_step(const command &c, const chains_seen &chains, const string &why)
{
    return {program::iptables_restore, c.text, c.what, c.line, why, takes_away(c, chains)};
}

std::vector<step> restore_steps(const std::vector<command> &commands, const chains_seen &chains,
                                const string &why)
{
    std::vector<step> steps;
    for (const command &c : commands) steps.push_back(restore_step(c, chains, why));
    return steps;
}

// The rules that the script applied last has made, if they are those that the listing holds. The
// kernel may list a rule in other words than a script's, so that script and listing cannot be
// compared; two scripts can, where nobody has touched the chains since.
std::optional<lines> remembered_rules(const wanted &w, const chains_seen &chains,
                                      const memory &before)
{
    if (!before.script || !before.rules || lines_of(*before.rules) != chains.present)
        return std::nullopt;
    if (*before.script == w.text) return texts_of(w.script.rules);
    const start_script then = parse_start_script(*before.script, w.iface.name);
    return then.error.empty() ? std::optional(texts_of(then.rules)) : std::nullopt;
}

// The lines that exchange what differs; none where nobody can tell what does.
std::optional<std::vector<exchanged_line>> exchange(const wanted &w, const chains_seen &chains,
                                                    const memory &before)
{
    const std::vector<command> &rules = w.script.rules;
    if (chains.expected)
        return lines_to_exchange(rules, w.iface.name, chains.present, chains.present,
                                 *chains.expected);
    const auto then = remembered_rules(w, chains, before);
    if (!then) return std::nullopt;
    return lines_to_exchange(rules, w.iface.name, chains.present, *then, texts_of(rules));
}

}  // namespace

rules_state compare_rules(const wanted &w, const chains_seen &chains, const memory &before)
{
    if (chains.how != chains_seen::looked::listed) return rules_state::not_seen;
    if (chains.present.empty()) return rules_state::absent;
    if (chains.expected)
        return *chains.expected == chains.present ? rules_state::same : rules_state::other;
    const auto then = remembered_rules(w, chains, before);
    if (!then) return rules_state::untried;
    return *then == texts_of(w.script.rules) ? rules_state::as_remembered : rules_state::other;
}

std::vector<step> plan_rules(const wanted &w, const chains_seen &chains, const memory &before)
{
    const rules_state state = compare_rules(w, chains, before);
    if (state == rules_state::same || state == rules_state::as_remembered) return {};
    if (state == rules_state::other) {
        if (const auto exchanged = exchange(w, chains, before)) {
            std::vector<step> steps;
            for (const exchanged_line &line : *exchanged)
                steps.push_back(restore_step(line.what, chains, line.why));
            return steps;
        }
    }
    // Of a guess the form that is refused where a chain exists: the other would empty the chain but
    // leave its unseen jumps, and the new ones would stand beside them.
    const auto commands = chains.how == chains_seen::looked::guessed
                              ? lines_to_load(w.script.rules, w.iface.name)
                              : lines_to_replace(w.script.rules, w.iface.name, chains.present);
    return restore_steps(commands, chains, reason(state, chains));
}

std::vector<step> plan_no_rules(const chains_seen &chains, const string &why)
{
    return restore_steps(lines_to_remove(chains.present), chains, why);
}

}  // namespace tool
