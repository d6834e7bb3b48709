// SPDX-License-Identifier: MIT
// Takes the shaping away from interfaces.
#pragma once

#include <string>
#include <vector>

#include "report.h"
#include "state.h"

namespace tool {

struct stop_options {
    bool dry_run = false;  // say what would be done
    unsigned wait = 10;    // seconds for each lock
};

// Puts each interface back on its default qdisc and deletes its chains, whoever made them; also
// those after one that failed. The caller holds the lock (lock.h), except for a dry run.
std::vector<outcome> stop_interfaces(const std::vector<std::string> &names, const stop_options &o,
                                     const state_folder &state);

}  // namespace tool
