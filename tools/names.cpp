// SPDX-License-Identifier: MIT
// Lookups in the library's id/text tables. Each table ends with a row of id -1, "Unknown", which is
// no word of a policy. Owns nothing.
#include "names.h"

namespace tool {

// By the library's comparison, which folds ASCII letters alone whatever the locale: in a Turkish
// one "I" and "i" are no pair.
bool same_word(std::string_view a, std::string_view b)
{
    return strCmpNoCase(std::string(a).c_str(), std::string(b).c_str()) == 0;
}

std::vector<std::string_view> texts_of(const txt_map *map)
{
    std::vector<std::string_view> all;
    for (const txt_map *row = map; row->id >= 0; ++row) all.emplace_back(row->text);
    return all;
}

std::optional<u32> id_in(const txt_map *map, std::string_view word)
{
    const int id = TxtMapByTxtNoCase(map, std::string(word).c_str());
    return id < 0 ? std::nullopt : std::optional(static_cast<u32>(id));
}

std::string bit_names(u32 bits, const txt_map *map, std::string_view between)
{
    std::string out;
    for (const txt_map *row = map; row->id >= 0; ++row) {
        if (!has(bits, static_cast<u32>(row->id))) continue;
        if (!out.empty()) out += between;
        out += row->text;
    }
    return out;
}

}  // namespace tool
