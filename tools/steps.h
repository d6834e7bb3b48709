// SPDX-License-Identifier: MIT
// Runs the steps of a plan, a program at a time, and says which of them was refused.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "iptables.h"
#include "kernel_log.h"
#include "plan.h"

namespace tool {

struct step_failure {
    enum class kind {
        refused,     // by the program or the kernel, with a reason
        missing,     // the program is not there
        busy,        // another process held the lock of iptables for the whole wait
        failed,      // the program was killed, ended without a word or could not be started
        interrupted  // the caller wished for the end
    } what = kind::refused;
    std::string program;  // of missing: its name
    std::string error;    // "tc: RTNETLINK answers: Invalid argument"
    std::string command;  // refused: as a person would type it; "" when nobody can tell which
    unsigned line = 0;    // of the start script
};

// Runs tc's steps in batches of 256 commands and asks before each whether to go on. done: so many
// of the first steps may have been done, whether all went well or not; exactly so many, but for a
// tc that does not name the line where it ended.
// log: where the kernel's own words to a failure are looked for
std::optional<step_failure> run_tc(const std::vector<step> &steps,
                                   const std::function<bool()> &go_on, std::size_t &done,
                                   const char *log = kernel_log_path);

// Runs tc's commands, whatever becomes of each: for taking back, where the kernel is read
// afterwards.
void run_tolerant(const std::vector<std::string> &tc_commands);

// Runs iptables-restore's steps: all take effect or none.
std::optional<step_failure> load_rules(const iptables &tables, const std::vector<step> &steps,
                                       const char *log = kernel_log_path);

}  // namespace tool
