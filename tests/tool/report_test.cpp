// SPDX-License-Identifier: MIT
// What apply and stop say of an interface, to a person and as JSON.
#include "report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace {

using std::string;
using tool::effect;
using tool::object;
using tool::outcome;
using tool::program;
using lines = std::vector<string>;

outcome two_steps(effect result)
{
    outcome r;
    r.name = "q0";
    r.result = result;
    r.steps = {
        {program::tc, "qdisc del dev q0 root", {object::kind::root, 0, ""}, 0, "no htb", true},
        {program::iptables_restore,
         "-A QOS_q0 -j MARK ",
         {object::kind::rule, 0, "QOS_q0"},
         12,
         "new",
         false}};
    return r;
}

TEST(Report, ToAPerson)
{
    const outcome built = two_steps(effect::built);
    EXPECT_EQ("q0: built, 1 tc and 1 iptables commands\n", outcome_text(built, false));
    EXPECT_EQ("q0: would be built by\n  tc qdisc del dev q0 root\n"
              "  iptables-restore: -A QOS_q0 -j MARK \n",
              outcome_text(built, true));
    EXPECT_EQ("q0: changed, 1 tc and 1 iptables commands\n",
              outcome_text(two_steps(effect::changed), false));
    EXPECT_EQ("q0: stopped, 1 tc and 1 iptables commands\n",
              outcome_text(two_steps(effect::stopped), false));
    outcome none;
    none.name = "q0";
    for (const bool dry : {false, true}) EXPECT_EQ("q0: nothing to do\n", outcome_text(none, dry));
    outcome script;
    script.name = "q0";
    script.result = effect::built;
    script.steps = tool::plan_script("--script").steps;
    EXPECT_EQ("q0: built, by the script\n", outcome_text(script, false));
    EXPECT_EQ("q0: would be built by\n  /var/tmp/qos_start\n", outcome_text(script, true));
}

// A rule that the table lists may hold any byte, and so may the name of an interface to stop.
TEST(Report, HasNoControlCharacters)
{
    outcome r = two_steps(effect::changed);
    r.steps.erase(r.steps.begin());
    r.name = "\033[2J";
    r.steps[0].command = "-D QOS_q0 -m comment --comment \"\033c\"";
    EXPECT_EQ("?[2J: would be changed by\n"
              "  iptables-restore: -D QOS_q0 -m comment --comment \"?c\"\n",
              outcome_text(r, true));
    r.result = effect::none;
    EXPECT_EQ("?[2J: nothing to do\n", outcome_text(r, true));
}

TEST(Report, OfAFailure)
{
    outcome r = two_steps(effect::built);
    r.notes = {"a note", "another"};
    EXPECT_EQ((lines{"q0: a note", "q0: another"}), complaints(r));
    r.failed = true;
    r.error = "tc: no";
    r.failed_command = "tc class add";
    r.failed_line = 7;
    r.back = tool::taken_back::default_qdisc;
    EXPECT_EQ((lines{"q0: tc: no", "q0: line 7 of its start script: tc class add", "q0: a note",
                     "q0: another", "q0: back on its default qdisc, without rules"}),
              complaints(r));
    EXPECT_EQ(
        R"({"name":"q0","result":"failed","tc_commands":1,"rule_commands":1,)"
        R"("by_script":false,"commands":["tc qdisc del dev q0 root",)"
        R"("iptables-restore: -A QOS_q0 -j MARK "],"steps":[)"
        R"({"object":{"kind":"root"},"command":"tc qdisc del dev q0 root","line":0,)"
        R"("why":"no htb","destructive":true},)"
        R"({"object":{"kind":"rule","chain":"QOS_q0"},)"
        R"("command":"iptables-restore: -A QOS_q0 -j MARK ","line":12,"why":"new",)"
        R"("destructive":false}],"notes":["a note","another"],"error":"tc: no",)"
        R"("failed_command":"tc class add","failed_line":7,"restored":true,"taken_back":"default qdisc"})",
        outcome_json(r).dump());
}

TEST(Report, SaysHowAnInterfaceCameBack)
{
    const struct {
        tool::taken_back how;
        const char *why;
        lines said;
        const char *word;
        bool restored;
    } cases[] = {
        {tool::taken_back::untouched, "", {"q0: nothing was changed"}, "no", false},
        {tool::taken_back::before, "", {"q0: brought back to what it held before"}, "before", true},
        {tool::taken_back::last_policy,
         "x",
         {"q0: what it held before is not to be had: x",
          "q0: could not be brought back to what it held before: the policy applied last is in"
          " force again"},
         "last policy",
         true},
        {tool::taken_back::default_qdisc,
         "",
         {"q0: back on its default qdisc, without rules"},
         "default qdisc",
         true},
        {tool::taken_back::failed, "x", {"q0: could not be taken back whole: x"}, "no", false},
    };
    for (const auto &c : cases) {
        outcome r = two_steps(effect::changed);
        r.failed = true;
        r.error = "no";
        r.back = c.how;
        r.why_not_before = c.why;
        lines said = {"q0: no"};
        said.insert(said.end(), c.said.begin(), c.said.end());
        EXPECT_EQ(said, complaints(r));
        EXPECT_EQ(c.word, outcome_json(r)["taken_back"]);
        EXPECT_EQ(c.restored, outcome_json(r)["restored"]);
    }
}

TEST(Report, TellsTheInterfacesOfABrokenTransactionApart)
{
    outcome r = two_steps(effect::changed);
    r.back = tool::taken_back::before;
    EXPECT_EQ("", outcome_text(r, false));
    EXPECT_EQ((lines{"q0: brought back to what it held before"}), complaints(r));
    EXPECT_EQ("taken back", outcome_json(r)["result"]);
    r = {};
    r.name = "q0";
    r.left_alone = true;
    EXPECT_EQ("q0: left alone\n", outcome_text(r, false));
    EXPECT_EQ("left alone", outcome_json(r)["result"]);
}

TEST(Report, AsJson)
{
    outcome r;
    r.name = "q0";
    EXPECT_EQ(R"({"name":"q0","result":"unchanged","tc_commands":0,"rule_commands":0,)"
              R"("by_script":false,"commands":[],"steps":[],"notes":[]})",
              outcome_json(r).dump());
    r.result = effect::built;
    r.steps = tool::plan_script("--script").steps;
    EXPECT_EQ(R"({"name":"q0","result":"built","tc_commands":0,"rule_commands":0,)"
              R"("by_script":true,"commands":["/var/tmp/qos_start"],"steps":[)"
              R"({"object":{"kind":"interface"},"command":"/var/tmp/qos_start","line":0,)"
              R"("why":"--script","destructive":true}],"notes":[]})",
              outcome_json(r).dump());
    const struct {
        effect result;
        const char *word;
    } words[] = {{effect::changed, "changed"}, {effect::stopped, "stopped"}};
    for (const auto &w : words) {
        r.result = w.result;
        EXPECT_EQ(w.word, outcome_json(r)["result"]);
    }
}

TEST(Report, NamesEveryKindOfObject)
{
    const struct {
        object what;
        const char *json;
    } cases[] = {
        {{object::kind::root, 0, ""}, R"({"kind":"root"})"},
        {{object::kind::tree_class, 16, ""}, R"({"kind":"class","handle":16})"},
        {{object::kind::leaf, 16, ""}, R"({"kind":"leaf","handle":16})"},
        {{object::kind::filter, 16, ""}, R"({"kind":"filter","mark":16})"},
        {{object::kind::queue_length, 0, ""}, R"({"kind":"queue_length"})"},
        {{object::kind::chain, 0, "QOS_q0"}, R"({"kind":"chain","chain":"QOS_q0"})"},
        {{object::kind::jump, 0, "OUTPUT"}, R"({"kind":"jump","chain":"OUTPUT"})"},
        {{object::kind::rule, 0, "QOS_q0"}, R"({"kind":"rule","chain":"QOS_q0"})"},
        {{object::kind::interface, 0, ""}, R"({"kind":"interface"})"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.json,
                  tool::steps_json({{program::tc, "x", c.what, 0, "", false}})[0]["object"].dump());
}

}  // namespace
