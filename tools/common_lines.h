// SPDX-License-Identifier: MIT
// The lines that two texts have in common, in the order of both.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace tool {

// A longest common subsequence: pairs of a place in `before` and the place in `after` of the same
// line, both ascending. As many lines as can stay are paired; a line that comes twice pairs once
// for each of its places.
std::vector<std::pair<std::size_t, std::size_t>>
common_lines(const std::vector<std::string> &before, const std::vector<std::string> &after);

}  // namespace tool
