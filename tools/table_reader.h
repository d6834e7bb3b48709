// SPDX-License-Identifier: MIT
// A TOML table, read a key at a time: each kind of value has its own message for what is wrong.
#pragma once

#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "diagnostics.h"
#include "mordel.h"
#include "toml.h"
#include "value.h"

namespace tool {

inline constexpr u32 no_limit = 0xffffffff;  // the highest number that a key takes
inline constexpr u32 highest_handle =
    0xfff;  // a leaf qdisc's number is 16 times as much, of 16 bits

class table_reader {
public:
    using words = std::initializer_list<std::string_view>;
    using word_list = std::span<const std::string_view>;

    // what: how messages call the table, "a schedule"
    table_reader(const toml::table &table, std::string what, diagnostics &found);
    // The same, and then only().
    table_reader(const toml::table &table, const std::string &what, words known,
                 diagnostics &found);

    // Keys that are not `known` are errors. what: how the message calls the table.
    void only(const std::string &what, word_list known);
    void only(const std::string &what, words known)
    {
        only(what, word_list(known.begin(), known.size()));
    }

    position at() const { return at_; }
    // Of the key's value; of the table where there is none.
    position at(std::string_view key) const;
    bool has(std::string_view key) const { return table_.contains(key); }
    bool empty() const { return table_.empty(); }
    const toml::node *get(std::string_view key) const { return table_.get(key); }
    diagnostics &found() { return found_; }

    // An error at the table for a key that it must have
    void missing(std::string_view key, const std::string &right);
    // The same for each of the keys that is not there; false when one is not.
    bool must(words keys, const std::string &right);
    // "KEY VALUE is not ...": an error at a value, and what would be right
    void wrong(std::string_view key, const std::string &right);
    // "KEY has VALUE; ...": the same for an element of an array
    void wrong_element(std::string_view key, const toml::node &node, const std::string &right);

    value<std::string> text(std::string_view key, const std::string &right);
    value<bool> flag(std::string_view key);
    value<u32> number(std::string_view key, u32 least, u32 most);
    value<u32> number_in(std::string_view key, const toml::node &node, u32 least, u32 most);
    value<u32> handle(std::string_view key, u32 least);
    value<u32> rate(std::string_view key);  // kbit/s
    value<u32> size(std::string_view key);  // bytes
    value<u32> time(std::string_view key);  // ms

    // The place of a word in a list, or its id in one of the library's tables
    value<u32> word(std::string_view key, word_list names);
    value<u32> word(std::string_view key, const txt_map *map);
    value<u32> word_in(std::string_view key, const toml::node &node, const txt_map *map);

    // Null when the key is not there, or is something else (an error then).
    const toml::table *table(std::string_view key, const std::string &right);
    const toml::array *array(std::string_view key, const std::string &right);

    // Calls body(table) for each table of an array of tables. path: what stands in front of the
    // key in the file's headers, "interface."
    template <typename Body>
    void each_table(std::string_view key, std::string_view path, Body body)
    {
        const std::string right = array_right(key, path);
        const toml::array *all = array(key, right);
        if (all == nullptr) return;
        for (const toml::node &node : *all) {
            if (const toml::table *one = node.as_table())
                body(*one);
            else
                wrong(key, node, right);
        }
    }

private:
    static std::string array_right(std::string_view key, std::string_view path);
    void wrong(std::string_view key, const toml::node &node, const std::string &right);
    value<u32> quantity(std::string_view key, std::optional<u32> (*parse)(std::string_view),
                        const std::string &right);
    bool wrong_unit(std::string_view key);

    const toml::table &table_;
    position at_;
    std::string what_;
    diagnostics &found_;
};

}  // namespace tool
