// SPDX-License-Identifier: MIT
// What is known of an interface's chains, found out by iptables.
#pragma once

#include "iptables.h"
#include "plan.h"

namespace tool {

// What is there. Who is not root is told so in the record.
chains_seen list_chains(const iptables &tables);

// The same, and, where something is there, what would be there with the wanted rules
chains_seen look_at_chains(const iptables &tables, const wanted &w);

}  // namespace tool
