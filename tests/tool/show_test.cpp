// SPDX-License-Identifier: MIT
// What `mordel show` prints on a terminal alone; its texts are compared by show.sh.
#include <gtest/gtest.h>

#include <string>

#include "policy_read.h"
#include "show.h"
#include "text.h"

namespace {

using std::string;
using tool::diagnostics;
using tool::kernel_kind;
using tool::policy;

policy read(const string &text)
{
    diagnostics found;
    policy p = tool::read_policy(text, kernel_kind::vendor, found);
    for (const tool::diagnostic &d : found.all()) EXPECT_TRUE(d.warning) << d.text;
    return p;
}

// ESC [ 1 m is bold, ESC [ 2 m dim, ESC [ 0 m neither.
TEST(Show, ATerminalGetsNamesInBoldAndWaysInDim)
{
    const policy p = read("[[interface]]\nname = 'a'\nroot = 'prio'\nbands = 2\n"
                          "priomap = [0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1]\n"
                          "automark = [2, 0, 0, 0, 0, 0, 0, 2]\n"
                          "[[interface.rule]]\nindex = 1\nmatch.dscp = 1\ntarget.mark = 2\n"
                          "[[interface.rule]]\nindex = 2\ntarget.dscp = 3\n"
                          "[[interface]]\nname = 'b'\nroot = 'htb'\ndefault_tree = false\n"
                          "default = 4\n"
                          "[[interface.class]]\nhandle = 4\nparent = 0\nrate = 1\n"
                          "[[schedule]]\nindex = 1\nall_day = true\n");
    EXPECT_EQ(
        "\033[1ma\033[0m  prio  2 bands, by packet priority: 0 1 0 1 0 1 0 1 0 1 0 1 0 1 0 1\n"
        "├─ \033[1m1:1 Class1\033[0m  pfifo\n"
        "└─ \033[1m1:2 Class2\033[0m  pfifo\n"
        "      \033[2mrule 1: dscp 1\033[0m\n"
        "      \033[2mconnection mark 100, 800\033[0m\n"
        "rule 2: everything; set dscp 3\n"
        "\n"
        "\033[1mb\033[0m  htb\n"
        "└─ \033[1m1:4\033[0m  rate 1kbit ceil 1kbit prio 0  pfifo  \033[1mdefault\033[0m\n"
        "\n"
        "schedule 1: every day, all day\n",
        tool::show_tree(p, {.colour = true, .utf8 = true}));
}

// The lines of a text that hold a piece
string lines_with(const string &piece, const string &text)
{
    string found;
    for (const string &line : tool::lines_of(text))
        if (line.find(piece) != string::npos) found += line + "\n";
    return found;
}

// A class of no curve has no line for curves. The script says "ul rate 0kbit" of it, no limit.
TEST(Show, DotTakesAnHfscClassWithoutACurve)
{
    for (const char *keys : {"ul = 0\n", ""}) {
        SCOPED_TRACE(keys);
        const policy p = read(string("[[interface]]\nname = 'h'\nroot = 'hfsc'\nphy_tx = 9\n"
                                     "link_tx = 8\n[[interface.class]]\nhandle = 0x10\n") +
                              keys);
        EXPECT_EQ("  \"h 1:10\" [label=\"1:10\\npfifo\"];\n",
                  lines_with("label=\"1:10", tool::show_dot(p)));
    }
}

// Only a leaf's rt is written: an inner class with an rt alone is sure of nothing.
TEST(Show, AnInnerHfscClassHasNoShareOfItsRt)
{
    const string text = "[[interface]]\nname = 'h'\nroot = 'hfsc'\nphy_tx = '20mbit'\n"
                        "link_tx = '10mbit'\ndefault = 2\n"
                        "[[interface.class]]\nhandle = 0x10\nparent = 3\nul = '8mbit'\n"
                        "rt = '4mbit'\n";
    const auto bar = [](const string &policy_text) {
        return lines_with(" of 1:3", tool::show_tree(read(policy_text), {}));
    };
    // As a leaf: 4 and 8 of 10 Mbit/s are 8 and 16 of 20 cells.
    EXPECT_EQ("            ########========....  40% to 80% of 1:3\n", bar(text));
    EXPECT_EQ("         |  ================....  0% to 80% of 1:3\n",
              bar(text + "[[interface.class]]\nhandle = 0x11\nparent = 0x10\nul = '1mbit'\n"
                         "sc = '1mbit'\n"));
}

}  // namespace
