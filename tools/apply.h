// SPDX-License-Identifier: MIT
// A policy brought into the kernel.
#pragma once

#include <string>
#include <vector>

#include "policy.h"
#include "render.h"
#include "report.h"

namespace tool {

struct apply_options {
    bool script = false;   // run the library's script as it stands
    bool dry_run = false;  // say what would be done
    unsigned wait = 10;    // seconds for each lock
};

// Interfaces in turn; the first failure ends it. Call with the lock held. text: the policy's file,
// which `status` will want; texts: what render() made of the policy.
std::vector<outcome> apply_policy(const policy &p, const std::string &text, const rendering &texts,
                                  const apply_options &o);

}  // namespace tool
