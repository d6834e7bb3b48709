// SPDX-License-Identifier: MIT
// The plan of an interface's rules: what is known of its chains, and the steps that load them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "policy.h"
#include "start_script.h"
#include "state.h"
#include "step.h"

namespace tool {

// An interface as the policy wants it
struct wanted {
    const policy_interface &iface;
    std::string text;  // of its start script
    start_script script;
};

// What is known of an interface's chains
struct chains_seen {
    enum class looked {
        guessed,  // not listed; the interface is new, so most likely without chains
        listed,   // `present` holds the listing
        denied,   // not root, so iptables would refuse to list
        failed    // iptables is missing or failed
    } how = looked::guessed;
    std::string why_not;               // the reason; of denied and failed
    std::vector<std::string> present;  // own_lines(); empty unless listed
    // own_lines() as it would be with the wanted rules loaded; none where a trial was impossible
    std::optional<std::vector<std::string>> expected;
};

enum class rules_state {
    not_seen,       // the chains were not listed
    absent,         // listed, and there are no chains
    same,           // listed as they would be after a load
    other,          // known to be others than after a load
    as_remembered,  // no trial; listed as when the same rules were applied last
    untried         // no trial, and listed otherwise than remembered or nothing remembered
};
rules_state compare_rules(const wanted &w, const chains_seen &chains, const memory &before);

// The steps that load the rules; none where they are there already. Where it is known which rule of
// the chains is which of the policy's, those that differ are exchanged and the others keep their
// counters; else the chains are emptied and loaded.
std::vector<step> plan_rules(const wanted &w, const chains_seen &chains, const memory &before);

// The steps that take the chains away, all for one reason
std::vector<step> plan_no_rules(const chains_seen &chains, const std::string &why);

}  // namespace tool
