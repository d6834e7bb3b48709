// SPDX-License-Identifier: MIT
// What the kernel holds beside what the policy says.
#pragma once

#include <vector>

#include "difference.h"
#include "live.h"
#include "policy.h"

namespace tool {

// Empty: the kernel holds what the policy says, as far as it can be read back. What the policy
// leaves to tc or the kernel is not compared; of RED's burst and avpkt the kernel tells what they
// come to.
std::vector<difference> compare(const policy_interface &iface, const live_tree &kernel);

}  // namespace tool
