// SPDX-License-Identifier: MIT
// A policy file that a user names, read, with its faults shown.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "policy.h"
#include "policy_read.h"
#include "render.h"

namespace tool {

struct loaded {
    std::string text;
    policy rules;
    std::vector<std::string> names;  // of all interfaces in the file
    diagnostics found;
};

// The policy of a file, "-" for standard input, with its errors in `found`; none, after a message,
// when reading fails.
std::optional<loaded> load(const std::string &file, kernel_kind kernel);

// The same without errors; none, after they are shown.
std::optional<loaded> load_good(const std::string &file, kernel_kind kernel);

// The same with this interface alone, "" for all; none when the file does not have it.
std::optional<loaded> only(loaded l, const std::string &interface);
// The same, with a message
std::optional<loaded> load_chosen(const std::string &file, kernel_kind kernel,
                                  const std::string &interface);

// The library's texts of a policy; none, after a message, when the library refuses the policy.
std::optional<rendering> texts_of(const policy &p);

// The errors and warnings, to standard error
void print(const std::string &file, const diagnostics &found);

}  // namespace tool
