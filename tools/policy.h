// SPDX-License-Identifier: MIT
// A policy as it was read from its file: the library's records, and for each value its place in the
// file, which messages name. Nothing here touches the library's state or the kernel.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "diagnostics.h"
#include "mordel.h"
#include "tarnic_iptables.h"
#include "value.h"

namespace tool {

struct htb_values {
    value<u32> rate;  // kbit/s
    value<u32> ceil;
    value<u32> burst;  // bytes
    value<u32> cburst;
    value<u32> prio;
};

struct hfsc_values {
    value<hfsc_curve> ul, sc, ls, rt;
};

// An entry [[interface.class]]
struct policy_class {
    position at;
    value<u32> handle;
    value<u32> parent;  // 0: the root qdisc
    value<std::string> name;
    bool existing = false;    // there without the entry: of the default tree, or a band
    htb_values htb;           // of an HTB interface's class
    hfsc_values hfsc;         // of an HFSC interface's class
    qos_class_param param{};  // the same for the library; zeros for what is not good
    value<leaf_qdisc> leaf;

    bool placed() const { return handle.is_good() && parent.is_good(); }
};

// A class as the kernel will have it: an entry, or one that comes by itself
struct tree_class {
    u32 handle = 0;
    u32 parent = 0;
    std::string name;
    bool has_children = false;
    qos_class_param param{};  // the member that the root type says; zeros for a band
    leaf_qdisc leaf{};
    const policy_class *entry = nullptr;  // null: comes by itself
};

// An entry [[interface.rule]]
struct policy_rule {
    position at;
    value<u32> index;
    value<u32> schedule;  // its index
    qos_match match{};
    qos_target target{};
    // By the bit of the kind's flag: where the kind's first key stands. Without that key it is the
    // place of the match or target table.
    std::array<position, mordel::match_kinds> match_at;
    std::array<position, mordel::target_kinds> target_at;
};

struct policy_interface {
    position at;
    std::string name;
    position name_at;
    u32 root_type = R_HTB;
    bool known = false;  // root could be read; else only name and speeds are
    u32 speeds[4] = {};  // link_tx, link_rx, phy_tx, phy_rx: kbit/s
    value<u32> link_tx;
    value<u32> phy_tx;
    qos_root_param param{};
    bool default_tree = false;           // HTB, HFSC
    value<u32> default_class;            // HTB, HFSC; 0: none
    std::array<value<u32>, 8> automark;  // absent without automark
    bool handles_known = true;           // every entry's handle could be read
    std::vector<tree_class> built_in;    // what comes by itself, in the order of the library's tree
    std::vector<policy_class> classes;   // the entries, in the order of the file
    std::vector<policy_rule> rules;      // likewise
};

struct policy_schedule {
    position at;
    qos_sched sched{};
};

struct policy {
    std::vector<policy_interface> interfaces;
    std::vector<policy_schedule> schedules;
};

}  // namespace tool
