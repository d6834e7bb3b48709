// SPDX-License-Identifier: MIT
// Which module a kernel may lack, when it refuses a command without naming it.
#pragma once

#include <string>

#include "step.h"

namespace tool {

// "; the kernel may lack its module sch_sfq", or "" when the message says something else than that
// a thing is not there. command: the refused one, as in a step; "" when it is unknown.
std::string module_hint(program by, const std::string &said, const std::string &command);

}  // namespace tool
