// SPDX-License-Identifier: MIT
// All that can be done for an interface before anything of it is changed: the look at the kernel,
// the plan, and its trial.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "iptables.h"
#include "journal.h"
#include "plan.h"
#include "policy.h"
#include "report.h"
#include "state.h"

namespace tool {

struct apply_options {
    bool script = false;             // run the library's script as it stands
    bool dry_run = false;            // say what would be done
    bool keep_going = false;         // each interface for itself
    bool missing_is_fine = false;    // an interface that is not there fails nothing
    unsigned wait = 10;              // seconds for each lock
    unsigned wait_interface = 0;     // seconds for interfaces that are not there yet
    unsigned confirm = 0;            // seconds after which all is taken back again; 0: never
    std::string source;              // the policy file's absolute path; "" for standard input
    std::string saved_as;            // the name under which a confirmed policy is kept; "" for none
    std::vector<std::string> prune;  // interfaces to take down besides
};

// What an apply does with one interface, and what it must know to take that back
struct prepared {
    std::optional<wanted> w;  // none: the interface is taken down
    iptables tables;
    memory before;  // what was applied last
    chains_seen chains;
    outcome out;          // the plan; failed: the interface is left alone
    journal_entry entry;  // what the kernel holds, and how to get back there
    bool begun = false;   // its first step has been run, or was about to be

    const std::string &name() const { return entry.name; }
};

// Changes nothing. A plan that nobody can carry out, or that is refused where it is tried, is a
// failed outcome.
prepared prepare(const policy_interface &iface, const std::string &script, const apply_options &o,
                 const state_folder &state);

// The same for an interface that is to be taken down
prepared prepare_stop(const std::string &ifname, const apply_options &o, const state_folder &state);

}  // namespace tool
