// SPDX-License-Identifier: MIT
// Shows the live bandwidth of interfaces.
#pragma once

#include <string>
#include <vector>

#include "mordel.h"
#include "show.h"

namespace tool {

struct watch_options {
    std::vector<std::string> names;
    unsigned interval = 1;  // seconds, 1 to 255
    unsigned count = 0;     // samples to show; 0: until q or a signal
    bool json = false;
};

// Runs until o.count samples are shown, q, a signal, or the last interface's end. Returns the exit
// status.
int watch(const watch_options &o, const look &how);

// The last `cells` rates, oldest first, a column each; the highest of them has the full height.
std::string sparkline(const std::vector<u64> &rates, std::size_t cells, bool utf8);

}  // namespace tool
