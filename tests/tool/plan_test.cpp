// SPDX-License-Identifier: MIT
// From what is wanted, what is there and what is remembered to the steps of a plan. The trees that
// the kernel holds are made by hand, and each list of steps is compared whole.
#include <gtest/gtest.h>

#include <functional>

#include "plan_fixture.h"

namespace {

using namespace plan_fixture;

const string class_text = "tc class change dev q0 parent 1:0x1   classid ";
string leaf_text(const char *verb, const char *rest)
{
    return string("tc qdisc ") + verb + " dev q0 parent " + rest;
}

// The whole tree, each command for this reason
string whole_tree(const string &why)
{
    string out;
    const char *const commands[] = {
        "qdisc add dev q0 handle 1:0 root htb default 0x10 {root, line 5",
        "class add dev q0 parent 1:0x0   classid 1:0x1   htb rate 20000kbit ceil 20000kbit prio 0 "
        "burst 6000 cburst 6000 {class 1:1, line 6",
        "class add dev q0 parent 1:0x1   classid 1:0x10  htb rate 2000kbit ceil 20000kbit prio 0 "
        "burst 6000 cburst 7000 {class 1:10, line 7",
        "qdisc add dev q0 parent 1:0x10  handle 0x100: pfifo limit 50 {leaf of 1:10, line 8",
        "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x10 fw classid 1:0x10 {filter of "
        "mark 0x10, line 9",
        "class add dev q0 parent 1:0x1   classid 1:0x11  htb rate 4000kbit ceil 4000kbit prio 0  "
        "{class 1:11, line 10",
        "qdisc add dev q0 parent 1:0x11  handle 0x110: sfq perturb 10 {leaf of 1:11, line 11",
        "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x11 fw classid 1:0x11 {filter of "
        "mark 0x11, line 12",
        "class add dev q0 parent 1:0x1   classid 1:0x12  htb rate 5000kbit ceil 5000kbit prio 0  "
        "{class 1:12, line 13",
        "qdisc add dev q0 parent 1:0x12  handle 0x120: red min 15000b max 45000b burst 25 limit "
        "120000b avpkt 1000b {leaf of 1:12, line 14",
        "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw classid 1:0x12 {filter of "
        "mark 0x12, line 15",
        "class add dev q0 parent 1:0x1   classid 1:0x13  htb rate 1000kbit ceil 1000kbit prio 0  "
        "{class 1:13, line 16",
        "qdisc add dev q0 parent 1:0x13  handle 0x130: tbf latency 400ms rate 8000kbit burst "
        "10000b {leaf of 1:13, line 17",
        "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw classid 1:0x13 {filter of "
        "mark 0x13, line 18"};
    for (const char *command : commands) out += string("  tc ") + command + ", " + why + "}\n";
    return out;
}

// The rules of `htb` as they are added, for this reason
string added_rules(const string &why)
{
    return "  iptables-restore: -A FORWARD -o q0 -g QOS_q0 {jump of FORWARD, line 28, " + why +
           "}\n"
           "  iptables-restore: -A OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT, line 29, " +
           why +
           "}\n"
           "  iptables-restore: -A QOS_q0 -m connmark ! --mark 0 -j QOS_q0_AUTO {rule of QOS_q0, "
           "line 30, " +
           why +
           "}\n"
           "  iptables-restore: -A QOS_q0 -m dscp --dscp 0x2e -j MARK --set-mark 0x10  {rule of "
           "QOS_q0, line 31, " +
           why + "}\n";
}

string opened_chains(const char *mark, const string &why)
{
    return string(mark) + "iptables-restore: :QOS_q0 - [0:0] {chain QOS_q0, " + why + "}\n" + mark +
           "iptables-restore: :QOS_q0_AUTO - [0:0] {chain QOS_q0_AUTO, " + why + "}\n";
}

string deleted_jumps(const string &why)
{
    return "! iptables-restore: -D FORWARD -o q0 -g QOS_q0 {jump of FORWARD, " + why +
           "}\n"
           "! iptables-restore: -D OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT, " +
           why + "}\n";
}

const string rebuilt = "the tree is built anew";

string built_anew(const string &why)
{
    return "built\n! tc qdisc del dev q0 root {root, " + why + "}\n" + whole_tree(rebuilt);
}

// ---- The tree -----------------------------------------------------------------------------------

TEST(Plan, OfWhatIsThereIsEmpty)
{
    EXPECT_EQ("nothing\n", planned(htb, htb_tree()));
    const policy_text p(htb);
    EXPECT_EQ("nothing\n",
              planned(htb, htb_tree(), no_difference, {"a policy", p.script(), std::nullopt}));
    EXPECT_EQ("nothing\n", planned(prio, prio_tree()));
}

TEST(Plan, OfAFreshInterfaceIsAllOfIt)
{
    EXPECT_EQ("built\n" + whole_tree("new") +
                  "  iptables-restore: -N QOS_q0 {chain QOS_q0, new}\n"
                  "  iptables-restore: -N QOS_q0_AUTO {chain QOS_q0_AUTO, new}\n" +
                  added_rules("new"),
              planned(htb, default_tree(), {}));
}

// Also where the kernel shows no qdisc at all
TEST(Plan, OfAnInterfaceWithoutAQdisc)
{
    live_tree none;
    EXPECT_EQ("built\n" + whole_tree("new"), planned(htb, none));
}

TEST(Plan, ChangesAClassInPlace)
{
    live_tree live = htb_tree();
    live.classes[1].rate = 3 * mbit;
    EXPECT_EQ("changed\n  " + class_text +
                  "1:0x10  htb rate 2000kbit ceil 20000kbit prio 0 burst 6000 cburst 7000 "
                  "{class 1:10, line 7, rate is 3mbit, not 2mbit}\n",
              planned(htb, live));
}

// One command for all that differs of a class; classes by their handles, leaves behind them
TEST(Plan, ChangesEachClassOnceAndLeavesLast)
{
    live_tree live = htb_tree();
    live.classes[2].ceil = 5 * mbit;
    live.classes[1].rate = 3 * mbit;
    live.classes[1].prio = 4;
    live.qdiscs[1].limit = 7;
    EXPECT_EQ("changed\n  " + class_text +
                  "1:0x10  htb rate 2000kbit ceil 20000kbit prio 0 burst 6000 cburst 7000 "
                  "{class 1:10, line 7, rate is 3mbit, not 2mbit; prio is 4, not 0}\n  " +
                  class_text +
                  "1:0x11  htb rate 4000kbit ceil 4000kbit prio 0  "
                  "{class 1:11, line 10, ceil is 5mbit, not 4mbit}\n  " +
                  leaf_text("change", "1:0x10  handle 0x100: pfifo limit 50 {leaf of 1:10, line 8, "
                                      "limit is 7, not 50}\n"),
              planned(htb, live));
}

TEST(Plan, ChangesALeafOfTheSameKind)
{
    live_tree live = htb_tree();
    live.qdiscs[3].limit = 1;
    live.qdiscs[4].rate = 7 * mbit;
    EXPECT_EQ("changed\n  " +
                  leaf_text("change",
                            "1:0x12  handle 0x120: red min 15000b max 45000b burst 25 limit "
                            "120000b avpkt 1000b {leaf of 1:12, line 14, limit is 1, not "
                            "120000}\n  ") +
                  leaf_text("change",
                            "1:0x13  handle 0x130: tbf latency 400ms rate 8000kbit burst 10000b "
                            "{leaf of 1:13, line 17, tbf rate is 7mbit, not 8mbit}\n"),
              planned(htb, live));
}

// The kernel's SFQ takes no change.
TEST(Plan, ReplacesAnSfq)
{
    live_tree live = htb_tree();
    live.qdiscs[2].perturb = 15;
    const string why = "{leaf of 1:11, line 11, perturb is 15, not 10}\n";
    EXPECT_EQ("changed\n! " + leaf_text("del", "1:11 ") + why + "  " +
                  leaf_text("add", "1:0x11  handle 0x110: sfq perturb 10 ") + why,
              planned(htb, live));
}

// A change without options changes nothing.
TEST(Plan, ReplacesALeafThatLosesItsOptions)
{
    const policy_text before(htb);
    const string why = "{leaf of 1:10, line 8, was applied otherwise}\n";
    EXPECT_EQ("changed\n! " + leaf_text("del", "1:10 ") + why + "  " +
                  leaf_text("add", "1:0x10  handle 0x100: pfifo  ") + why,
              planned(replaced(htb, "\"pfifo\", limit = 50", "\"pfifo\""), htb_tree(),
                      no_difference, {"", before.script(), std::nullopt}));
}

TEST(Plan, ReplacesALeafOfAnotherKind)
{
    live_tree live = htb_tree();
    live.qdiscs[1].kind = "tbf";
    const string why = "{leaf of 1:10, line 8, leaf is tbf 100:, not pfifo 100:}\n";
    EXPECT_EQ("changed\n! " + leaf_text("del", "1:10 ") + why + "  " +
                  leaf_text("add", "1:0x10  handle 0x100: pfifo limit 50 ") + why,
              planned(htb, live));
}

// Somebody else's of the same kind cannot be told to have another handle.
TEST(Plan, ReplacesALeafOfAnotherHandle)
{
    live_tree live = htb_tree();
    live.qdiscs[1].handle = 0x77770000;
    const string why = "{leaf of 1:10, line 8, leaf is pfifo 7777:, not pfifo 100:}\n";
    EXPECT_EQ("changed\n! " + leaf_text("del", "1:10 ") + why + "  " +
                  leaf_text("add", "1:0x10  handle 0x100: pfifo limit 50 ") + why,
              planned(htb, live));
}

// One that the kernel put there itself, without a handle, is not there to be deleted.
TEST(Plan, AddsALeafThatIsNotThere)
{
    live_tree gone = htb_tree();
    gone.qdiscs.erase(gone.qdiscs.begin() + 1);
    const string add = "  " + leaf_text("add", "1:0x10  handle 0x100: pfifo limit 50 {leaf of "
                                               "1:10, line 8, ");
    EXPECT_EQ("changed\n" + add + "has no leaf qdisc, not pfifo}\n", planned(htb, gone));
    live_tree of_the_kernel = htb_tree();
    of_the_kernel.qdiscs[1].handle = 0;
    EXPECT_EQ("changed\n" + add + "leaf is pfifo 0:, not pfifo 100:}\n",
              planned(htb, of_the_kernel));
}

TEST(Plan, ChangesALeafOfABand)
{
    live_tree live = prio_tree();
    live.qdiscs[2].kind = "sfq";
    const string why = "{leaf of 1:2, line 8, leaf is sfq 20:, not pfifo 20:}\n";
    EXPECT_EQ("changed\n! " + leaf_text("del", "1:2 ") + why + "  " +
                  leaf_text("add", "1:0x2   handle 0x20: pfifo  ") + why,
              planned(prio, live));
}

// What no change mends; the reason says why not.
TEST(Plan, BuildsTheTreeAnew)
{
    const struct {
        const char *why;
        std::function<void(live_tree &)> differ;
    } cases[] = {
        {"root qdisc is hfsc 1:, not htb 1:; the kernel changes neither kind nor number of a root",
         [](live_tree &t) { t.qdiscs[0].kind = "hfsc"; }},
        {"root qdisc is htb 2:, not htb 1:; the kernel changes neither kind nor number of a root",
         [](live_tree &t) { t.qdiscs[0].handle = 0x20000; }},
        {"default class is 1:3, not 1:10; the kernel changes no default class of HTB",
         [](live_tree &t) { t.qdiscs[0].default_class = 3; }},
        // What a change would mend comes along.
        {"default class is 1:3, not 1:10, and 1 more; the kernel changes no default class of HTB",
         [](live_tree &t) {
             t.qdiscs[0].default_class = 3;
             t.classes[1].rate = 1;
         }},
        // The leaf of 1:13 on the class above
        {"an inner class has the leaf 130:, and 1 more; the kernel takes no leaf off an inner "
         "class",
         [](live_tree &t) { t.qdiscs[4].parent = 0x10001; }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        live_tree live = htb_tree();
        c.differ(live);
        EXPECT_EQ(built_anew(c.why), planned(htb, live));
    }
}

// Numbers that the policy has no leaf for are in nobody's way.
TEST(Plan, LeavesAnotherNumberAlone)
{
    live_tree live = htb_tree();
    live.qdiscs.push_back(qdisc(0x140, 0x10001, "pfifo"));
    live.qdiscs.push_back(qdisc(0x131, 0x10002, "pfifo"));
    live.qdiscs[1].limit = 7;
    EXPECT_EQ("changed\n  " + leaf_text("change",
                                        "1:0x10  handle 0x100: pfifo limit 50 {leaf of 1:10, "
                                        "line 8, limit is 7, not 50}\n"),
              planned(htb, live));
}

TEST(Plan, BuildsWhatTheDefaultQdiscIsInThePlaceOf)
{
    EXPECT_EQ("built\n" + whole_tree("new"), planned(htb, default_tree()));
}

// ---- What is remembered -------------------------------------------------------------------------

memory remembered(const string &script) { return {"", script, std::nullopt}; }

// The kernel tells nothing of a RED's burst but what it comes to, and 25 and 26 come to the same.
TEST(Plan, ChangesWhatWasAppliedOtherwise)
{
    const policy_text before(htb);
    const string now = replaced(replaced(htb, "burst = 25", "burst = 26"), "rate = \"5mbit\"",
                                "rate = \"5mbit\", burst = 1600");
    EXPECT_EQ("changed\n  " + class_text +
                  "1:0x12  htb rate 5000kbit ceil 5000kbit prio 0 burst 1600  {class 1:12, line "
                  "13, was applied otherwise}\n  " +
                  leaf_text("change",
                            "1:0x12  handle 0x120: red min 15000b max 45000b burst 26 limit "
                            "120000b avpkt 1000b {leaf of 1:12, line 14, was applied otherwise}\n"),
              planned(now, htb_tree(), no_difference, remembered(before.script())));
    EXPECT_EQ("nothing\n", planned(now, htb_tree()));
}

// Without a tree of its kind there, the difference is of no use.
TEST(Plan, RemembersNothingOfOtherClassesAndOfNoScript)
{
    const policy_text other(replaced(htb, "handle = 0x13,", "handle = 0x14,"));
    EXPECT_EQ("nothing\n", planned(htb, htb_tree(), no_difference, remembered(other.script())));
    for (const char *damaged : {"", "#!/bin/sh\n", "no script", "tc class add dev q0"})
        EXPECT_EQ("nothing\n", planned(htb, htb_tree(), no_difference, remembered(damaged)));
    const policy_text before(replaced(htb, "burst = 25", "burst = 26"));
    EXPECT_EQ("nothing\n",
              planned(htb, htb_tree(), no_difference,
                      remembered(before.script() + "and a line of another version\n")));
}

// Root and filters are seen in the kernel, whatever was applied.
TEST(Plan, BelievesTheKernelOfRootAndFilters)
{
    const policy_text before(replaced(htb, "default = 0x10", "default = 0x11"));
    EXPECT_EQ("nothing\n", planned(htb, htb_tree(), no_difference, remembered(before.script())));
}

// ---- pfifo_fast ---------------------------------------------------------------------------------

TEST(Plan, OfPfifoFastSetsTheQueueLength)
{
    live_tree live = default_tree();
    EXPECT_EQ("built\n  ifconfig q0 txqueuelen 250 {queue length, line 5, is 100}\n",
              planned(pfifo_fast, live));
    live.queue_len = 250;
    EXPECT_EQ("nothing\n", planned(pfifo_fast, live));
    // The rules alone, which are changed
    const string why = "its rules are not there";
    EXPECT_EQ(
        "changed\n" + opened_chains("  ", why) +
            "  iptables-restore: -A FORWARD -o q0 -g QOS_q0 {jump of FORWARD, line 15, " + why +
            "}\n  iptables-restore: -A OUTPUT -o q0 -g QOS_q0 {jump of OUTPUT, line 16, " + why +
            "}\n  iptables-restore: -A QOS_q0 -m connmark ! --mark 0 -j QOS_q0_AUTO {rule of "
            "QOS_q0, line 17, " +
            why + "}\n",
        planned(pfifo_fast, live, listed({})));
}

TEST(Plan, OfPfifoFastTakesARootAway)
{
    live_tree live = htb_tree();
    EXPECT_EQ("built\n! tc qdisc del dev q0 root {root, has the root qdisc htb, not its default, "
              "and 1 more}\n"
              "  ifconfig q0 txqueuelen 250 {queue length, line 5, is 100}\n",
              planned(pfifo_fast, live));
    live.queue_len = 250;
    EXPECT_EQ("built\n! tc qdisc del dev q0 root {root, has the root qdisc htb, not its default}\n",
              planned(pfifo_fast, live));
}

TEST(Plan, StepsAreTreeThenRulesThenQueue)
{
    const policy_text p(pfifo_fast);
    const plan all = plan_apply(p.w(), htb_tree(), listed({}), {});
    ASSERT_EQ(7U, all.steps.size());
    EXPECT_EQ("tc qdisc del dev q0 root", step_text(all.steps[0]));
    EXPECT_EQ("iptables-restore: :QOS_q0 - [0:0]", step_text(all.steps[1]));
    EXPECT_EQ("ifconfig q0 txqueuelen 250", step_text(all.steps[6]));
    EXPECT_EQ((lines{"qdisc del dev q0 root"}), commands_of(all.steps, tool::program::tc));
    EXPECT_EQ((lines{"q0 txqueuelen 250"}), commands_of(all.steps, tool::program::ifconfig));
}

// ---- Rules --------------------------------------------------------------------------------------

TEST(Plan, LoadsRulesThatAreNotThere)
{
    const string why = "its rules are not there";
    EXPECT_EQ("changed\n" + opened_chains("  ", why) + added_rules(why),
              planned(htb, htb_tree(), listed({})));
}

TEST(Plan, ExchangesRulesThatAreOthers)
{
    lines other = there;
    other.back() = "-A QOS_q0 -j ACCEPT";
    EXPECT_EQ("changed\n"
              "! iptables-restore: -D QOS_q0 2 {rule of QOS_q0, not in the policy: -j ACCEPT}\n"
              "  iptables-restore: -A QOS_q0 -m dscp --dscp 0x2e -j MARK --set-mark 0x10  {rule of "
              "QOS_q0, line 31, new}\n",
              planned(htb, htb_tree(), listed(other, there)));
}

// A trial that made more rules than there are commands does not tell which rule is whose.
TEST(Plan, LoadsAllRulesWhereNoneCanBeTold)
{
    lines more = there;
    more.push_back(there.back());
    const string why = "its rules are others";
    EXPECT_EQ("changed\n" + opened_chains("! ", why) + deleted_jumps(why) + added_rules(why),
              planned(htb, htb_tree(), listed(there, more)));
    // One chain of the two: the other one is new.
    const string chains = opened_chains("! ", why);
    EXPECT_EQ("changed\n" +
                  replaced(chains, "! iptables-restore: :QOS_q0_AUTO",
                           "  iptables-restore: :QOS_q0_AUTO") +
                  added_rules(why),
              planned(htb, htb_tree(), listed({"-N QOS_q0"}, more)));
}

// No namespace to try them in: what was there after the same script was applied last
TEST(Plan, LeavesRulesThatAreAsRemembered)
{
    const policy_text p(htb);
    const auto with = [&](const string &script, const string &rules) {
        return planned(htb, htb_tree(), listed(there), {"", script, rules});
    };
    EXPECT_EQ("nothing\n", with(p.script(), there_text()));
    const string why = "its rules cannot be compared";
    const string load =
        "changed\n" + opened_chains("! ", why) + deleted_jumps(why) + added_rules(why);
    EXPECT_EQ(load, with(p.script(), there_text() + "-A QOS_q0 -j MARK\n"));
    EXPECT_EQ(load, planned(htb, htb_tree(), listed(there), remembered(p.script())));
    EXPECT_EQ(load, planned(htb, htb_tree(), listed(there)));
}

TEST(Plan, OfWhoMayNotLookTakesItThatThereAreNoRules)
{
    chains_seen denied;
    denied.how = chains_seen::looked::denied;
    denied.why_not = "that takes root";
    const string why = "not looked at";
    EXPECT_EQ("changed\n" + opened_chains("! ", why) + added_rules(why) +
                  "note: rules not looked at: that takes root\n",
              planned(htb, htb_tree(), denied));
    denied.how = chains_seen::looked::failed;
    denied.why_not = "iptables is missing";
    EXPECT_EQ("changed\n" + opened_chains("! ", why) + added_rules(why) +
                  "note: rules not looked at: iptables is missing\n",
              planned(htb, htb_tree(), denied));
}

TEST(Rules, AreInOneOfSixStates)
{
    const policy_text p(htb);
    const wanted w = p.w();
    const memory none;
    const memory known{"", p.script(), there_text()};
    EXPECT_EQ(rules_state::not_seen, compare_rules(w, {}, known));
    EXPECT_EQ(rules_state::absent, compare_rules(w, listed({}, there), known));
    EXPECT_EQ(rules_state::same, compare_rules(w, listed(there, there), none));
    EXPECT_EQ(rules_state::other, compare_rules(w, listed(there, lines{}), known));
    EXPECT_EQ(rules_state::as_remembered, compare_rules(w, listed(there), known));
    EXPECT_EQ(rules_state::untried, compare_rules(w, listed(there), none));
}

TEST(Rules, AreGuessedOnAFreshInterfaceAlone)
{
    EXPECT_TRUE(may_guess(default_tree(), {}));
    EXPECT_TRUE(may_guess(default_tree(), {"a policy", std::nullopt, "rules"}));
    EXPECT_FALSE(may_guess(htb_tree(), {}));
    EXPECT_FALSE(may_guess(default_tree(), remembered("")));
}

// ---- Script, stop, verification -----------------------------------------------------------------

TEST(Plan, OfTheScriptIsOneStep)
{
    EXPECT_EQ("built\n! /var/tmp/qos_start {interface, --script}\n",
              shown(tool::plan_script("--script")));
}

TEST(StopPlan, TakesAwayWhatIsThere)
{
    const string why = "the policy is taken away";
    const string tree = "! tc qdisc del dev q0 root {root, " + why + "}\n";
    string rules = deleted_jumps(why);
    for (const char *command : {"F", "X"})
        for (const char *chain : {"QOS_q0", "QOS_q0_AUTO"})
            rules += string("! iptables-restore: -") + command + " " + chain + " {chain " + chain +
                     ", " + why + "}\n";
    const live_tree live = htb_tree();
    const live_tree none = default_tree();
    EXPECT_EQ("stopped\n" + tree + rules, shown(plan_stop("q0", &live, listed(there))));
    EXPECT_EQ("stopped\n" + tree, shown(plan_stop("q0", &live, listed({}))));
    EXPECT_EQ("stopped\n" + rules, shown(plan_stop("q0", &none, listed(there))));
    EXPECT_EQ("nothing\n", shown(plan_stop("q0", &none, listed({}))));
}

// Rules outlive their interface.
TEST(StopPlan, OfAnInterfaceThatHasGone)
{
    EXPECT_EQ("nothing\n", shown(plan_stop("q0", nullptr, listed({}))));
    EXPECT_EQ("stopped\n! iptables-restore: -F QOS_q0 {chain QOS_q0, the policy is taken away}\n"
              "! iptables-restore: -X QOS_q0 {chain QOS_q0, the policy is taken away}\n",
              shown(plan_stop("q0", nullptr, listed({"-N QOS_q0"}))));
}

TEST(StopPlan, OfWhoMayNotLook)
{
    const chains_seen denied{chains_seen::looked::denied, "that takes root", {}, std::nullopt};
    const live_tree live = htb_tree();
    EXPECT_EQ("stopped\n! tc qdisc del dev q0 root {root, the policy is taken away}\n"
              "note: rules not looked at: that takes root\n",
              shown(plan_stop("q0", &live, denied)));
}

TEST(Verification, FailsForAMissingPartAndNotesANumber)
{
    const policy_text p(htb);
    EXPECT_EQ("", verify(p.w(), htb_tree()).error);
    EXPECT_EQ(lines{}, verify(p.w(), htb_tree()).notes);
    live_tree live = htb_tree();
    live.classes[1].rate = 3 * mbit;
    live.qdiscs[1].limit = 7;
    EXPECT_EQ("", verify(p.w(), live).error);
    EXPECT_EQ((lines{"the kernel has its own mind: class 1:10: rate is 3mbit, not 2mbit",
                     "the kernel has its own mind: class 1:10: limit is 7, not 50"}),
              verify(p.w(), live).notes);
    live.filters.pop_back();
    EXPECT_EQ("the kernel does not hold what it was given: class 1:13: no filter sends mark 0x13 "
              "there",
              verify(p.w(), live).error);
    EXPECT_EQ("the kernel does not hold what it was given: has no htb, but its default qdisc",
              verify(p.w(), default_tree()).error);
}

}  // namespace
