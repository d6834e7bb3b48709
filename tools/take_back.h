// SPDX-License-Identifier: MIT
// Brings an interface back to what the kernel held before an apply.
#pragma once

#include <string>

#include "iptables.h"
#include "journal.h"
#include "state.h"

namespace tool {

enum class taken_back {
    untouched,      // nothing had been changed
    before,         // the kernel holds what it held before
    last_policy,    // it could not, and the policy that was applied last is in force again
    default_qdisc,  // nothing ran before, or neither could be had: its default qdisc, without rules
    failed          // none of these
};

struct way_back {
    taken_back how = taken_back::untouched;
    std::string why;  // of last_policy, default_qdisc and failed: what stood in the way; else ""
};

// e.undo: the commands that undo what was done. Each that has nothing to undo does no harm, so that
// all of a plan's may be given when nobody knows how far a run got. Forgets a policy that is in the
// state folder and no longer in the kernel.
way_back take_back(const journal_entry &e, const iptables &tables, const state_folder &state);

}  // namespace tool
