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

TEST(Chains, InputOfIptablesRestore)
{
    EXPECT_EQ("*mangle\nCOMMIT\n", tool::restore_input({}));
    EXPECT_EQ("*mangle\n-N QOS_q0\n-A QOS_q0 -j MARK \nCOMMIT\n",
              tool::restore_input({"-N QOS_q0", "-A QOS_q0 -j MARK "}));
    // The first command is where iptables-restore will say it is.
    EXPECT_EQ(2U, tool::first_restore_line);
}

}  // namespace
