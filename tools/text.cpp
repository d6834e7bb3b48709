// SPDX-License-Identifier: MIT
// Owns the forms in which quantities, addresses and names are read and written. The command sets no
// locale: a policy means the same everywhere.
#include "text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <numeric>
#include <sstream>
#include <vector>

namespace tool {
namespace {

constexpr std::size_t shown_length = 60;  // bytes of a text that a message quotes

struct unit {
    std::string_view name;
    double factor;
};

// Factors to kbit/s, bytes and milliseconds. As tc counts, a kbit is 1000 bit and a kb 1024 bytes.
constexpr unit rate_units[] = {{"bit", 1e-3}, {"kbit", 1}, {"mbit", 1e3}, {"gbit", 1e6}};
constexpr unit size_units[] = {{"b", 1}, {"kb", 1024}, {"mb", 1048576}};
constexpr unit time_units[] = {{"ms", 1}, {"s", 1000}};

// A quantity in the tables' base unit; none unless it is whole and fits in 32 bits. 1e-6 allows for
// the rounding of doubles: neither 0.3 nor the factor 1e-3 has an exact one.
std::optional<u32> in_units(std::string_view text, std::span<const unit> units)
{
    const std::optional<quantity> q = split_quantity(text);
    if (!q) return std::nullopt;
    for (const unit &u : units) {
        if (u.name != q->unit) continue;
        const double value = q->value * u.factor;
        const double whole = std::round(value);
        if (whole > std::numeric_limits<u32>::max() || std::abs(value - whole) > 1e-6)
            return std::nullopt;
        return static_cast<u32>(whole);
    }
    return std::nullopt;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Whether a text may stand unquoted in a script: letters, digits and `more`, none of which a shell
// interprets. A leading dash is refused: tc and iptables would take the text for an option.
bool safe(std::string_view text, std::string_view more)
{
    return !text.empty() && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), [&](char c) {
               return is_digit(c) || is_alpha(c) || more.find(c) != std::string_view::npos;
           });
}

// The number of edits between two words; an edit changes, drops, adds or swaps letters. Row i of
// the table has the distances of a's first i letters; a swap looks two rows back.
std::size_t distance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> above_that;
    std::vector<std::size_t> above(b.size() + 1);
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(above.begin(), above.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, changed});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], above_that[j - 2] + 1);
        }
        above_that = above;
        above = row;
    }
    return above.back();
}

}  // namespace

std::string format(const char *pattern, ...)
{
    va_list args;
    va_list again;
    va_start(args, pattern);
    // vsnprintf uses its list up, and runs twice: for the length, then for the text.
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, pattern, args);
    va_end(args);
    std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
    // The NUL goes where string keeps its own.
    std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    return text;
}

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (const char c : text.substr(0, shown_length)) {
        if (c == '\n')
            out += "\\n";
        else if (c == '"' || c == '\\')
            out += {'\\', c};
        else if (c < ' ' || c > '~')
            out += format("\\x%02x", static_cast<unsigned char>(c));
        else
            out += c;
    }
    out += text.size() > shown_length ? "...\"" : "\"";
    return out;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string one_line(std::string_view text)
{
    std::string out(text);
    std::replace_if(
        out.begin(), out.end(), [](char c) { return c < ' ' || c > '~'; }, ' ');
    return out;
}

std::string brief(std::string_view said)
{
    constexpr std::size_t most = 300;
    std::string line = one_line(said);
    line.resize(line.find_last_not_of(' ') + 1);
    return line.size() <= most ? line : line.substr(0, most) + "...";
}

std::string harmless(std::string_view text)
{
    // Bytes above 0x7f stay: a name in UTF-8 remains legible.
    std::string out(text);
    std::replace_if(
        out.begin(), out.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return out;
}

std::string hex(u32 value) { return format("0x%x", value); }

std::optional<quantity> split_quantity(std::string_view text)
{
    quantity q{};
    // from_chars and not strtod: in a German locale strtod reads "1.5" as 1. It takes "inf", "nan"
    // and a minus too, which the test for a digit keeps out.
    if (text.empty() || !is_digit(text.front())) return std::nullopt;
    const char *end = text.data() + text.size();
    const auto [behind, error] =
        std::from_chars(text.data(), end, q.value, std::chars_format::fixed);
    if (error != std::errc{}) return std::nullopt;
    for (const char *at = behind; at != end; ++at) {
        if (!is_alpha(*at)) return std::nullopt;
        q.unit += static_cast<char>(std::tolower(*at));
    }
    return q;
}

std::optional<u32> parse_rate(std::string_view text) { return in_units(text, rate_units); }
std::optional<u32> parse_size(std::string_view text) { return in_units(text, size_units); }
std::optional<u32> parse_time(std::string_view text) { return in_units(text, time_units); }

std::string rate_text(u64 kbit)
{
    const char *names[] = {"kbit", "mbit", "gbit"};
    std::size_t unit = 0;
    // Exact, so that texts can be compared: 1500 stays "1500kbit", not "1.5mbit".
    while (unit < 2 && kbit != 0 && kbit % 1000 == 0) {
        kbit /= 1000;
        ++unit;
    }
    return format("%llu%s", static_cast<unsigned long long>(kbit), names[unit]);
}

std::string measured_rate(double bits)
{
    // The bounds lie where rounding would give a fourth digit: 999.5 is "1.00kbit", not "1000bit".
    const char *names[] = {"bit", "kbit", "mbit", "gbit"};
    std::size_t unit = 0;
    while (unit < 3 && bits >= 999.5) {
        bits /= 1000;
        ++unit;
    }
    const int digits = unit == 0 || bits >= 99.95 ? 0 : bits >= 9.995 ? 1 : 2;
    return format("%.*f%s", digits, bits, names[unit]);
}

std::string size_text(u64 bytes)
{
    // tc's "kb" is 1024 bytes, and its "b" a byte; a bit would be "bit".
    if (bytes != 0 && bytes % 1024 == 0)
        return format("%llukb", static_cast<unsigned long long>(bytes / 1024));
    return format("%llub", static_cast<unsigned long long>(bytes));
}

std::optional<u32> parse_ipv4(std::string_view text)
{
    u32 ip = 0;
    const char *at = text.data();
    const char *end = at + text.size();
    for (int octets = 0; octets < 4; ++octets) {
        if (octets > 0 && (at == end || *at++ != '.')) return std::nullopt;
        unsigned octet = 0;
        const auto [behind, error] = std::from_chars(at, end, octet);
        // A leading zero is refused: 010 is 8 to inet_aton and an error to inet_pton.
        if (error != std::errc{} || octet > 255 || (*at == '0' && behind != at + 1))
            return std::nullopt;
        at = behind;
        ip = ip << 8 | octet;
    }
    return at == end ? std::optional(ip) : std::nullopt;
}

std::string ipv4_text(u32 ip)
{
    return format("%u.%u.%u.%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255);
}

// A name with a leading dot would be a hidden file, or "..", in the state folder.
bool safe_name(std::string_view text) { return safe(text, "._-") && text.front() != '.'; }
bool safe_domain(std::string_view text) { return safe(text, "._-"); }
bool safe_url(std::string_view text) { return safe(text, "._-/:%+,=@"); }

bool is_mac(std::string_view text)
{
    if (text.size() != 17) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        // Every third character separates two pairs of hexadecimal digits.
        if (i % 3 == 2 ? c != ':' : std::isxdigit(c) == 0) return false;
    }
    return true;
}

std::string_view nearest(std::string_view word, std::span<const std::string_view> known)
{
    std::string_view best;
    // One edit for every three letters, but always one: a farther word is no help.
    std::size_t least = std::max<std::size_t>(word.size() / 3, 1) + 1;
    for (const std::string_view candidate : known) {
        // Each surplus letter is an edit: the distance need not be computed.
        if (word.size() > candidate.size() + least) continue;
        const std::size_t d = distance(word, candidate);
        if (d >= least) continue;
        least = d;
        best = candidate;
    }
    return best;
}

std::string joined(std::span<const std::string_view> words, const char *last)
{
    std::string out;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (i > 0) out += i + 1 == words.size() ? std::string(" ") + last + " " : ", ";
        out += words[i];
    }
    return out;
}

}  // namespace tool
