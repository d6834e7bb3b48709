// SPDX-License-Identifier: MIT
// The steps that bring a tree with the right root to the policy, object by object. All that is not
// named by a step keeps its packets and its counters.
#pragma once

#include <string>
#include <vector>

#include "difference.h"
#include "image.h"
#include "live.h"
#include "plan_rules.h"

namespace tool {

// before: what the kernel holds, for what undoes each step. found: none of scope `tree`.
std::vector<step> steps_in_place(const wanted &w, const live_tree &live, const image &before,
                                 const std::vector<difference> &found);

// Whether the number of a qdisc is the one that the policy has for the leaf of another class
bool has_number_of_another(const wanted &w, const live_qdisc &q);

// The steps that remove the root and build the tree anew. why: of the removal; "" where there is no
// root to remove
std::vector<step> steps_anew(const wanted &w, const image &before, const std::string &why);

// The step that removes the root; the whole image undoes it
step removal_of_root(const std::string &ifname, const image &before, const std::string &why);

}  // namespace tool
