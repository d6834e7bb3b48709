// SPDX-License-Identifier: MIT
// Takes an apply back that nobody confirms.
#pragma once

#include <string>

#include "state.h"

namespace tool {

// Starts a process of its own that takes all back at that time (boot_seconds()), unless it has been
// confirmed by then. It outlives this program, its terminal and its session. "", or why it cannot
// be started.
std::string start_timer(const state_folder &state, double until);

}  // namespace tool
