// SPDX-License-Identifier: MIT
// The spies themselves: a test that counts on a refused step must know that this step, and no
// other, was refused.
#include "transaction.h"

namespace {

using namespace guest;

result tool(const order &o, const lines &words, const string &input = "")
{
    give(o);
    return program(words, input, spied()).end();
}

string three_classes(const string &q)
{
    return for_interface("qdisc add dev @ root handle 1: htb\n"
                         "class add dev @ parent 1: classid 1:1 htb rate 1mbit\n"
                         "class add dev @ parent 1: classid 1:2 htb rate 1mbit\n"
                         "class add dev @ parent 1: classid 1:3 htb rate 1mbit\n",
                         q);
}

bool has_class(const string &q, int number)
{
    return has(tree_of(q), "class htb 1:" + std::to_string(number) + " ");
}

TEST(Spy, RefusesOneLineOfABatchAsTcDoes)
{
    const string q = make_interface();
    const result r = tool({.at = 3, .refuse = true}, {"tc", "-batch", "-"}, three_classes(q));
    EXPECT_TRUE(fired());
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("RTNETLINK answers: Invalid argument\nCommand failed -:3\n", r.err);
    EXPECT_TRUE(has_class(q, 1));
    EXPECT_FALSE(has_class(q, 2));
    EXPECT_FALSE(has_class(q, 3));
}

TEST(Spy, CountsOverAllCalls)
{
    const string q = make_interface();
    give({.at = 5, .refuse = true});
    const string rules = "*mangle\n-A OUTPUT -o " + q + " -j ACCEPT\nCOMMIT\n";
    const auto run_spied = [](const lines &words, const string &input) {
        return program(words, input, spied()).end().status;
    };
    EXPECT_EQ(0, run_spied({"tc", "-batch", "-"}, three_classes(q)));
    EXPECT_FALSE(fired());
    EXPECT_EQ(1, run_spied({"iptables-restore", "-w", "--noflush"}, rules));
    EXPECT_TRUE(fired());
    EXPECT_EQ("", rules_of(q));
    EXPECT_EQ(0, run_spied({"iptables-restore", "-w", "--noflush"}, rules));
    EXPECT_EQ("-A OUTPUT -o " + q + " -j ACCEPT\n", rules_of(q));
}

// What is tried elsewhere, looked at, or run to take back
TEST(Spy, GivesNoPositionToWhatChangesNothing)
{
    const string q = make_interface();
    give({.at = 1, .refuse = true});
    const auto run_spied = [](const lines &words, const string &input = "") {
        return program(words, input, spied()).end().status;
    };
    EXPECT_EQ(0, run_spied({"unshare", "-n", "tc", "qdisc", "add", "dev", "lo", "root", "pfifo"}));
    EXPECT_EQ(0, run_spied({"tc", "qdisc", "show"}));
    EXPECT_EQ(0, run_spied({"iptables", "-w", "-t", "mangle", "-S"}));
    EXPECT_EQ(0, run_spied({"iptables-restore", "-w", "--test"}, "*mangle\nCOMMIT\n"));
    EXPECT_EQ(0, run_spied({"tc", "-force", "-batch", "-"}, three_classes(q)));
    EXPECT_FALSE(fired());
    EXPECT_TRUE(has_class(q, 3));
    EXPECT_EQ(2, run_spied({"tc", "qdisc", "del", "dev", q, "root"}));
    EXPECT_TRUE(fired());
    EXPECT_TRUE(has_class(q, 3));
}

TEST(Spy, RefusesMoreOnceTheOrderIsDone)
{
    const string q = make_interface();
    const order o = {.at = 2, .refuse = true, .refused_after = {"classid 1:2 "}};
    EXPECT_EQ(1, tool(o, {"tc", "-batch", "-"}, three_classes(q)).status);
    const result r = program({"tc", "-force", "-batch", "-"}, three_classes(q), spied()).end();
    EXPECT_NE(0, r.status);
    EXPECT_TRUE(has_class(q, 1));
    EXPECT_FALSE(has_class(q, 2));
    EXPECT_TRUE(has_class(q, 3));
}

TEST(Spy, SendsItsSignalBeforeTheCommand)
{
    const string q = make_interface();
    // The shell stands for mordel: SPY_MORDEL is its id.
    const result r =
        tool({.at = 3, .signal = SIGTERM}, {"/bin/sh", "-c", "trap 'echo told' TERM; tc -batch -"},
             three_classes(q));
    EXPECT_TRUE(fired());
    EXPECT_EQ("told\n", r.out);
    EXPECT_TRUE(has_class(q, 3));
}

TEST(Spy, SeesTwoToolsAtWork)
{
    const string q = make_interface();
    give({.at = 1, .seconds = 2});
    program slow({"tc", "-batch", "-"}, three_classes(q), spied());
    EXPECT_TRUE(comes_true(fired));
    EXPECT_FALSE(fs::exists(overlap_file));
    (void)program({"tc", "qdisc", "add", "dev", q, "root", "pfifo"}, "", spied()).end();
    EXPECT_TRUE(fs::exists(overlap_file));
    (void)slow.end();
}

TEST(Comparison, SeesWhateverApplyMayChange)
{
    const string q = make_interface();
    apply_file(policy_file(for_interface(two_classes, q)));
    for (const string command :
         {"tc class change dev @ classid 1:11 htb rate 3mbit", "tc qdisc del dev @ parent 1:10",
          "tc filter del dev @ parent 1:0 protocol ip prio 50 handle 0x10 fw",
          "ip link set @ txqueuelen 101", "iptables -w -t mangle -D QOS_@ 2",
          "iptables -w -t mangle -A OUTPUT -o @ -g QOS_@", "iptables -w -t mangle -N MORE",
          "echo >>/var/run/mordel/@.start", "echo >/var/run/mordel/@.toml.new"}) {
        const string before = everything();
        by_hand(for_interface(command, q));
        EXPECT_NE("", difference(before, everything())) << command;
    }
}

}  // namespace
