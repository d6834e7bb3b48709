// SPDX-License-Identifier: MIT
// A start script taken apart: each command with what it is about and its line. The scripts are
// written here by hand, as the library writes them.
#include "start_script.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

using std::string;
using tool::command;
using tool::object;
using tool::parse_start_script;
using tool::start_script;

const string opening = "#!/bin/sh\n#Generate by tarnic\n#Author: Ora Vel\n";

// Root, a class with leaf and filter, and rules, on an interface of this name
string script_of(const string &n)
{
    return opening + "tc qdisc del dev " + n + " root 2>/dev/null\n" +  // line 4
           "tc qdisc add dev " + n + " handle 1:0 root htb default 0x10\n" + "tc class add dev " +
           n +
           " parent 1:0x0   classid 1:0x1   htb rate 20000kbit ceil 20000kbit prio 0 \n"
           "tc class add dev " +
           n +
           " parent 1:0x1   classid 1:0x10  htb rate 2000kbit ceil 20000kbit prio 0 burst 6000 \n"
           "tc qdisc add dev " +
           n +
           " parent 1:0x10  handle 0x100: pfifo limit 50\n"
           "tc filter add dev " +
           n +
           " parent 1:0 protocol ip prio 50 handle 0x10 fw classid 1:0x10\n"
           "tc qdisc add dev " +
           n +
           " parent 1:0xabc handle 0xabc0: sfq \n"
           "iptables -t mangle -F QOS_" +
           n + " 2>/dev/null\niptables -t mangle -X QOS_" + n +
           "_AUTO 2>/dev/null\niptables -t mangle -N QOS_" + n +
           " 2>/dev/null\niptables -t mangle -D FORWARD -o " + n + " -g QOS_" + n +
           " 2>/dev/null\niptables -t mangle -A OUTPUT -o " + n + " -g QOS_" + n +
           " 2>/dev/null\niptables -t mangle -A QOS_" + n +
           " -m domain --name \"a.example\" -j MARK --set-mark 0x10 \niptables -t mangle -A QOS_" +
           n + "_AUTO -m connmark --mark 100 -j MARK --set-mark 0x10 2>/dev/null\n";
}

// A line each: where it stands, what it is about, the text in bars, and "with options"
string shown(const command &c)
{
    return std::to_string(c.line) + " " + object_text(c.what) + " |" + c.text + "|" +
           (c.options ? " with options" : "") + "\n";
}
string shown(const std::vector<command> &all)
{
    string out;
    for (const command &c : all) out += shown(c);
    return out;
}

TEST(StartScript, IsTakenApart)
{
    const start_script s = parse_start_script(script_of("q0"), "q0");
    EXPECT_EQ("", s.error);
    EXPECT_EQ("5 root |qdisc add dev q0 handle 1:0 root htb default 0x10|\n"
              "6 class 1:1 |class add dev q0 parent 1:0x0   classid 1:0x1   htb rate 20000kbit "
              "ceil 20000kbit prio 0 |\n"
              "7 class 1:10 |class add dev q0 parent 1:0x1   classid 1:0x10  htb rate 2000kbit "
              "ceil 20000kbit prio 0 burst 6000 |\n"
              "8 leaf of 1:10 |qdisc add dev q0 parent 1:0x10  handle 0x100: pfifo limit 50| with "
              "options\n"
              "9 filter of mark 0x10 |filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x10 "
              "fw classid 1:0x10|\n"
              "10 leaf of 1:abc |qdisc add dev q0 parent 1:0xabc handle 0xabc0: sfq |\n",
              shown(s.tree));
    EXPECT_EQ("15 jump of OUTPUT |-A OUTPUT -o q0 -g QOS_q0|\n"
              "16 rule of QOS_q0 |-A QOS_q0 -m domain --name \"a.example\" -j MARK --set-mark 0x10 "
              "|\n"
              "17 rule of QOS_q0_AUTO |-A QOS_q0_AUTO -m connmark --mark 100 -j MARK --set-mark "
              "0x10|\n",
              shown(s.rules));
    EXPECT_FALSE(s.queue_length);
}

TEST(StartScript, FindsACommandByItsObject)
{
    const start_script s = parse_start_script(script_of("q0"), "q0");
    const auto line_of = [&](object::kind what, u32 number) {
        const command *found = s.find(what, number);
        return found == nullptr ? 0U : found->line;
    };
    EXPECT_EQ(5U, line_of(object::kind::root, 0));
    EXPECT_EQ(7U, line_of(object::kind::tree_class, 0x10));
    EXPECT_EQ(8U, line_of(object::kind::leaf, 0x10));
    EXPECT_EQ(9U, line_of(object::kind::filter, 0x10));
    EXPECT_EQ(10U, line_of(object::kind::leaf, 0xabc));
    EXPECT_EQ(0U, line_of(object::kind::tree_class, 0xabc));
    EXPECT_EQ(0U, line_of(object::kind::leaf, 1));
}

// Words are known by their place.
TEST(StartScript, OfAnInterfaceThatIsCalledAsAWordOfACommand)
{
    for (const char *name : {"root", "parent", "add", "classid", "dev", "handle", "QOS_", "-A",
                             "FORWARD", "txqueuelen", "1:0x10"}) {
        const start_script s = parse_start_script(script_of(name), name);
        EXPECT_EQ("", s.error) << name;
        EXPECT_EQ(6U, s.tree.size()) << name;
        EXPECT_EQ(3U, s.rules.size()) << name;
        EXPECT_NE(nullptr, s.find(object::kind::leaf, 0x10)) << name;
    }
}

TEST(StartScript, OfPfifoFastSetsTheQueueLength)
{
    const start_script s = parse_start_script(
        opening + "tc qdisc del dev q0 root 2>/dev/null\nifconfig q0 txqueuelen 250\n", "q0");
    EXPECT_EQ("", s.error);
    ASSERT_TRUE(s.queue_length);
    EXPECT_EQ("5 queue length |q0 txqueuelen 250|\n", shown(*s.queue_length));
    EXPECT_TRUE(s.tree.empty());
}

// One line that nobody understands, and none of the script is used.
TEST(StartScript, IsRefusedForALineThatIsUnknown)
{
    const char *const lines[] = {
        "",
        " ",
        "reboot",
        "tcp",
        "tc",
        "tc ",
        "tc qdisc",
        "tc qdisc del dev q1 root 2>/dev/null",
        "tc qdisc del dev q0 parent 1:10",
        "tc qdisc change dev q0 handle 1:0 root htb default 0x10",
        "tc qdisc add dev q0 handle 1:0 root",
        "tc qdisc add dev q0 handle 2:0 root htb",
        "tc qdisc add dev q1 handle 1:0 root htb",
        "tc qdisc add dev q0 parent 1:0x20 handle 0x201: pfifo",
        "tc qdisc add dev q0 parent 1:0x20 handle 0x200 pfifo",
        "tc qdisc add dev q0 parent 1:0x20 handle 0x200:",
        "tc qdisc add dev q0 parent 1:20 handle 0x200: pfifo",
        "tc qdisc add dev q0 parent 1:0x20z handle 0x200: pfifo",
        "tc qdisc add dev q0 parent 1:0x handle 0x0: pfifo",
        "tc qdisc add dev q0 parent 2:0x20 handle 0x200: pfifo",
        "tc class add dev q0 parent 1:0x1 classid 1:0x20",
        "tc class add dev q0 parent 1:0x1 classid 1:0xzz htb",
        "tc class add dev q0 parent 1:0x1 classid 1:0x100000000 htb",
        "tc class add dev q0 parent x classid 1:0x20 htb",
        "tc class add dev q0 classid 1:0x20 parent 1:0x1 htb",
        "tc class change dev q0 parent 1:0x1 classid 1:0x20 htb",
        "tc filter add dev q0 parent 1:0 protocol ip prio 7 handle 0x20 fw classid 1:0x20",
        "tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x20 fw classid 1:20",
        "tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 20 fw classid 1:0x20",
        "tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x20 fw classid 1:0x20 more",
        "tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x20 fw classid",
        "ifconfig q1 txqueuelen 9",
        "ifconfig q0 txqueuelen",
        "ifconfig q0 mtu 9",
        "iptables -t mangle",
        "iptables -t mangle -A",
        "iptables -t nat -A QOS_q0 -j MARK",
        "iptables -t mangle -F",
        "iptables -t mangle -F FORWARD",
        "iptables -t mangle -F QOS_q1",
        "iptables -t mangle -F QOS_q0 more",
        "iptables -t mangle -A QOS_q0x -j MARK",
        "iptables -t mangle -I QOS_q0 -j MARK",
        "iptables -t mangle -A PREROUTING -o q0 -g QOS_q0",
        "iptables -t mangle -A FORWARD -o q1 -g QOS_q0",
        "iptables -t mangle -A FORWARD -o q0 -g QOS_q0_AUTO",
        "iptables -t mangle -A FORWARD -o q0 -j QOS_q0",
        "iptables -t mangle -A FORWARD -o q0 -g QOS_q0 more",
        // twice
        "tc qdisc add dev q0 handle 1:0 root hfsc default 0x3",
        "tc class add dev q0 parent 1:0x1 classid 1:0x10 htb rate 1kbit",
        "tc qdisc add dev q0 parent 1:0x10 handle 0x100: sfq",
        "tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x10 fw classid 1:0x11",
    };
    for (const char *line : lines) {
        SCOPED_TRACE(line);
        const start_script s = parse_start_script(script_of("q0") + line + "\n# the end\n", "q0");
        EXPECT_EQ(0U, s.error.find("line 18 is unknown: \"" + string(line).substr(0, 40)))
            << s.error;
        EXPECT_TRUE(s.tree.empty() && s.rules.empty() && s.places.empty() && !s.queue_length);
    }
    const string twice = "ifconfig q0 txqueuelen 9\n";
    EXPECT_EQ("line 2 is unknown: \"ifconfig q0 txqueuelen 9\"",
              parse_start_script(twice + twice, "q0").error);
}

// A file that was cut short is no script.
TEST(StartScript, NeedsARootOrAQueueLength)
{
    const string none = "there is neither a root qdisc nor a queue length";
    EXPECT_EQ(none, parse_start_script("", "q0").error);
    EXPECT_EQ(none, parse_start_script(opening, "q0").error);
    EXPECT_EQ(
        none,
        parse_start_script(opening + "iptables -t mangle -N QOS_q0 2>/dev/null\n", "q0").error);
}

// What the library's own tests hold its scripts against
TEST(StartScript, IsWhatTheLibraryWrites)
{
    const struct {
        const char *name;
        std::size_t tree, rules;
    } cases[] = {{"lan0", 20, 18}, {"wan0", 11, 3}, {"wifi0", 7, 4}};
    for (const auto &c : cases) {
        std::ifstream in(string(MORDEL_GOLDEN_DIR) + "/home_router/" + c.name + ".start");
        std::ostringstream text;
        text << in.rdbuf();
        const start_script s = parse_start_script(text.str(), c.name);
        EXPECT_EQ("", s.error) << c.name;
        EXPECT_EQ(c.tree, s.tree.size()) << c.name;
        EXPECT_EQ(c.rules, s.rules.size()) << c.name;
    }
}

TEST(Words, AreWithoutTheirQuotes)
{
    using words = std::vector<string>;
    EXPECT_EQ(words{}, tool::words_of("  "));
    EXPECT_EQ((words{"-A", "x", "a.b", "\"", "\"c"}), tool::words_of(" -A  x \"a.b\" \" \"c "));
}

}  // namespace
