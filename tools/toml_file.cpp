// SPDX-License-Identifier: MIT
// Hands a text to the TOML parser, after a look for the one thing that the parser does not bound.
#include "toml_file.h"

#include "text.h"

namespace tool {
namespace {

using std::string_view;

// The place of the first key with more than 16 parts (a.b.c has three); none when there is no such
// key. toml++ bounds the depth of nested values (256) but not the parts of a key: it goes a step
// deeper for each, and thousands overflow the stack. Dots outside of keys, in 1.5, are counted too
// and do no harm: no value has 16.
std::optional<position> key_of_many_parts(string_view text)
{
    constexpr int most = 16;
    int dots = 0;
    position at;
    // Columns count characters: the bytes 10xxxxxx continue a UTF-8 character.
    const auto advance = [&](std::size_t i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\n') at = {at.line + 1, 0};
        if ((byte & 0xc0) != 0x80) ++at.column;
    };
    // The end of the text or comment around byte i: """, ', a newline; empty: around it is neither.
    string_view quote;
    for (std::size_t i = 0; i < text.size(); advance(i), ++i) {
        const string_view rest = text.substr(i);
        const char c = rest.front();
        if (!quote.empty()) {
            const bool ends = (c == quote.front() && rest.substr(0, quote.size()) == quote) ||
                              (quote.size() == 1 && c == '\n');  // the parser will refuse it
            // Only texts in double quotes know escapes: in '\' the backslash is the text.
            const bool escape = c == '\\' && quote.front() == '"' && rest.size() > 1;
            for (std::size_t n = ends ? quote.size() - 1 : escape ? 1 : 0; n > 0; --n) advance(i++);
            if (ends) quote = {};
            continue;
        }
        if (c == '"' || c == '\'') {
            quote = c == '"' ? R"(""")" : "'''";
            if (rest.substr(0, 3) != quote) quote.remove_suffix(2);
            for (std::size_t n = quote.size() - 1; n > 0; --n) advance(i++);
            continue;
        }
        if (c == '#') quote = "\n";
        // Each of these ends a key, or a value, and the next key begins.
        if (string_view("=,{}[]\n#").find(c) != string_view::npos) dots = 0;
        if (c == '.' && ++dots > most) return at;
    }
    return std::nullopt;
}

}  // namespace

std::optional<toml::table> parse_toml(string_view text, diagnostics &found)
{
    if (const auto deep = key_of_many_parts(text)) {
        found.error(*deep, "a key of more than 16 parts; those of a policy have 3 at most");
        return std::nullopt;
    }
    toml::parse_result parsed = toml::parse(text);
    if (parsed) return std::move(parsed).table();
    const toml::parse_error &e = parsed.error();
    found.error(place(e.source()), "this is no TOML: " + one_line(e.description()));
    return std::nullopt;
}

}  // namespace tool
