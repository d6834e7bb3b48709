// SPDX-License-Identifier: MIT
// Shows the kernel's live classes beside the policy.
#pragma once

#include <string>
#include <vector>

#include "kernel.h"
#include "plan.h"
#include "show.h"

namespace tool {

struct class_status {
    u32 handle = 0;
    std::string name;    // "" where the policy has none
    std::string limits;  // those that the kernel enforces, "2mbit to 20mbit"
    double bits = 0;     // bit/s, over the time between the two looks
    live_stats stats;    // at the second look
};

struct interface_status {
    std::string name;
    std::string root;  // "htb"; "default" for the kernel's own root qdisc
    bool policy_known = false;
    std::vector<std::string> differences;  // of the kernel's tree and rules from the policy
    std::vector<std::string> notes;        // parts that could not be compared, and why
    std::vector<step> steps;               // that apply would run
    std::vector<class_status> classes;
};

struct status_options {
    double seconds = 1;  // over which rates are taken
    unsigned wait = 10;  // for the lock of iptables
};

// Looks at an interface twice, o.seconds apart. w: null when no policy is known. before: what was
// applied last. None, and the
// reason in `why`, when the interface is missing or the kernel does not answer.
std::optional<interface_status> look_at(const std::string &ifname, const wanted *w,
                                        const memory &before, const status_options &o,
                                        std::string &why);

// The class rows of two looks. seconds: the time between the looks; 0 gives no rates.
std::vector<class_status> class_rows(const live_tree &first, const live_tree &second,
                                     double seconds, const std::vector<tree_class> &names);

// Fills in the differences from the policy, the notes, and the steps that apply would run.
void compare_with(const wanted &w, const live_tree &live, const chains_seen &chains,
                  const memory &before, interface_status &s);

std::string status_text(const interface_status &s, const look &how);
// to_confirm: the seconds that an apply still has to be confirmed; 0: none waits
std::string status_json(const std::vector<interface_status> &all, unsigned to_confirm = 0);

}  // namespace tool
