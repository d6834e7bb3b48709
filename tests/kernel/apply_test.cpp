// SPDX-License-Identifier: MIT
// The command's apply, stop and status against a real kernel. It runs as root in a guest of
// uml-run:
//
//     uml-run apply_test MORDEL
//
// Under the names tc, iptables and iptables-restore this program is a spy: it notes the call and
// then runs the real one. What the kernel holds is always read with tc and iptables themselves.
#include <sys/file.h>

#include <cstring>
#include <exception>

#include "spy.h"

namespace {

using namespace guest;
namespace fs = std::filesystem;

// ---- The command --------------------------------------------------------------------------------

// signal: what the spies send to mordel at each call
environment signalled(int signal) { return spied({{"SPY_SIGNAL", std::to_string(signal)}}); }

void expect_all_wait()
{
    for (const json &call : calls()) {
        if (call["name"] == "tc") continue;
        const auto words = call["words"].get<lines>();
        EXPECT_TRUE(std::count(words.begin(), words.end(), "-w") == 1) << call;
    }
}

// With the spies watching; what they saw is that of the last call.
result mordel(const lines &words, const environment &e = spied())
{
    (void)::unlink(calls_file.c_str());
    result r = program(command_line(words), "", e).end();
    expect_all_wait();
    return r;
}

// The first interface's part of what apply or stop told, as JSON
json told(const result &r)
{
    const json all = r.parsed();
    EXPECT_FALSE(all.is_discarded()) << r.out << r.err;
    if (all.is_discarded() || all["interfaces"].empty()) return {};
    return all["interfaces"][0];
}

json apply(const string &text, int status = 0)
{
    const result r = mordel({"apply", "--json", "--kernel", "vendor", policy_file(text)});
    EXPECT_EQ(status, r.status) << r.err;
    EXPECT_EQ(status == 0, r.parsed().value("ok", status != 0));
    return told(r);
}

// Every leaf kind; 0x14 is so slow that its packets wait.
const string htb_policy =
    R"([[interface]]
name = "@"
root = "htb"
phy_tx = "100mbit"
link_tx = "20mbit"
default = 3
class = [
  { handle = 0x10, rate = "2mbit", ceil = "20mbit", burst = 6000, cburst = 7000, )"
    R"(leaf = { type = "pfifo", limit = 50 } },
  { handle = 0x11, rate = "4mbit", leaf = { type = "sfq", perturb = 10 } },
  { handle = 0x12, rate = "5mbit", )"
    R"(leaf = { type = "red", min = 15000, max = 45000, burst = 25, )"
    R"(limit = 120000, avpkt = 1000 } },
  { handle = 0x13, rate = "1mbit", )"
    R"(leaf = { type = "tbf", latency = 400, rate = "8mbit", burst = 10000 } },
  { handle = 0x14, rate = "1kbit", leaf = { type = "pfifo", limit = 10 } },
]
rule = [
  { index = 10, match = { dscp = 46 }, target = { mark = 0x10 } },
  { index = 20, match = { protocol = "udp", dport = "27015:27050" }, target = { mark = 0x11 } },
]
)";

const string hfsc_policy = R"([[interface]]
name = "@"
root = "hfsc"
phy_tx = "50mbit"
link_tx = "10mbit"
class = [
  { handle = 0x10, ul = "10mbit", sc = "500kbit" },
  { handle = 0x11, ul = "5mbit", ls = { umax = 1500, dmax = 20, rate = "400kbit" } },
  { handle = 0x14, ul = "1kbit", sc = "1kbit", leaf = { type = "pfifo", limit = 10 } },
]
)";

// ---- Whole policies -----------------------------------------------------------------------------

TEST(Apply, LeavesWhatTheRenderedScriptLeaves)
{
    const lines names = {"lan0", "wan0", "wifi0"};
    for (const string &name : names)
        by_hand("ip link add " + name + " txqueuelen 100 type ifb && ip link set " + name + " up");
    const string example = string(MORDEL_EXAMPLES) + "/home-router.toml";
    const auto all = [&] {
        string state;
        for (const string &name : names) state += tree_of(name) + rules_of(name);
        return state;
    };
    const string before = all();
    const result rendered = mordel({"render", example});
    ASSERT_EQ(0, rendered.status);
    (void)run({"/bin/sh"}, rendered.out);
    const string by_script = all();
    ASSERT_TRUE(has(by_script, "class htb 1:13 ") && has(by_script, "class hfsc 1:10 ") &&
                has(by_script, "class prio 1:3 ") && has(by_script, "-A QOS_wifi0 -m dscp "))
        << by_script;
    ASSERT_EQ(0, mordel({"stop", example}).status);
    EXPECT_EQ(before, all());

    const result built = mordel({"apply", example});
    EXPECT_EQ(0, built.status) << built.err;
    EXPECT_EQ("", built.err);
    EXPECT_EQ(by_script, all());
    const result again = mordel({"apply", example});
    EXPECT_EQ("lan0: nothing to do\nwan0: nothing to do\nwifi0: nothing to do\n", again.out);
    EXPECT_EQ(0, again.status);
    EXPECT_EQ(lines{}, changes());

    ASSERT_EQ(0, mordel({"stop", example}).status);
    const result script = mordel({"apply", "--script", example}, {plain_path, {}, {}});
    EXPECT_EQ(0, script.status) << script.err;
    EXPECT_EQ(by_script, all());
    EXPECT_EQ(0, mordel({"stop", example}).status);
}

TEST(Apply, AgainChangesNothingAndCountersStay)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    send(q, 0x10, 7);
    const string rules = run({"iptables", "-t", "mangle", "-vS", "OUTPUT"}).out;
    ASSERT_TRUE(has(rules, "-o " + q + " -c 7 ")) << rules;
    ASSERT_EQ(7U, counters_of(q)["1:10"].packets);
    EXPECT_EQ("unchanged", apply(text)["result"]);
    EXPECT_EQ(lines{}, changes());
    EXPECT_EQ(7U, counters_of(q)["1:10"].packets);
    EXPECT_EQ(rules, run({"iptables", "-t", "mangle", "-vS", "OUTPUT"}).out);
}

TEST(Apply, DryRunTellsWhatApplyThenDoes)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    const string other = replaced(replaced(text, "2mbit", "3mbit"), "dscp = 46", "dscp = 44");
    for (const string &now : {text, other}) {
        const string before = state_of(q);
        const string kept = file_text("/var/run/mordel/" + q + ".applied");
        const result dry = mordel({"apply", "--dry-run", "--json", policy_file(now)});
        EXPECT_EQ(0, dry.status) << dry.err;
        EXPECT_EQ(lines{}, changes());
        EXPECT_EQ(before, state_of(q));
        EXPECT_EQ(kept, file_text("/var/run/mordel/" + q + ".applied"));
        EXPECT_EQ(true, dry.parsed()["dry_run"]);
        const json done = apply(now);
        EXPECT_EQ(told(dry)["commands"], done["commands"]);
        EXPECT_EQ(done["commands"], json(changes()));
        EXPECT_EQ(done["commands"].size(), done["tc_commands"].get<std::size_t>() +
                                               done["rule_commands"].get<std::size_t>());
    }
    const string before = state_of(q);
    const result dry = mordel({"stop", "--dry-run", "--json", policy_file(text)});
    EXPECT_EQ(lines{}, changes());
    EXPECT_EQ(before, state_of(q));
    const result stopped = mordel({"stop", "--json", policy_file(text)});
    EXPECT_EQ(0, stopped.status) << stopped.err;
    EXPECT_EQ("stopped", told(stopped)["result"]);
    EXPECT_EQ(told(dry)["commands"], told(stopped)["commands"]);
    EXPECT_EQ(told(stopped)["commands"], json(changes()));
    expect_default(q);
}

TEST(Apply, PfifoFastSetsTheQueueLength)
{
    const string q = fresh_interface();
    EXPECT_EQ("built", apply(for_interface(htb_policy, q))["result"]);
    const string text =
        "[[interface]]\nname = \"" + q + "\"\nroot = \"pfifo_fast\"\nqueue_len = 250\n";
    const string length = "/sys/class/net/" + q + "/tx_queue_len";
    const result dry = mordel({"apply", "--dry-run", policy_file(text)});
    EXPECT_TRUE(has(dry.out, "txqueuelen 250")) << dry.out;
    EXPECT_EQ("100\n", file_text(length));
    EXPECT_EQ("built", apply(text)["result"]);
    EXPECT_EQ("250\n", file_text(length));
    EXPECT_TRUE(has(tree_of(q), "qdisc pfifo_fast 0: root")) << tree_of(q);
    EXPECT_EQ("unchanged", apply(text)["result"]);
    by_hand("ip link set " + q + " txqueuelen 99");
    EXPECT_EQ("built", apply(text)["result"]);
    EXPECT_EQ("250\n", file_text(length));
}

// A fresh interface is thought to have no chains; the load finds out, and those are exchanged.
TEST(Apply, ExchangesChainsThatNobodyThoughtOf)
{
    const string reference = fresh_interface();
    EXPECT_EQ("built", apply(for_interface(htb_policy, reference))["result"]);
    const string q = fresh_interface();
    const string t = "iptables -w -t mangle ";
    by_hand(for_interface(
        t + "-N QOS_@;" + t + "-A QOS_@ -j MARK --set-mark 3;" + t + "-A OUTPUT -o @ -g QOS_@", q));
    const json done = apply(for_interface(htb_policy, q));
    EXPECT_EQ("built", done["result"]);
    EXPECT_EQ(state_of(reference), state_of(q));
    const string commands = done["commands"].dump();
    // The chain and the jump that are there stay, and the rule in between goes.
    EXPECT_TRUE(has(commands, "iptables-restore: -D QOS_" + q + " 1") &&
                has(commands, "iptables-restore: -N QOS_" + q + "_AUTO") &&
                !has(commands, "-N QOS_" + q + "\"") && !has(commands, "-A OUTPUT"))
        << commands;
    EXPECT_EQ(done["commands"].size(), done["steps"].size());
    EXPECT_EQ("unchanged", apply(for_interface(htb_policy, q))["result"]);
}

// ---- In place -----------------------------------------------------------------------------------

struct edit {
    const char *what, *from, *to;
    lines commands;     // all that may be run; @ is the interface
    const char *shown;  // by tc afterwards
};

// One edit after the other. Packets that wait in 1:14, and its counters, live through all of them.
void expect_in_place(const string &policy, const std::vector<edit> &edits)
{
    const string q = fresh_interface();
    string text = for_interface(policy, q);
    ASSERT_EQ("built", apply(text)["result"]);
    send(q, 0x10, 5);
    send(q, 0x14, 20);
    const counters slow = counters_of(q)["1:14"];
    ASSERT_EQ(20U, slow.total());
    ASSERT_LT(5U, slow.waiting);
    for (const edit &e : edits) {
        SCOPED_TRACE(e.what);
        ASSERT_TRUE(has(text, e.from));
        text = replaced(text, e.from, e.to);
        const json done = apply(text);
        EXPECT_EQ("changed", done["result"]);
        lines seen;
        for (const string &command : changes()) seen.push_back(squeezed(command));
        lines wanted;
        for (const string &command : e.commands) wanted.push_back(for_interface(command, q));
        EXPECT_EQ(wanted, seen);
        EXPECT_TRUE(has(tree_of(q), e.shown)) << e.shown << " is not in\n" << tree_of(q);
        auto now = counters_of(q);
        EXPECT_EQ(20U, now["1:14"].total());
        EXPECT_EQ(slow.dropped, now["1:14"].dropped);
        EXPECT_GE(now["1:14"].packets, slow.packets);
        EXPECT_EQ(5U, now["1:10"].packets) << "the class that is changed";
    }
    EXPECT_EQ("unchanged", apply(text)["result"]);
}

TEST(InPlace, HtbClassesAndEveryLeafKind)
{
    expect_in_place(
        htb_policy,
        {{"rate",
          "2mbit\"",
          "3mbit\"",
          {"tc class change dev @ parent 1:0x1 classid 1:0x10 htb rate 3000kbit ceil 20000kbit "
           "prio 0 burst 6000 cburst 7000"},
          "1:10 parent 1:1 leaf 100: prio 0 quantum 37500 rate 3Mbit ceil 20Mbit"},
         {"burst",
          "burst = 6000",
          "burst = 9000",
          {"tc class change dev @ parent 1:0x1 classid 1:0x10 htb rate 3000kbit ceil 20000kbit "
           "prio 0 burst 9000 cburst 7000"},
          "burst 9000b"},
         {"prio",
          "burst = 9000",
          "prio = 5, burst = 9000",
          {"tc class change dev @ parent 1:0x1 classid 1:0x10 htb rate 3000kbit ceil 20000kbit "
           "prio 5 burst 9000 cburst 7000"},
          "1:10 parent 1:1 leaf 100: prio 5"},
         {"pfifo",
          "limit = 50",
          "limit = 60",
          {"tc qdisc change dev @ parent 1:0x10 handle 0x100: pfifo limit 60"},
          "pfifo 100: parent 1:10 limit 60p"},
         // The kernel's SFQ takes no change.
         {"sfq",
          "perturb = 10",
          "perturb = 15",
          {"tc qdisc del dev @ parent 1:11",
           "tc qdisc add dev @ parent 1:0x11 handle 0x110: sfq perturb 15"},
          "perturb 15sec"},
         {"red",
          "limit = 120000",
          "limit = 130000",
          {"tc qdisc change dev @ parent 1:0x12 handle 0x120: red min 15000b max 45000b burst 25 "
           "limit 130000b avpkt 1000b"},
          "limit 130000b min 15000b"},
         // The kernel does not tell it: 25 and 26 are one averaging constant.
         {"red's burst alone",
          "burst = 25",
          "burst = 26",
          {"tc qdisc change dev @ parent 1:0x12 handle 0x120: red min 15000b max 45000b burst 26 "
           "limit 130000b avpkt 1000b"},
          "limit 130000b min 15000b"},
         {"tbf",
          "8mbit",
          "4mbit",
          {"tc qdisc change dev @ parent 1:0x13 handle 0x130: tbf latency 400ms rate 4000kbit "
           "burst 10000b"},
          "tbf 130: parent 1:13 rate 4Mbit burst 10000b/1 mpu 0b lat 400ms"},
         {"pfifo, left to the kernel",
          ", limit = 60",
          "",
          {"tc qdisc del dev @ parent 1:10",
           "tc qdisc add dev @ parent 1:0x10 handle 0x100: pfifo"},
          "pfifo 100: parent 1:10 limit 100p"},
         {"sfq's perturb taken away",
          "perturb = 15",
          "perturb = 0",
          {"tc qdisc del dev @ parent 1:11", "tc qdisc add dev @ parent 1:0x11 handle 0x110: sfq"},
          "divisor 1024 \n"},
         {"another kind",
          "type = \"sfq\", perturb = 0",
          "type = \"pfifo\", limit = 33",
          {"tc qdisc del dev @ parent 1:11",
           "tc qdisc add dev @ parent 1:0x11 handle 0x110: pfifo limit 33"},
          "pfifo 110: parent 1:11 limit 33p"}});
}

TEST(InPlace, HfscCurves)
{
    expect_in_place(
        hfsc_policy,
        {{"sc",
          "sc = \"500kbit\"",
          "sc = \"600kbit\"",
          {"tc class change dev @ parent 1:0x1 classid 1:0x10 hfsc ul rate 10000kbit sc rate "
           "600kbit"},
          "1:10 parent 1:1 leaf 100: sc m1 0bit d 0us m2 600Kbit ul m1 0bit d 0us m2 10Mbit"},
         {"umax and dmax",
          "sc = \"600kbit\"",
          "sc = { umax = 1500, dmax = 10, rate = \"600kbit\" }",
          {"tc class change dev @ parent 1:0x1 classid 1:0x10 hfsc ul rate 10000kbit sc umax 1500b "
           "dmax 10ms rate 600kbit"},
          "sc m1 1200Kbit d 10ms m2 600Kbit"},
         {"dmax",
          "dmax = 20",
          "dmax = 30",
          {"tc class change dev @ parent 1:0x1 classid 1:0x11 hfsc ul rate 5000kbit ls umax 1500b "
           "dmax 30ms rate 400kbit"},
          "ls m1 0bit d 0us m2 400Kbit"},
         {"ul",
          "ul = \"5mbit\"",
          "ul = \"6mbit\"",
          {"tc class change dev @ parent 1:0x1 classid 1:0x11 hfsc ul rate 6000kbit ls umax 1500b "
           "dmax 30ms rate 400kbit"},
          "ul m1 0bit d 0us m2 6Mbit"}});
}

// tc shows three digits of such a rate: 1200Mbit either way.
TEST(InPlace, OneKilobitMoreAtTwelveHundredMegabits)
{
    const string q = fresh_interface();
    const string text = for_interface(R"([[interface]]
name = "@"
root = "htb"
phy_tx = "2gbit"
link_tx = "2gbit"
class = [{ handle = 0x10, rate = "1200000kbit", burst = 160000, cburst = 160000 }]
)",
                                      q);
    const string change = "tc class change dev " + q + " parent 1:0x1 classid 1:0x10 htb rate ";
    EXPECT_EQ("built", apply(text)["result"]);
    EXPECT_EQ("changed", apply(replaced(text, "1200000k", "1200001k"))["result"]);
    ASSERT_EQ(1U, changes().size());
    EXPECT_EQ(change + "1200001kbit ceil 1200001kbit prio 0 burst 160000 cburst 160000",
              squeezed(changes()[0]));
    EXPECT_EQ("changed", apply(text)["result"]);
    // By hand, the remembered script says nothing of it.
    by_hand(change + "1200001kbit ceil 1200000kbit burst 160000 cburst 160000");
    EXPECT_EQ("changed", apply(text)["result"]);
    ASSERT_EQ(1U, changes().size());
    EXPECT_EQ("unchanged", apply(text)["result"]);
}

TEST(InPlace, OneClassOfAThousand)
{
    const string q = fresh_interface();
    string text =
        for_interface("[[interface]]\nname = \"@\"\nroot = \"htb\"\nphy_tx = \"2gbit\"\n"
                      "link_tx = \"1gbit\"\ndefault_tree = false\ndefault = 0\nclass = [\n"
                      "  { handle = 1, rate = \"2gbit\" },\n",
                      q);
    for (int i = 2; i <= 1000; ++i)
        text += "  { handle = " + std::to_string(i) + ", rate = \"" + std::to_string(1000 + i) +
                "kbit\" },\n";
    text += "]\n";
    EXPECT_EQ("built", apply(text)["result"]);
    send(q, 499, 3);
    send(q, 500, 4);
    const json done = apply(replaced(text, "1500kbit", "7777kbit"));
    EXPECT_EQ(1, done["tc_commands"]);
    EXPECT_EQ(0, done["rule_commands"]);
    ASSERT_EQ(1U, changes().size());
    EXPECT_TRUE(has(changes()[0], "tc class change dev " + q + " ") &&
                has(changes()[0], "classid 1:0x1f4 ") && has(changes()[0], " rate 7777kbit "))
        << changes()[0];
    auto now = counters_of(q);
    EXPECT_EQ(1000U, now.size());
    EXPECT_EQ(3U, now["1:1f3"].packets);
    EXPECT_EQ(4U, now["1:1f4"].packets);

    // One more of them is three commands, and none of the others loses its counters.
    const string more = replaced(replaced(text, "1500kbit", "7777kbit"), "\n]\n",
                                 "\n  { handle = 1001, rate = \"5mbit\" },\n]\n");
    EXPECT_EQ(3, apply(more)["tc_commands"]);
    for (const string &command : changes()) EXPECT_TRUE(has(command, "0x3e9")) << command;
    now = counters_of(q);
    EXPECT_EQ(1001U, now.size());
    EXPECT_EQ(3U, now["1:1f3"].packets);
    EXPECT_EQ(4U, now["1:1f4"].packets);
}

// ---- Mended and rebuilt -------------------------------------------------------------------------

TEST(Drift, OfAPersonIsMendedByTheNextApply)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    const string good = state_of(q);
    const string t = "iptables -w -t mangle ";
    const struct {
        const char *what;
        string command;
        bool tree;   // it is the tree that is mended, or else the rules
        bool whole;  // and built anew
    } cases[] = {
        {"class", "tc class change dev @ classid 1:11 htb rate 3mbit", true, false},
        {"class's burst",
         "tc class change dev @ classid 1:10 htb rate 2mbit ceil 20mbit burst 3000 cburst 7000",
         true, false},
        {"leaf", "tc qdisc change dev @ parent 1:10 pfifo limit 7", true, false},
        {"leaf replaced",
         "tc qdisc del dev @ parent 1:11; tc qdisc add dev @ parent 1:11 handle 110: pfifo", true,
         false},
        {"leaf gone", "tc qdisc del dev @ parent 1:13", true, false},
        {"filter gone", "tc filter del dev @ parent 1:0 protocol ip prio 50 handle 0x12 fw", true,
         false},
        {"filters gone", "tc filter del dev @ parent 1:0", true, false},
        {"class more", "tc class add dev @ parent 1:1 classid 1:99 htb rate 1mbit", true, false},
        {"another's filter",
         "tc filter add dev @ parent 1:0 protocol ip prio 1 u32 match u32 0 0 flowid 1:3", true,
         false},
        {"a second filter for a mark",
         "tc filter add dev @ parent 1:0 protocol ip prio 1 handle 0x10 fw classid 1:3", true,
         false},
        {"a filter's place",
         "tc filter del dev @ parent 1:0 protocol ip prio 50 handle 0x12 fw;"
         "tc filter add dev @ parent 1:0 protocol ip prio 7 handle 0x12 fw classid 1:12",
         true, false},
        {"leaves swapped",
         "tc qdisc del dev @ parent 1:10; tc qdisc del dev @ parent 1:3;"
         "tc qdisc add dev @ parent 1:10 handle 30: pfifo limit 50;"
         "tc qdisc add dev @ parent 1:3 handle 100: pfifo",
         true, false},
        {"root gone", "tc qdisc del dev @ root", true, true},
        {"other root", "tc qdisc del dev @ root; tc qdisc add dev @ root handle 1: prio", true,
         true},
        {"rule gone", t + "-D QOS_@ 3", false, false},
        {"rule changed", t + "-R QOS_@ 2 -m dscp --dscp 1 -j MARK --set-mark 0x11", false, false},
        {"rule more", t + "-I QOS_@ -j MARK --set-mark 3", false, false},
        {"chain flushed", t + "-F QOS_@", false, false},
        {"jump gone", t + "-D OUTPUT -o @ -g QOS_@", false, false},
        {"jump twice", t + "-A OUTPUT -o @ -g QOS_@", false, false},
        {"chains gone",
         t + "-F QOS_@;" + t + "-D OUTPUT -o @ -g QOS_@;" + t + "-D FORWARD -o @ -g QOS_@;" + t +
             "-X QOS_@;" + t + "-X QOS_@_AUTO",
         false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        by_hand(for_interface(c.command, q));
        const json done = apply(text);
        EXPECT_EQ(c.whole ? "built" : "changed", done["result"]);
        EXPECT_EQ(c.tree, done["tc_commands"] != 0) << done;
        EXPECT_EQ(!c.tree, done["rule_commands"] != 0) << done;
        EXPECT_EQ(good, state_of(q));
        if (testing::Test::HasFailure()) (void)apply(text);
    }
    EXPECT_EQ("unchanged", apply(text)["result"]);
}

// Without a memory of what was applied, the kernel's own numbers tell.
TEST(Drift, OfARedBurstIsSeenWithoutTheState)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    fs::remove("/var/run/mordel/" + q + ".applied");
    const string other = replaced(text, "burst = 25", "burst = 60");
    ASSERT_NE(text, other);
    EXPECT_EQ("changed", apply(other)["result"]);
    EXPECT_EQ("unchanged", apply(other)["result"]);
}

// An older memory would be believed at the next apply.
TEST(Drift, OfAMemoryThatCannotBeWrittenIsNone)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    const string memory = "/var/run/mordel/" + q + ".applied";
    fs::remove(memory);
    fs::create_directories(memory + "/in the way");
    const json done = apply(replaced(text, "2mbit", "3mbit"));
    EXPECT_EQ("changed", done["result"]);
    EXPECT_TRUE(has(done.dump(), "cannot write to /var/run/mordel")) << done;
    EXPECT_FALSE(fs::exists(memory + ".new"));
    fs::remove_all(memory);
}

TEST(Structure, ChangesAreInPlaceWhereTheKernelTakesThem)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    const struct {
        const char *what;
        const char *result;
        string policy;
        lines shown;
    } cases[] = {
        {"class more",
         "changed",
         replaced(text, "\n]\nrule", "\n  { handle = 0x20, rate = \"1mbit\" },\n]\nrule"),
         {"class htb 1:20 parent 1:1 leaf 200:", "handle 0x20 classid 1:20"}},
        {"class less, and another parent",
         "changed",
         replaced(text, "handle = 0x13",
                  "handle = 0x20, rate = \"9mbit\" },\n  { parent = 0x20, "
                  "handle = 0x13"),
         {"class htb 1:13 parent 1:20 leaf 130:", "class htb 1:20 parent 1:1 rate 9Mbit"}},
        {"default",
         "built",
         replaced(text, "default = 3", "default = 0x10"),
         {"htb 1: root refcnt 2 r2q 10 default 0x10"}},
        {"root",
         "built",
         for_interface(hfsc_policy, q),
         {"qdisc hfsc 1: root", "class hfsc 1:11 parent 1:1 leaf 110:"}},
        {"default of hfsc",
         "changed",
         replaced(for_interface(hfsc_policy, q), "root = \"hfsc\"\n",
                  "root = \"hfsc\"\ndefault = 0x11\n"),
         {"qdisc hfsc 1: root refcnt 2 default 11"}},
        {"prio",
         "built",
         "[[interface]]\nname = \"" + q +
             "\"\nroot = \"prio\"\nbands = 4\npriomap = [3, 2, 2, 2, "
             "1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1]\n",
         {"qdisc prio 1: root refcnt 2 bands 4 priomap 3 2 2 2", "qdisc pfifo 40: parent 1:4"}},
        {"prio's map",
         "changed",
         "[[interface]]\nname = \"" + q +
             "\"\nroot = \"prio\"\nbands = 4\npriomap = [0, 2, 2, 2, "
             "1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1]\n",
         {"qdisc prio 1: root refcnt 2 bands 4 priomap 0 2 2 2"}},
        {"back", "built", text, {"class htb 1:10 parent 1:1 leaf 100: prio 0"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.result, apply(c.policy)["result"]);
        const string tree = tree_of(q);
        for (const string &part : c.shown) EXPECT_TRUE(has(tree, part)) << part << "\n" << tree;
        EXPECT_EQ(c.what == string("class more"), has(tree, "class htb 1:20 parent 1:1 leaf"));
    }
}

TEST(Structure, OtherRulesLeaveTheTreeAlone)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    send(q, 0x10, 5);
    const json done = apply(replaced(text, "rule = [",
                                     "rule = [\n  { index = 30, match = { length = "
                                     "99 }, target = { mark = 0x12 } },"));
    EXPECT_EQ("changed", done["result"]);
    EXPECT_EQ(0, done["tc_commands"]);
    for (const string &command : changes())
        EXPECT_TRUE(has(command, "iptables-restore: ")) << command;
    EXPECT_TRUE(has(rules_of(q), "--length 99 -j MARK --set-xmark 0x12/"));
    EXPECT_EQ(5U, counters_of(q)["1:10"].packets);
}

// ---- Failures -----------------------------------------------------------------------------------

struct refusal {
    const char *what;
    string policy;
    const char *sign;   // in the command that is refused, and in no earlier one
    bool is_seen;       // by a trial on a fresh interface, and
    bool is_seen_over;  // over an older tree: nothing is touched then
};

const std::vector<refusal> &refusals()
{
    const auto with_rule = [](const char *match) {
        return replaced(htb_policy, "rule = [",
                        string("rule = [\n  { index = 15, match = { ") + match +
                            " }, target = { mark = 0x12 } },");
    };
    static const std::vector<refusal> all = {
        {"a curve", replaced(hfsc_policy, "ul = \"10mbit\", sc", "ul = \"10mbit\", rt"),
         "rt rate 500kbit", false, true},
        {"a rule, by the kernel", with_rule("mac = \"00:11:22:33:44:55\""), "--mac-source", false,
         false},
        {"a rule, by iptables", with_rule("domain = \"example.org\""), "-m domain", true, true},
        {"a TOS, by iptables", with_rule("tos = \"Minimize-Delay\", precedence = 3"), "-m tos",
         true, true},
    };
    return all;
}

// The command that was refused and its line are those of the script.
void expect_blame(const json &failure, const string &policy, const char *sign, const string &name)
{
    const lines script = lines_of(
        mordel({"render", "--kernel", "vendor", "--interface", name, policy_file(policy)}).out);
    std::size_t number = 0;
    while (number < script.size() && !has(script[number], sign)) ++number;
    ASSERT_LT(number, script.size());
    EXPECT_EQ(number + 1, failure.value("failed_line", 0U)) << failure;
    EXPECT_EQ(squeezed(replaced(script[number], " 2>/dev/null", "")),
              squeezed(failure.value("failed_command", "")));
}

TEST(Failure, HalfWayLeavesWhatRan)
{
    const string neighbour = fresh_interface();
    EXPECT_EQ("built", apply(for_interface(htb_policy, neighbour))["result"]);
    const string untouched = state_of(neighbour);
    for (const refusal &r : refusals())
        for (const bool older : {false, true}) {
            SCOPED_TRACE(string(r.what) + (older ? ", over an older tree" : ""));
            const string q = fresh_interface();
            const string policy = for_interface(r.policy, q);
            if (older) { EXPECT_EQ("built", apply(for_interface(htb_policy, q))["result"]); }
            const string before = state_of(q);
            const string remembered = file_text("/var/run/mordel/" + q + ".applied");
            const json failure = apply(policy, 1);
            EXPECT_EQ("failed", failure["result"]);
            const bool is_seen = older ? r.is_seen_over : r.is_seen;
            EXPECT_EQ(is_seen ? "no" : older ? "before" : "default qdisc", failure["taken_back"]);
            EXPECT_NE("", failure["error"]);
            expect_blame(failure, policy, r.sign, q);
            EXPECT_EQ(before, state_of(q));
            EXPECT_EQ(remembered, file_text("/var/run/mordel/" + q + ".applied"));
        }
    EXPECT_EQ(untouched, state_of(neighbour));
}

TEST(Failure, IsToldToAPerson)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(refusals()[1].policy, q));
    const result r = mordel({"apply", "--kernel", "vendor", file});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_TRUE(has(r.err, "mordel: " + q + ": line ") && has(r.err, "--mac-source") &&
                has(r.err, "back on its default qdisc"))
        << r.err;
}

TEST(Failure, InALaterInterfaceTakesBackTheEarlierOnes)
{
    const lines names = {fresh_interface(), fresh_interface(), fresh_interface()};
    for (const refusal &r : {refusals()[0], refusals()[2]}) {
        SCOPED_TRACE(r.what);
        const string policy = for_interface(htb_policy, names[0]) +
                              for_interface(r.policy, names[1]) +
                              for_interface(htb_policy, names[2]);
        const result failed =
            mordel({"apply", "--json", "--kernel", "vendor", policy_file(policy)});
        EXPECT_EQ(1, failed.status);
        const json all = failed.parsed();
        EXPECT_EQ(false, all["ok"]);
        ASSERT_EQ(3U, all["interfaces"].size());
        EXPECT_EQ(r.is_seen ? "left alone" : "taken back", all["interfaces"][0]["result"]);
        expect_blame(all["interfaces"][1], policy, r.sign, names[1]);
        EXPECT_EQ("left alone", all["interfaces"][2]["result"]);
        for (const string &name : names) expect_default(name);
    }
}

TEST(Failure, InterfaceThatIsNotThere)
{
    for (const char *verb : {"apply", "stop"}) {
        SCOPED_TRACE(verb);
        const result r = mordel({verb, policy_file(for_interface(htb_policy, "q999"))});
        EXPECT_EQ(1, r.status);
        EXPECT_TRUE(has(r.err, "no interface") && has(r.err, "q999")) << r.err;
        EXPECT_EQ(lines{}, changes());
        EXPECT_EQ("", rules_of("q999"));
    }
}

// ---- Stop ---------------------------------------------------------------------------------------

TEST(Stop, TakesEverythingAwayEvenJumpsThatAreThereTwice)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    EXPECT_EQ(0, mordel({"apply", file}).status);
    const string t = "iptables -w -t mangle -A ";
    by_hand(for_interface(t + "FORWARD -o @ -g QOS_@;" + t + "FORWARD -o @ -g QOS_@;" + t +
                              "OUTPUT -o @ -g QOS_@",
                          q));
    const result r = mordel({"stop", file});
    EXPECT_EQ(0, r.status) << r.err;
    expect_default(q);
    EXPECT_FALSE(fs::exists("/var/run/mordel/" + q + ".applied"));
    const result again = mordel({"stop", file});
    EXPECT_EQ(0, again.status);
    EXPECT_EQ(q + ": nothing to do\n", again.out);
    EXPECT_EQ(lines{}, changes());
}

// The chains of one whose interface has gone, as a ppp link's does, would stay for ever.
TEST(Stop, TakesTheRulesOfAnInterfaceThatHasGone)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    EXPECT_EQ(0, mordel({"apply", file}).status);
    by_hand("ip link del " + q);
    (void)mordel({"stop", file});
    EXPECT_EQ("", rules_of(q));
}

// ---- Locks and signals --------------------------------------------------------------------------

class held_lock {
public:
    explicit held_lock(const char *path) : fd_(::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        EXPECT_EQ(0, ::flock(fd_, LOCK_EX | LOCK_NB)) << path;
    }
    held_lock(const held_lock &) = delete;
    held_lock &operator=(const held_lock &) = delete;
    ~held_lock() { release(); }
    void release()
    {
        if (fd_ >= 0) (void)::close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

constexpr char own_lock[] = "/var/run/mordel/lock";
constexpr char iptables_lock[] = "/run/xtables.lock";

TEST(Lock, OneApplyWaitsForAnother)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    EXPECT_EQ(0, mordel({"stop", file}).status);  // makes the folder
    (void)::unlink(calls_file.c_str());
    held_lock lock(own_lock);
    program waiting(command_line({"apply", "--wait", "600", file}), "", spied());
    const result impatient =
        program(command_line({"apply", "--wait", "1", file}), "", spied()).end();
    EXPECT_EQ(1, impatient.status);
    EXPECT_TRUE(has(impatient.err, own_lock) && has(impatient.err, "waited 1 s")) << impatient.err;
    EXPECT_TRUE(waiting.running());
    EXPECT_EQ(0U, calls().size());
    expect_default(q);
    lock.release();
    const result r = waiting.end();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(tree_of(q), "class htb 1:14 "));
}

TEST(Lock, OfIptablesIsWaitedFor)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    (void)::unlink(calls_file.c_str());
    held_lock lock(iptables_lock);
    program waiting(command_line({"apply", "--wait", "600", file}), "", spied());
    const auto asked = [] { return has(file_text(calls_file), "\"iptables"); };
    while (!asked() && waiting.running()) (void)::usleep(10000);
    EXPECT_TRUE(waiting.running());
    lock.release();
    const result r = waiting.end();
    EXPECT_EQ(0, r.status) << r.err;
    expect_all_wait();
    EXPECT_TRUE(has(rules_of(q), "--dscp 0x2e"));
}

TEST(Lock, OfIptablesThatStaysHeldFailsTheApply)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    held_lock lock(iptables_lock);
    const result r = mordel({"apply", "--wait", "1", "--json", file});
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(told(r)["error"], "xtables lock")) << r.out;
    lock.release();
    expect_default(q);
}

// It could change no rule, and so it touches nothing.
TEST(Lock, OfIptablesThatStaysHeldLeavesAnOlderTree)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    const string before = state_of(q);
    held_lock lock(iptables_lock);
    (void)mordel({"apply", "--wait", "1", policy_file(text)});
    lock.release();
    EXPECT_EQ(before, state_of(q));
}

// iptables takes -w 0 for a wait without an end.
TEST(Lock, NoWaitIsNoWait)
{
    const string q = fresh_interface();
    held_lock lock(iptables_lock);
    const result r = mordel({"apply", "--wait", "0", policy_file(for_interface(htb_policy, q))});
    EXPECT_EQ(1, r.status);
    lock.release();
    expect_default(q);
}

TEST(Lock, OfIptablesThatStaysHeldIsNotTheScriptsToWaitFor)
{
    const string q = fresh_interface();
    held_lock lock(iptables_lock);
    const result r =
        mordel({"apply", "--script", "--wait", "1", policy_file(for_interface(htb_policy, q))});
    EXPECT_EQ(1, r.status) << r.err;
    lock.release();
    expect_default(q);
}

TEST(Signal, TakesBackAnApplyAndFinishesAStop)
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        SCOPED_TRACE(::strsignal(signal));
        const string q = fresh_interface();
        const string file = policy_file(for_interface(htb_policy, q));
        const result r = mordel({"apply", file}, signalled(signal));
        EXPECT_EQ(128 + signal, r.status) << r.err;
        expect_default(q);
        EXPECT_EQ("built", apply(for_interface(htb_policy, q))["result"]);
        (void)mordel({"stop", file}, signalled(signal));
        expect_default(q);
    }
}

// ---- Missing tools ------------------------------------------------------------------------------

// A PATH with these alone
environment only(const lines &tools)
{
    const string folder = "/run/only" + joined(tools, "");
    fs::create_directories(folder);
    for (const string &tool : tools)
        if (!fs::is_symlink(folder + "/" + tool))
            fs::create_symlink(squeezed(run({"/bin/sh", "-c", "command -v " + tool}).out),
                               folder + "/" + tool);
    return {folder, {}, {}};
}

void expect_whole_or_default(const string &q, const string &whole)
{
    if (has(tree_of(q), "pfifo_fast"))
        expect_default(q);
    else
        EXPECT_EQ(whole, state_of(q));
}

TEST(MissingTool, FallsBackToTheScriptOrFailsWhole)
{
    const string reference = fresh_interface();
    EXPECT_EQ("built", apply(for_interface(htb_policy, reference))["result"]);
    const string whole = state_of(reference);
    const struct {
        lines tools;
        int status;
        const char *missing;
    } cases[] = {
        {{"tc", "iptables"}, 0, "iptables-restore"},
        {{"iptables", "iptables-restore"}, 1, "tc"},
        {{"tc"}, 1, "iptables"},
        {{"tc", "iptables-restore"}, -1, "iptables"},
        {{"none"}, 1, "iptables"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("only " + joined(c.tools, ", "));
        const environment e =
            c.tools[0] == "none" ? environment{"/nowhere", {}, {}} : only(c.tools);
        const string q = fresh_interface();
        const string file = policy_file(for_interface(htb_policy, q));
        const result r = mordel({"apply", "--json", file}, e);
        if (c.status >= 0) { EXPECT_EQ(c.status, r.status) << r.out; }
        EXPECT_TRUE(r.status == 0 || has(r.err, c.missing + string(" is missing"))) << r.err;
        EXPECT_EQ(r.status != 0, has(tree_of(q), "pfifo_fast"));
        expect_whole_or_default(q, whole);
        if (r.status == 0 && c.status == 0) {
            EXPECT_EQ(true, told(r)["by_script"]);
            EXPECT_EQ(0, mordel({"stop", file}, e).status);
            expect_default(q);
        }
    }
}

TEST(MissingTool, OfTheTreeLeavesTheRules)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    EXPECT_EQ("built", apply(text)["result"]);
    const string whole = state_of(q);
    const result r = mordel({"apply", policy_file(replaced(text, "2mbit", "3mbit"))},
                            only({"iptables", "iptables-restore"}));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "tc is missing")) << r.err;
    EXPECT_EQ(whole, state_of(q));
    EXPECT_EQ("unchanged", apply(text)["result"]);
}

TEST(MissingTool, OfTheTreeIsNoReasonToLeaveTheRules)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    EXPECT_EQ(0, mordel({"apply", file}).status);
    const result r = mordel({"stop", file}, only({"iptables", "iptables-restore"}));
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "tc is missing")) << r.err;
    EXPECT_EQ("", rules_of(q));
    EXPECT_EQ(0, mordel({"stop", file}).status);
    expect_default(q);
}

// Its commands are run, not the file.
TEST(MissingTool, AndAFolderWhereNothingMayRun)
{
    const string q = fresh_interface();
    by_hand("mount -t tmpfs -o noexec tmpfs /var/tmp");
    const result r =
        mordel({"apply", policy_file(for_interface(htb_policy, q))}, only({"tc", "iptables"}));
    by_hand("umount /var/tmp");
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(has(tree_of(q), "htb")) << tree_of(q);
}

TEST(Script, ThatFindsNoRoomIsNotRun)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    by_hand("mount -t tmpfs -o size=4k tmpfs /var/tmp && head -c 4096 /dev/zero >/var/tmp/full");
    const result r = mordel({"apply", "--script", file});
    by_hand("umount /var/tmp");
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "nothing of it was run")) << r.err;
    expect_default(q);
}

// A kernel without network namespaces gives nothing to try the rules in.
TEST(MissingNamespaces, AreMadeUpForByMemory)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    by_hand("echo 0 > /proc/sys/user/max_net_namespaces");
    EXPECT_EQ("built", apply(text)["result"]);
    EXPECT_EQ("changed", apply(text)["result"]);  // loaded once more, and remembered
    EXPECT_EQ("unchanged", apply(text)["result"]);
    by_hand("iptables -w -t mangle -D QOS_" + q + " 3");
    EXPECT_EQ("changed", apply(text)["result"]);
    EXPECT_EQ("unchanged", apply(text)["result"]);
    by_hand("echo 1000 > /proc/sys/user/max_net_namespaces");
}

// What stands stays, or all of it goes.
TEST(MissingTool, NeverLeavesHalfOfWhatWasThere)
{
    for (const lines &tools : {lines{"tc"}, lines{"tc", "iptables-restore"}}) {
        SCOPED_TRACE("only " + joined(tools, ", "));
        const string q = fresh_interface();
        const string text = for_interface(htb_policy, q);
        EXPECT_EQ("built", apply(text)["result"]);
        const string whole = state_of(q);
        (void)mordel({"apply", policy_file(text)}, only(tools));
        expect_whole_or_default(q, whole);
    }
}

// ---- Status -------------------------------------------------------------------------------------

json status(const lines &words)
{
    lines all = {"status", "--json", "--interval", "0.1"};
    all.insert(all.end(), words.begin(), words.end());
    const result r = mordel(all);
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(lines{}, changes());
    return told(r);
}

json class_of(const json &interface, unsigned handle)
{
    for (const json &c : interface["classes"])
        if (c["handle"] == handle) return c;
    return {};
}

TEST(Status, TellsWhetherThePolicyIsThere)
{
    const string q = fresh_interface();
    const string text = for_interface(htb_policy, q);
    const string file = policy_file(text);
    EXPECT_EQ("unknown", status({q})["policy"]);
    EXPECT_EQ("default", status({q})["root"]);
    EXPECT_EQ("differs", status({"--policy", file})["policy"]);
    EXPECT_EQ("built", apply(text)["result"]);
    const json same = status({q});
    EXPECT_EQ("same", same["policy"]);
    EXPECT_EQ("htb", same["root"]);
    EXPECT_EQ(json::array(), same["differences"]);
    EXPECT_EQ(8U, same["classes"].size());
    EXPECT_EQ("same", status({"--policy", file})["policy"]);
    const json other =
        status({"--policy", policy_file(replaced(text, "rate = \"4mbit\"", "rate = \"6mbit\""))});
    EXPECT_EQ("differs", other["policy"]);
    EXPECT_TRUE(has(other["differences"].dump(), "class 1:11: rate is 4mbit, not 6mbit")) << other;

    by_hand("tc class change dev " + q + " classid 1:11 htb rate 3mbit ceil 4mbit");
    by_hand("iptables -w -t mangle -F QOS_" + q);
    const json drifted = status({q});
    EXPECT_EQ("differs", drifted["policy"]);
    ASSERT_EQ(2U, drifted["differences"].size()) << drifted;
    EXPECT_EQ("class 1:11: rate is 3mbit, not 4mbit", drifted["differences"][0]);
    EXPECT_TRUE(has(drifted["differences"][1], "rules")) << drifted;
    const result words = mordel({"status", "--interval", "0.1", q});
    EXPECT_TRUE(has(words.out, "not as the policy says") && has(words.out, "rate is 3mbit"))
        << words.out;
}

json status_while_sending(const string &name, unsigned mark)
{
    (void)::unlink(calls_file.c_str());
    program looking(command_line({"status", "--json", "--interval", "1", name}), "", spied());
    while (looking.running()) {
        send(name, mark, 1);
        (void)::usleep(20000);
    }
    const result r = looking.end();
    EXPECT_EQ(0, r.status) << r.err;
    return told(r);
}

TEST(Status, CountsDropsBacklogAndRate)
{
    const string q = fresh_interface();
    EXPECT_EQ("built", apply(for_interface(htb_policy, q))["result"]);
    send(q, 0x14, 20);
    // A guest that stands still between the two looks sends nothing: then it is looked at again.
    json seen = status_while_sending(q, 0x10);
    for (int again = 0; again < 4 && class_of(seen, 0x10)["rate_bit"] == 0; ++again)
        seen = status_while_sending(q, 0x10);
    auto now = counters_of(q);
    const json slow = class_of(seen, 0x14);
    EXPECT_EQ(now["1:14"].dropped, slow["drops"]) << slow;
    EXPECT_LE(5U, slow["drops"]);
    // 1,000 bytes, with the headers of UDP, IP and Ethernet
    EXPECT_LE(5U, slow["backlog_packets"]);
    EXPECT_EQ(slow["backlog_packets"].get<unsigned>() * 1042, slow["backlog_bytes"]);
    const json fast = class_of(seen, 0x10);
    EXPECT_LE(fast["packets"].get<unsigned>(), now["1:10"].packets);
    EXPECT_EQ(fast["packets"].get<unsigned>() * 1042, fast["bytes"]);
    EXPECT_LT(0, fast["rate_bit"]);
    EXPECT_LE(fast["rate_bit"].get<double>(), fast["bytes"].get<double>() * 8);
}

TEST(Status, OfAnInterfaceThatIsNotThere)
{
    const result r = mordel({"status", "--interval", "0.1", "q999"});
    EXPECT_EQ(1, r.status);
    EXPECT_TRUE(has(r.err, "q999")) << r.err;
}

// ---- Names --------------------------------------------------------------------------------------

TEST(Names, ThatAreEmptyAreNotAll)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    EXPECT_EQ(2, mordel({"apply", "--interface", "", file}).status);
    EXPECT_EQ(2, mordel({"status", ""}).status);
    expect_default(q);
}

TEST(Output, ThatIsClosedIsNoOtherFile)
{
    const string q = fresh_interface();
    const string file = policy_file(for_interface(htb_policy, q));
    const result r = run({"/bin/sh", "-c", mordel_path + " apply " + file + " >&-"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("", file_text("/var/run/mordel/lock"));
}

TEST(Names, NeverReachAShell)
{
    const string folder = "/run/names";
    fs::create_directory(folder);
    fs::current_path(folder);
    const string q = fresh_interface();
    const string tricks[] = {"$(touch x)", "'\"; touch x #"};
    for (const string &trick : tricks) {
        SCOPED_TRACE(trick);
        write_file(trick, for_interface(htb_policy, q));
        for (const char *verb : {"apply", "stop"}) EXPECT_EQ(0, mordel({verb, trick}).status);
        EXPECT_EQ(2, mordel({"apply", trick, "--interface", trick}).status);
        EXPECT_EQ(1, mordel({"status", "--interval", "0.1", trick}).status);
        write_file(trick, for_interface(htb_policy, replaced(trick, "\"", "\\\"")));
        EXPECT_EQ(2, mordel({"apply", trick}).status);
        (void)fs::remove(trick);
        EXPECT_TRUE(fs::is_empty(folder));
        fs::remove_all(folder + "/x");
    }
    fs::current_path("/");
}

int test_or_spy(int argc, char **argv)
{
    const string name = fs::path(argv[0]).filename();
    if (is_spy(name)) return spy(name, argv);
    testing::InitGoogleTest(&argc, argv);
    const char *given = argc > 1 ? argv[1] : std::getenv("MORDEL");
    if (given == nullptr) {
        std::fprintf(stderr, "usage: uml-run apply_test MORDEL\n");
        return 2;
    }
    mordel_path = given;
    plain_path = std::getenv("PATH");
    without_ipv6();
    place_spies();
    return RUN_ALL_TESTS();
}

}  // namespace

int main(int argc, char **argv)
try {
    return test_or_spy(argc, argv);
} catch (const std::exception &e) {
    std::fprintf(stderr, "apply_test: %s\n", e.what());
    return 2;
}
