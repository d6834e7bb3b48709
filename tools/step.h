// SPDX-License-Identifier: MIT
// A step of a plan: one command of one program, what it is about, and why it is run.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "command.h"

namespace tool {

enum class program { tc, iptables_restore, ifconfig, start_script };

struct step {
    program by = program::tc;
    std::string command;  // as the program takes it: a line of a batch, arguments, or its own path
    object what;
    unsigned line = 0;         // of the start script; 0: the script has no such command
    std::string why;           // "rate is 3mbit, not 4mbit"
    bool destructive = false;  // loses waiting packets, counters or rules of the kernel's
    // tc's commands, in order, that bring back what this step does away with, or do away with what
    // it makes. They do no harm where the step was not run: tc refuses such a command, or runs it
    // without an effect. Empty where nothing of ours brings it back.
    std::vector<std::string> undo = {};
};

// The step as it is shown: "tc qdisc add ...", "iptables-restore: -A ..."
std::string step_text(const step &s);

// The commands of some steps, in their order
std::vector<std::string> commands_of(const std::vector<step> &steps, program by);

// The commands that undo the first `done` steps, the last step's first
std::vector<std::string> undo_of(const std::vector<step> &steps, std::size_t done);

}  // namespace tool
