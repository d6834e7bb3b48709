// SPDX-License-Identifier: MIT
// Standard output and standard error.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "show.h"

namespace tool {

// A line on standard error. What a name or a file brings along of control characters is not
// printed: a terminal would obey it.
void complain(const std::string &what);

// What standard output may show: colours on a terminal, UTF-8 by the locale
look look_of_stdout();

// False, after a complaint that begins so, when not all of it can be written.
bool write_out(const std::string &text, const char *complaint = "cannot write");

// The value ends here: its destructor allocates, and must not fail behind a written report.
std::string dumped(nlohmann::ordered_json &&value);

}  // namespace tool
