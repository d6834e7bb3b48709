// SPDX-License-Identifier: MIT
// Which lines two lists have in common; lists are written as words, a letter a line.
#include "common_lines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string_view>

namespace {

using std::string;
using lines = std::vector<string>;

lines letters(std::string_view word)
{
    lines all;
    for (const char c : word) all.emplace_back(1, c);
    return all;
}

// The letters that stay
string common(std::string_view before, std::string_view after)
{
    const lines a = letters(before);
    const lines b = letters(after);
    string kept;
    for (const auto &[i, j] : tool::common_lines(a, b)) {
        EXPECT_EQ(a.at(i), b.at(j));
        kept += a.at(i);
    }
    return kept;
}

TEST(CommonLines, AreInTheOrderOfBoth)
{
    EXPECT_EQ("", common("", ""));
    EXPECT_EQ("", common("abc", ""));
    EXPECT_EQ("", common("", "abc"));
    EXPECT_EQ("", common("abc", "xyz"));
    EXPECT_EQ("abc", common("abc", "abc"));
    EXPECT_EQ("ac", common("abc", "ac"));
    EXPECT_EQ("ac", common("ac", "abc"));
    EXPECT_EQ("abd", common("axbyd", "abzd"));
    EXPECT_EQ("bcde", common("abcde", "bcdea")) << "the one that moved, and not the four";
    EXPECT_EQ("abcd", common("abcde", "eabcd"));
}

TEST(CommonLines, ThatComeTwiceArePairedOnceForEachPlace)
{
    EXPECT_EQ("aa", common("aaa", "aa"));
    EXPECT_EQ("aa", common("aa", "aaa"));
    EXPECT_EQ("ba", common("aba", "ba")) << "the second a, not the first";
    EXPECT_EQ("abab", common("ababab", "xabyabz"));
}

// What the places say, not only the letters
TEST(CommonLines, AreToldByTheirPlaces)
{
    using pairs = std::vector<std::pair<std::size_t, std::size_t>>;
    EXPECT_EQ((pairs{{0, 0}, {2, 1}, {3, 3}}),
              tool::common_lines(letters("axbc"), letters("abyc")));
}

// The textbook's table, of all lengths
std::size_t longest(const lines &a, const lines &b)
{
    std::vector<std::vector<std::size_t>> n(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j < b.size(); ++j)
            n[i + 1][j + 1] = a[i] == b[j] ? n[i][j] + 1 : std::max(n[i][j + 1], n[i + 1][j]);
    return n[a.size()][b.size()];
}

TEST(CommonLines, AreAsManyAsCanBe)
{
    for (unsigned pass = 0; pass < 2000; ++pass) {
        std::mt19937 random(pass);
        const unsigned kinds = 1 + random() % 8;
        const auto word = [&] {
            string text;
            for (auto left = random() % 14; left > 0; --left)
                text += static_cast<char>('a' + random() % kinds);
            return text;
        };
        const string before = word();
        const string after = word();
        const auto pairs = tool::common_lines(letters(before), letters(after));
        EXPECT_EQ(longest(letters(before), letters(after)), pairs.size()) << before << " " << after;
        for (std::size_t k = 0; k < pairs.size(); ++k) {
            EXPECT_EQ(before.at(pairs[k].first), after.at(pairs[k].second));
            if (k == 0) continue;
            EXPECT_LT(pairs[k - 1].first, pairs[k].first) << before << " " << after;
            EXPECT_LT(pairs[k - 1].second, pairs[k].second) << before << " " << after;
        }
    }
}

// With a table, or with a link for each pair of equal lines, this would take gigabytes.
TEST(CommonLines, OfManyEqualLinesTakeNoSquareOfThem)
{
    lines before(100000, "the same");
    lines after = before;
    after.insert(after.begin() + 50000, "new");
    EXPECT_EQ(100000U, tool::common_lines(before, after).size());
}

}  // namespace
