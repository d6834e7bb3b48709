// SPDX-License-Identifier: MIT
// toml++, and where its nodes stand. Parse errors are results, not exceptions. The definitions are
// compiled once, in toml.cpp: in every file they would be compiled anew.
#pragma once

#define TOML_EXCEPTIONS 0
#define TOML_HEADER_ONLY 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ENABLE_WINDOWS_COMPAT 0
#include <toml++/toml.h>

#include "diagnostics.h"

namespace tool {

// As toml++ counts: from 1, columns in characters.
inline position place(const toml::source_region &source)
{
    return {source.begin.line, source.begin.column};
}
inline position place(const toml::node &node) { return place(node.source()); }

}  // namespace tool
