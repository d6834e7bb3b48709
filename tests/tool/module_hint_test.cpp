// SPDX-License-Identifier: MIT
// Which module is named to a refused command
#include "module_hint.h"

#include <gtest/gtest.h>

namespace {

using std::string;
using tool::module_hint;
using tool::program;

TEST(ModuleHint, NamesTheModulesOfTheCommand)
{
    const struct {
        program by;
        const char *command, *modules;
    } cases[] = {
        {program::tc, "qdisc add dev root handle 1:0 root htb default 0x3", "sch_htb"},
        {program::tc, "qdisc add dev q0 parent 1:0x2   handle 0x20: red limit 6", "sch_red"},
        {program::tc, "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x2 fw classid 1:2",
         "cls_fw"},
        {program::iptables_restore, "-A QOS_q0 -p tcp -m mark --mark 1 -j MARK --set-mark 2",
         "xt_mark or xt_MARK"},
        {program::iptables_restore, "-A QOS_q0 -m dscp --dscp 1 -m dscp --dscp 2 -j RETURN",
         "xt_dscp"},
        {program::iptables_restore, "-A QOS_q0 -m connmark ! --mark 0 -j QOS_q0_AUTO",
         "xt_connmark"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(string("; the kernel may lack its module ") + c.modules,
                  module_hint(c.by, "RTNETLINK answers: No such file or directory", c.command));
}

TEST(ModuleHint, NamesNoneWhereNoneIsMeant)
{
    const char unknown[] = "No such file or directory";
    for (const char *command : {"class add dev q0 parent 1:1 classid 1:2 htb rate 1mbit",
                                "qdisc del dev q0 root", "qdisc add dev q0", ""})
        EXPECT_EQ("", module_hint(program::tc, unknown, command)) << command;
    for (const char *command : {"-A FORWARD -o q0 -g QOS_q0", "-A QOS_q0 -j ACCEPT", "-m", ""})
        EXPECT_EQ("", module_hint(program::iptables_restore, unknown, command)) << command;
    EXPECT_EQ("", module_hint(program::tc, "Invalid argument",
                              "qdisc add dev q0 parent 1:2 handle 20: sfq"));
}

}  // namespace
