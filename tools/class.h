// SPDX-License-Identifier: MIT
// The kinds of classes: all that this command knows of one kind is its row.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "difference.h"
#include "live.h"
#include "mainline.h"
#include "netlink.h"
#include "policy.h"
#include "table_reader.h"
#include "tc_clock.h"

namespace tool {

struct class_kind {
    // The keys of a class's entry that belong to its kind
    void (*read)(table_reader &in, policy_class &entry);
    // Judges the parameters together, and beside the parent's. parent: null for a class on the
    // root.
    void (*check)(const tree_class &c, const tree_class *parent, kernel_kind kernel,
                  diagnostics &found);
    // The kernel's options of such a class
    void (*from_kernel)(live_class &seen, const attribute &options, double ticks_per_us);
    // What makes such a class: "htb rate 8000bit ..."; "" where no command of ours does. Null: the
    // classes come and go with their root.
    std::string (*command)(const live_class &c, const tc_clock &clock);
    bool leaf_options;  // some options the kernel takes of a leaf class alone
    void (*compare)(const tree_class &wanted, const live_class &seen, differences &found);
    // kbit/s: what the class may send at most, and what it is sure of; 0 where nothing says so
    u32 (*limit)(const tree_class &c);
    u32 (*share)(const tree_class &c);
    std::string (*text)(const tree_class &c);         // "rate 2mbit ceil 4mbit prio 0"
    std::string (*label)(const tree_class &c);        // a shorter one, for a graph
    std::string (*live_limits)(const live_class &c);  // "2mbit to 4mbit"
    void (*json)(const tree_class &c, nlohmann::ordered_json &out);
};

extern const class_kind htb_class;
extern const class_kind hfsc_class;
extern const class_kind prio_band;

// The highest rate that the kernel's 32 bits of bytes/s hold, and what to say of one above
inline constexpr u32 most_hfsc_kbit = 34359738;
std::string hfsc_right();

}  // namespace tool
