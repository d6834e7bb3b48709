// SPDX-License-Identifier: MIT
// An interface's two chains in the mangle table, as texts: their lines in a listing, and the lines
// for iptables-restore that load the chains or take them away.
#pragma once

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

// The lines that delete all that own_lines() has found
std::vector<command> lines_to_remove(const std::vector<std::string> &present);

// The whole input of iptables-restore for some commands. Its line 1 is "*mangle", so that the first
// command is line 2.
std::string restore_input(const std::vector<std::string> &commands);
inline constexpr std::size_t first_restore_line = 2;

}  // namespace tool
