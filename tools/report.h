// SPDX-License-Identifier: MIT
// What came of an interface, and how a person and a program are told of it.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "plan.h"

namespace tool {

struct outcome {
    std::string name;
    effect result = effect::none;  // of the steps; what was meant, where it failed
    bool failed = false;
    std::vector<step> steps;         // that were, or would be, run
    std::vector<std::string> notes;  // what a person should know besides
    std::string error;               // why it failed
    std::string failed_command;      // "" when it was no command of the script
    unsigned failed_line = 0;        // of the start script
    bool restored = false;           // back on the default qdisc, without a chain
};

// "eth0: built, 30 tc and 12 iptables commands", or a dry run's commands
std::string outcome_text(const outcome &r, bool dry_run);
// What goes to standard error, a line each
std::vector<std::string> complaints(const outcome &r);
nlohmann::ordered_json outcome_json(const outcome &r);

// Each step with its command, what it is about, and why
nlohmann::ordered_json steps_json(const std::vector<step> &steps);

}  // namespace tool
