// SPDX-License-Identifier: MIT
// Brings a policy into the kernel, as one transaction.
#pragma once

#include <string>
#include <vector>

#include "policy.h"
#include "prepare.h"
#include "render.h"
#include "report.h"
#include "state.h"

namespace tool {

struct applied {
    std::vector<outcome> interfaces;
    std::string error;     // "" or what failed besides the interfaces: the journal, the timer
    int signal = 0;        // that ended it; all is as before then
    unsigned confirm = 0;  // seconds that are left to confirm it; 0: it needs no confirmation
    bool failed() const;
};

// All interfaces come to their policy, or none does; with o.keep_going each is for itself. The
// caller holds the lock (lock.h) and has finished what an earlier run left (recover.h), except for
// a dry run. text: the policy file's content, kept for `status`. texts: from render(p).
applied apply_policy(const policy &p, const std::string &text, const rendering &texts,
                     const apply_options &o, const state_folder &state);

}  // namespace tool
