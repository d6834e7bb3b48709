// SPDX-License-Identifier: MIT
// Runs a start script without a shell.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace tool {

struct script_failure {
    std::string error;         // "tc: RTNETLINK answers: Invalid argument"
    std::string command;       // as it stands in the script; "" when no command is to blame
    unsigned line = 0;         // the command's, from 1
    bool interrupted = false;  // the caller wished for the end
};

// Runs a start script, a command after the other, and ends at the first that fails. A command that
// the script silences ("2>/dev/null") may end with any status. After 600 s the command under way is
// killed and the run has failed.
// path, text: the file must hold this very text, or else nothing is run. go_on: asked before each
// command. begun: set once a command has run.
std::optional<script_failure> run_start_script(const std::string &path, const std::string &text,
                                               const std::function<bool()> &go_on, bool &begun);

}  // namespace tool
