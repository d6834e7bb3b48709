// SPDX-License-Identifier: MIT
// An interface's lines of the mangle table, and the input of iptables-restore about them.
#include "chains.h"

#include <gtest/gtest.h>

namespace {

using std::string;
using tool::command;
using tool::object;
using lines = std::vector<string>;

// A line each, with what it is about and its line of the script
string shown(const std::vector<command> &all)
{
    string out;
    for (const command &c : all)
        out += c.text + " {" + object_text(c.what) + (c.line == 0 ? "" : ", line ") +
               (c.line == 0 ? "" : std::to_string(c.line)) + "}\n";
    return out;
}

const std::vector<command> rules = {
    {"-A FORWARD -o q0 -g QOS_q0", {object::kind::jump, 0, "FORWARD"}, 20, false},
    {"-A QOS_q0 -j MARK --set-mark 0x10 ", {object::kind::rule, 0, "QOS_q0"}, 21, false}};

TEST(Chains, HaveTheirInterfacesName)
{
    EXPECT_EQ("QOS_q0", tool::rule_chain("q0"));
    EXPECT_EQ("QOS_q0_AUTO", tool::automark_chain("q0"));
}

TEST(Chains, OwnLinesAreThoseOfOneInterface)
{
    const string own =
        "-N QOS_q0\n"
        "-N QOS_q0_AUTO\n"
        "-A FORWARD -o q0 -g QOS_q0\n"
        "-A OUTPUT -o q0 -g QOS_q0\n"
        "-A QOS_q0 -m connmark ! --mark 0x0 -j QOS_q0_AUTO\n"
        "-A QOS_q0\n"
        "-A QOS_q0_AUTO -m connmark --mark 0x64 -j MARK --set-xmark 0x10/0xffffffff\n";
    const string others = "-P FORWARD ACCEPT\n"
                          "-N QOS_q01\n"
                          "-N QOS_q0_AUTO2\n"
                          "-N QOS_q\n"
                          "-N XQOS_q0\n"
                          "-A FORWARD -o q01 -g QOS_q01\n"
                          "-A FORWARD -o q0 -g QOS_q01\n"
                          "-A FORWARD -o q1 -g QOS_q0\n"
                          "-A FORWARD -o q0 -j QOS_q0\n"
                          "-A FORWARD -i q0 -g QOS_q0\n"
                          "-A PREROUTING -o q0 -g QOS_q0\n"
                          "-A QOS_q01 -j QOS_q0\n"
                          "-A QOS_q01\n"
                          "-A QOS_q0_AUTO2 -j QOS_q0\n"
                          "-A FORWARD -o q0 -m mark --mark 1 -g QOS_q0\n";
    string text;
    for (const string &line : tool::own_lines(others + own + others, "q0")) text += line + "\n";
    EXPECT_EQ(own, text);
    EXPECT_EQ(lines{}, tool::own_lines("", "q0"));
}

TEST(Chains, AreMadeWhereNoneAreThought)
{
    EXPECT_EQ("-N QOS_q0 {chain QOS_q0}\n"
              "-N QOS_q0_AUTO {chain QOS_q0_AUTO}\n"
              "-A FORWARD -o q0 -g QOS_q0 {jump of FORWARD, line 20}\n"
              "-A QOS_q0 -j MARK --set-mark 0x10  {rule of QOS_q0, line 21}\n",
              shown(tool::lines_to_load(rules, "q0")));
}

TEST(Chains, AreEmptiedAndTheirJumpsDeletedWhereTheyAre)
{
    const string opened = ":QOS_q0 - [0:0] {chain QOS_q0}\n"
                          ":QOS_q0_AUTO - [0:0] {chain QOS_q0_AUTO}\n";
    const string added = "-A FORWARD -o q0 -g QOS_q0 {jump of FORWARD, line 20}\n"
                         "-A QOS_q0 -j MARK --set-mark 0x10  {rule of QOS_q0, line 21}\n";
    EXPECT_EQ(opened + added, shown(tool::lines_to_replace(rules, "q0", {})));
    EXPECT_EQ(opened +
                  "-D FORWARD -o q0 -g QOS_q0 {jump of FORWARD}\n"
                  "-D FORWARD -o q0 -g QOS_q0 {jump of FORWARD}\n"
                  "-D OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT}\n" +
                  added,
              shown(tool::lines_to_replace(
                  rules, "q0",
                  {"-N QOS_q0", "-N QOS_q0_AUTO", "-A FORWARD -o q0 -g QOS_q0",
                   "-A FORWARD -o q0 -g QOS_q0", "-A OUTPUT -o q0 -g QOS_q0",
                   "-A QOS_q0 -m connmark ! --mark 0x0 -j QOS_q0_AUTO",
                   "-A QOS_q0_AUTO -m connmark --mark 0x64 -j MARK --set-xmark 0x10/0xffffffff"})));
}

// A chain that something leads to, or that holds something, cannot be removed.
TEST(Chains, AreRemovedBehindTheirJumpsAndRules)
{
    EXPECT_EQ("-D FORWARD -o q0 -g QOS_q0 {jump of FORWARD}\n"
              "-D OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT}\n"
              "-F QOS_q0 {chain QOS_q0}\n"
              "-F QOS_q0_AUTO {chain QOS_q0_AUTO}\n"
              "-X QOS_q0 {chain QOS_q0}\n"
              "-X QOS_q0_AUTO {chain QOS_q0_AUTO}\n",
              shown(tool::lines_to_remove(
                  {"-N QOS_q0", "-N QOS_q0_AUTO", "-A FORWARD -o q0 -g QOS_q0",
                   "-A OUTPUT -o q0 -g QOS_q0", "-A QOS_q0 -m dscp --dscp 0x2e -j MARK",
                   "-A QOS_q0_AUTO -j MARK"})));
    EXPECT_EQ("", shown(tool::lines_to_remove({})));
}

// ---- Exchanged ----------------------------------------------------------------------------------

// A script's commands: jumps, the way into the other chain, and rules for these marks
std::vector<command> script(const std::vector<const char *> &marks)
{
    std::vector<command> all = {
        {"-A FORWARD -o q0 -g QOS_q0", {object::kind::jump, 0, "FORWARD"}, 20, false},
        {"-A OUTPUT -o q0 -g QOS_q0", {object::kind::jump, 0, "OUTPUT"}, 21, false}};
    unsigned line = 22;
    for (const char *mark : marks)
        all.push_back({string("-A QOS_q0 -j MARK --set-mark ") + mark + " ",
                       {object::kind::rule, 0, "QOS_q0"},
                       line++,
                       false});
    all.push_back(
        {"-A QOS_q0_AUTO -j MARK --set-mark 9", {object::kind::rule, 0, "QOS_q0_AUTO"}, 40, false});
    return all;
}

// The same as it is listed
lines listing(const std::vector<const char *> &marks)
{
    lines all = {"-N QOS_q0", "-N QOS_q0_AUTO", "-A FORWARD -o q0 -g QOS_q0",
                 "-A OUTPUT -o q0 -g QOS_q0"};
    for (const char *mark : marks)
        all.push_back(string("-A QOS_q0 -j MARK --set-xmark ") + mark + "/0xffffffff");
    all.emplace_back("-A QOS_q0_AUTO -j MARK --set-xmark 0x9/0xffffffff");
    return all;
}

string shown(const std::optional<std::vector<tool::exchanged_line>> &all)
{
    if (!all) return "unknown\n";
    string out;
    for (const tool::exchanged_line &line : *all) {
        const string text = shown(std::vector<command>{line.what});
        out += text.substr(0, text.size() - 2) + ", " + line.why + "}\n";
    }
    return out;
}

string exchanged(const std::vector<const char *> &before, const std::vector<const char *> &after)
{
    return shown(tool::lines_to_exchange(script(after), "q0", listing(before), listing(before),
                                         listing(after)));
}

TEST(Exchange, OfWhatIsThereIsNothing)
{
    EXPECT_EQ("", exchanged({}, {}));
    EXPECT_EQ("", exchanged({"0x1", "0x2", "0x1"}, {"0x1", "0x2", "0x1"}));
}

TEST(Exchange, DeletesByPlaceFromTheLastToTheFirst)
{
    EXPECT_EQ("-D QOS_q0 4 {rule of QOS_q0, not in the policy: -j MARK --set-xmark "
              "0x4/0xffffffff}\n"
              "-D QOS_q0 2 {rule of QOS_q0, not in the policy: -j MARK --set-xmark "
              "0x2/0xffffffff}\n",
              exchanged({"0x1", "0x2", "0x3", "0x4"}, {"0x1", "0x3"}));
}

// "-I CHAIN 1" comes first: the one for place 3 counts it.
TEST(Exchange, InsertsByPlaceFromTheFirstToTheLastAndAddsBehindAll)
{
    EXPECT_EQ("-I QOS_q0 1 -j MARK --set-mark 0x8  {rule of QOS_q0, line 22, new}\n"
              "-I QOS_q0 3 -j MARK --set-mark 0x7  {rule of QOS_q0, line 24, new}\n"
              "-A QOS_q0 -j MARK --set-mark 0x5  {rule of QOS_q0, line 26, new}\n"
              "-A QOS_q0 -j MARK --set-mark 0x6  {rule of QOS_q0, line 27, new}\n",
              exchanged({"0x1", "0x2"}, {"0x8", "0x1", "0x7", "0x2", "0x5", "0x6"}));
}

TEST(Exchange, OfAllRulesDeletesBeforeItAdds)
{
    EXPECT_EQ("-D QOS_q0 1 {rule of QOS_q0, not in the policy: -j MARK --set-xmark "
              "0x1/0xffffffff}\n"
              "-A QOS_q0 -j MARK --set-mark 0x2  {rule of QOS_q0, line 22, new}\n",
              exchanged({"0x1"}, {"0x2"}));
}

TEST(Exchange, MovesTheRuleThatMovedAndNoOther)
{
    EXPECT_EQ("-D QOS_q0 1 {rule of QOS_q0, moved}\n"
              "-A QOS_q0 -j MARK --set-mark 0x1  {rule of QOS_q0, line 25, moved}\n",
              exchanged({"0x1", "0x2", "0x3", "0x4"}, {"0x2", "0x3", "0x4", "0x1"}));
    EXPECT_EQ("-D QOS_q0 3 {rule of QOS_q0, moved}\n"
              "-I QOS_q0 1 -j MARK --set-mark 0x3  {rule of QOS_q0, line 22, moved}\n",
              exchanged({"0x1", "0x2", "0x3"}, {"0x3", "0x1", "0x2"}));
}

TEST(Exchange, GivesEachChainItsOwnPlaces)
{
    const lines before = {"-N QOS_q0", "-N QOS_q0_AUTO", "-A QOS_q0 -j A", "-A QOS_q0_AUTO -j A",
                          "-A QOS_q0_AUTO -j B"};
    const lines after = {"-N QOS_q0", "-N QOS_q0_AUTO", "-A QOS_q0 -j B", "-A QOS_q0 -j A",
                         "-A QOS_q0_AUTO -j A"};
    EXPECT_EQ("-D QOS_q0_AUTO 2 {rule of QOS_q0_AUTO}\n"
              "-I QOS_q0 1 -j B {rule of QOS_q0}\n",
              shown(tool::lines_to_restore(before, after)));
}

TEST(Exchange, LeavesOneJumpOfEachKind)
{
    lines before = listing({});
    before.insert(before.begin() + 2, 2, "-A FORWARD -o q0 -g QOS_q0");
    std::erase(before, "-A OUTPUT -o q0 -g QOS_q0");
    EXPECT_EQ("-D FORWARD -o q0 -g QOS_q0 {jump of FORWARD, one too many}\n"
              "-D FORWARD -o q0 -g QOS_q0 {jump of FORWARD, one too many}\n"
              "-A OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT, line 21, new}\n",
              shown(tool::lines_to_exchange(script({}), "q0", before, before, listing({}))));
}

TEST(Exchange, MakesAChainThatIsMissing)
{
    const lines before = {"-N QOS_q0", "-A FORWARD -o q0 -g QOS_q0", "-A OUTPUT -o q0 -g QOS_q0"};
    EXPECT_EQ("-N QOS_q0_AUTO {chain QOS_q0_AUTO, new}\n"
              "-A QOS_q0_AUTO -j MARK --set-mark 9 {rule of QOS_q0_AUTO, line 40, new}\n",
              shown(tool::lines_to_exchange(script({}), "q0", before, before, listing({}))));
}

// A command with a name of two addresses makes two rules: no line can be told to be a command's.
TEST(Exchange, NeedsALineForEachCommand)
{
    const lines there = listing({"0x1", "0x2"});
    const lines keys = listing({"0x1"});
    const auto tried = [&](const lines &present_keys, const lines &wanted_keys) {
        return shown(
            tool::lines_to_exchange(script({"0x1"}), "q0", there, present_keys, wanted_keys));
    };
    EXPECT_EQ("unknown\n", tried(there, there));
    EXPECT_EQ("unknown\n", tried(keys, keys));
    EXPECT_EQ("unknown\n", tried(keys, there));
    EXPECT_EQ("unknown\n", tried(there, {}));
    EXPECT_NE("unknown\n", tried(there, keys));
    // As many lines in all, but not in each chain
    lines other_chain = there;
    other_chain[5] = "-A QOS_q0_AUTO -j MARK --set-xmark 0x2/0xffffffff";
    EXPECT_EQ("unknown\n", tried(other_chain, keys));
}

// ---- Restored -----------------------------------------------------------------------------------

TEST(Restored, ChainsAreAsTheyWereListed)
{
    EXPECT_EQ("", shown(tool::lines_to_restore(listing({"0x1"}), listing({"0x1"}))));
    EXPECT_EQ(
        "-D QOS_q0 2 {rule of QOS_q0}\n"
        "-I QOS_q0 1 -j MARK --set-xmark 0x3/0xffffffff {rule of QOS_q0}\n"
        "-A QOS_q0 -j MARK --set-xmark 0x4/0xffffffff {rule of QOS_q0}\n",
        shown(tool::lines_to_restore(listing({"0x1", "0x2"}), listing({"0x3", "0x1", "0x4"}))));
}

TEST(Restored, ChainsThatAreGoneAreMade)
{
    EXPECT_EQ("-N QOS_q0 {chain QOS_q0}\n"
              "-N QOS_q0_AUTO {chain QOS_q0_AUTO}\n"
              "-A QOS_q0 -j MARK --set-xmark 0x1/0xffffffff {rule of QOS_q0}\n"
              "-A QOS_q0_AUTO -j MARK --set-xmark 0x9/0xffffffff {rule of QOS_q0_AUTO}\n"
              "-A FORWARD -o q0 -g QOS_q0 {jump of FORWARD}\n"
              "-A OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT}\n",
              shown(tool::lines_to_restore({}, listing({"0x1"}))));
}

TEST(Restored, ChainsThatWereNotThereAreTakenAway)
{
    EXPECT_EQ(shown(tool::lines_to_remove(listing({"0x1"}))),
              shown(tool::lines_to_restore(listing({"0x1"}), {})));
    // One of the two: a rule that leads to the chain goes before it.
    EXPECT_EQ("-D QOS_q0 1 {rule of QOS_q0}\n"
              "-F QOS_q0_AUTO {chain QOS_q0_AUTO}\n"
              "-X QOS_q0_AUTO {chain QOS_q0_AUTO}\n",
              shown(tool::lines_to_restore({"-N QOS_q0", "-N QOS_q0_AUTO",
                                            "-A QOS_q0 -j QOS_q0_AUTO", "-A QOS_q0_AUTO -j MARK"},
                                           {"-N QOS_q0"})));
}

TEST(Chains, LineThatAppends)
{
    EXPECT_EQ("-A QOS_q0 -j MARK", tool::appending("-I QOS_q0 3 -j MARK"));
    EXPECT_EQ("-A QOS_q0 -j MARK", tool::appending("-A QOS_q0 -j MARK"));
    EXPECT_EQ("-A QOS_q0", tool::appending("-I QOS_q0 1"));
}

TEST(Chains, InputOfIptablesRestore)
{
    EXPECT_EQ("*mangle\nCOMMIT\n", tool::restore_input({}));
    EXPECT_EQ("*mangle\n-N QOS_q0\n-A QOS_q0 -j MARK \nCOMMIT\n",
              tool::restore_input({"-N QOS_q0", "-A QOS_q0 -j MARK "}));
    // The first command is where iptables-restore will say it is.
    EXPECT_EQ(2U, tool::first_restore_line);
}

}  // namespace
