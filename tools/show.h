// SPDX-License-Identifier: MIT
// Draws a policy: as a tree on a terminal, as a graph for Graphviz, as JSON.
#pragma once

#include <string>

#include "policy.h"

namespace tool {

struct look {
    bool colour = false;  // escape sequences for bold, dim and red
    bool utf8 = false;    // box drawing and blocks; else ASCII
};

std::string show_tree(const policy &p, const look &how);
std::string show_dot(const policy &p);
std::string show_json(const policy &p);

}  // namespace tool
