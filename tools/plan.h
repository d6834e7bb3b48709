// SPDX-License-Identifier: MIT
// A plan: the ordered list of steps that brings an interface from what the kernel holds to what the
// policy wants. A dry run and status show the steps of this one list, apply runs them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "compare.h"
#include "live.h"
#include "policy.h"
#include "start_script.h"
#include "state.h"

namespace tool {

// ---- What a plan is made of ---------------------------------------------------------------------

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

// Whether the rules may be loaded on the guess that the interface has no chains yet: it has no root
// qdisc and no script is remembered. The load is refused where the guess is wrong; a listing, a
// third of an apply's time, is only then needed.
bool may_guess(const live_tree &live, const memory &before);

enum class rules_state {
    not_seen,       // the chains were not listed
    absent,         // listed, and there are no chains
    same,           // listed as they would be after a load
    other,          // listed otherwise than after a load
    as_remembered,  // no trial; listed as when the same script was applied last
    untried         // no trial, and listed otherwise or nothing remembered
};
rules_state compare_rules(const wanted &w, const chains_seen &chains, const memory &before);

// ---- The plan -----------------------------------------------------------------------------------

enum class program { tc, iptables_restore, ifconfig, start_script };

struct step {
    program by = program::tc;
    std::string command;  // as the program takes it: a line of a batch, arguments, or its own path
    object what;
    unsigned line = 0;         // of the start script; 0: the script has no such command
    std::string why;           // "rate is 3mbit, not 4mbit"
    bool destructive = false;  // loses waiting packets, counters or rules of the kernel's
};

// The step as it is shown: "tc qdisc add ...", "iptables-restore: -A ..."
std::string step_text(const step &s);

enum class effect { none, built, changed, stopped };

struct plan {
    effect result = effect::none;  // none: there are no steps
    std::vector<step> steps;       // tc's first, then the rules, then the queue length
    std::vector<std::string> notes;
};

plan plan_apply(const wanted &w, const live_tree &live, const chains_seen &chains,
                const memory &before);
// The part of plan_apply()'s steps that loads the rules
std::vector<step> plan_rules(const wanted &w, const chains_seen &chains, const memory &before);

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

// The commands of some steps, in their order
std::vector<std::string> commands_of(const std::vector<step> &steps, program by);

}  // namespace tool
