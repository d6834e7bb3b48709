// SPDX-License-Identifier: MIT
// A command of tc or iptables, and what it is about.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mordel.h"

namespace tool {

// The two chains of an interface in the mangle table
std::string rule_chain(const std::string &ifname);
std::string automark_chain(const std::string &ifname);

// What a command is about
struct object {
    enum class kind {
        root,          // the root qdisc
        tree_class,    // number: its handle
        leaf,          // a leaf qdisc; number: its class's handle
        filter,        // number: its mark
        queue_length,  // of the interface
        chain,         // chain: its name
        jump,          // into an interface's chain; chain: the one that holds the jump, "FORWARD"
        rule,          // chain: the one that holds the rule
        interface      // the whole interface: the object of a script that is run as it stands
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
    bool options = false;  // of a leaf: words follow the qdisc's kind, as in "sfq perturb 10"
    bool operator==(const command &) const = default;
};

// The texts of some commands, in their order
std::vector<std::string> texts_of(const std::vector<command> &commands);

// The words of a command, without the quotes around one of them
std::vector<std::string> words_of(std::string_view text);

}  // namespace tool
