// SPDX-License-Identifier: MIT
// Owns the definitions of toml++: compiled here once and in no other file, since they take
// longest of all.
#define TOML_IMPLEMENTATION
#include "toml.h"
