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
    if (c.text.front() != ':') return c.text[1] != 'A' && c.text[1] != 'N';
    if (chains.how != chains_seen::looked::listed) return true;
    const auto &all = chains.present;
    return std::find(all.begin(), all.end(), "-N " + c.what.chain) != all.end();
}

std::vector<step> restore_steps(const std::vector<command> &commands, const chains_seen &chains,
                                const string &why)
{
    std::vector<step> steps;
    for (const command &c : commands)
        steps.push_back(
            {program::iptables_restore, c.text, c.what, c.line, why, takes_away(c, chains)});
    return steps;
}

}  // namespace

rules_state compare_rules(const wanted &w, const chains_seen &chains, const memory &before)
{
    if (chains.how != chains_seen::looked::listed) return rules_state::not_seen;
    if (chains.present.empty()) return rules_state::absent;
    if (chains.expected)
        return *chains.expected == chains.present ? rules_state::same : rules_state::other;
    // The kernel may list a rule in other words than the script's, so script and listing cannot be
    // compared. Without a trial, the listing is compared with the one after the last apply.
    const bool remembered =
        before.script == w.text && before.rules && lines_of(*before.rules) == chains.present;
    return remembered ? rules_state::as_remembered : rules_state::untried;
}

std::vector<step> plan_rules(const wanted &w, const chains_seen &chains, const memory &before)
{
    const rules_state state = compare_rules(w, chains, before);
    if (state == rules_state::same || state == rules_state::as_remembered) return {};
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
