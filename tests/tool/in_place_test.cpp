// SPDX-License-Identifier: MIT
// Trees that are changed object by object: the commands, their order, and what undoes each. The
// numbers of an undo are those of the tree that the kernel holds.
#include "in_place.h"

#include <gtest/gtest.h>

#include "plan_fixture.h"

namespace {

using namespace plan_fixture;

string with_undo(const plan &p)
{
    string out;
    for (const step &s : p.steps) {
        out += shown(s);
        for (const string &command : s.undo) out += "    undo: " + command + "\n";
    }
    return out;
}

string steps_to(const string &text, const live_tree &live, const memory &before = {})
{
    const policy_text p(text);
    return with_undo(plan_apply(p.w(), live, no_difference, before));
}

// Takes a class, its leaf and its filter out of a tree.
void without(live_tree &t, u32 handle)
{
    std::erase_if(t.classes, [&](const auto &c) { return c.id == (0x10000 | handle); });
    std::erase_if(t.qdiscs, [&](const auto &q) { return q.parent == (0x10000 | handle); });
    std::erase_if(t.filters, [&](const auto &f) { return f.mark == handle; });
}

void without_leaf(live_tree &t, u32 handle)
{
    std::erase_if(t.qdiscs, [&](const auto &q) { return q.parent == (0x10000 | handle); });
}

const string class_13 = "class add dev q0 parent 1:0x1   classid 1:0x13  htb rate 1000kbit ceil "
                        "1000kbit prio 0  {class 1:13, line 16, ";
const string leaf_13 = "qdisc add dev q0 parent 1:0x13  handle 0x130: tbf latency 400ms rate "
                       "8000kbit burst 10000b {leaf of 1:13, line 17, ";
const string filter_13 = "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw classid "
                         "1:0x13 {filter of mark 0x13, line 18, ";
const string no_filter_13 = "filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw";
// As the kernel has them, in the words of an image
const string old_class_13 = "class add dev q0 parent 1:0x1 classid 1:0x13 htb rate 1000000bit ceil "
                            "1000000bit burst 1600b cburst 1600b prio 0 quantum 0";
const string old_leaf_13 = "qdisc add dev q0 parent 1:0x13 handle 0x130: tbf rate 8000000bit burst "
                           "10000b limit 410000b";
const string old_filter_13 = "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw "
                             "classid 1:0x13";

// ---- Classes ------------------------------------------------------------------------------------

TEST(InPlace, ANewClassIsOneClassOneLeafOneFilter)
{
    live_tree live = htb_tree();
    without(live, 0x13);
    EXPECT_EQ("  tc " + class_13 + "is not there}\n    undo: class del dev q0 classid 1:0x13\n" +
                  "  tc " + leaf_13 + "its class is new}\n" +
                  "    undo: qdisc del dev q0 parent 1:0x13 handle 0x130:\n" + "  tc " + filter_13 +
                  "its class is new}\n    undo: " + no_filter_13 + "\n",
              steps_to(htb, live));
}

TEST(InPlace, AClassIsChangedAndChangedBack)
{
    live_tree live = htb_tree();
    live.classes[1].rate = 3 * mbit;
    live.classes[1].burst = 9000;
    live.classes[1].prio = 4;
    live.classes[1].quantum = 2500;
    EXPECT_EQ("  tc class change dev q0 parent 1:0x1   classid 1:0x10  htb rate 2000kbit ceil "
              "20000kbit prio 0 burst 6000 cburst 7000 {class 1:10, line 7, rate is 3mbit, not "
              "2mbit; burst is 9000b, not 6000b; prio is 4, not 0}\n"
              "    undo: class change dev q0 parent 1:0x1 classid 1:0x10 htb rate 3000000bit ceil "
              "20000000bit burst 9000b cburst 7000b prio 4 quantum 2500\n",
              steps_to(htb, live));
}

// Children first, and each filter before its class. What is below an old class goes with it.
TEST(InPlace, OldClassesGo)
{
    live_tree live = htb_tree();
    live.classes.push_back(htb_class(0x20, 0x10001, mbit, mbit, 1600, 1600));
    live.classes.push_back(htb_class(0x99, 0x10020, mbit, mbit, 1600, 1600));
    live.qdiscs.push_back(qdisc(0x990, 0x10099, "pfifo"));
    live.qdiscs.back().limit = 5;
    live.filters.push_back({0x99, 0x10099, true});
    const string old = "htb rate 1000000bit ceil 1000000bit burst 1600b cburst 1600b prio 0 "
                       "quantum 0\n";
    EXPECT_EQ("  tc filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x99 fw {filter of "
              "mark 0x99, not in the policy}\n"
              "    undo: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x99 fw classid "
              "1:0x99\n"
              "! tc class del dev q0 classid 1:0x99 {class 1:99, is not in the policy}\n"
              "    undo: class add dev q0 parent 1:0x20 classid 1:0x99 " +
                  old +
                  "    undo: qdisc add dev q0 parent 1:0x99 handle 0x990: pfifo limit 5\n"
                  "! tc class del dev q0 classid 1:0x20 {class 1:20, is not in the policy}\n"
                  "    undo: class add dev q0 parent 1:0x1 classid 1:0x20 " +
                  old,
              steps_to(htb, live));
}

// A class on another parent is made anew. The one above, which had none but it, becomes a leaf
// class; HTB takes its prio and quantum only then.
TEST(InPlace, AMovedClassIsMadeAnew)
{
    live_tree live = htb_tree();
    live.classes[4].parent = 0x10012;
    without_leaf(live, 0x12);
    std::erase_if(live.filters, [](const auto &f) { return f.mark == 0x12; });
    const string why = "hangs on 1:12, not on 1:1}\n";
    const string above = "htb rate 5000000bit ceil 5000000bit burst 1600b cburst 1600b prio 0 "
                         "quantum 0\n";
    EXPECT_EQ("  tc " + no_filter_13 + " {filter of mark 0x13, line 18, its class 1:13 goes}\n" +
                  "    undo: " + old_filter_13 +
                  "\n! tc class del dev q0 classid 1:0x13 {class 1:13, line 16, " + why +
                  "    undo: class add dev q0 parent 1:0x12" +
                  old_class_13.substr(string("class add dev q0 parent 1:0x1").size()) +
                  "\n    undo: " + old_leaf_13 +
                  "\n  tc class change dev q0 parent 1:0x1   classid 1:0x12  htb rate 5000kbit "
                  "ceil 5000kbit prio 0  {class 1:12, line 13, has no classes below it any more}\n"
                  "    undo: class change dev q0 parent 1:0x1 classid 1:0x12 " +
                  above + "  tc " + class_13 + why +
                  "    undo: class del dev q0 classid 1:0x13\n"
                  "  tc qdisc add dev q0 parent 1:0x12  handle 0x120: red min 15000b max 45000b "
                  "burst 25 limit 120000b avpkt 1000b {leaf of 1:12, line 14, has no leaf qdisc, "
                  "not red}\n    undo: qdisc del dev q0 parent 1:0x12 handle 0x120:\n  tc " +
                  leaf_13 + "its class is made anew}\n" +
                  "    undo: qdisc del dev q0 parent 1:0x13 handle 0x130:\n"
                  "  tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw classid "
                  "1:0x12 {filter of mark 0x12, line 15, no filter sends mark 0x12 there}\n"
                  "    undo: filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw\n"
                  "  tc " +
                  filter_13 + "its class is made anew}\n    undo: " + no_filter_13 + "\n",
              steps_to(htb, live));
}

// A leaf class that gets a class below it loses leaf and filter before.
TEST(InPlace, ALeafClassBecomesInner)
{
    const string text =
        replaced(htb,
                 R"(rate = "1mbit", leaf = { type = "tbf", latency = 400, rate = "8mbit", )"
                 R"(burst = 10000 } },)",
                 R"(rate = "1mbit" },
  { handle = 0x14, parent = 0x13, rate = "500kbit", leaf = { type = "pfifo", limit = 9 } },)");
    EXPECT_EQ("  tc " + no_filter_13 +
                  " {filter of mark 0x13, not in the policy}\n    undo: " + old_filter_13 +
                  "\n! tc qdisc del dev q0 parent 1:13 {leaf of 1:13, its class gets classes below "
                  "it}\n    undo: " +
                  old_leaf_13 +
                  "\n  tc class add dev q0 parent 1:0x13  classid 1:0x14  htb rate 500kbit ceil "
                  "500kbit prio 0  {class 1:14, line 17, is not there}\n"
                  "    undo: class del dev q0 classid 1:0x14\n"
                  "  tc qdisc add dev q0 parent 1:0x14  handle 0x140: pfifo limit 9 {leaf of 1:14, "
                  "line 18, its class is new}\n"
                  "    undo: qdisc del dev q0 parent 1:0x14 handle 0x140:\n"
                  "  tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x14 fw classid "
                  "1:0x14 {filter of mark 0x14, line 19, its class is new}\n"
                  "    undo: filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x14 fw\n",
              steps_to(text, htb_tree()));
}

// ---- Filters ------------------------------------------------------------------------------------

TEST(InPlace, AMissingFilterIsAllThatIsAdded)
{
    live_tree live = htb_tree();
    live.filters.pop_back();
    EXPECT_EQ("  tc " + filter_13 + "no filter sends mark 0x13 there}\n    undo: " + no_filter_13 +
                  "\n",
              steps_to(htb, live));
}

TEST(InPlace, AFilterToAnotherClassIsReplaced)
{
    live_tree live = htb_tree();
    live.filters[3].id = 0x10011;
    EXPECT_EQ("  tc filter replace dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw classid "
              "1:0x13 {filter of mark 0x13, line 18, mark 0x13 goes to 1:11}\n"
              "    undo: filter replace dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw "
              "classid 1:0x11\n",
              steps_to(htb, live));
}

// The kernel deletes no class that a filter is bound to.
TEST(InPlace, AFilterToAnOldClassIsDeletedBeforeIt)
{
    live_tree live = htb_tree();
    live.classes.push_back(htb_class(0x99, 0x10001, mbit, mbit, 1600, 1600));
    live.filters[3].id = 0x10099;
    EXPECT_EQ("  tc " + no_filter_13 + " {filter of mark 0x13, line 18, its class 1:99 goes}\n" +
                  "    undo: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x13 fw "
                  "classid 1:0x99\n"
                  "! tc class del dev q0 classid 1:0x99 {class 1:99, is not in the policy}\n"
                  "    undo: class add dev q0 parent 1:0x1 classid 1:0x99 htb rate 1000000bit ceil "
                  "1000000bit burst 1600b cburst 1600b prio 0 quantum 0\n  tc " +
                  filter_13 + "mark 0x13 goes to 1:99}\n    undo: " + no_filter_13 + "\n",
              steps_to(htb, live));
}

// All of a priority by one command; among the policy's own by its handle. Nothing brings them back.
TEST(InPlace, ForeignFiltersGo)
{
    live_tree live = htb_tree();
    live.filters.push_back({0x80000000, 0, false, 7, 0x0003, 0, "u32"});
    live.filters.push_back({0x80000800, 0x10010, false, 7, 0x0003, 0, "u32"});
    live.filters.push_back({1, 0x10010, false, 8, 0x86dd, 3, "flower"});
    live.filters[3].plain = false;
    const string why = "somebody else's filter is not in the policy}\n";
    EXPECT_EQ("! tc " + no_filter_13 + " {filter of mark 0x13, " + why +
                  "! tc filter del dev q0 parent 1:0 protocol 0x0003 prio 7 {filter of mark "
                  "0x80000000, " +
                  why +
                  "! tc filter del dev q0 parent 1:0 protocol 0x86dd prio 8 chain 3 {filter of "
                  "mark 0x1, " +
                  why + "  tc " + filter_13 +
                  "no filter sends mark 0x13 there}\n    undo: " + no_filter_13 + "\n",
              steps_to(htb, live));
}

// ---- Leaves -------------------------------------------------------------------------------------

TEST(InPlace, ALeafIsChangedAndChangedBack)
{
    live_tree live = htb_tree();
    live.qdiscs[1].limit = 7;
    // tc comes to 1/16 from 22 packets on: 8 * (1 - (7/8)^22) = 7.58 is below 22 + 1 - 15 = 8.
    live.qdiscs[3].limit = 130000;
    EXPECT_EQ("  tc qdisc change dev q0 parent 1:0x10  handle 0x100: pfifo limit 50 {leaf of 1:10, "
              "line 8, limit is 7, not 50}\n"
              "    undo: qdisc change dev q0 parent 1:0x10 handle 0x100: pfifo limit 7\n"
              "  tc qdisc change dev q0 parent 1:0x12  handle 0x120: red min 15000b max 45000b "
              "burst 25 limit 120000b avpkt 1000b {leaf of 1:12, line 14, limit is 130000, not "
              "120000}\n"
              "    undo: qdisc change dev q0 parent 1:0x12 handle 0x120: red limit 130000b min "
              "15000b max 45000b avpkt 1000b burst 22\n",
              steps_to(htb, live));
}

// Both go before one of them comes: each has the other's number.
TEST(InPlace, LeavesExchangeTheirNumbers)
{
    live_tree live = htb_tree();
    live.qdiscs[1].handle = 0x1100000;
    live.qdiscs[2].handle = 0x1000000;
    const string why_10 = "{leaf of 1:10, line 8, leaf is pfifo 110:, not pfifo 100:}\n";
    const string why_11 = "{leaf of 1:11, line 11, leaf is sfq 100:, not sfq 110:}\n";
    EXPECT_EQ("! tc qdisc del dev q0 parent 1:10 " + why_10 +
                  "    undo: qdisc add dev q0 parent 1:0x10 handle 0x110: pfifo limit 50\n"
                  "! tc qdisc del dev q0 parent 1:11 " +
                  why_11 +
                  "    undo: qdisc add dev q0 parent 1:0x11 handle 0x100: sfq limit 0 quantum 0b "
                  "perturb 10\n"
                  "  tc qdisc add dev q0 parent 1:0x10  handle 0x100: pfifo limit 50 " +
                  why_10 +
                  "    undo: qdisc del dev q0 parent 1:0x10 handle 0x100:\n"
                  "  tc qdisc add dev q0 parent 1:0x11  handle 0x110: sfq perturb 10 " +
                  why_11 + "    undo: qdisc del dev q0 parent 1:0x11 handle 0x110:\n",
              steps_to(htb, live));
}

// A number that is taken below another leaf is freed first.
TEST(InPlace, AQdiscBelowALeafGivesUpItsNumber)
{
    live_tree live = htb_tree();
    without_leaf(live, 0x10);
    live.qdiscs.push_back(qdisc(0x100, 0x1300001, "pfifo"));
    EXPECT_EQ("! tc qdisc del dev q0 parent 130:1 {leaf of 1:0, its number is another's}\n"
              "  tc qdisc add dev q0 parent 1:0x10  handle 0x100: pfifo limit 50 {leaf of 1:10, "
              "line 8, has no leaf qdisc, not pfifo}\n"
              "    undo: qdisc del dev q0 parent 1:0x10 handle 0x100:\n",
              steps_to(htb, live));
}

// ---- HFSC and PRIO ------------------------------------------------------------------------------

// Lines: root 5; class, leaf and filter of 0x10 from 6, class 0x11 9, class, leaf and filter of
// 0x12 from 10
const string hfsc = R"([[interface]]
name = "q0"
root = "hfsc"
default_tree = false
default = 0x12
class = [
  { handle = 0x10, parent = 0, ls = "1mbit", ul = "2mbit", leaf = { type = "pfifo", limit = 3 } },
  { handle = 0x11, parent = 0, ls = "8mbit" },
  { handle = 0x12, parent = 0x11, sc = "4mbit", leaf = { type = "pfifo", limit = 4 } },
]
)";

live_tree hfsc_tree()
{
    live_tree t;
    t.queue_len = 100;
    t.qdiscs = {qdisc(1, 0xffffffff, "hfsc"), qdisc(0x100, 0x10010, "pfifo"),
                qdisc(0x120, 0x10012, "pfifo")};
    t.qdiscs[0].default_class = 0x12;
    t.qdiscs[1].limit = 3;
    t.qdiscs[2].limit = 4;
    t.classes.resize(3);
    for (std::size_t i = 0; i < 3; ++i) t.classes[i].id = static_cast<u32>(0x10010 + i);
    t.classes[0].parent = t.classes[1].parent = 0x10000;
    t.classes[2].parent = 0x10011;
    const auto line = [](u64 rate) { return tool::live_curve{0, 0, static_cast<u32>(rate)}; };
    t.classes[0].fsc = line(mbit);
    t.classes[0].usc = line(2 * mbit);
    t.classes[1].fsc = line(8 * mbit);
    t.classes[2].rsc = t.classes[2].fsc = line(4 * mbit);
    t.filters = {{0x10, 0x10010, true}, {0x12, 0x10012, true}};
    return t;
}

TEST(InPlace, TheDefaultClassOfHfsc)
{
    EXPECT_EQ("", steps_to(hfsc, hfsc_tree()));
    live_tree live = hfsc_tree();
    live.qdiscs[0].default_class = 0x10;
    EXPECT_EQ("  tc qdisc change dev q0 handle 1:0 root hfsc default 0x12 {root, line 5, default "
              "class is 1:10, not 1:12}\n"
              "    undo: qdisc change dev q0 handle 1:0 root hfsc default 0x10\n",
              steps_to(hfsc, live));
}

TEST(InPlace, ACurveIsChangedAndChangedBack)
{
    live_tree live = hfsc_tree();
    live.classes[0].usc = tool::live_curve{mbit, 5000, 3 * mbit};
    EXPECT_EQ("  tc class change dev q0 parent 1:0x0   classid 1:0x10  hfsc ul rate 2000kbit ls "
              "rate 1000kbit  {class 1:10, line 6, curve ul is 1mbit for 5000us, then 3mbit; not "
              "0kbit for 0us, then 2mbit}\n"
              "    undo: class change dev q0 parent 1:0x0 classid 1:0x10 hfsc ls m2 1000000bit ul "
              "m1 1000000bit d 5000us m2 3000000bit\n",
              steps_to(hfsc, live));
}

// No change takes a curve away: the class is made anew, and what is below it.
TEST(InPlace, AClassWithACurveTooMany)
{
    live_tree live = hfsc_tree();
    live.classes[1].usc = tool::live_curve{0, 0, 8 * mbit};
    const string why = "has a curve ul}\n";
    EXPECT_EQ("  tc filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw {filter of "
              "mark 0x12, line 12, its class 1:12 goes}\n"
              "    undo: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw classid "
              "1:0x12\n"
              "! tc class del dev q0 classid 1:0x12 {class 1:12, line 10, class 1:11 above it "
              "goes}\n"
              "    undo: class add dev q0 parent 1:0x11 classid 1:0x12 hfsc rt m2 4000000bit ls m2 "
              "4000000bit\n"
              "    undo: qdisc add dev q0 parent 1:0x12 handle 0x120: pfifo limit 4\n"
              "! tc class del dev q0 classid 1:0x11 {class 1:11, line 9, " +
                  why +
                  "    undo: class add dev q0 parent 1:0x0 classid 1:0x11 hfsc ls m2 8000000bit ul "
                  "m2 8000000bit\n"
                  "  tc class add dev q0 parent 1:0x0   classid 1:0x11  hfsc ul rate 0kbit ls "
                  "rate 8000kbit  {class 1:11, line 9, " +
                  why +
                  "    undo: class del dev q0 classid 1:0x11\n"
                  "  tc class add dev q0 parent 1:0x11  classid 1:0x12  hfsc ul rate 0kbit sc "
                  "rate 4000kbit  {class 1:12, line 10, class 1:11 above it goes}\n"
                  "    undo: class del dev q0 classid 1:0x12\n"
                  "  tc qdisc add dev q0 parent 1:0x12  handle 0x120: pfifo limit 4 {leaf of 1:12, "
                  "line 11, its class is made anew}\n"
                  "    undo: qdisc del dev q0 parent 1:0x12 handle 0x120:\n"
                  "  tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw classid "
                  "1:0x12 {filter of mark 0x12, line 12, its class is made anew}\n"
                  "    undo: filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw\n",
              steps_to(hfsc, live));
}

const string map = "priomap 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1";

TEST(InPlace, TheMapOfPrio)
{
    live_tree live = prio_tree();
    live.qdiscs[0].priomap[0] = 0;
    EXPECT_EQ("  tc qdisc change dev q0 handle 1:0 root prio bands 2 " + map +
                  " {root, line 5, the priority map differs}\n"
                  "    undo: qdisc change dev q0 handle 1:0 root prio bands 2 priomap 0 1 1 1 1 1 "
                  "1 1 1 1 1 1 1 1 1 1\n",
              steps_to(prio, live));
}

// A band that goes takes its leaf along; the kernel would keep its filter.
TEST(InPlace, PrioLosesABand)
{
    live_tree live = prio_tree();
    live.qdiscs[0].bands = 3;
    live.qdiscs.push_back(qdisc(0x30, 0x10003, "pfifo"));
    live.qdiscs.back().limit = 5;
    live.classes.push_back(live.classes[1]);
    live.classes.back().id = 0x10003;
    live.filters.push_back({3, 0x10003, true});
    EXPECT_EQ("  tc filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x3 fw {filter of mark "
              "0x3, not in the policy}\n"
              "    undo: filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x3 fw classid "
              "1:0x3\n"
              "! tc qdisc change dev q0 handle 1:0 root prio bands 2 " +
                  map + " {root, line 5, has 3 bands, not 2}\n" +
                  "    undo: qdisc change dev q0 handle 1:0 root prio bands 3 " + map +
                  "\n    undo: qdisc add dev q0 parent 1:0x3 handle 0x30: pfifo limit 5\n",
              steps_to(prio, live));
}

TEST(InPlace, PrioGetsABand)
{
    live_tree live = prio_tree();
    live.qdiscs[0].bands = 1;
    without(live, 2);
    EXPECT_EQ("  tc qdisc change dev q0 handle 1:0 root prio bands 2 " + map +
                  " {root, line 5, has 1 bands, not 2}\n"
                  "    undo: qdisc change dev q0 handle 1:0 root prio bands 1 " +
                  map +
                  "\n  tc qdisc add dev q0 parent 1:0x2   handle 0x20: pfifo  {leaf of 1:2, line "
                  "8, its class is new}\n"
                  "    undo: qdisc del dev q0 parent 1:0x2 handle 0x20:\n"
                  "  tc filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x2 fw classid "
                  "1:0x2 {filter of mark 0x2, line 9, its class is new}\n"
                  "    undo: filter del dev q0 parent 1:0 protocol ip prio 50 handle 0x2 fw\n",
              steps_to(prio, live));
}

// ---- All of it ----------------------------------------------------------------------------------

TEST(InPlace, OneClassMoreOfTwoThousandIsThreeCommands)
{
    string text = "[[interface]]\nname = \"q0\"\nroot = \"htb\"\ndefault_tree = false\ndefault = "
                  "0x10\n";
    live_tree live;
    live.qdiscs = {qdisc(1, 0xffffffff, "htb")};
    live.qdiscs[0].default_class = 0x10;
    constexpr u32 last = 0x10 + 2001;
    for (u32 handle = 0x10; handle <= last; ++handle) {
        text += tool::format("[[interface.class]]\nhandle = %u\nparent = 0\nrate = \"1mbit\"\n",
                             handle);
        if (handle == last) break;
        live.classes.push_back(htb_class(handle, 0xffffffff, mbit, mbit, 1600, 1600));
        live.qdiscs.push_back(qdisc(handle * 16, 0x10000 | handle, "pfifo"));
        live.filters.push_back({handle, 0x10000 | handle, true});
    }
    const policy_text p(text);
    const plan made = plan_apply(p.w(), live, {}, {});
    ASSERT_EQ(3U, commands_of(made.steps, tool::program::tc).size());
    EXPECT_EQ("class 1:7e1", object_text(made.steps[0].what));
    EXPECT_EQ("leaf of 1:7e1", object_text(made.steps[1].what));
    EXPECT_EQ("filter of mark 0x7e1", object_text(made.steps[2].what));
    EXPECT_EQ(tool::effect::changed, made.result);
}

TEST(Undo, IsOfTheStepsDoneLastFirst)
{
    std::vector<step> steps(3);
    steps[0].undo = {"a", "b"};
    steps[1].undo = {"c"};
    steps[2].undo = {"d"};
    EXPECT_EQ(lines{}, undo_of(steps, 0));
    EXPECT_EQ((lines{"c", "a", "b"}), undo_of(steps, 2));
    EXPECT_EQ((lines{"d", "c", "a", "b"}), undo_of(steps, 3));
    EXPECT_EQ((lines{"d", "c", "a", "b"}), undo_of(steps, 4));
}

// The removal of a root is undone by the whole image, its addition by its removal; what comes with
// the new root goes with it.
TEST(Undo, OfATreeBuiltAnewIsTheOldTree)
{
    live_tree live = prio_tree();
    live.qdiscs[0].kind = "sfq";
    live = hfsc_tree();
    const policy_text p(prio);
    const plan made = plan_apply(p.w(), live, no_difference, {});
    const string del = "qdisc del dev q0 root";
    const lines old = {"qdisc add dev q0 handle 1:0 root hfsc default 0x12",
                       "class add dev q0 parent 1:0x0 classid 1:0x10 hfsc ls m2 1000000bit ul m2 "
                       "2000000bit",
                       "class add dev q0 parent 1:0x0 classid 1:0x11 hfsc ls m2 8000000bit",
                       "class add dev q0 parent 1:0x11 classid 1:0x12 hfsc rt m2 4000000bit ls m2 "
                       "4000000bit",
                       "qdisc add dev q0 parent 1:0x10 handle 0x100: pfifo limit 3",
                       "qdisc add dev q0 parent 1:0x12 handle 0x120: pfifo limit 4",
                       "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x10 fw classid "
                       "1:0x10",
                       "filter add dev q0 parent 1:0 protocol ip prio 50 handle 0x12 fw classid "
                       "1:0x12"};
    lines expected = {del};
    expected.insert(expected.end(), old.begin(), old.end());
    EXPECT_EQ(expected, undo_of(made.steps, made.steps.size()));
    EXPECT_EQ(old, undo_of(made.steps, 1));
    EXPECT_EQ(old, undo_of(plan_stop("q0", &live, {}).steps, 1));
    // A fresh interface is undone by the removal alone.
    const plan fresh = plan_apply(p.w(), default_tree(), no_difference, {});
    EXPECT_EQ(lines{del}, undo_of(fresh.steps, fresh.steps.size()));
}

}  // namespace
