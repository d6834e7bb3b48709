// SPDX-License-Identifier: MIT
// What every table of kinds offers: its rows stand at their types' numbers, and have names.
#pragma once

#include <array>
#include <string_view>

#include "mordel.h"

namespace tool {

// Whether a table can be indexed by type: row 0 is of type 0, row 1 of type 1, and so on.
template <typename Kind, std::size_t N>
constexpr bool are_by_type(const Kind (&rows)[N])
{
    for (u32 type = 0; type < N; ++type)
        if (rows[type].type != type) return false;
    return true;
}

template <typename Kind, std::size_t N>
constexpr auto names_of(const Kind (&rows)[N])
{
    std::array<std::string_view, N> all;
    for (std::size_t i = 0; i < N; ++i) all[i] = rows[i].name;
    return all;
}

// Null where no row has the name.
template <typename Kind, std::size_t N>
constexpr const Kind *find_by_name(const Kind (&rows)[N], std::string_view name)
{
    for (const Kind &row : rows)
        if (row.name == name) return &row;
    return nullptr;
}

}  // namespace tool
