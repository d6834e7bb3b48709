// SPDX-License-Identifier: MIT
// Which kernel a policy is for. A mainline kernel lacks some matches, targets and HFSC forms that
// the kernels of router vendors have; the library writes all of them.
#pragma once

#include "diagnostics.h"
#include "text.h"

namespace tool {

enum class kernel_kind { mainline, vendor };

// Warns of what mainline kernels do not take. what: "a MAC match"; instead: "match addresses"
inline void warn_of_mainline(diagnostics &found, position at, const char *what, const char *instead)
{
    found.warning(at, format("mainline kernels refuse %s; %s, or say --kernel vendor if"
                             " yours takes it",
                             what, instead));
}

}  // namespace tool
