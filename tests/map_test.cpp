// SPDX-License-Identifier: MIT
// The lookups in id/text and id/value tables, and the comparison without case.
#include <bit>
#include <cctype>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <string>

#include "fence.h"
#include "support.h"

namespace {

using Map = test::silent_test;

// Duplicates of an id (7) and of a text ("TCP"), an empty id range, both ends of the range.
constexpr txt_map texts[] = {
    {7, "HTB"}, {7, "HFSC"}, {INT_MIN, "lowest"}, {INT_MAX, "highest"}, {0, "TCP"}, {-2, "TCP"},
    {5, "abc"}, {6, "a"},    {-1, "*unknown*"},
};
constexpr txt_map no_texts[] = {{-1, "Unknown"}};

constexpr id_map ids[] = {
    {7, 70}, {7, 71}, {8, 70}, {0, -1}, {3, 30}, {INT_MIN, INT_MAX}, {INT_MAX, INT_MIN}, {-1, 99}};
constexpr id_map no_ids[] = {{-1, 55}};

// The same rows read by value, where an id of -1 is an ordinary row's.
constexpr id_map values[] = {{7, 70}, {8, 70}, {-1, 10},           {9, 90},
                             {0, 0},  {4, -2}, {INT_MIN, INT_MAX}, {INT_MAX, INT_MIN},
                             {-9, -1}};
constexpr id_map both_ways[] = {{1, 10}, {2, 20}, {-1, -1}};

TEST_F(Map, ValueOfAnId)
{
    const struct {
        int id, value;
    } cases[] = {
        {7, 70}, {8, 70},  {0, -1},  {3, 30}, {INT_MIN, INT_MAX}, {INT_MAX, INT_MIN}, {-1, 99},
        {1, 99}, {-2, 99}, {70, 99}, {30, 99}};
    for (const auto &row : cases) EXPECT_EQ(row.value, MapById(ids, row.id)) << row.id;
    for (const int id : {0, 1, -1, 55, INT_MIN, INT_MAX}) EXPECT_EQ(55, MapById(no_ids, id)) << id;
}

TEST_F(Map, IdOfAValue)
{
    const struct {
        int value, id;
    } cases[] = {
        {70, 7},  {10, -1}, {90, 9},  {0, 0}, {-2, 4}, {INT_MAX, INT_MIN}, {INT_MIN, INT_MAX},
        {-1, -9}, {7, -9},  {-9, -9}, {1, -9}};
    for (const auto &row : cases) EXPECT_EQ(row.id, MapByEvt(values, row.value)) << row.value;
}

TEST_F(Map, FirstValueOfMinusOneEndsTheSearchByValue)
{
    // Whatever lies behind is never reached, the matching row included.
    constexpr id_map at_once[] = {{42, -1}, {1, 10}, {-1, -1}};
    for (const int value : {-1, 10, 42, 0, INT_MIN}) EXPECT_EQ(42, MapByEvt(at_once, value));
    EXPECT_EQ(0, MapByEvt(ids, 30));
    EXPECT_EQ(7, MapByEvt(ids, 71));
}

TEST_F(Map, TableClosedByTwoMinusOnesServesBothWays)
{
    for (const auto &row : {both_ways[0], both_ways[1], both_ways[2]}) {
        EXPECT_EQ(row.value, MapById(both_ways, row.id));
        EXPECT_EQ(row.id, MapByEvt(both_ways, row.value));
    }
    EXPECT_EQ(-1, MapById(both_ways, 10));
    EXPECT_EQ(-1, MapByEvt(both_ways, 1));
}

TEST_F(Map, TextOfAnIdIsThePointerInTheTable)
{
    const struct {
        int id;
        const txt_map *row;
    } cases[] = {{7, &texts[0]},  {INT_MIN, &texts[2]}, {INT_MAX, &texts[3]}, {0, &texts[4]},
                 {-2, &texts[5]}, {5, &texts[6]},       {6, &texts[7]},       {-1, &texts[8]},
                 {1, &texts[8]},  {-3, &texts[8]},      {8, &texts[8]}};
    for (const auto &row : cases) EXPECT_EQ(row.row->text, TxtMapById(texts, row.id)) << row.id;
    for (const int id : {0, 1, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(no_texts[0].text, TxtMapById(no_texts, id)) << id;
}

// One key, three ways to find it.
struct text_case {
    const char *key;
    int by_prefix, whole, inside;
};

void expect_found(const txt_map *map, const text_case &row)
{
    SCOPED_TRACE(row.key);
    const test::fenced_text key(row.key);
    EXPECT_EQ(row.by_prefix, TxtMapByTxt(map, key));
    EXPECT_EQ(row.whole, TxtMapByTxtNoCase(map, key));
    EXPECT_EQ(row.inside, TxtMapByTxtStr(map, key));
}

TEST_F(Map, IdOfAText)
{
    const text_case cases[] = {
        {"HTB", 7, 7, 7},
        {"htb", -1, 7, -1},
        {"hTb", -1, 7, -1},
        {"HTB2", 7, -1, 7},
        {"HTB_extra", 7, -1, 7},
        {"HT", -1, -1, -1},
        {"H", -1, -1, -1},
        {"", -1, -1, -1},
        {"HFSC", 7, 7, 7},
        {"TCP", 0, 0, 0},
        {"xxTCPxx", -1, -1, 0},
        {"xxTCP", -1, -1, 0},
        {"xxtcpxx", -1, -1, -1},
        {"TTCP", -1, -1, 0},
        {"LOWEST", -1, INT_MIN, -1},
        {"lowest", INT_MIN, INT_MIN, INT_MIN},
        {"highest", INT_MAX, INT_MAX, INT_MAX},
        {"ab", 6, -1, 6},
        {"abc", 5, 5, 5},
        {"abcd", 5, -1, 5},
        {"a", 6, 6, 6},
        {"A", -1, 6, -1},
        {"ba", -1, -1, 6},
        {"*unknown*", -1, -1, -1},
        {"*UNKNOWN*", -1, -1, -1},
        {"x*unknown*x", -1, -1, -1},
        {"xHFSCxHTBx", -1, -1, 7},
        {"xTCPxlowest", -1, -1, INT_MIN},
    };
    for (const auto &row : cases) expect_found(texts, row);
    for (const char *key : {"", "Unknown", "unknown", "xUnknownx", "a"})
        expect_found(no_texts, {key, -1, -1, -1});
}

TEST_F(Map, FirstRowThatMatchesWins)
{
    constexpr txt_map shorter_first[] = {{1, "AF"}, {2, "AF11"}, {-1, "Unknown"}};
    constexpr txt_map longer_first[] = {{2, "AF11"}, {1, "AF"}, {-1, "Unknown"}};
    expect_found(shorter_first, {"AF11", 1, 2, 1});
    expect_found(longer_first, {"AF11", 2, 2, 2});
    expect_found(shorter_first, {"xAF11", -1, -1, 1});
    expect_found(longer_first, {"xAF11", -1, -1, 2});
    expect_found(longer_first, {"AF1", 1, -1, 1});
}

TEST_F(Map, EmptyTextMatchesAnyKeyButTheWhole)
{
    constexpr txt_map with_empty[] = {{1, "abc"}, {2, ""}, {3, "xyz"}, {-1, "Unknown"}};
    const text_case cases[] = {
        {"abc", 1, 1, 1}, {"abcd", 1, -1, 1}, {"xyz", 2, 3, 2}, {"", 2, 2, 2}, {"q", 2, -1, 2},
    };
    for (const auto &row : cases) expect_found(with_empty, row);
}

TEST_F(Map, NoCaseFoldsTheTableToo)
{
    constexpr txt_map mixed[] = {{1, "minimize-delay"}, {2, "EF\xC4"}, {-1, "Unknown"}};
    EXPECT_EQ(1, TxtMapByTxtNoCase(mixed, "MINIMIZE-DELAY"));
    EXPECT_EQ(2, TxtMapByTxtNoCase(mixed, "ef\xC4"));
    EXPECT_EQ(-1, TxtMapByTxtNoCase(mixed, "ef\xE4"));
}

// In Turkish an I is no capital i.
TEST_F(Map, NoCaseIsTheSameInTurkish)
{
    const std::string order = std::endian::native == std::endian::big ? "big" : "little";
    const std::string make =
        "localedef --" + order + "-endian -i tr_TR -f ISO-8859-9 /var/tmp/turkic >/dev/null 2>&1";
    (void)!std::system(make.c_str());
    ::setenv("LOCPATH", "/var/tmp", 1);
    const bool turkish = std::setlocale(LC_ALL, "turkic") != nullptr && std::tolower('I') != 'i';
    constexpr txt_map rows[] = {{1, "minimize"}, {2, "FINE"}, {-1, "Unknown"}};
    const int found = TxtMapByTxtNoCase(rows, "MINIMIZE");
    const int other = TxtMapByTxtNoCase(rows, "fine");
    const int capital = strCmpNoCase("I", "i");
    std::setlocale(LC_ALL, "C");
    ::unsetenv("LOCPATH");
    EXPECT_EQ(1, found);
    EXPECT_EQ(2, other);
    EXPECT_EQ(0, capital);
    if (!turkish) GTEST_SKIP() << "no Turkish locale, and none can be made";
}

// ---- Comparison --------------------------------------------------------------------------------

class CompareNoCase : public Map {};

int folded(int byte) { return byte >= 65 && byte <= 90 ? byte + 32 : byte; }

TEST_F(CompareNoCase, EveryByteAgainstEveryByte)
{
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            const char one[] = {static_cast<char>(a), '\0'};
            const char other[] = {static_cast<char>(b), '\0'};
            ASSERT_EQ(folded(a) - folded(b), strCmpNoCase(one, other)) << a << ' ' << b;
            const char behind_one[] = {'q', 'Q', static_cast<char>(a), '\0'};
            const char behind_other[] = {'Q', 'q', static_cast<char>(b), '\0'};
            ASSERT_EQ(folded(a) - folded(b), strCmpNoCase(behind_one, behind_other))
                << a << ' ' << b;
        }
    }
}

TEST_F(CompareNoCase, NullComesBeforeAnyText)
{
    EXPECT_EQ(-1, strCmpNoCase(nullptr, ""));
    EXPECT_EQ(-1, strCmpNoCase(nullptr, "abc"));
    EXPECT_EQ(1, strCmpNoCase("", nullptr));
    EXPECT_EQ(1, strCmpNoCase("abc", nullptr));
    EXPECT_EQ(0, strCmpNoCase(nullptr, nullptr));
}

TEST_F(CompareNoCase, WholeTexts)
{
    const struct {
        std::string a, b;
        int result;
    } cases[] = {
        {"", "", 0},
        {"abc", "ABD", 'c' - 'd'},
        {"ABD", "abc", 'd' - 'c'},
        {"abc", "ABC", 0},
        {"abc", "ab", 'c'},
        {"AB", "abC", -'c'},
        {"", "Z", -'z'},
        {"Z", "", 'z'},
        {"Minimize-Delay", "MINIMIZE-DELAY", 0},
        {"\xC4", "\xE4", 0xC4 - 0xE4},
        {"\xFF", "a", 0xFF - 'a'},
        {"[", "{", '[' - '{'},
        {"@", "`", '@' - '`'},
        {"_", "A", '_' - 'a'},
        {std::string("ab\0X", 4), std::string("AB\0Y", 4), 0},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.a + " | " + row.b);
        const test::fenced_text a(row.a);
        const test::fenced_text b(row.b);
        EXPECT_EQ(row.result, strCmpNoCase(a, b));
    }
}

TEST_F(CompareNoCase, ReadsNothingBehindTheFirstDifference)
{
    // Texts without an end, that differ in their last readable byte.
    const test::fenced_bytes a("abX", 3);
    const test::fenced_bytes b("aBY", 3);
    EXPECT_EQ('x' - 'y', strCmpNoCase(a.data(), b.data()));
}

}  // namespace
