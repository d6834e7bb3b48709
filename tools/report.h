// SPDX-License-Identifier: MIT
// The outcome of apply or stop for an interface, as text for a person and JSON for a program.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "plan.h"
#include "take_back.h"

namespace tool {

struct outcome {
    std::string name;
    effect result = effect::none;  // of the steps; the intended one, where they failed
    bool failed = false;
    std::vector<step> steps;         // that were run; of a dry run, that would be
    std::vector<std::string> notes;  // facts that are no failure, a line each
    std::string error;               // the reason of a failure
    std::string failed_command;      // "" when none was refused, or which is unknown
    unsigned failed_line = 0;        // of the start script
    bool missing = false;            // there is no such interface
    bool left_alone = false;         // another interface failed before this one's turn
    taken_back back = taken_back::untouched;
    std::string why_not_before;  // what stood in the way of what it held before
};

// "eth0: built, 30 tc and 12 iptables commands", or a dry run's commands
std::string outcome_text(const outcome &r, bool dry_run);
// The lines for standard error: error, refused command, notes, how it was taken back
std::vector<std::string> complaints(const outcome &r);
nlohmann::ordered_json outcome_json(const outcome &r);

// Each step with its object, command, line, reason, and whether it is destructive
nlohmann::ordered_json steps_json(const std::vector<step> &steps);

}  // namespace tool
