// SPDX-License-Identifier: MIT
// Trials of a plan's steps where nothing can be lost, before the first step is run. Each gives the
// refusal that the real run would meet; none when all steps pass, and where no trial can be made.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "image.h"
#include "steps.h"

namespace tool {

// Has iptables-restore look whether it could load the rules' steps: the words of each, with the
// matches and targets that they name. What only the kernel refuses, at COMMIT, is not found, and by
// some an unknown or a doubled chain is not either.
std::optional<step_failure> try_rules(const iptables &tables, const std::vector<step> &steps);

// Runs tc's steps in a network namespace of their own, on an interface of this name, with the part
// of the tree that they need: the cost is that of the change, not that of the tree. Nothing is
// tried on an interface whose default qdisc is there, and no change in place of a tree that
// `before` does not hold whole: a step would be refused for what is missing in the trial alone.
std::optional<step_failure> try_tc(const std::string &ifname, const image &before,
                                   const std::vector<step> &steps);

}  // namespace tool
