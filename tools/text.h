// SPDX-License-Identifier: MIT
// Quantities as people and tc write them, texts that are safe in a script, and texts that are safe
// on a terminal.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mordel.h"

namespace tool {

// printf into a string
__attribute__((format(printf, 1, 2))) std::string format(const char *pattern, ...);

// The text in double quotes, on one line. All but printable ASCII is escaped; cut after 60 bytes.
std::string quoted(std::string_view text);

std::vector<std::string> lines_of(const std::string &text);

// The text with a blank for each byte that is no printable ASCII
std::string one_line(std::string_view text);

// A program's message on one line, without blanks at its end, cut at 300 characters
std::string brief(std::string_view said);

// The text with a question mark for each control character: a terminal would obey an escape
// sequence in an interface's name.
std::string harmless(std::string_view text);

// "0x10"
std::string hex(u32 value);

// A number and its unit, both as written: "1.5", "mbit"
struct quantity {
    double value;
    std::string unit;
};
std::optional<quantity> split_quantity(std::string_view text);

// Whole kbit/s, bytes and milliseconds; none for a fraction, an unknown unit or over 32 bits.
std::optional<u32> parse_rate(std::string_view text);
std::optional<u32> parse_size(std::string_view text);
std::optional<u32> parse_time(std::string_view text);

// In the largest unit of tc's that needs no fraction: 20000 is "20mbit"; 0 is "0kbit".
std::string rate_text(u64 kbit);
// A measured rate, from bit/s, in three digits: "1.23mbit"
std::string measured_rate(double bits);
// Bytes, in tc's units: "6000b", "15kb" where it is exact
std::string size_text(u64 bytes);

std::optional<u32> parse_ipv4(std::string_view text);  // first octet in the most significant byte
std::string ipv4_text(u32 ip);

// Whether a text may stand in a script without quotes
bool safe_name(std::string_view text);  // of an interface; any length
bool safe_domain(std::string_view text);
bool safe_url(std::string_view text);
bool is_mac(std::string_view text);

// The known word with the fewest edits to `word`, for a suggestion; "" when none is near.
std::string_view nearest(std::string_view word, std::span<const std::string_view> known);

// "a, b or c", with another last word if that is meant
std::string joined(std::span<const std::string_view> words, const char *last = "or");

}  // namespace tool
