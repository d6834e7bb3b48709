// SPDX-License-Identifier: MIT
// The kinds of leaf qdiscs: all that this command knows of one kind is its row.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

#include "difference.h"
#include "live.h"
#include "mordel.h"
#include "netlink.h"
#include "table_reader.h"
#include "tc_clock.h"

namespace tool {

struct leaf_kind {
    std::string_view name;  // in policies, and the kernel's own
    u32 type;               // leaf_qdisc.type
    bool changeable;        // the kernel changes its options in place
    // A table { type = …, … } of this type
    leaf_qdisc (*read)(const toml::table &table, diagnostics &found);
    // Judges the parameters together; at: the place of the table
    void (*check)(const leaf_qdisc &leaf, position at, diagnostics &found);
    // The kernel's options of such a qdisc
    void (*from_kernel)(live_qdisc &seen, const attribute &options, double ticks_per_us);
    // What makes such a qdisc: "pfifo limit 50"; "" where no command of ours does
    std::string (*command)(const live_qdisc &q, const tc_clock &clock);
    void (*compare)(u32 handle, const leaf_qdisc &wanted, const live_qdisc &seen,
                    differences &found);
    std::string (*text)(const leaf_qdisc &leaf);  // "sfq perturb 10s"
    nlohmann::ordered_json (*json)(const leaf_qdisc &leaf);
};

std::span<const leaf_kind> leaf_kinds();                 // by type
const leaf_kind &kind_of(const leaf_qdisc &leaf);        // of a leaf that was read
const leaf_kind *find_leaf_kind(std::string_view name);  // null: none of ours

// A table { type = …, … }; wrong unless all of it is good.
value<leaf_qdisc> read_leaf(const toml::table &table, diagnostics &found);

// The n for which 1/2^n is the weight that tc gives the average queue of a RED leaf: the largest
// weight that lets a burst pass. 0 when there is none.
u32 red_wlog(const red_leaf_param &red);

}  // namespace tool
