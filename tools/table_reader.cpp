// SPDX-License-Identifier: MIT
// Reads one TOML table. Owns the messages about a key by itself: unknown, missing, of the wrong
// type, out of its range. What several keys mean together is the caller's. Every reader reports its
// fault once and then gives a wrong value, so that no caller reports it again.
#include "table_reader.h"

#include <algorithm>

#include "names.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using std::string_view;

// A value as a message shows it. Texts are quoted and shortened, so that no byte of the file can
// move a terminal's cursor.
string shown(const toml::node &node)
{
    if (const auto *text = node.as_string()) return quoted(text->get());
    if (const auto *number = node.as_integer())
        return format("%lld", static_cast<long long>(number->get()));
    if (const auto *flag = node.as_boolean()) return flag->get() ? "true" : "false";
    if (node.is_floating_point()) return "a floating-point number";
    if (node.is_table()) return "a table";
    if (node.is_array()) return "an array";
    return "a date or time";
}

// TOML integers are signed and have 64 bits. The comparison is made in 64 bits: cut to 32 first,
// 4294967297 would pass for 1.
std::optional<u32> within(const toml::node &node, u32 least, u32 most)
{
    const auto *value = node.as_integer();
    if (value == nullptr || value->get() < least || value->get() > most) return std::nullopt;
    return static_cast<u32>(value->get());
}

// Words are taken in either case, here and in the library's tables (id_in).
std::optional<u32> place_in(table_reader::word_list names, const toml::node &node)
{
    const auto *word = node.as_string();
    if (word == nullptr) return std::nullopt;
    for (u32 i = 0; i < names.size(); ++i)
        if (same_word(word->get(), names[i])) return i;
    return std::nullopt;
}

std::optional<u32> id_of(const txt_map *map, const toml::node &node)
{
    const auto *word = node.as_string();
    return word == nullptr ? std::nullopt : id_in(map, word->get());
}

}  // namespace

table_reader::table_reader(const toml::table &table, string what, diagnostics &found)
    : table_(table), at_(place(table)), what_(std::move(what)), found_(found)
{}

table_reader::table_reader(const toml::table &table, const string &what, words known,
                           diagnostics &found)
    : table_reader(table, what, found)
{
    only(what, known);
}

// A key nobody knows is an error and no warning: a mistyped "ciel" would leave the class without
// its ceil, and the script would not show it.
void table_reader::only(const string &what, word_list known)
{
    for (const auto &[key, value] : table_) {
        if (std::find(known.begin(), known.end(), key.str()) != known.end()) continue;
        const string_view meant = nearest(key.str(), known);
        found_.error(place(key.source()),
                     what + " has no key " + quoted(key.str()) +
                         (meant.empty() ? "; its keys are " + joined(known, "and")
                                        : "; did you mean " + quoted(meant) + "?"));
    }
}

// A missing key has no place; the table that lacks the key stands for it.
position table_reader::at(string_view key) const
{
    const toml::node *node = table_.get(key);
    return node == nullptr ? at_ : place(*node);
}

void table_reader::missing(string_view key, const string &right)
{
    found_.error(at_, format("%s without \"%.*s\"; give %s", what_.c_str(),
                             static_cast<int>(key.size()), key.data(), right.c_str()));
}

bool table_reader::must(words keys, const string &right)
{
    bool all = true;
    for (const string_view key : keys) {
        if (has(key)) continue;
        missing(key, right);
        all = false;
    }
    return all;
}

void table_reader::wrong(string_view key, const string &right)
{
    // The key is there: a value that is wrong has been read.
    wrong(key, *table_.get(key), right);
}

void table_reader::wrong(string_view key, const toml::node &node, const string &right)
{
    found_.error(place(node), format("%.*s is %s; %s", static_cast<int>(key.size()), key.data(),
                                     shown(node).c_str(), right.c_str()));
}

void table_reader::wrong_element(string_view key, const toml::node &node, const string &right)
{
    found_.error(place(node), format("%.*s has %s; %s", static_cast<int>(key.size()), key.data(),
                                     shown(node).c_str(), right.c_str()));
}

value<string> table_reader::text(string_view key, const string &right)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<string>::absent(at_);
    if (const auto *text = node->as_string()) return value<string>::good(text->get(), place(*node));
    wrong(key, right);
    return value<string>::wrong(place(*node));
}

value<bool> table_reader::flag(string_view key)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<bool>::absent(at_);
    if (const auto *flag = node->as_boolean()) return value<bool>::good(flag->get(), place(*node));
    wrong(key, "it is true or false");
    return value<bool>::wrong(place(*node));
}

value<u32> table_reader::number(string_view key, u32 least, u32 most)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<u32>::absent(at_);
    if (const auto number = within(*node, least, most))
        return value<u32>::good(*number, place(*node));
    wrong(key, format("it is a whole number from %u to %u", least, most));
    return value<u32>::wrong(place(*node));
}

value<u32> table_reader::number_in(string_view key, const toml::node &node, u32 least, u32 most)
{
    if (const auto number = within(node, least, most))
        return value<u32>::good(*number, place(node));
    wrong_element(key, node, format("each is a whole number from %u to %u", least, most));
    return value<u32>::wrong(place(node));
}

// A number that is no handle is shown in hexadecimal, as policies and tc write handles.
value<u32> table_reader::handle(string_view key, u32 least)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<u32>::absent(at_);
    if (const auto handle = within(*node, least, highest_handle))
        return value<u32>::good(*handle, place(*node));
    const string right = format("a handle is a whole number from %u to 0xfff, since tc takes the"
                                " leaf's number, 16 times as much, up to 0xffff",
                                least);
    if (const auto number = within(*node, 0, no_limit))
        found_.error(place(*node), format("%.*s is 0x%x; %s", static_cast<int>(key.size()),
                                          key.data(), *number, right.c_str()));
    else
        wrong(key, right);
    return value<u32>::wrong(place(*node));
}

value<u32> table_reader::rate(string_view key)
{
    // First, since the general message would not tell what is wrong with "20mbps".
    if (wrong_unit(key)) return value<u32>::wrong(at(key));
    return quantity(key, parse_rate,
                    "a rate is a whole number of kbit/s up to 4294967295, or a text like"
                    " \"20mbit\"");
}

value<u32> table_reader::size(string_view key)
{
    return quantity(key, parse_size,
                    "a size is a whole number of bytes up to 4294967295, or a text like"
                    " \"15kb\"");
}

value<u32> table_reader::time(string_view key)
{
    return quantity(key, parse_time,
                    "a time is a whole number of ms up to 4294967295, or a text like"
                    " \"20ms\"");
}

// The value is the word's place in the list. Callers keep their lists in the order of the ids.
value<u32> table_reader::word(string_view key, word_list names)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<u32>::absent(at_);
    if (const auto found = place_in(names, *node)) return value<u32>::good(*found, place(*node));
    wrong(key, "it is one of " + joined(names));
    return value<u32>::wrong(place(*node));
}

value<u32> table_reader::word(string_view key, const txt_map *map)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<u32>::absent(at_);
    if (const auto id = id_of(map, *node)) return value<u32>::good(*id, place(*node));
    wrong(key, "it is one of " + joined(texts_of(map)));
    return value<u32>::wrong(place(*node));
}

// An array's element has a message with "each", since the key alone does not tell which one.
value<u32> table_reader::word_in(string_view key, const toml::node &node, const txt_map *map)
{
    if (const auto id = id_of(map, node)) return value<u32>::good(*id, place(node));
    wrong_element(key, node, "each is one of " + joined(texts_of(map)));
    return value<u32>::wrong(place(node));
}

// Null after an error too: whoever reads on has nothing to read.
const toml::table *table_reader::table(string_view key, const string &right)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return nullptr;
    if (!node->is_table()) wrong(key, right);
    return node->as_table();
}

const toml::array *table_reader::array(string_view key, const string &right)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return nullptr;
    if (!node->is_array()) wrong(key, right);
    return node->as_array();
}

// One text for two faults: the key is no array, or one of its elements is no table.
string table_reader::array_right(string_view key, string_view path)
{
    return "it is an array of tables: [[" + string(path) + string(key) + "]]";
}

// A number is in the base unit (kbit/s, bytes, ms). A text has a unit behind its number, and
// `parse` brings it to the base unit.
value<u32> table_reader::quantity(string_view key, std::optional<u32> (*parse)(string_view),
                                  const string &right)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr) return value<u32>::absent(at_);
    if (const auto number = within(*node, 0, no_limit))
        return value<u32>::good(*number, place(*node));
    if (const auto *text = node->as_string())
        if (const auto parsed = parse(text->get())) return value<u32>::good(*parsed, place(*node));
    wrong(key, right);
    return value<u32>::wrong(place(*node));
}

// tc reads kbps, mbps and gbps as bytes per second; most people who write them mean bits, and would
// get eight times the rate. No other mistake is as common, so the message tells the unit to write.
bool table_reader::wrong_unit(string_view key)
{
    const toml::node *node = table_.get(key);
    if (node == nullptr || !node->is_string()) return false;
    const auto q = split_quantity(node->as_string()->get());
    if (!q || (q->unit != "kbps" && q->unit != "mbps" && q->unit != "gbps")) return false;
    wrong(key, format("%s are bytes to tc and bits to others; write %cbit", q->unit.c_str(),
                      q->unit.front()));
    return true;
}

}  // namespace tool
