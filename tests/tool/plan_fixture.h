// SPDX-License-Identifier: MIT
// Trees and policies that plans are made of in several tests, and a plan as a text.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "plan.h"
#include "policy_read.h"
#include "render.h"
#include "text.h"

namespace plan_fixture {

using std::string;
using tool::chains_seen;
using tool::live_tree;
using tool::memory;
using tool::plan;
using tool::policy;
using tool::rules_state;
using tool::step;
using tool::wanted;
using lines = std::vector<string>;

// ---- What is wanted -----------------------------------------------------------------------------

inline string replaced(string text, const string &from, const string &to)
{
    const std::size_t at = text.find(from);
    EXPECT_NE(string::npos, at) << from;
    return at == string::npos ? text : text.replace(at, from.size(), to);
}

// Lines of its start script: the root 5; class 1 6; then class, leaf and filter of 0x10 from 7,
// 0x11 from 10, 0x12 from 13, 0x13 from 16; the added jumps and rules 28 to 31
inline const string htb =
    R"([[interface]]
name = "q0"
root = "htb"
phy_tx = "100mbit"
link_tx = "20mbit"
default_tree = false
default = 0x10
class = [
  { handle = 1, rate = "20mbit", burst = 6000, cburst = 6000 },
  { handle = 0x10, parent = 1, rate = "2mbit", ceil = "20mbit", burst = 6000, cburst = 7000, )"
    R"(leaf = { type = "pfifo", limit = 50 } },
  { handle = 0x11, parent = 1, rate = "4mbit", leaf = { type = "sfq", perturb = 10 } },
  { handle = 0x12, parent = 1, rate = "5mbit", )"
    R"(leaf = { type = "red", min = 15000, max = 45000, burst = 25, limit = 120000, )"
    R"(avpkt = 1000 } },
  { handle = 0x13, parent = 1, rate = "1mbit", )"
    R"(leaf = { type = "tbf", latency = 400, rate = "8mbit", burst = 10000 } },
]
rule = [{ index = 10, match = { dscp = 46 }, target = { mark = 0x10 } }]
)";
inline const string pfifo_fast = R"([[interface]]
name = "q0"
root = "pfifo_fast"
queue_len = 250
)";
inline const string prio = R"([[interface]]
name = "q0"
root = "prio"
bands = 2
priomap = [1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1]
)";

// A policy with one interface, and what is wanted of it
class policy_text {
public:
    explicit policy_text(const string &text)
    {
        tool::diagnostics found;
        policy_ = tool::read_policy(text, tool::kernel_kind::vendor, found);
        EXPECT_FALSE(found.failed()) << text;
        script_ = tool::render(policy_).interfaces.at(0).start;
    }
    wanted w() const
    {
        return {policy_.interfaces.front(), script_, tool::parse_start_script(script_, "q0")};
    }
    const string &script() const { return script_; }

private:
    policy policy_;
    string script_;
};

// ---- What is there ------------------------------------------------------------------------------

inline constexpr u64 mbit = 125000;  // bytes/s

inline tool::live_qdisc qdisc(u32 handle, u32 parent, const char *kind)
{
    tool::live_qdisc q;
    q.handle = handle << 16;
    q.parent = parent;
    q.kind = kind;
    return q;
}

inline live_tree default_tree()
{
    live_tree t;
    t.queue_len = 100;
    t.qdiscs.push_back(qdisc(0, 0xffffffff, "pfifo_fast"));
    return t;
}

inline tool::live_class htb_class(u32 handle, u32 parent, u64 rate, u64 ceil, double burst,
                                  double cburst)
{
    tool::live_class c;
    c.id = 0x10000 | handle;
    c.parent = parent;
    c.kind = "htb";
    c.rate = rate;
    c.ceil = ceil;
    c.burst = burst;
    c.cburst = cburst;
    return c;
}

// What the kernel holds once the policy is there
inline live_tree htb_tree()
{
    live_tree t;
    t.queue_len = 100;
    t.qdiscs = {qdisc(1, 0xffffffff, "htb"), qdisc(0x100, 0x10010, "pfifo"),
                qdisc(0x110, 0x10011, "sfq"), qdisc(0x120, 0x10012, "red"),
                qdisc(0x130, 0x10013, "tbf")};
    t.qdiscs[0].default_class = 0x10;
    t.qdiscs[1].limit = 50;
    t.qdiscs[2].perturb = 10;
    t.qdiscs[3].min = 15000;
    t.qdiscs[3].max = 45000;
    t.qdiscs[3].limit = 120000;
    t.qdiscs[3].wlog = 4;  // 1/16: the largest weight at which 25 packets stay below the minimum
    // 1000 bytes take 800 us at 10 Mbit/s, 12500 ticks; forgotten in 31 * 12500 / -ln(15/16) =
    // 6004168 of them, which 2^14 brings below 512
    t.qdiscs[3].idle_log = 14;
    t.qdiscs[4].rate = 8 * mbit;
    t.qdiscs[4].burst = 10000;
    t.qdiscs[4].limit = 410000;  // 400 ms of a million bytes/s, and the burst
    t.classes = {htb_class(1, 0xffffffff, 20 * mbit, 20 * mbit, 6000, 6000),
                 htb_class(0x10, 0x10001, 2 * mbit, 20 * mbit, 6000, 7000),
                 htb_class(0x11, 0x10001, 4 * mbit, 4 * mbit, 1600, 1600),
                 htb_class(0x12, 0x10001, 5 * mbit, 5 * mbit, 1600, 1600),
                 htb_class(0x13, 0x10001, 1 * mbit, 1 * mbit, 1600, 1600)};
    for (const u32 mark : {0x10U, 0x11U, 0x12U, 0x13U})
        t.filters.push_back({mark, 0x10000 | mark, true});
    return t;
}

inline live_tree prio_tree()
{
    live_tree t = default_tree();
    t.qdiscs = {qdisc(1, 0xffffffff, "prio"), qdisc(0x10, 0x10001, "pfifo"),
                qdisc(0x20, 0x10002, "pfifo")};
    t.qdiscs[0].bands = 2;
    t.qdiscs[0].priomap = std::vector<u8>(16, 1);
    t.classes.resize(2);
    t.classes[0].id = 0x10001;
    t.classes[1].id = 0x10002;
    t.classes[0].parent = t.classes[1].parent = 0x10000;
    t.filters = {{1, 0x10001, true}, {2, 0x10002, true}};
    return t;
}

// As `iptables -S` tells the rules of `htb`
inline const lines there = {"-N QOS_q0",
                            "-N QOS_q0_AUTO",
                            "-A FORWARD -o q0 -g QOS_q0",
                            "-A OUTPUT -o q0 -g QOS_q0",
                            "-A QOS_q0 -m connmark ! --mark 0x0 -j QOS_q0_AUTO",
                            "-A QOS_q0 -m dscp --dscp 0x2e -j MARK --set-xmark 0x10/0xffffffff"};
inline string there_text()
{
    string text;
    for (const string &line : there) text += line + "\n";
    return text;
}

inline chains_seen listed(const lines &present, const std::optional<lines> &expected = std::nullopt)
{
    return {chains_seen::looked::listed, "", present, expected};
}
inline const chains_seen no_difference = listed(there, there);

// ---- What is planned ----------------------------------------------------------------------------

// "! " in front of what is destructive
inline string shown(const step &s)
{
    return (s.destructive ? "! " : "  ") + step_text(s) + " {" + object_text(s.what) +
           (s.line == 0 ? "" : ", line " + std::to_string(s.line)) + ", " + s.why + "}\n";
}
inline string shown(const std::vector<step> &steps)
{
    string out;
    for (const step &s : steps) out += shown(s);
    return out;
}
inline string shown(const plan &p)
{
    const char *words[] = {"nothing", "built", "changed", "stopped"};
    string out = words[static_cast<int>(p.result)] + string("\n") + shown(p.steps);
    for (const string &note : p.notes) out += "note: " + note + "\n";
    return out;
}

inline string planned(const string &text, const live_tree &live,
                      const chains_seen &chains = no_difference, const memory &before = {})
{
    const policy_text p(text);
    return shown(plan_apply(p.w(), live, chains, before));
}

}  // namespace plan_fixture
