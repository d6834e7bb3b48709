// SPDX-License-Identifier: MIT
// The kinds of root qdiscs: all that this command knows of one kind is its row.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "class.h"
#include "difference.h"
#include "live.h"
#include "netlink.h"
#include "policy.h"
#include "table_reader.h"

namespace tool {

struct root_kind {
    std::string_view name;      // in policies, and the kernel's own
    const class_kind *classes;  // null: it has none
    u32 type;                   // qos_if.root_type
    bool takes_classes;         // a policy adds some; else they are there with the root
    // The keys of an interface that belong to its root kind, and the classes that come with it
    void (*read)(table_reader &in, policy_interface &iface);
    void (*check)(const policy_interface &iface, const std::vector<tree_class> &tree,
                  diagnostics &found);
    // Null: it has no automark.
    const automark_value *(*automark)(const policy_interface &iface);
    // The kernel's options of such a qdisc
    void (*from_kernel)(live_qdisc &seen, const attribute &options);
    // What makes such a qdisc: "htb default 0x10"; null where the kernel makes it itself
    std::string (*command)(const live_qdisc &q);
    // False when there is nothing to compare below the root
    bool (*compare)(const policy_interface &wanted, const live_tree &seen, differences &found);
    std::string (*text)(const policy_interface &iface);  // what its headline says besides
    // The class for what no rule picks; 0: none
    u32 (*default_class)(const policy_interface &iface);
    void (*json)(const policy_interface &iface, nlohmann::ordered_json &out);
};

std::span<const root_kind> root_kinds();         // by type
std::span<const std::string_view> root_names();  // likewise
const root_kind &kind_of(const policy_interface &iface);
const root_kind *find_root_kind(std::string_view name);  // null: none of ours

}  // namespace tool
