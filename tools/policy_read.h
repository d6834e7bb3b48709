// SPDX-License-Identifier: MIT
// From a policy file's text to a checked policy.
#pragma once

#include <string_view>

#include "diagnostics.h"
#include "mainline.h"
#include "policy.h"

namespace tool {

// Reads and checks a policy. Whatever is wrong is in `found`; the result is of use only when
// nothing of it is an error.
policy read_policy(std::string_view text, kernel_kind kernel, diagnostics &found);

// The two halves of read_policy: parse_policy judges each value by itself, check_policy judges
// values together.
policy parse_policy(std::string_view text, diagnostics &found);
void check_policy(const policy &p, kernel_kind kernel, diagnostics &found);

}  // namespace tool
