// SPDX-License-Identifier: MIT
// That each kind of leaf and of root is whole: named in the header, rendered by the library, a row
// of the command, a line of the manual, a policy among the tests. A kind that is half added fails
// here by its name; what the compiler sees fails there.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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
    return all;
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
    ASSERT_EQ(names.size(), rows.size()) << "a leaf of mordel.h without its row in leaf.cpp";
    const string manual = contents(MORDEL_POLICY_MANUAL);
    const string policies = shown_policies();
    for (u32 type = 0; type < names.size(); ++type) {
        SCOPED_TRACE(names[type]);
        const string name(rows[type].name);
        EXPECT_EQ(lower(names[type]), "l_" + name);
        EXPECT_EQ(names[type], TxtMapById(mordel::LeafQdiscTypeMap, static_cast<int>(type)));
        leaf_qdisc leaf{};
        leaf.type = type;
        const string line = rendered(leaf).substr(0, rendered(leaf).find('\n'));
        EXPECT_NE(line.find("parent 1:0x10  handle 0x100: " + name + " "), string::npos) << line;
        EXPECT_NE(manual.find("| `type = \"" + name + "\"` |"), string::npos)
            << "no line in docs/policy.md";
        EXPECT_NE(policies.find("type = \"" + name + "\""), string::npos)
            << "no policy in tests/policies/show";
    }
}

TEST(Kinds, EachRootOfTheHeaderIsWhole)
{
    const vector<string> names = enumerators("R");
    const auto rows = tool::root_kinds();
    ASSERT_EQ(names.size(), rows.size()) << "a root of mordel.h without its row in root.cpp";
    const string manual = contents(MORDEL_POLICY_MANUAL);
    const string policies = shown_policies();
    for (u32 type = 0; type < names.size(); ++type) {
        SCOPED_TRACE(names[type]);
        const string name(rows[type].name);
        EXPECT_EQ(lower(names[type]), "r_" + name);
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
