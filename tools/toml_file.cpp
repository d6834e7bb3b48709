// SPDX-License-Identifier: MIT
// Hands a text to the TOML parser, after a walk over the text for what the parser cannot stand:
// toml++ 3.3 aborts on the texts below, or meets undefined behaviour, depending on how it was
// compiled. All but the last two are no TOML.
//   [+a] [[]           it takes for granted that a table's name begins as a name may
//   é outside quotes   its test for blanks beyond ASCII has no answer for some 2,000 characters
//   "\é" in """        likewise
//   -1"é" 0b{          likewise: it takes a number and quotes or brackets at its end for one word
//   [ } ]              it takes for granted that } ends no value of an array
//   2024-01-01 7,      and that nothing ends a value behind the first digit of a time of day
//   2024-01-01Tnoon:   and that a digit follows the T
//   a.b.c...           it goes a step deeper for each part of a key, and thousands overflow the
//                      stack; it bounds the depth of nested values alone (256)
//   """\   é"""        its test for blanks again, where a line's end is escaped; this is valid
#include "toml_file.h"

#include <array>

#include "text.h"

namespace tool {
namespace {

using std::string;
using std::string_view;

struct fault {
    position at;
    const char *what;
};
using verdict = std::optional<fault>;

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_ascii(char c) { return (static_cast<unsigned char>(c) & 0x80) == 0; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alphanumeric(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || is_digit(c);
}
bool is_name_char(char c) { return is_alphanumeric(c) || c == '_' || c == '-'; }
bool is_quote(char c) { return c == '"' || c == '\''; }
bool is_one_of(string_view set, char c) { return set.find(c) != string_view::npos; }

constexpr string_view ends_of_words = " \t\r\n\v\f=,[]{}\"'#";

bool is_date(string_view text)  // 2024-01-01; more than 4 digits before it do no harm
{
    constexpr string_view form = "0000-00-00";
    for (std::size_t i = 0; i < form.size(); ++i)
        if (is_digit(form[i]) ? !is_digit(text[i]) : text[i] != '-') return false;
    return true;
}

// Steps over the text as TOML's grammar does: blanks, names, strings, comments. From the parser's
// first complaint on it may lose its way, which does no harm: the text is refused then anyway.
class text_walk {
public:
    explicit text_walk(string_view text) : text_(text) {}

    // The first thing that the parser cannot stand; none: the text may be parsed.
    verdict run();
    // The text for the parser, once run() has found nothing
    string_view text() const { return changed_.empty() ? text_ : string_view(changed_); }

private:
    bool done() const { return i_ >= text_.size(); }
    // 0 beyond the end
    char ahead(std::size_t n = 0) const { return i_ + n < text_.size() ? text_[i_ + n] : '\0'; }
    bool is_ahead(string_view what) const { return text_.substr(i_, what.size()) == what; }
    void step(std::size_t n = 1);
    void step_over_blanks();
    verdict character(char c);
    verdict header();
    bool is_time_of_day(char c) const;
    bool may_open(char c) const;
    verdict key_or_value(char c);
    void enter_or_leave(char c);
    void comment();
    verdict string_of_one_line(char quote);
    verdict string_of_many_lines(char quote);
    verdict escape();
    void escape_next();

    string_view text_;
    std::size_t i_ = 0;       // the byte that is looked at
    position at_;             // its place
    string brackets_;         // those of values that are open, the innermost last
    bool in_value_ = false;   // behind a =, to the end of its value
    bool line_start_ = true;  // nothing but blanks on this line yet, and no bracket is open
    int dots_ = 0;            // in this key; dots of values are counted too: none has 16
    string changed_;          // the text up to changed_to_, where it had to be changed
    std::size_t changed_to_ = 0;
};

// Columns count characters: the bytes 10xxxxxx continue a UTF-8 character.
void text_walk::step(std::size_t n)
{
    for (; n > 0 && !done(); --n, ++i_) {
        if (text_[i_] == '\n') at_ = {at_.line + 1, 0};
        const char next = ahead(1);
        if ((static_cast<unsigned char>(next) & 0xc0) != 0x80) ++at_.column;
    }
}

void text_walk::step_over_blanks()
{
    while (is_blank(ahead())) step();
}

void text_walk::comment()
{
    while (!done() && ahead() != '\n') step();
}

verdict text_walk::run()
{
    constexpr string_view byte_order_mark = "\xef\xbb\xbf";
    if (is_ahead(byte_order_mark)) i_ = byte_order_mark.size();
    while (!done()) {
        verdict found = character(ahead());
        if (found) return found;
    }
    if (!changed_.empty()) changed_ += text_.substr(changed_to_);
    return std::nullopt;
}

// One character, or all that begins with it and is no name or value without quotes
verdict text_walk::character(char c)
{
    // Each of these ends a key, or a value, and the next key begins.
    if (is_one_of("=,{}[]\n#", c)) dots_ = 0;
    if (line_start_ && c == '[') return header();
    line_start_ = c == '\n' ? brackets_.empty() : line_start_ && is_blank(c);
    if (!may_open(c))
        return fault{at_, "this is no TOML: a blank, a comma, [ or = is missing before this"};
    if (is_quote(c))
        return is_ahead(string(3, c)) ? string_of_many_lines(c) : string_of_one_line(c);
    if (c == '#') {
        comment();
        return std::nullopt;
    }
    return key_or_value(c);
}

// [name], [[name]]: the brackets and what the name begins with
verdict text_walk::header()
{
    line_start_ = false;
    step(ahead(1) == '[' ? 2 : 1);
    step_over_blanks();
    const char c = ahead();
    // The parser itself refuses an end of the text and an empty name.
    if (done() || is_name_char(c) || is_quote(c) || c == ']') return std::nullopt;
    return fault{
        at_,
        "this is no TOML: here a table's name is missing, or needs double quotes: without them it "
        "has letters, digits, - and _ alone"};
}

verdict text_walk::key_or_value(char c)
{
    constexpr int most = 16;
    if (c == '.' && ++dots_ > most)
        return fault{at_, "a key of more than 16 parts; those of a policy have 3 at most"};
    if (!is_ascii(c))
        return fault{at_, "this is no TOML: a letter or sign beyond ASCII needs quotes around it"};
    const bool in_array = !brackets_.empty() && brackets_.back() == '[';
    if (c == '}' && in_array)
        return fault{at_, "this is no TOML: an array that began with [ ends with ], not }"};
    if (!is_time_of_day(c))
        return fault{at_, "this is no TOML: a second value without a comma, or no whole time of "
                          "day such as 07:30:00"};
    enter_or_leave(c);
    step();
    return std::nullopt;
}

// Keeps account of open brackets, and of whether keys or values come next.
void text_walk::enter_or_leave(char c)
{
    const bool in_table = !brackets_.empty() && brackets_.back() == '{';
    if (c == '[' || c == '{') brackets_ += c;
    if ((c == ']' || c == '}') && !brackets_.empty()) brackets_.pop_back();
    if (is_one_of("=]}", c)) in_value_ = true;
    if (c == '{' || (c == ',' && in_table) || (c == '\n' && brackets_.empty())) in_value_ = false;
}

// False for what stands in the place of the time behind a date, and is none: one digit behind a
// blank, and anything but a digit behind a T.
bool text_walk::is_time_of_day(char c) const
{
    if (!in_value_ || i_ < 10) return true;
    if (c == 'T' || c == 't') return is_digit(ahead(1)) || !is_date(text_.substr(i_ - 10, 10));
    return !is_digit(c) || text_[i_ - 1] != ' ' || is_one_of(ends_of_words, text_[i_ - 2]) ||
           !is_one_of(ends_of_words, ahead(1));
}

// Whether quotes or an opening bracket may stand here: not right behind a number or a word.
bool text_walk::may_open(char c) const
{
    return !in_value_ || !is_one_of("[{\"'", c) || is_one_of(ends_of_words, text_[i_ - 1]);
}

verdict text_walk::string_of_one_line(char quote)
{
    step();
    // The end of the line ends the string too: the parser will refuse it.
    while (!done() && ahead() != quote && ahead() != '\n') {
        // Only texts in double quotes know escapes: in '\' the backslash is the text.
        step(quote == '"' && ahead() == '\\' && ahead(1) != '\n' ? 2 : 1);
    }
    if (ahead() == quote) step();
    return std::nullopt;
}

verdict text_walk::string_of_many_lines(char quote)
{
    const string three(3, quote);
    step(3);
    while (!done() && !is_ahead(three)) {
        if (quote == '"' && ahead() == '\\') {
            if (verdict found = escape()) return found;
        } else {
            step();
        }
    }
    step(3);
    // Two quotes before the three that end the string belong to the string.
    for (int more = 0; more < 2 && ahead() == quote; ++more) step();
    return std::nullopt;
}

// In a string of many lines: a backslash, and what it escapes
verdict text_walk::escape()
{
    step();
    if (!is_ascii(ahead()))
        return fault{at_, "this is no TOML: only some ASCII letters may follow a backslash"};
    if (!is_blank(ahead()) && ahead() != '\r' && ahead() != '\n') {
        step();
        return std::nullopt;
    }
    // The end of the line is escaped, and so are all blanks and further ends behind it.
    while (is_one_of(" \t\r\n", ahead()) && !done()) step();
    if (!is_ascii(ahead())) escape_next();
    return std::nullopt;
}

// Writes the next character, of two to four bytes, as \UXXXXXXXX, which means the same. The columns
// behind it on this line then count too many. What is no UTF-8 stays: the parser will refuse it.
void text_walk::escape_next()
{
    const auto lead = static_cast<unsigned char>(ahead());
    const std::size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : lead >= 0xc0 ? 2 : 1;
    u32 value = lead & (0xffU >> (bytes + 1));
    for (std::size_t n = 1; n < bytes; ++n) {
        const auto byte = static_cast<unsigned char>(ahead(n));
        if ((byte & 0xc0) != 0x80) return;
        value = value << 6 | (byte & 0x3fU);
    }
    // The least number that needs so many bytes; none of one byte is beyond ASCII.
    constexpr std::array<u32, 5> least = {0, 0xffffffff, 0x80, 0x800, 0x10000};
    if (lead > 0xf4 || value < least[bytes]) return;
    changed_ += text_.substr(changed_to_, i_ - changed_to_);
    changed_ += format("\\U%08X", value);
    step(bytes);
    changed_to_ = i_;
}

}  // namespace

std::optional<toml::table> parse_toml(string_view text, diagnostics &found)
{
    text_walk walk(text);
    if (const verdict refused = walk.run()) {
        found.error(refused->at, refused->what);
        return std::nullopt;
    }
    toml::parse_result parsed = toml::parse(walk.text());
    if (parsed) return std::move(parsed).table();
    const toml::parse_error &e = parsed.error();
    found.error(place(e.source()), "this is no TOML: " + one_line(e.description()));
    return std::nullopt;
}

}  // namespace tool
