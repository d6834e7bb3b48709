// SPDX-License-Identifier: MIT
// A policy taken away.
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

// Every interface, also behind one that fails. Call with the lock held.
std::vector<outcome> stop_policy(const policy &p, const stop_options &o);

// Puts an interface back on its default qdisc and takes its chains away, whatever there is. False,
// with why, when something stays.
bool take_back(const std::string &ifname, const iptables &tables, std::string &why);

}  // namespace tool
