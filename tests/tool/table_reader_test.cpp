// SPDX-License-Identifier: MIT
// What each way to read a key says of each kind of value, taken and refused.
#include "table_reader.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "text.h"
#include "toml_file.h"

namespace {

using std::string;
using tool::diagnostics;
using tool::table_reader;
using tool::value;

// "VALUE" or "absent" or "wrong", the place, and what was found: of key k in line 2 of a table
template <typename Read>
string read(const string &line, Read body)
{
    diagnostics found;
    const auto root = tool::parse_toml("[t]\n" + line + "\n", found);
    const toml::table *t = root ? (*root)["t"].as_table() : nullptr;
    if (t == nullptr) return "no TOML";
    table_reader in(*t, "a thing", found);
    const value<u32> v = body(in);
    string out = v.is_good() ? std::to_string(v.get()) : v.is_wrong() ? "wrong" : "absent";
    out += tool::format(" %u:%u", v.at().line, v.at().column);
    for (const tool::diagnostic &d : found.all())
        out += tool::format("\n%u:%u: %s", d.at.line, d.at.column, d.text.c_str());
    return out;
}

struct row {
    const char *given;  // of k
    string expected;
};

template <typename Read>
void expect_rows(const std::vector<row> &rows, Read body)
{
    EXPECT_EQ("absent 1:1", read("", body));
    EXPECT_EQ("absent 1:1", read("kk = 1", body));
    for (const row &r : rows)
        EXPECT_EQ(r.expected, read(string("k = ") + r.given, body)) << r.given;
}

// Refused, with this of the value and of what would be right
string wrong(const string &shown, const string &right)
{
    return "wrong 2:5\n2:5: k is " + shown + "; " + right;
}

// ---- Numbers ------------------------------------------------------------------------------------

TEST(TableReader, ANumberIsAWholeOneOfItsRange)
{
    const string right = "it is a whole number from 3 to 9";
    expect_rows({{"3", "3 2:5"},
                 {"9", "9 2:5"},
                 {"0x7", "7 2:5"},
                 {"2", wrong("2", right)},
                 {"10", wrong("10", right)},
                 {"-3", wrong("-3", right)},
                 {"4294967299", wrong("4294967299", right)},  // 2^32 + 3
                 {"9223372036854775807", wrong("9223372036854775807", right)},
                 {"'3'", wrong("\"3\"", right)},
                 {"3.0", wrong("a floating-point number", right)},
                 {"true", wrong("true", right)},
                 {"false", wrong("false", right)},
                 {"[3]", wrong("an array", right)},
                 {"{ k = 3 }", wrong("a table", right)},
                 {"2024-01-01", wrong("a date or time", right)},
                 {"01:02:03", wrong("a date or time", right)}},
                [](table_reader &in) { return in.number("k", 3, 9); });
}

TEST(TableReader, ANumberMayBeAnyOf32Bits)
{
    const string right = "it is a whole number from 0 to 4294967295";
    expect_rows({{"0", "0 2:5"},
                 {"4294967295", "4294967295 2:5"},
                 {"4294967296", wrong("4294967296", right)},
                 {"-1", wrong("-1", right)}},
                [](table_reader &in) { return in.number("k", 0, tool::no_limit); });
}

TEST(TableReader, AHandleIsShownAsPeopleWriteIt)
{
    const auto right = [](const char *least) {
        return string("a handle is a whole number from ") + least +
               " to 0xfff, since tc takes the leaf's number, 16 times as much, up to 0xffff";
    };
    expect_rows({{"1", "1 2:5"},
                 {"0xfff", "4095 2:5"},
                 {"0", wrong("0x0", right("1"))},
                 {"4096", wrong("0x1000", right("1"))},
                 {"4294967295", wrong("0xffffffff", right("1"))},
                 {"4294967296", wrong("4294967296", right("1"))},
                 {"-1", wrong("-1", right("1"))},
                 {"'1'", wrong("\"1\"", right("1"))}},
                [](table_reader &in) { return in.handle("k", 1); });
    expect_rows({{"0", "0 2:5"}, {"4096", wrong("0x1000", right("0"))}},
                [](table_reader &in) { return in.handle("k", 0); });
}

// ---- Quantities ---------------------------------------------------------------------------------

TEST(TableReader, ARateIsANumberOrAText)
{
    const string right =
        "a rate is a whole number of kbit/s up to 4294967295, or a text like \"20mbit\"";
    expect_rows({{"0", "0 2:5"},
                 {"4294967295", "4294967295 2:5"},
                 {"'20mbit'", "20000 2:5"},
                 {"4294967296", wrong("4294967296", right)},
                 {"-1", wrong("-1", right)},
                 {"1.5", wrong("a floating-point number", right)},
                 {"false", wrong("false", right)},
                 {"'20'", wrong("\"20\"", right)},
                 {"'bps'", wrong("\"bps\"", right)},
                 {"'1bps'", wrong("\"1bps\"", right)},
                 {"'1tbps'", wrong("\"1tbps\"", right)},
                 {"'1kbps'", wrong("\"1kbps\"", "kbps are bytes to tc and bits to others; write"
                                                " kbit")},
                 {"'1Mbps'", wrong("\"1Mbps\"", "mbps are bytes to tc and bits to others; write"
                                                " mbit")},
                 {"'1gbps'", wrong("\"1gbps\"", "gbps are bytes to tc and bits to others; write"
                                                " gbit")}},
                [](table_reader &in) { return in.rate("k"); });
}

TEST(TableReader, SizesAndTimesAreNumbersOrTexts)
{
    const string size =
        "a size is a whole number of bytes up to 4294967295, or a text like \"15kb\"";
    expect_rows({{"15", "15 2:5"},
                 {"'15kb'", "15360 2:5"},
                 {"4294967296", wrong("4294967296", size)},
                 {"'15ms'", wrong("\"15ms\"", size)},
                 {"'1kbps'", wrong("\"1kbps\"", size)}},
                [](table_reader &in) { return in.size("k"); });
    const string time = "a time is a whole number of ms up to 4294967295, or a text like \"20ms\"";
    expect_rows({{"15", "15 2:5"},
                 {"'2s'", "2000 2:5"},
                 {"-1", wrong("-1", time)},
                 {"'15kb'", wrong("\"15kb\"", time)}},
                [](table_reader &in) { return in.time("k"); });
}

// ---- Words and other values ---------------------------------------------------------------------

TEST(TableReader, AWordIsItsPlaceOrItsId)
{
    static constexpr std::string_view names[] = {"one", "two"};
    const string right = "it is one of one or two";
    expect_rows({{"'one'", "0 2:5"},
                 {"'TWO'", "1 2:5"},
                 {"'tw'", wrong("\"tw\"", right)},
                 {"'twos'", wrong("\"twos\"", right)},
                 {"''", wrong("\"\"", right)},
                 {"1", wrong("1", right)}},
                [](table_reader &in) { return in.word("k", names); });
    static constexpr txt_map map[] = {{5, "five"}, {8, "eight"}, {-1, "other"}};
    const string id = "it is one of five or eight";
    expect_rows({{"'five'", "5 2:5"},
                 {"'Eight'", "8 2:5"},
                 {"'other'", wrong("\"other\"", id)},
                 {"5", wrong("5", id)}},
                [](table_reader &in) { return in.word("k", map); });
}

TEST(TableReader, TextsAndFlagsAreOfTheirType)
{
    const auto text = [](table_reader &in) {
        const value<string> v = in.text("k", "it is a text");
        return v.is_absent()  ? value<u32>::absent(v.at())
               : v.is_wrong() ? value<u32>::wrong(v.at())
                              : value<u32>::good(static_cast<u32>(v.get().size()), v.at());
    };
    expect_rows({{"'abc'", "3 2:5"},
                 {"''", "0 2:5"},
                 {"1", wrong("1", "it is a text")},
                 {"['a']", wrong("an array", "it is a text")}},
                text);
    const auto flag = [](table_reader &in) {
        const value<bool> v = in.flag("k");
        return v.is_absent()  ? value<u32>::absent(v.at())
               : v.is_wrong() ? value<u32>::wrong(v.at())
                              : value<u32>::good(v.get() ? 1 : 0, v.at());
    };
    expect_rows({{"true", "1 2:5"},
                 {"false", "0 2:5"},
                 {"1", wrong("1", "it is true or false")},
                 {"'true'", wrong("\"true\"", "it is true or false")}},
                flag);
}

// The elements of an array, added up
TEST(TableReader, EachElementOfAnArrayHasItsPlace)
{
    static constexpr txt_map map[] = {{5, "five"}, {8, "eight"}, {-1, "other"}};
    const auto sum = [](table_reader &in, auto one) {
        const toml::array *all = in.array("k", "it is an array");
        if (all == nullptr)
            return in.has("k") ? value<u32>::wrong(in.at("k")) : value<u32>::absent(in.at("k"));
        value<u32> last = value<u32>::good(0, in.at("k"));
        u32 total = 0;
        for (const toml::node &node : *all) {
            last = one(node);
            total += last.get();
        }
        return last.is_good() ? value<u32>::good(total, last.at()) : last;
    };
    const string right = "; each is a whole number from 1 to 4";
    expect_rows(
        {{"[1, 4]", "5 2:9"},
         {"[]", "0 2:5"},
         {"[0]", "wrong 2:6\n2:6: k has 0" + right},
         {"[1, 5]", "wrong 2:9\n2:9: k has 5" + right},
         {"['1']", "wrong 2:6\n2:6: k has \"1\"" + right},
         {"[true, {}]", "wrong 2:12\n2:6: k has true" + right + "\n2:12: k has a table" + right},
         {"1", wrong("1", "it is an array")},
         {"{}", wrong("a table", "it is an array")}},
        [&](table_reader &in) {
            return sum(in, [&](const toml::node &n) { return in.number_in("k", n, 1, 4); });
        });
    expect_rows({{"['five', 'EIGHT']", "13 2:14"},
                 {"['other']", "wrong 2:6\n2:6: k has \"other\"; each is one of five or eight"},
                 {"[[]]", "wrong 2:6\n2:6: k has an array; each is one of five or eight"}},
                [&](table_reader &in) {
                    return sum(in, [&](const toml::node &n) { return in.word_in("k", n, map); });
                });
}

// ---- Keys ---------------------------------------------------------------------------------------

// What is found in a table of line 1
string found_in(const string &text, const std::function<void(table_reader &)> &body)
{
    diagnostics found;
    const auto root = tool::parse_toml(text, found);
    if (!root) return "no TOML";
    table_reader in(*root, "a thing", found);
    body(in);
    string out;
    for (const tool::diagnostic &d : found.sorted())
        out += tool::format("%u:%u: %s\n", d.at.line, d.at.column, d.text.c_str());
    return out;
}

TEST(TableReader, KeysThatAreMissingOrTooMany)
{
    const auto must = [](table_reader &in) {
        const bool all = in.has("a") && in.has("b");
        EXPECT_EQ(all, in.must({"a", "b"}, "a number"));
    };
    EXPECT_EQ("", found_in("a = 1\nb = 2\n", must));
    EXPECT_EQ("1:1: a thing without \"b\"; give a number\n", found_in("a = 1\n", must));
    EXPECT_EQ("1:1: a thing without \"a\"; give a number\n", found_in("b = 1\n", must));
    EXPECT_EQ("1:1: a thing without \"a\"; give a number\n"
              "1:1: a thing without \"b\"; give a number\n",
              found_in("", must));
    const auto only = [](table_reader &in) { in.only("one of those", {"rate", "ceil"}); };
    EXPECT_EQ("", found_in("rate = 1\nceil = 1\n", only));
    EXPECT_EQ("2:1: one of those has no key \"rat\"; did you mean \"rate\"?\n"
              "3:1: one of those has no key \"burst\"; its keys are rate and ceil\n",
              found_in("rate = 1\nrat = 2\nburst = 1\n", only));
}

TEST(TableReader, TablesAreReadOneByOne)
{
    const auto each = [](table_reader &in) {
        in.each_table("k", "a.", [&](const toml::table &t) {
            table_reader one(t, "one", in.found());
            one.missing("x", tool::format("it, %d", one.empty()));
        });
    };
    const string right = "it is an array of tables: [[a.k]]\n";
    EXPECT_EQ("", found_in("", each));
    EXPECT_EQ("1:1: one without \"x\"; give it, 1\n2:1: one without \"x\"; give it, 0\n",
              found_in("[[k]]\n[[k]]\ny = 1\n", each));
    EXPECT_EQ("1:5: k is a table; " + right, found_in("k = {}\n", each));
    EXPECT_EQ("1:6: k is 1; " + right + "1:9: one without \"x\"; give it, 1\n",
              found_in("k = [1, {}]\n", each));
    const auto table = [](table_reader &in) {
        EXPECT_EQ(in.has("k") && in.get("k")->is_table(), in.table("k", "a table") != nullptr);
    };
    EXPECT_EQ("", found_in("", table));
    EXPECT_EQ("", found_in("k = {}\n", table));
    EXPECT_EQ("1:5: k is an array; a table\n", found_in("k = []\n", table));
}

}  // namespace
