// SPDX-License-Identifier: MIT
// The steps that bring an interface's chains to its policy's rules, where some are there already.
#include "plan_rules.h"

#include <gtest/gtest.h>

#include "policy_read.h"
#include "render.h"
#include "text.h"

namespace {

using std::string;
using tool::chains_seen;
using tool::memory;
using tool::policy;
using tool::rules_state;
using tool::step;
using tool::wanted;
using lines = std::vector<string>;

// A policy of one interface whose rules mark these DSCP values, in this order
class marking {
public:
    explicit marking(const std::vector<int> &values, const char *rate = "20mbit")
    {
        string text = string("[[interface]]\nname = \"q0\"\nroot = \"htb\"\nphy_tx = \"100mbit\"\n"
                             "link_tx = \"20mbit\"\ndefault_tree = false\ndefault = 0x10\n"
                             "class = [{ handle = 1, rate = \"20mbit\" },\n"
                             "{ handle = 0x10, parent = 1, rate = \"") +
                      rate + "\" }]\nrule = [\n";
        int index = 0;
        for (const int value : values)
            text += tool::format("{ index = %d, match = { dscp = %d }, target = { mark = 0x10 } },",
                                 index++, value);
        tool::diagnostics found;
        policy_ = tool::read_policy(text + "]\n", tool::kernel_kind::vendor, found);
        EXPECT_FALSE(found.failed());
        script_ = tool::render(policy_).interfaces.at(0).start;
    }
    wanted w() const
    {
        return {policy_.interfaces.front(), script_, tool::parse_start_script(script_, "q0")};
    }
    const string &script() const { return script_; }

private:
    policy policy_;
    string script_;
};

// What `iptables -S` tells of such rules
lines listing(const std::vector<int> &values)
{
    lines all = {"-N QOS_q0", "-N QOS_q0_AUTO", "-A FORWARD -o q0 -g QOS_q0",
                 "-A OUTPUT -o q0 -g QOS_q0", "-A QOS_q0 -m connmark ! --mark 0x0 -j QOS_q0_AUTO"};
    for (const int value : values)
        all.push_back(tool::format(
            "-A QOS_q0 -m dscp --dscp 0x%02x -j MARK --set-xmark 0x10/0xffffffff", value));
    return all;
}
string text_of(const lines &all)
{
    string text;
    for (const string &line : all) text += line + "\n";
    return text;
}

chains_seen seen(const lines &present, const std::optional<lines> &expected = std::nullopt)
{
    return {chains_seen::looked::listed, "", present, expected};
}

// "! " in front of what is destructive; "line N" of the policy's script
string shown(const std::vector<step> &steps)
{
    string out;
    for (const step &s : steps)
        out += (s.destructive ? "! " : "  ") + s.command + " {" +
               (s.line == 0 ? "" : "line " + std::to_string(s.line) + ", ") + s.why + "}\n";
    return out;
}

// Lines of its script: root 5, classes, leaf and filter 6 to 9, the chains 10 to 18, the jumps 19
// and 20, the way into the other chain 21, and from here the policy's rules
constexpr int first_line = 22;

string inserted(const char *where, int value, int line)
{
    return tool::format("  -%s -m dscp --dscp 0x%02x -j MARK --set-mark 0x10  {line %d, ", where,
                        value, line);
}
string deleted(int place, int value, const char *as)
{
    return tool::format("! -D QOS_q0 %d {not in the policy: -m dscp --dscp 0x%02x -j MARK %s}\n",
                        place, value, as);
}
constexpr char as_listed[] = "--set-xmark 0x10/0xffffffff";
constexpr char as_written[] = "--set-mark 0x10";

TEST(PlanRules, ExchangesWhatDiffersOfATrial)
{
    const marking p({46, 18, 20, 22});
    EXPECT_EQ(deleted(3, 19, as_listed) + inserted("I QOS_q0 3", 18, first_line + 1) + "new}\n" +
                  inserted("A QOS_q0", 22, first_line + 3) + "new}\n",
              shown(plan_rules(p.w(), seen(listing({46, 19, 20}), listing({46, 18, 20, 22})), {})));
}

TEST(PlanRules, MovesARule)
{
    const marking p({18, 20, 46});
    EXPECT_EQ("! -D QOS_q0 2 {moved}\n" + inserted("A QOS_q0", 46, first_line + 2) + "moved}\n",
              shown(plan_rules(p.w(), seen(listing({46, 18, 20}), listing({18, 20, 46})), {})));
}

// 200 rules, and one more: one command.
TEST(PlanRules, OneMoreOfManyIsOneCommand)
{
    std::vector<int> many;
    for (int i = 0; i < 200; ++i) many.push_back(16 + i % 48);
    std::vector<int> one_more = many;
    one_more.push_back(21);
    const marking p(one_more);
    EXPECT_EQ(inserted("A QOS_q0", 21, first_line + 200) + "new}\n",
              shown(plan_rules(p.w(), seen(listing(many), listing(one_more)), {})));
}

TEST(PlanRules, DoubledJumpsAreDeleted)
{
    const marking p({46});
    lines doubled = listing({46});
    doubled.insert(doubled.begin() + 2, doubled[2]);
    EXPECT_EQ("! -D FORWARD -o q0 -g QOS_q0 {one too many}\n",
              shown(plan_rules(p.w(), seen(doubled, listing({46})), {})));
}

// ---- Without a trial ----------------------------------------------------------------------------

// Where nobody has touched the chains since the last apply, its script says which rule is which.
TEST(PlanRules, ExchangesWhatDiffersOfTheScriptAppliedLast)
{
    const marking before({46, 19, 20});
    const marking p({46, 18, 20});
    const memory known{"", before.script(), text_of(listing({46, 19, 20}))};
    const chains_seen there = seen(listing({46, 19, 20}));
    EXPECT_EQ(rules_state::other, compare_rules(p.w(), there, known));
    EXPECT_EQ(deleted(3, 19, as_written) + inserted("I QOS_q0 3", 18, first_line + 1) + "new}\n",
              shown(plan_rules(p.w(), there, known)));
}

TEST(PlanRules, LeavesRulesAloneWhenOnlyTheTreeChanges)
{
    const marking before({46, 19}, "19mbit");
    const marking p({46, 19});
    ASSERT_NE(before.script(), p.script());
    const memory known{"", before.script(), text_of(listing({46, 19}))};
    EXPECT_EQ(rules_state::as_remembered, compare_rules(p.w(), seen(listing({46, 19})), known));
    EXPECT_EQ("", shown(plan_rules(p.w(), seen(listing({46, 19})), known)));
}

// Else the old rules may be anything: all of them are loaded.
TEST(PlanRules, LoadsAllWhereTheChainsAreNotThoseOfTheScriptAppliedLast)
{
    const marking before({46, 19});
    const marking p({46, 18});
    const wanted w = p.w();
    const string replaced = shown(plan_rules(w, seen(listing({46, 19})), {}));
    EXPECT_TRUE(replaced.starts_with("! :QOS_q0 - [0:0] {its rules cannot be compared}\n"))
        << replaced;
    const auto with = [&](const memory &known, const lines &present) {
        return shown(plan_rules(w, seen(present), known));
    };
    const string listed = text_of(listing({46, 19}));
    EXPECT_EQ(replaced, with({"", before.script(), std::nullopt}, listing({46, 19})));
    EXPECT_EQ(replaced, with({"", std::nullopt, listed}, listing({46, 19})));
    EXPECT_EQ(replaced, with({"", before.script(), listed}, listing({46, 20})));
    EXPECT_EQ(replaced, with({"", "no script", listed}, listing({46, 19})));
    // A script of two rules, a listing of three: known to be others, not known which
    EXPECT_TRUE(with({"", before.script(), text_of(listing({46, 19, 19}))}, listing({46, 19, 19}))
                    .starts_with("! :QOS_q0 - [0:0] {its rules are others}\n"));
}

}  // namespace
