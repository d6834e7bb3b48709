// What `mordel show` prints on a terminal alone; its texts are compared by show.sh.
#include <gtest/gtest.h>

#include <string>

#include "policy.h"
#include "show.h"

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

}  // namespace
