// SPDX-License-Identifier: MIT
// A start script taken apart: its commands, each with what it is about and where it stands.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "command.h"
#include "mordel.h"

namespace tool {

inline constexpr char start_script_path[] = "/var/tmp/qos_start";  // where start_qos() puts it

struct start_script {
    // Root, classes, leaves and filters in the script's order, for tc; no object comes twice. The
    // removal of the old root is left out.
    std::vector<command> tree;
    std::optional<command> queue_length;  // "eth0 txqueuelen 100", for ifconfig
    std::vector<command> rules;           // jumps and rules that are added, for iptables
    std::string error;                    // where the script is none that is known; then no more

    const command *find(object::kind what, u32 number) const;  // in the tree

    std::map<std::pair<object::kind, u32>, std::size_t> places;  // in the tree, for find()
};

// A script that start_qos() writes for this interface. Each of its lines is known, or the script is
// refused: a command that nobody understood would be in no plan.
start_script parse_start_script(const std::string &text, const std::string &ifname);

}  // namespace tool
