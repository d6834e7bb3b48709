// SPDX-License-Identifier: MIT
// An interface's two chains in the mangle table, as texts: what belongs to them in a listing, and
// the lines for iptables-restore that load them or take them away.
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace tool {

// What `iptables -S` says of this interface: its two chains, their rules, and the jumps into them
std::vector<std::string> own_lines(const std::string &listing, const std::string &ifname);

// The lines that make the chains and load the commands of a script. They are refused, and change
// nothing, where one of the chains is there.
std::vector<command> lines_to_load(const std::vector<command> &rules, const std::string &ifname);

// The same over what own_lines() gave: chains that are there are emptied, and their jumps deleted.
std::vector<command> lines_to_replace(const std::vector<command> &rules, const std::string &ifname,
                                      const std::vector<std::string> &present);

// The lines that take away what own_lines() gave
std::vector<command> lines_to_remove(const std::vector<std::string> &present);

// Lines as the whole input of iptables-restore. The first of them is the input's line 2.
std::string restore_input(const std::vector<std::string> &commands);
inline constexpr std::size_t first_restore_line = 2;

}  // namespace tool
