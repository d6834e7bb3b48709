// SPDX-License-Identifier: MIT
// Live bandwidth of interfaces.
#pragma once

#include <string>
#include <vector>

#include "mordel.h"
#include "show.h"

namespace tool {

struct watch_options {
    std::vector<std::string> names;
    unsigned interval = 1;  // seconds, 1 to 255
    unsigned count = 0;     // so many samples; 0: until q or a signal
    bool json = false;
};

// The exit status
int watch(const watch_options &o, const look &how);

// The last `cells` rates, oldest first, as columns of up to the highest of them
std::string sparkline(const std::vector<u64> &rates, std::size_t cells, bool utf8);

}  // namespace tool
