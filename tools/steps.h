// SPDX-License-Identifier: MIT
// Runs the steps of a plan, a program at a time, and says which of them was refused.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "iptables.h"
#include "plan.h"

namespace tool {

struct step_failure {
    enum class kind { refused, missing, busy } what = kind::refused;
    std::string program;  // missing: that cannot be started
    std::string error;    // "tc: RTNETLINK answers: Invalid argument"
    std::string command;  // refused: as a person would type it; "" when nobody can tell which
    unsigned line = 0;    // of the start script
};

// tc's steps, in one batch: those before the refused one are done.
std::optional<step_failure> run_tc(const std::vector<step> &steps);

// iptables-restore's steps: all of them or none. busy: somebody kept the lock.
std::optional<step_failure> load_rules(const iptables &tables, const std::vector<step> &steps);

// What a program said, on one line of bearable length
std::string brief(const std::string &said);

}  // namespace tool
