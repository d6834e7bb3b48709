// SPDX-License-Identifier: MIT
// What is to be done to an interface: from what is wanted, what is there and what is remembered to
// an ordered list of steps. Whoever shows, runs or counts them has this list.
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

// ---- What it is made of -------------------------------------------------------------------------

// An interface as the policy wants it
struct wanted {
    const policy_interface &iface;
    std::string text;  // of its start script
    start_script script;
};

// What is known of an interface's chains
struct chains_seen {
    enum class looked {
        guessed,  // nobody has looked; most likely there are none
        listed,   // `present` is what is there
        denied,   // who is not root may not look
        failed    // iptables does not answer
    } how = looked::guessed;
    std::string why_not;               // denied, failed
    std::vector<std::string> present;  // own_lines(); empty unless listed
    // What own_lines() would be with the wanted rules; none where that could not be tried
    std::optional<std::vector<std::string>> expected;
};

// Whether loading the rules may rely on a guess: on a fresh interface there is most likely no
// chain, and the load itself finds out. It saves the listing, a third of an apply.
bool may_guess(const live_tree &live, const memory &before);

enum class rules_state {
    not_seen,       // nobody has looked
    absent,         // there are no chains
    same,           // as they would be after a load
    other,          // not so
    as_remembered,  // could not be tried; as they were when the same script was applied last
    untried         // could not be tried, and not as remembered
};
rules_state compare_rules(const wanted &w, const chains_seen &chains, const memory &before);

// ---- The plan -----------------------------------------------------------------------------------

enum class program { tc, iptables_restore, ifconfig, start_script };

struct step {
    program by = program::tc;
    std::string command;  // as the program takes it: a line of a batch, arguments, or its own path
    object what;
    unsigned line = 0;         // of the start script; 0: it stands in none
    std::string why;           // "rate is 3mbit, not 4mbit"
    bool destructive = false;  // what is there goes: waiting packets, counters, rules
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
// Its steps that load the rules
std::vector<step> plan_rules(const wanted &w, const chains_seen &chains, const memory &before);

// By the library's own script, whatever there is
plan plan_script(const std::string &why);

// live: null when the interface has gone, which its chains outlive.
plan plan_stop(const std::string &ifname, const live_tree *live, const chains_seen &chains);

// ---- What came of it ----------------------------------------------------------------------------

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
