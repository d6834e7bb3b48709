// SPDX-License-Identifier: MIT
// A start script taken apart: its commands, each with the object it makes and its line's number.
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
    // For tc: root, classes, leaves and filters in the script's order. No object comes twice. The
    // script's first tc command, which removes the old root, is left out.
    std::vector<command> tree;
    std::optional<command> queue_length;  // "eth0 txqueuelen 100", for ifconfig
    std::vector<command> rules;           // jumps and rules that are added, for iptables
    std::string error;                    // why the script was refused; the lists are then no use

    const command *find(object::kind what, u32 number) const;  // in the tree

    std::map<std::pair<object::kind, u32>, std::size_t> places;  // in the tree, for find()
};

// Takes apart a script that start_qos() writes for this interface. A line of unknown form refuses
// the script: its command would be in no plan, and apply would leave it out without a word.
start_script parse_start_script(const std::string &text, const std::string &ifname);

}  // namespace tool
