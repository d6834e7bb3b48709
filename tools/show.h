// SPDX-License-Identifier: MIT
// A policy as a person wants to see it.
#pragma once

#include <string>

#include "policy.h"

namespace tool {

struct look {
    bool colour = false;
    bool utf8 = false;
};

std::string show_tree(const policy &p, const look &how);
std::string show_dot(const policy &p);
std::string show_json(const policy &p);

}  // namespace tool
