// SPDX-License-Identifier: MIT
// Texts that the TOML parser aborts on, or for which its behaviour is undefined, are refused before
// it; all that is TOML is taken.
#include "toml_file.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "text.h"

namespace {

using std::string;
using std::string_view;

// The first error as "LINE:COLUMN: TEXT"; "" for good TOML
string answer(string_view text)
{
    tool::diagnostics found;
    const bool good = tool::parse_toml(text, found).has_value();
    EXPECT_EQ(good, !found.failed());
    if (good || found.all().empty()) return "";
    const tool::diagnostic &first = found.all().front();
    return tool::format("%u:%u: %s", first.at.line, first.at.column, first.text.c_str());
}

struct refusal {
    string_view text;
    string_view place;
};

void expect_refused(const std::vector<refusal> &all, const string &what)
{
    for (const refusal &r : all)
        EXPECT_EQ(answer(r.text), string(r.place) + ": this is no TOML: " + what) << r.text;
}

TEST(TomlFile, TableNamesBeginAsNamesDo)
{
    expect_refused({{"[+a]", "1:2"},
                    {"[!x]", "1:2"},
                    {"[é]", "1:2"},
                    {"[[+a]]", "1:3"},
                    {"[[[a]]]", "1:3"},
                    {"[ [a]]", "1:3"},
                    {"a = 1\n[ \t=]", "2:4"},
                    {"a = 1\n  [\n]", "2:4"},
                    {"[#a]", "1:2"},
                    {"\xef\xbb\xbf[+a]", "1:2"},  // behind a byte order mark
                    {"[\xef\xb7\xbf]", "1:2"},    // U+FDFF
                    {"a = [\n1 ]\n[.a]", "3:2"},
                    {"a = \"\"\"\n[+b]\n\"\"\"\"\"\n[+c]", "4:2"}},
                   "here a table's name is missing, or needs double quotes: without them it has "
                   "letters, digits, - and _ alone");
}

TEST(TomlFile, OtherBadKeysAreTheParsersToRefuse)
{
    for (const char *text :
         {"a.+b = 1", "+a = 1", "a = {+a = 1}", "[a.+b]", "[]", "[[]]", "[", "[ "})
        EXPECT_NE(answer(text), "") << text;
}

TEST(TomlFile, SignsBeyondAsciiStandInQuotes)
{
    expect_refused({{"é = 1", "1:1"},
                    {"a.é = 1", "1:3"},
                    {"[a.é]", "1:4"},
                    {"[a] é", "1:5"},
                    {"a é = 1", "1:3"},
                    {"a = é", "1:5"},
                    {"a = 1é", "1:6"},
                    {"a = true\xef\xb7\xbf", "1:9"},
                    {"a = [1, é]", "1:9"},
                    {"a = { b = 1, é = 2 }", "1:14"},
                    {"é\n'é'", "1:1"},
                    {"\"é\" = \"é\" é", "1:11"},
                    {"# é\na = '\\' é", "2:9"},
                    {"a = [\"\"\"x\"\"\"\"\", é]", "1:17"},
                    {"a = 1\n\xe2\x80\xa8", "2:1"}},  // U+2028
                   "a letter or sign beyond ASCII needs quotes around it");
}

TEST(TomlFile, ArraysAreNotClosedAsTablesAre)
{
    expect_refused({{"a = [}", "1:6"},
                    {"a = [1, }", "1:9"},
                    {"a = { b = [ } }", "1:13"},
                    {"a = [[1], \n}", "2:1"},
                    {"a = [\"\"\"x\"\"\"\", }", "1:16"}},  // a quote before the three that close
                   "an array that began with [ ends with ], not }");
}

TEST(TomlFile, QuotesAndBracketsStandApartFromWords)
{
    expect_refused({{"a = -1\"é\"", "1:7"},
                    {"a = 0b\"é", "1:7"},
                    {"a = 1.\"é\"", "1:7"},
                    {"a = +0b{1\"é\"", "1:8"},
                    {"a = 1['é']", "1:6"},
                    {"a = 1:2'é'", "1:8"},
                    {"a = { b = 1'é' }", "1:12"},
                    {"a = [ { b = 1 }, 1'é' ]", "1:19"}},
                   "a blank, a comma, [ or = is missing before this");
}

TEST(TomlFile, BehindADateComesATimeOfDay)
{
    expect_refused({{"a = 2024-01-01 1\n", "1:16"},
                    {"a = [2024-01-01 1, 2]", "1:17"},
                    {"a = 2024-01-01true1T1:", "1:15"},
                    {"a = 2024-01-01Tnoon:00", "1:15"},
                    {"a = 2024-01-01t\\0:00:00Z", "1:15"}},
                   "a second value without a comma, or no whole time of day such as 07:30:00");
}

TEST(TomlFile, BackslashesEscapeAsciiAlone)
{
    expect_refused({{"a = \"\"\"\\é\"\"\"", "1:9"}, {"a = \"\"\"x\n\\\xef\xb7\xbf\"\"\"", "2:2"}},
                   "only some ASCII letters may follow a backslash");
}

TEST(TomlFile, StringsKeysInQuotesAndCommentsHoldAnyCharacter)
{
    for (const char *text :
         {"a = \"é\xef\xb7\xbf\" # é\xef\xb7\xbf",
          "a = 'é\xef\xb7\xbf'",
          "\"é\" = 1",
          "'é'.'\xef\xb7\xbf'.b = 1",
          "[\"+a\"]",
          "[ 'é' . b ]",
          "[[ \"é\" ]]",
          "1.\"é\" = 2",
          "2024-01-01Tnoon = 1",
          "a = { \"é\" = 1, b.'é' = [ 'é', \"é\" ], c = { d = 'é' } }",
          "a = [[],['é'],{},{b=\"é\"},\n# [+a]\n'[+a]']",
          "a = \"\"\"\n[+a]\né\"\"\"",
          "a = '''\n[+a]\n\\é'''",
          "a = \"\\\\\" # é",
          "a = [\"\"\"x\"\"\"\"\", 'é']",
          "a = ''''''",
          "a = 2024-01-01 10:00:00\nb = 2024-01-01T10:00:00Z\nc = 2024-01-01 # d",
          "a = [ 1, 2 ,3]\nb = 1 # c",
          "\xef\xbb\xbf[a]\r\nb = 1\r\n",
          ""})
        EXPECT_EQ(answer(text), "") << text;
}

// Behind an escaped end of a line the parser asks of each character whether it is a blank.
TEST(TomlFile, LinesMayGoOnWithAnyCharacter)
{
    const string text =
        "a = \"\"\"x\\\n  é \\ \n\n\xef\xb7\xbfy\\\n\xf0\x9f\x98\x80\"\"\"\nb = '''\\\né'''\n";
    tool::diagnostics found;
    const auto root = tool::parse_toml(text, found);
    ASSERT_TRUE(root.has_value());
    EXPECT_EQ((*root)["a"].value_or(string()), "xé \xef\xb7\xbfy\xf0\x9f\x98\x80");
    EXPECT_EQ((*root)["b"].value_or(string()), "\\\né");
    EXPECT_EQ((*root)["b"].node()->source().begin.line, 6U);
    EXPECT_NE(answer("a = \"\"\"\\\n\xff\"\"\""), "");  // no UTF-8
    EXPECT_NE(answer("a = \"\"\"\\\n\xa9\"\"\"\"\"\""), "");
    EXPECT_NE(answer("a = \"\"\"\\\n\xe0\x80\x80\"\"\""), "");
}

}  // namespace
