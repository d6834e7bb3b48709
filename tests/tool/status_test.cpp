// SPDX-License-Identifier: MIT
// The live view of an interface: rows, rates and differences from trees made by hand, and both ways
// to show them.
#include "policy_read.h"
#include "status.h"

#include <gtest/gtest.h>

#include "render.h"

namespace {

using std::string;
using tool::chains_seen;
using tool::class_status;
using tool::interface_status;
using tool::live_class;
using tool::live_tree;
using lines = std::vector<string>;

live_class counted(u32 handle, u64 bytes)
{
    live_class c;
    c.id = 0x10000 | handle;
    c.stats.bytes = bytes;
    return c;
}

// A class each: "1:10 voice 8000"
string shown(const std::vector<class_status> &rows)
{
    string out;
    for (const class_status &r : rows) {
        char text[128];
        (void)std::snprintf(text, sizeof text, "1:%x %s [%s] %.0f\n", r.handle, r.name.c_str(),
                            r.limits.c_str(), r.bits);
        out += text;
    }
    return out;
}

TEST(StatusRows, HaveRatesOverTheTimeThatPassed)
{
    live_tree first;
    live_tree second;
    first.classes = {counted(0x10, 1000), counted(0x11, 5000), counted(0x13, 7)};
    second.classes = {counted(0x20, 900), counted(0x11, 4000), counted(0x10, 3000)};
    std::vector<tool::tree_class> names(1);
    names[0].handle = 0x10;
    names[0].name = "voice";
    // 1:11 was made anew in between, 1:20 is new; 2,000 bytes in half a second are 32,000 bit/s.
    EXPECT_EQ("1:10 voice [] 32000\n1:11  [] 0\n1:20  [] 0\n",
              shown(class_rows(first, second, 0.5, names)));
    EXPECT_EQ("1:10  [] 0\n1:11  [] 0\n1:20  [] 0\n", shown(class_rows(first, second, 0, {})));
    EXPECT_EQ(3000U, class_rows(first, second, 1, {})[0].stats.bytes);
}

TEST(StatusRows, HaveTheLimitsOfTheirKind)
{
    live_tree t;
    t.classes = {counted(1, 0), counted(2, 0), counted(3, 0)};
    t.classes[0].kind = "htb";
    t.classes[0].rate = 250000;
    t.classes[0].ceil = 2500000;
    t.classes[1].kind = "hfsc";
    t.classes[1].usc = tool::live_curve{0, 0, 1250000};
    t.classes[2].kind = "hfsc";
    EXPECT_EQ("1:1  [2mbit to 20mbit] 0\n1:2  [to 10mbit] 0\n1:3  [] 0\n",
              shown(class_rows(t, t, 1, {})));
}

// ---- Beside a policy ----------------------------------------------------------------------------

class StatusOf : public testing::Test {
protected:
    StatusOf()
    {
        tool::diagnostics found;
        policy_ =
            tool::read_policy("[[interface]]\nname = 'q0'\nroot = 'pfifo_fast'\nqueue_len = 250\n",
                              tool::kernel_kind::mainline, found);
        script_ = tool::render(policy_).interfaces.at(0).start;
        live_.queue_len = 250;
    }

    interface_status look(const chains_seen &chains, const tool::memory &before = {})
    {
        interface_status s;
        compare_with({policy_.interfaces[0], script_, tool::parse_start_script(script_, "q0")},
                     live_, chains, before, s);
        return s;
    }

    tool::policy policy_;
    string script_;
    live_tree live_;
    const lines there_ = {"-N QOS_q0", "-N QOS_q0_AUTO", "-A FORWARD -o q0 -g QOS_q0"};
};

TEST_F(StatusOf, WhatIsAsThePolicySays)
{
    const interface_status s = look({chains_seen::looked::listed, "", there_, there_});
    EXPECT_EQ(lines{}, s.differences);
    EXPECT_EQ(lines{}, s.notes);
    EXPECT_TRUE(s.steps.empty());
}

TEST_F(StatusOf, WhatDiffersAndWhatApplyWouldDo)
{
    live_.queue_len = 100;
    interface_status s = look({chains_seen::looked::listed, "", {}, std::nullopt});
    EXPECT_EQ((lines{"queue length is 100, not 250", "its rules are not there"}), s.differences);
    ASSERT_EQ(6U, s.steps.size());
    EXPECT_EQ("ifconfig q0 txqueuelen 250", step_text(s.steps.back()));
    s = look({chains_seen::looked::listed, "", there_, lines{}});
    EXPECT_EQ((lines{"queue length is 100, not 250", "its rules are others"}), s.differences);
    EXPECT_EQ(lines{}, s.notes);
}

TEST_F(StatusOf, RulesThatCannotBeTriedOrSeen)
{
    const string untried = "rules not compared: this kernel gives no namespace to try them in";
    interface_status s = look({chains_seen::looked::listed, "", there_, std::nullopt});
    EXPECT_EQ(lines{}, s.differences);
    EXPECT_EQ(lines{untried}, s.notes);
    EXPECT_FALSE(s.steps.empty());
    s = look({chains_seen::looked::listed, "", there_, std::nullopt},
             {"", script_, "-N QOS_q0\n-N QOS_q0_AUTO\n-A FORWARD -o q0 -g QOS_q0\n"});
    EXPECT_EQ(lines{untried}, s.notes);
    EXPECT_TRUE(s.steps.empty());
    s = look({chains_seen::looked::denied, "that takes root", {}, std::nullopt});
    EXPECT_EQ(lines{}, s.differences);
    EXPECT_EQ(lines{"rules not looked at: that takes root"}, s.notes);
}

// ---- Shown --------------------------------------------------------------------------------------

interface_status one_class()
{
    interface_status s;
    s.name = "q0\n";
    s.root = "htb";
    class_status c;
    c.handle = 0x10;
    c.name = "voice";
    c.limits = "2mbit to 20mbit";
    c.bits = 32000.4;
    c.stats = {123456, 78, 9, 1042, 1};
    s.classes.push_back(c);
    return s;
}

TEST(StatusText, IsATable)
{
    const string table =
        "  class  name                    now  limits                           sent    packets    "
        "drops    backlog\n"
        "  1:10   voice              32.0kbit  2mbit to 20mbit               123456b         78    "
        "    9      1042b\n";
    interface_status s = one_class();
    EXPECT_EQ("q0?  htb; no policy was applied, --policy FILE names one\n" + table,
              status_text(s, {}));
    s.policy_known = true;
    s.notes = {"a note"};
    EXPECT_EQ("q0?  htb, as the policy says\n  (a note)\n" + table, status_text(s, {}));
    s.differences = {"class 1:10: is not there"};
    s.classes.clear();
    EXPECT_EQ("q0?  htb, not as the policy says:\n  class 1:10: is not there\n  (a note)\n",
              status_text(s, {}));
    EXPECT_EQ("\033[1mq0?\033[0m  htb, not as the policy says:\n"
              "  \033[31mclass 1:10: is not there\033[0m\n  (a note)\n",
              status_text(s, {true, false}));
}

// The kernel's kinds are texts of a module's choice, notes quote what programs said.
TEST(StatusText, HasNoControlCharacters)
{
    interface_status s;
    s.name = "q0";
    s.root = "\033[2J";
    s.policy_known = true;
    s.differences = {"leaf is \a\x7f 100:"};
    s.notes = {"\r"};
    EXPECT_EQ("q0  ?[2J, not as the policy says:\n  leaf is ?? 100:\n  (?)\n", status_text(s, {}));
}

TEST(StatusJson, HasEveryInterface)
{
    EXPECT_EQ("{\n  \"interfaces\": []\n}\n", tool::status_json({}));
    interface_status known = one_class();
    known.name = "q1";
    known.policy_known = true;
    known.classes.clear();
    interface_status differs = known;
    differs.differences = {"is 100"};
    differs.steps = {{tool::program::ifconfig,
                      "q1 txqueuelen 250",
                      {tool::object::kind::queue_length, 0, ""},
                      5,
                      "is 100",
                      false}};
    EXPECT_EQ(R"({
  "interfaces": [
    {
      "name": "q0\n",
      "root": "htb",
      "policy": "unknown",
      "differences": [],
      "notes": [],
      "steps": [],
      "classes": [
        {
          "handle": 16,
          "name": "voice",
          "rate_bit": 32000,
          "bytes": 123456,
          "packets": 78,
          "drops": 9,
          "backlog_bytes": 1042,
          "backlog_packets": 1
        }
      ]
    },
    {
      "name": "q1",
      "root": "htb",
      "policy": "same",
      "differences": [],
      "notes": [],
      "steps": [],
      "classes": []
    },
    {
      "name": "q1",
      "root": "htb",
      "policy": "differs",
      "differences": [
        "is 100"
      ],
      "notes": [],
      "steps": [
        {
          "object": {
            "kind": "queue_length"
          },
          "command": "ifconfig q1 txqueuelen 250",
          "line": 5,
          "why": "is 100",
          "destructive": false
        }
      ],
      "classes": []
    }
  ]
}
)",
              tool::status_json({one_class(), known, differs}));
}

}  // namespace
