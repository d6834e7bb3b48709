// SPDX-License-Identifier: MIT
// toml++, with errors as results. Its definitions are compiled once, in toml.cpp.
#pragma once

#define TOML_EXCEPTIONS 0
#define TOML_HEADER_ONLY 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ENABLE_WINDOWS_COMPAT 0
#include <toml++/toml.h>
