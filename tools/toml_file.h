// SPDX-License-Identifier: MIT
// The text of a policy file as a TOML table.
#pragma once

#include <optional>
#include <string_view>

#include "diagnostics.h"
#include "toml.h"

namespace tool {

// None, with an error at its place, when the text is no TOML.
std::optional<toml::table> parse_toml(std::string_view text, diagnostics &found);

}  // namespace tool
