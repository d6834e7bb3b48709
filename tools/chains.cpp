// SPDX-License-Identifier: MIT
// Owns the lines about an interface's chains that iptables prints and iptables-restore takes.
// Pure: iptables.cpp runs the programs.

#include "chains.h"

#include <algorithm>
#include <map>
#include <set>
#include <string_view>

#include "common_lines.h"
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

// ---- Exchange -----------------------------------------------------------------------------------

bool is_jump_chain(const string &chain) { return !chain.starts_with(mordel::chain_prefix); }

// The lines that add a rule, by the chain that they add it to
std::map<string, lines> by_chain(const lines &all)
{
    std::map<string, lines> chains;
    for (const string &line : all)
        if (line.starts_with("-A ")) chains[words_of(line)[1]].push_back(line);
    return chains;
}

std::set<string> chains_of(const lines &listing)
{
    std::set<string> all;
    for (const string &line : listing)
        if (line.starts_with("-N ")) all.insert(line.substr(3));
    return all;
}

bool equally_many(const std::map<string, lines> &a, const std::map<string, lines> &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto &x, const auto &y) {
        return x.first == y.first && x.second.size() == y.second.size();
    });
}

// The rules of a chain as they shall be: the keys by which they are compared, and the commands that
// add them
struct rule_list {
    lines keys;
    std::vector<command> additions;
};

// The chains and jumps as they are and as they shall be
struct exchange {
    std::set<string> chains_before;
    std::set<string> chains_after;
    std::map<string, lines> before;  // keys, by chain
    std::map<string, rule_list> after;
};

// What the lines do, in the order in which they must stand
struct exchanged {
    std::vector<exchanged_line> made, deleted, emptied, inserted, jumps, removed;

    std::vector<exchanged_line> in_order() const
    {
        std::vector<exchanged_line> all;
        for (const auto *part : {&made, &deleted, &emptied, &inserted, &jumps, &removed})
            all.insert(all.end(), part->begin(), part->end());
        return all;
    }
};

// The command that adds a rule behind all, as one that adds it at a place, from 1
command at_place(command c, std::size_t place)
{
    const std::size_t behind = c.text.find(c.what.chain) + c.what.chain.size();
    c.text = "-I" + c.text.substr(2, behind - 2) + format(" %zu", place) + c.text.substr(behind);
    return c;
}

// Jumps into one interface's chain are all alike, and their places among the rules of others are
// not known: they are counted.
void exchange_jumps(const lines &before, const rule_list &after, exchanged &out)
{
    for (std::size_t i = after.keys.size(); i < before.size(); ++i)
        out.deleted.push_back({line_without_script(deletion_of(before[i])), "one too many"});
    for (std::size_t i = before.size(); i < after.keys.size(); ++i)
        out.jumps.push_back({after.additions[i], "new"});
}

void exchange_rules(const string &chain, const lines &before, const rule_list &after,
                    exchanged &out)
{
    std::vector<bool> stays(before.size());
    std::vector<bool> is_there(after.keys.size());
    std::size_t behind_last = 0;  // the number of wanted rules up to the last one that is there
    for (const auto &[i, j] : common_lines(before, after.keys)) {
        stays[i] = is_there[j] = true;
        behind_last = j + 1;
    }
    std::set<string> goes;
    std::set<string> comes;
    for (std::size_t i = 0; i < before.size(); ++i)
        if (!stays[i]) goes.insert(before[i]);
    for (std::size_t j = 0; j < after.keys.size(); ++j)
        if (!is_there[j]) comes.insert(after.keys[j]);
    // From the last to the first, so that no deletion changes the places of those to come. Then
    // insertions from the first to the last: all in front of a place is filled when its turn comes.
    for (std::size_t i = before.size(); i-- > 0;) {
        if (stays[i]) continue;
        string rule = before[i].substr(std::string_view("-A ").size() + chain.size());
        // The library writes blanks behind some commands.
        rule.resize(rule.find_last_not_of(' ') + 1);
        out.deleted.push_back({line_without_script(format("-D %s %zu", chain.c_str(), i + 1)),
                               comes.contains(before[i]) ? "moved" : "not in the policy:" + rule});
    }
    for (std::size_t j = 0; j < after.keys.size(); ++j) {
        if (is_there[j]) continue;
        const command &add = after.additions[j];
        out.inserted.push_back({j < behind_last ? at_place(add, j + 1) : add,
                                goes.contains(after.keys[j]) ? "moved" : "new"});
    }
}

exchanged_line chain_line(const char *verb, const string &chain)
{
    return {line_without_script(verb + chain), "new"};
}

std::vector<exchanged_line> exchange_lines(exchange e)
{
    exchanged out;
    for (const string &chain : e.chains_after)
        if (!e.chains_before.contains(chain)) out.made.push_back(chain_line("-N ", chain));
    for (const string &chain : e.chains_before) {
        if (e.chains_after.contains(chain)) continue;
        // -X refuses a chain that holds rules.
        out.emptied.push_back(chain_line("-F ", chain));
        out.removed.push_back(chain_line("-X ", chain));
        e.before.erase(chain);
    }
    std::set<string> names;
    for (const auto &[chain, rules] : e.before) names.insert(chain);
    for (const auto &[chain, rules] : e.after) names.insert(chain);
    for (const string &chain : names) {
        if (is_jump_chain(chain))
            exchange_jumps(e.before[chain], e.after[chain], out);
        else
            exchange_rules(chain, e.before[chain], e.after[chain], out);
    }
    return out.in_order();
}

}  // namespace

lines own_lines(const string &listing, const string &ifname)
{
    const string rules = rule_chain(ifname);
    const string automark = automark_chain(ifname);
    const auto adds_to = [](const string &line, const string &chain) {
        // The blank behind a chain's name: without it, "-A QOS_eth0" would match QOS_eth0_AUTO too.
        // A rule that only counts is listed without anything behind the name. Were one left out,
        // the rules behind it would be deleted by wrong places.
        return line == "-A " + chain || line.starts_with("-A " + chain + " ");
    };
    const auto is_own = [&](const string &line) {
        return line == "-N " + rules || line == "-N " + automark || adds_to(line, rules) ||
               adds_to(line, automark) || line == "-A FORWARD -o " + ifname + " -g " + rules ||
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

std::optional<std::vector<exchanged_line>>
lines_to_exchange(const std::vector<command> &rules, const string &ifname, const lines &present,
                  const lines &present_keys, const lines &wanted_keys)
{
    lines texts;
    for (const command &c : rules) texts.push_back(c.text);
    exchange e{chains_of(present),
               {rule_chain(ifname), automark_chain(ifname)},
               by_chain(present_keys),
               {}};
    const std::map<string, lines> wanted = by_chain(wanted_keys);
    if (!equally_many(by_chain(present), e.before) || !equally_many(by_chain(texts), wanted))
        return std::nullopt;
    for (const auto &[chain, keys] : wanted) e.after[chain].keys = keys;
    for (const command &c : rules) e.after[c.what.chain].additions.push_back(c);
    return exchange_lines(std::move(e));
}

std::vector<command> lines_to_restore(const lines &present, const lines &saved)
{
    exchange e{chains_of(present), chains_of(saved), by_chain(present), {}};
    for (const auto &[chain, rules] : by_chain(saved)) {
        e.after[chain].keys = rules;
        for (const string &rule : rules)
            e.after[chain].additions.push_back(line_without_script(rule));
    }
    std::vector<command> all;
    for (exchanged_line &line : exchange_lines(std::move(e))) all.push_back(std::move(line.what));
    return all;
}

std::vector<command> lines_to_remove(const lines &present) { return lines_to_restore(present, {}); }

string appending(const string &line)
{
    if (!line.starts_with("-I ")) return line;
    const std::size_t chain_end = line.find(' ', std::string_view("-I ").size());
    const std::size_t place_end = line.find(' ', chain_end + 1);
    return "-A" + line.substr(2, chain_end - 2) +
           (place_end == string::npos ? "" : line.substr(place_end));
}

string restore_input(const lines &commands)
{
    string input = "*mangle\n";
    for (const string &line : commands) input += line + "\n";
    return input + "COMMIT\n";
}

}  // namespace tool
