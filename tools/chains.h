// SPDX-License-Identifier: MIT
// An interface's two chains in the mangle table, as texts: their lines in a listing, and the lines
// for iptables-restore that load the chains, exchange the rules that differ, or take all away.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "command.h"

namespace tool {

// The lines of `iptables -S` about this interface: two chains, their rules, the jumps into them
std::vector<std::string> own_lines(const std::string &listing, const std::string &ifname);

// The lines that make the chains and load the commands of a script. Where one of the chains exists
// already, iptables-restore refuses the whole input and changes nothing.
std::vector<command> lines_to_load(const std::vector<command> &rules, const std::string &ifname);

// The lines that load the same over present chains. present: from own_lines(); its chains are
// emptied, its jumps deleted.
std::vector<command> lines_to_replace(const std::vector<command> &rules, const std::string &ifname,
                                      const std::vector<std::string> &present);

// A line of an exchange, and the reason for it: "new", "moved", "not in the policy: -j MARK"
struct exchanged_line {
    command what;
    std::string why;
};

// The lines that bring present chains to the rules of a script and leave alone each rule that
// stays, so that its counters go on. A rule goes by its place, "-D CHAIN 3", and comes to its
// place,
// "-I CHAIN 3 ..."; FORWARD and OUTPUT get one jump each.
//
// present: from own_lines(). The present rules are compared with the script's by two lists of keys,
// "-A CHAIN ..." a line, in the order of the chains: present_keys has one for each rule and jump of
// `present`, wanted_keys one for each command of `rules`; what else stands in them is passed over.
// None where the numbers of lines differ, as they do for a command that makes several rules: nobody
// knows then which line is whose.
std::optional<std::vector<exchanged_line>>
lines_to_exchange(const std::vector<command> &rules, const std::string &ifname,
                  const std::vector<std::string> &present,
                  const std::vector<std::string> &present_keys,
                  const std::vector<std::string> &wanted_keys);

// The lines that bring the chains from one listing of own_lines() back to an earlier one. A rule
// that both hold keeps its counters. saved: empty takes the chains away.
std::vector<command> lines_to_restore(const std::vector<std::string> &present,
                                      const std::vector<std::string> &saved);

// The lines that delete all that own_lines() has found
std::vector<command> lines_to_remove(const std::vector<std::string> &present);

// A line that adds a rule, "-A CHAIN ..." or "-I CHAIN 3 ...", as one that adds it behind all
// others
std::string appending(const std::string &line);

// The whole input of iptables-restore for some commands. Its line 1 is "*mangle", so that the first
// command is line 2.
std::string restore_input(const std::vector<std::string> &commands);
inline constexpr std::size_t first_restore_line = 2;

}  // namespace tool
