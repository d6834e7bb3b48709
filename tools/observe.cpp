// SPDX-License-Identifier: MIT
// Owns the look at the mangle table that a plan starts from. Changes nothing: the wanted rules are
// tried in a network namespace of their own.

#include "observe.h"

#include <unistd.h>

#include "chains.h"

namespace tool {

chains_seen list_chains(const iptables &tables)
{
    chains_seen seen;
    if (::geteuid() != 0) {
        seen.how = chains_seen::looked::denied;
        seen.why_not = "that takes root";
        return seen;
    }
    const auto present = tables.list(seen.why_not);
    seen.how = present ? chains_seen::looked::listed : chains_seen::looked::failed;
    if (present) seen.present = *present;
    return seen;
}

chains_seen look_at_chains(const iptables &tables, const wanted &w)
{
    chains_seen seen = list_chains(tables);
    if (seen.present.empty()) return seen;
    // Without present chains there is nothing to compare a trial with: the rules are loaded anyhow.
    const auto commands = texts_of(lines_to_load(w.script.rules, w.iface.name));
    seen.expected = tables.tried(commands);
    return seen;
}

}  // namespace tool
