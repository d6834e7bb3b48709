// SPDX-License-Identifier: MIT
// A plan: the ordered list of steps that brings an interface from what the kernel holds to what the
// policy wants. A dry run and status show the steps of this one list, apply runs them.
#pragma once

#include <string>
#include <vector>

#include "compare.h"
#include "live.h"
#include "plan_rules.h"

namespace tool {

// Whether the rules may be loaded on the guess that the interface has no chains yet: it has no root
// qdisc and no script is remembered. The load is refused where the guess is wrong; a listing, a
// third of an apply's time, is only then needed.
bool may_guess(const live_tree &live, const memory &before);

enum class effect { none, built, changed, stopped };

struct plan {
    effect result = effect::none;  // none: there are no steps
    std::vector<step> steps;       // tc's first, then the rules, then the queue length
    std::vector<std::string> notes;
};

plan plan_apply(const wanted &w, const live_tree &live, const chains_seen &chains,
                const memory &before);

// One step: the library's own script, whatever the kernel holds
plan plan_script(const std::string &why);

// live: null when the interface has gone. Its chains may still be there: iptables keeps them.
plan plan_stop(const std::string &ifname, const live_tree *live, const chains_seen &chains);

// ---- After a plan ran ---------------------------------------------------------------------------

struct verification {
    std::string error;               // a part is missing; "" when all is there
    std::vector<std::string> notes;  // numbers that the kernel has cut to its own limits
};
verification verify(const wanted &w, const live_tree &live);

// "class 1:10: rate is 3mbit, not 4mbit"
std::string difference_text(const difference &d);

}  // namespace tool
