// The kernel's live classes beside the policy.
#pragma once

#include <string>
#include <vector>

#include "compare.h"
#include "kernel.h"
#include "policy.h"
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
    std::vector<class_status> classes;
};

// Looks at an interface twice, so many seconds apart. policy: null when none is known; script: its
// start script. None when the kernel does not answer; `why` says so.
std::optional<interface_status> look_at(const std::string &ifname, const policy_interface *policy,
                                        const std::string &script, double seconds, unsigned wait,
                                        std::string &why);

std::string status_text(const interface_status &s, const look &how);
std::string status_json(const std::vector<interface_status> &all);

}  // namespace tool
