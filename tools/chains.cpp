// SPDX-License-Identifier: MIT
// Owns the lines about an interface's chains that iptables prints and iptables-restore takes.
// Pure: iptables.cpp runs the programs.

#include "chains.h"

#include <algorithm>

#include "tarnic_iptables.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using kind = object::kind;

// The object of a line that iptables -S prints or iptables-restore takes. -N, -F, -X and ":" name a
// chain, -A and -D a rule. A rule outside the QOS_ chains is a jump: own_lines() lets no other in.
object object_of(const string &line)
{
    const lines words = words_of(line);
    if (words[0].front() == ':') return {kind::chain, 0, words[0].substr(1)};
    const string &chain = words[1];
    if (words[0] != "-A" && words[0] != "-D") return {kind::chain, 0, chain};
    return {chain.starts_with(mordel::chain_prefix) ? kind::rule : kind::jump, 0, chain};
}

// Line 0: a refusal of this command is blamed on no line of the start script.
command line_without_script(const string &text) { return {text, object_of(text), 0, false}; }

string deletion_of(const string &rule) { return "-D" + rule.substr(2); }

}  // namespace

lines own_lines(const string &listing, const string &ifname)
{
    const string rules = rule_chain(ifname);
    const string automark = automark_chain(ifname);
    const auto is_own = [&](const string &line) {
        // The blank behind a chain's name: without it, "-A QOS_eth0" would match QOS_eth0_AUTO too.
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
    // With --noflush, ":CHAIN" makes the chain, or empties the one that is there. The jumps of
    // before are deleted, or each apply would add two more to FORWARD and OUTPUT.
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
    // Jumps, then rules, then chains: -X refuses a chain that a rule jumps to or that holds rules.
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
