// SPDX-License-Identifier: MIT
// Looks at an interface's chains by iptables.
#pragma once

#include "iptables.h"
#include "plan.h"

namespace tool {

// Lists the chains. Without root nothing is listed: the record's `how` is denied.
chains_seen list_chains(const iptables &tables);

// Lists the chains. Where there are any, also tries the wanted rules, for `expected`.
chains_seen look_at_chains(const iptables &tables, const wanted &w);

}  // namespace tool
