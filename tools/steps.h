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
    std::string program;  // of missing: the program that cannot be started
    std::string error;    // "tc: RTNETLINK answers: Invalid argument"
    std::string command;  // refused: as a person would type it; "" when nobody can tell which
    unsigned line = 0;    // of the start script
};

// Runs tc's steps in one batch. After a failure the steps before the refused one stay done.
std::optional<step_failure> run_tc(const std::vector<step> &steps);

// Runs iptables-restore's steps: all take effect or none. busy: another process held the lock of
// iptables for the whole wait.
std::optional<step_failure> load_rules(const iptables &tables, const std::vector<step> &steps);

// A program's message on one line, cut at 300 characters
std::string brief(const std::string &said);

}  // namespace tool
