// SPDX-License-Identifier: MIT
// A start script taken apart: its commands, each with what it is about and where it stands.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mordel.h"

namespace tool {

inline constexpr char start_script_path[] = "/var/tmp/qos_start";  // where start_qos() puts it

// What a command is about
struct object {
    enum class kind {
        root,          // the root qdisc
        tree_class,    // number: its handle
        leaf,          // a leaf qdisc; number: its class's handle
        filter,        // number: its mark
        queue_length,  // of the interface
        chain,         // chain: its name
        jump,          // into an interface's chain; chain: the one that it stands in, "FORWARD"
        rule,          // chain: the one that it stands in
        interface      // all of it: what a whole script does
    } what = kind::interface;
    u32 number = 0;
    std::string chain;
    bool operator==(const object &) const = default;
};

// "class 1:10", "rule of QOS_eth0"
std::string object_text(const object &what);

struct command {
    std::string text;  // without the program's name: "class add dev eth0 ...", "-A QOS_eth0 ..."
    object what;
    unsigned line = 0;     // of the script, from 1
    bool options = false;  // of a leaf: whether its qdisc is given any
    bool operator==(const command &) const = default;
};

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

// The words of a command, without the quotes around one of them
std::vector<std::string> words_of(std::string_view text);

}  // namespace tool
