// SPDX-License-Identifier: MIT
// Brings a policy into the kernel.
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

// Applies the interfaces in turn and ends with the first that fails. The caller holds the lock
// (lock.h), except for a dry run. text: the policy file's content, kept for `status`. texts: from
// render(p).
std::vector<outcome> apply_policy(const policy &p, const std::string &text, const rendering &texts,
                                  const apply_options &o);

}  // namespace tool
