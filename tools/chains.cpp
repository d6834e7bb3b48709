// SPDX-License-Identifier: MIT
// Owns the names of an interface's chains and the lines about them that iptables prints and
// iptables-restore takes. Pure: who runs them is iptables.cpp.

#include "chains.h"

#include <algorithm>

#include "tarnic_iptables.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using kind = object::kind;

// What a line of a listing, or one for iptables-restore, is about: -N, -F, -X and ":" name a chain,
// -A and -D a rule, which is a jump where it stands in a chain of the table's own.
object object_of(const string &line)
{
    const lines words = words_of(line);
    if (words[0].front() == ':') return {kind::chain, 0, words[0].substr(1)};
    const string &chain = words[1];
    if (words[0] != "-A" && words[0] != "-D") return {kind::chain, 0, chain};
    return {chain.starts_with(mordel::chain_prefix) ? kind::rule : kind::jump, 0, chain};
}

command line_without_script(const string &text) { return {text, object_of(text), 0, false}; }

string deletion_of(const string &rule) { return "-D" + rule.substr(2); }

}  // namespace

lines own_lines(const string &listing, const string &ifname)
{
    const string rules = rule_chain(ifname);
    const string automark = automark_chain(ifname);
    const auto is_own = [&](const string &line) {
        return line == "-N " + rules || line == "-N " + automark ||
               line.starts_with("-A " + rules + " ") || line.starts_with("-A " + automark + " ") ||
               line == "-A FORWARD -o " + ifname + " -g " + rules ||
               line == "-A OUTPUT -o " + ifname + " -g " + rules;
    };
    lines own = lines_of(listing);
    std::erase_if(own, [&](const string &line) { return !is_own(line); });
    return own;
}

std::vector<command> lines_to_load(const std::vector<command> &rules, const string &ifname)
{
    std::vector<command> all = {line_without_script("-N " + rule_chain(ifname)),
                                line_without_script("-N " + automark_chain(ifname))};
    all.insert(all.end(), rules.begin(), rules.end());
    return all;
}

std::vector<command> lines_to_replace(const std::vector<command> &rules, const string &ifname,
                                      const lines &present)
{
    // Makes a chain, or empties the one that is there
    std::vector<command> all = {line_without_script(":" + rule_chain(ifname) + " - [0:0]"),
                                line_without_script(":" + automark_chain(ifname) + " - [0:0]")};
    for (const string &line : present)
        if (object_of(line).what == kind::jump)
            all.push_back(line_without_script(deletion_of(line)));
    all.insert(all.end(), rules.begin(), rules.end());
    return all;
}

std::vector<command> lines_to_remove(const lines &present)
{
    // A chain goes when nothing leads to it and nothing is in it.
    std::vector<command> jumps;
    std::vector<command> flushes;
    std::vector<command> removals;
    for (const string &line : present) {
        const object what = object_of(line);
        if (what.what == kind::jump) jumps.push_back(line_without_script(deletion_of(line)));
        if (what.what != kind::chain) continue;
        flushes.push_back(line_without_script("-F " + what.chain));
        removals.push_back(line_without_script("-X " + what.chain));
    }
    jumps.insert(jumps.end(), flushes.begin(), flushes.end());
    jumps.insert(jumps.end(), removals.begin(), removals.end());
    return jumps;
}

string restore_input(const lines &commands)
{
    string input = "*mangle\n";
    for (const string &line : commands) input += line + "\n";
    return input + "COMMIT\n";
}

}  // namespace tool
