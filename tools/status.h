// SPDX-License-Identifier: MIT
// The kernel's live classes beside the policy.
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
    std::string limits;  // what the kernel holds it to, "2mbit to 20mbit"
    double bits = 0;     // per second, over the interval
    live_stats stats;    // at its end
};

struct interface_status {
    std::string name;
    std::string root;  // "htb"; "default" where nobody put one
    bool policy_known = false;
    std::vector<std::string> differences;  // from the policy
    std::vector<std::string> notes;        // what could not be looked at
    std::vector<step> steps;               // that apply would take
    std::vector<class_status> classes;
};

struct status_options {
    double seconds = 1;  // over which rates are taken
    unsigned wait = 10;  // for the lock of iptables
};

// Looks at an interface twice. w: null when no policy is known. None when the kernel does not
// answer; `why` says so.
std::optional<interface_status> look_at(const std::string &ifname, const wanted *w,
                                        const status_options &o, std::string &why);

// The class rows of two looks, so many seconds apart
std::vector<class_status> class_rows(const live_tree &first, const live_tree &second,
                                     double seconds, const std::vector<tree_class> &names);

// Beside the policy: what differs, and what apply would do
void compare_with(const wanted &w, const live_tree &live, const chains_seen &chains,
                  const memory &before, interface_status &s);

std::string status_text(const interface_status &s, const look &how);
std::string status_json(const std::vector<interface_status> &all);

}  // namespace tool
