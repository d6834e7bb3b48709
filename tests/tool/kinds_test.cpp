// SPDX-License-Identifier: MIT
// That each kind of leaf and of root is whole: named in the header, rendered by the library, a row
// of the command, a line of the manual, a policy among the tests. A kind that is half added fails
// here by its name; what the compiler sees fails there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "leaf.h"
#include "match.h"
#include "root.h"
#include "tarnic_qos.h"

namespace {

using std::string;
using std::vector;
namespace fs = std::filesystem;

string contents(const fs::path &file)
{
    std::ifstream in(file, std::ios::binary);
    EXPECT_TRUE(in) << file;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

string lower(string text)
{
    for (char &c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// The enumerators of a prefix, in the order of their numbers: "L_pfifo = 0" gives "L_pfifo".
vector<string> enumerators(const string &prefix)
{
    const string header = contents(MORDEL_HEADER);
    const std::regex one("\\b(" + prefix + "_\\w+) = (\\d+)");
    vector<string> all;
    for (std::sregex_iterator at(header.begin(), header.end(), one), end; at != end; ++at) {
        EXPECT_EQ(std::to_string(all.size()), (*at)[2]) << (*at)[1];
        all.push_back((*at)[1]);
    }
    // One without its number, or with another than a number, is none of these.
    const std::regex any("\\b" + prefix + "_\\w+");
    for (std::sregex_iterator at(header.begin(), header.end(), any), end; at != end; ++at)
        EXPECT_NE(std::find(all.begin(), all.end(), at->str()), all.end())
            << at->str() << " has no number in mordel.h";
    return all;
}

// "L_pfifo" for the row "pfifo"; the case of the letters is the header's own.
template <typename Rows>
vector<string> lower_names(const string &prefix, const Rows &rows)
{
    vector<string> all;
    for (const auto &row : rows) all.push_back(prefix + "_" + string(row.name));
    return all;
}
vector<string> lower(vector<string> names)
{
    for (string &name : names) name = lower(name);
    return names;
}

// All policies of the tests whose output is compared whole
string shown_policies()
{
    string all;
    for (const auto &entry : fs::directory_iterator(MORDEL_POLICIES "/show"))
        if (entry.path().extension() == ".toml") all += contents(entry.path());
    return all;
}

string rendered(const leaf_qdisc &leaf)
{
    char *text = nullptr;
    std::size_t size = 0;
    FILE *out = ::open_memstream(&text, &size);
    mordel::do_leaf2cmd(out, "eth0", 0x10, &leaf);
    (void)std::fclose(out);
    const string all(text, size);
    std::free(text);
    return all;
}

TEST(Kinds, EachLeafOfTheHeaderIsWhole)
{
    const vector<string> names = enumerators("L");
    const auto rows = tool::leaf_kinds();
    ASSERT_EQ(lower(names), lower_names("l", rows)) << "mordel.h, and the rows of leaf.cpp";
    const string manual = contents(MORDEL_POLICY_MANUAL);
    const string policies = shown_policies();
    for (u32 type = 0; type < names.size(); ++type) {
        SCOPED_TRACE(names[type]);
        const string name(rows[type].name);
        EXPECT_EQ(names[type], TxtMapById(mordel::LeafQdiscTypeMap, static_cast<int>(type)));
        leaf_qdisc leaf{};
        leaf.type = type;
        const string line = rendered(leaf).substr(0, rendered(leaf).find('\n'));
        EXPECT_NE(line.find("parent 1:0x10  handle 0x100: " + name + " "), string::npos) << line;
        EXPECT_EQ(0U, (rows[type].text(leaf) + " ").find(name + " "));
        EXPECT_EQ(name, rows[type].json(leaf).at("type"));
        EXPECT_NE(manual.find("| `type = \"" + name + "\"` |"), string::npos)
            << "no line in docs/policy.md";
        EXPECT_NE(policies.find("type = \"" + name + "\""), string::npos)
            << "no policy in tests/policies/show";
    }
}

// What a kind finds when all numbers that are wanted are other than 0.
string differences_of(const tool::leaf_kind &kind, const tool::live_qdisc &seen)
{
    leaf_qdisc wanted;
    std::memset(&wanted, 1, sizeof wanted);
    wanted.type = kind.type;
    tool::differences found;
    kind.compare(0x10, wanted, seen, found);
    string all;
    for (const tool::difference &d : found.all()) all += d.text + '\n';
    return all;
}

// Options that are a record, or attributes: each of the numbers 1 to 8, with bytes other than 0
string some_options()
{
    string all;
    for (unsigned short type = 1; type <= 8; ++type) {
        const rtattr head{sizeof head + 64, type};
        all.append(reinterpret_cast<const char *>(&head), sizeof head).append(64, '\2');
    }
    return all;
}

TEST(Kinds, EachLeafComparesWhatItReadsOfTheKernel)
{
    const string options = some_options();
    for (const tool::leaf_kind &kind : tool::leaf_kinds()) {
        SCOPED_TRACE(kind.name);
        const string of_zeros = differences_of(kind, {});
        EXPECT_NE("", of_zeros);
        tool::live_qdisc seen;
        kind.from_kernel(seen, {TCA_OPTIONS, options}, 15.625);
        EXPECT_NE(of_zeros, differences_of(kind, seen));
    }
}

TEST(Kinds, EachRootOfTheHeaderIsWhole)
{
    const vector<string> names = enumerators("R");
    const auto rows = tool::root_kinds();
    ASSERT_EQ(lower(names), lower_names("r", rows)) << "mordel.h, and the rows of root.cpp";
    const string manual = contents(MORDEL_POLICY_MANUAL);
    const string policies = shown_policies();
    for (u32 type = 0; type < names.size(); ++type) {
        SCOPED_TRACE(names[type]);
        const string name(rows[type].name);
        EXPECT_EQ(names[type], TxtMapById(mordel::RootQdiscTypeMap, static_cast<int>(type)));
        EXPECT_NE(manual.find("`\"" + name + "\"`"), string::npos) << "not in docs/policy.md";
        EXPECT_NE(policies.find("root = \"" + name + "\""), string::npos)
            << "no policy in tests/policies/show";
    }
}

// The compiler sees to a row for each bit; the manual and the tests have no compiler.
TEST(Kinds, EachKeyOfARuleIsInTheManualAndTheTests)
{
    const string manual = contents(MORDEL_POLICY_MANUAL);
    const string policies = shown_policies();
    vector<string> keys;
    for (const tool::match_kind &kind : tool::match_kinds())
        keys.insert(keys.end(), kind.keys.begin(), kind.keys.end());
    for (const tool::target_kind &kind : tool::target_kinds())
        keys.insert(keys.end(), kind.keys.begin(), kind.keys.end());
    EXPECT_GE(keys.size(), 16U + 6U);
    for (const string &key : keys) {
        SCOPED_TRACE(key);
        EXPECT_TRUE(std::regex_search(manual, std::regex("\n\\|[^|]*`" + key + "`[^|]*\\|")));
        EXPECT_TRUE(std::regex_search(policies, std::regex("\\b" + key + " = ")));
    }
}

}  // namespace
