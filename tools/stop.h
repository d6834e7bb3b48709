// SPDX-License-Identifier: MIT
// Takes a policy away from its interfaces.
#pragma once

#include <string>
#include <vector>

#include "iptables.h"
#include "policy.h"
#include "report.h"

namespace tool {

struct stop_options {
    bool dry_run = false;  // say what would be done
    unsigned wait = 10;    // seconds for each lock
};

// Stops every interface of the policy, also after one that failed. The caller holds the lock
// (lock.h), except for a dry run.
std::vector<outcome> stop_policy(const policy &p, const stop_options &o);

// Puts an interface back on its default qdisc and deletes its chains, whoever made them. False, and
// the reason in `why`, when a root qdisc or a chain stays.
bool take_back(const std::string &ifname, const iptables &tables, std::string &why);

}  // namespace tool
