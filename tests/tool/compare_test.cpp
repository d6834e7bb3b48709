// SPDX-License-Identifier: MIT
// The kernel's state beside a policy, on trees made by hand: first one that is as the policy says,
// then one thing changed at a time.
#include "compare.h"

#include <gtest/gtest.h>
#include <linux/pkt_sched.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "policy_read.h"
#include "text.h"

namespace {

using std::string;
using tool::diagnostics;
using tool::difference;
using tool::kernel_kind;
using tool::live_class;
using tool::live_curve;
using tool::live_filter;
using tool::live_qdisc;
using tool::live_tree;
using tool::policy_interface;

// ---- What is compared ---------------------------------------------------------------------------

policy_interface interface(const string &text)
{
    diagnostics found;
    tool::policy p = tool::read_policy(text, kernel_kind::vendor, found);
    for (const tool::diagnostic &d : found.all()) EXPECT_TRUE(d.warning) << d.text;
    EXPECT_EQ(1U, p.interfaces.size());
    p.interfaces.resize(1);
    return std::move(p.interfaces[0]);
}

// "SCOPE HANDLE: TEXT" a line
string differences(const policy_interface &iface, const live_tree &kernel)
{
    string all;
    for (const difference &d : tool::compare(iface, kernel)) {
        constexpr const char *words[] = {"tree",   "root", "new",  "class",
                                         "remade", "old",  "leaf", "filter"};
        const char *what = words[static_cast<int>(d.what)];
        all += tool::format("%s %x: %s\n", what, d.handle, d.text.c_str());
    }
    return all;
}

struct change {
    std::function<void(live_tree &)> body;
    string expected;
};

void expect_differences(const policy_interface &iface, const live_tree &same,
                        const std::vector<change> &changes)
{
    ASSERT_EQ("", differences(iface, same));
    for (std::size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(tool::format("change %zu", i));
        live_tree other = same;
        changes[i].body(other);
        EXPECT_EQ(changes[i].expected, differences(iface, other));
    }
}

live_class &of(live_tree &tree, u32 handle)
{
    const auto c = std::find_if(tree.classes.begin(), tree.classes.end(),
                                [&](const live_class &one) { return one.id == 0x10000 + handle; });
    EXPECT_NE(tree.classes.end(), c) << handle;
    return *c;
}

live_qdisc &leaf(live_tree &tree, u32 handle)
{
    const auto q = std::find_if(tree.qdiscs.begin(), tree.qdiscs.end(), [&](const live_qdisc &one) {
        return one.parent == 0x10000 + handle;
    });
    EXPECT_NE(tree.qdiscs.end(), q) << handle;
    return *q;
}

void without_leaf(live_tree &tree, u32 handle)
{
    std::erase_if(tree.qdiscs, [&](const live_qdisc &q) { return q.parent == 0x10000 + handle; });
}

void without_class(live_tree &tree, u32 handle)
{
    std::erase_if(tree.classes, [&](const live_class &c) { return c.id == 0x10000 + handle; });
}

// ---- Trees, as the kernel has them --------------------------------------------------------------

live_qdisc root_of(const char *kind)
{
    live_qdisc q;
    q.handle = 0x10000;
    q.parent = TC_H_ROOT;
    q.kind = kind;
    return q;
}

// The leaf of class 1:10 is 100:.
live_qdisc leaf_of(u32 handle, const char *kind)
{
    live_qdisc q;
    q.handle = handle * 16 << 16;
    q.parent = 0x10000 + handle;
    q.kind = kind;
    return q;
}

live_filter filter(u32 handle) { return {handle, 0x10000 + handle, true}; }

live_class class_of(u32 handle, u32 parent)
{
    live_class c;
    c.id = 0x10000 + handle;
    c.parent = parent == 0 ? TC_H_ROOT : 0x10000 + parent;
    return c;
}

// bytes/s and bytes
live_class htb(u32 handle, u32 parent, u64 rate, u64 ceil, double burst, double cburst, u32 prio)
{
    live_class c = class_of(handle, parent);
    c.kind = "htb";
    c.rate = rate;
    c.ceil = ceil;
    c.burst = burst;
    c.cburst = cburst;
    c.prio = prio;
    return c;
}

const char *const htb_policy =
    "[[interface]]\nname = 'a'\nroot = 'htb'\nphy_tx = '100mbit'\nlink_tx = '20mbit'\n"
    "default = 0x13\n"
    "[[interface.class]]\nhandle = 0x10\nparent = 3\nrate = '2mbit'\nceil = '4mbit'\n"
    "burst = 6000\ncburst = 8000\nprio = 5\nleaf = { type = 'pfifo', limit = 50 }\n"
    "[[interface.class]]\nhandle = 0x11\nparent = 3\nrate = '8mbit'\nprio = 6\n"
    "[[interface.class]]\nhandle = 0x12\nparent = 0x11\nrate = '1mbit'\n"
    "leaf = { type = 'red', min = 2000, max = 9000, burst = 3, limit = 20000, avpkt = 1000 }\n"
    "[[interface.class]]\nhandle = 0x13\nparent = 0x11\nrate = '1mbit'\nprio = 7\n"
    "leaf = { type = 'tbf', rate = '1mbit', burst = 5000, latency = 20 }\n";

live_qdisc pfifo(u32 handle, u32 limit)
{
    live_qdisc q = leaf_of(handle, "pfifo");
    q.limit = limit;
    return q;
}

live_qdisc sfq(u32 handle, u32 perturb)
{
    live_qdisc q = leaf_of(handle, "sfq");
    q.perturb = perturb;
    return q;
}

// Of 0x12: 2 is the least n with 3 + 1 - 2000 / 1000 = 2 <= (1 - (1 - 1/2^n)^3) * 2^n, which is
// 1.75 for n = 1 and 2.31 for n = 2.
live_qdisc red()
{
    live_qdisc q = leaf_of(0x12, "red");
    q.min = 2000;
    q.max = 9000;
    q.limit = 20000;
    q.wlog = 2;
    return q;
}

// Of 0x13: 125000 bytes/s for 20 ms are 2500 bytes, and 5000 besides.
live_qdisc tbf()
{
    live_qdisc q = leaf_of(0x13, "tbf");
    q.rate = 125000;
    q.burst = 5000;
    q.limit = 7500;
    return q;
}

// 100 Mbit/s are 12500000 bytes/s. What the policy leaves to tc is any number: bursts of 0x11 to
// 0x13, and prio of the inner classes.
live_tree htb_tree()
{
    live_tree t;
    t.queue_len = 1000;
    live_qdisc root = root_of("htb");
    root.default_class = 0x13;
    t.qdiscs = {root, sfq(2, 10), pfifo(0x10, 50), red(), tbf()};
    t.classes = {htb(1, 0, 12500000, 12500000, 1000000, 1000000, 0),
                 htb(2, 1, 12500000, 12500000, 6000, 6000, 0),
                 htb(3, 1, 2500000, 2500000, 6000, 6000, 0),
                 htb(0x10, 3, 250000, 500000, 6000, 8000, 5),
                 htb(0x11, 3, 1000000, 1000000, 1600, 1601, 3),
                 htb(0x12, 0x11, 125000, 125000, 1600, 1602, 0),
                 htb(0x13, 0x11, 125000, 125000, 1600, 1603, 7)};
    t.filters = {filter(2), filter(0x10), filter(0x12), filter(0x13)};
    return t;
}

// ---- Roots --------------------------------------------------------------------------------------

TEST(Compare, ARootOfAnotherKindIsAllThereIsToSay)
{
    expect_differences(
        interface(htb_policy), htb_tree(),
        {
            {[](live_tree &t) { t.qdiscs.clear(); }, "tree 0: has no htb, but its default qdisc\n"},
            {[](live_tree &t) { t = {}; }, "tree 0: has no htb, but its default qdisc\n"},
            {[](live_tree &t) { t.qdiscs[0].handle = 0; },
             "tree 0: has no htb, but its default qdisc\n"},
            {[](live_tree &t) {
                 t.qdiscs[0].kind = "hfsc";
                 t.classes.clear();
             },
             "tree 0: root qdisc is hfsc 1:, not htb 1:\n"},
            {[](live_tree &t) { t.qdiscs[0].handle = 0x80010000; },
             "tree 0: root qdisc is htb 8001:, not htb 1:\n"},
            {[](live_tree &t) { t.qdiscs[0].default_class = 0x10; },
             "tree 0: default class is 1:10, not 1:13\n"},
            // What follows is compared all the same.
            {[](live_tree &t) {
                 t.qdiscs[0].default_class = 0;
                 of(t, 0x10).prio = 4;
             },
             "tree 0: default class is 1:0, not 1:13\nclass 10: prio is 4, not 5\n"},
            {[](live_tree &t) { t.queue_len = 1; }, ""},
        });
}

// ---- Classes of HTB -----------------------------------------------------------------------------

TEST(Compare, EachNumberOfAnHtbClass)
{
    expect_differences(
        interface(htb_policy), htb_tree(),
        {
            {[](live_tree &t) { of(t, 0x10).rate = 250125; },
             "class 10: rate is 2001kbit, not 2mbit\n"},
            // A byte more in a second: 2000008 bit/s
            {[](live_tree &t) { of(t, 0x10).rate = 250001; },
             "class 10: rate is 2000008bit, not 2mbit\n"},
            {[](live_tree &t) { of(t, 0x10).rate = 0; }, "class 10: rate is 0kbit, not 2mbit\n"},
            {[](live_tree &t) { of(t, 0x10).ceil = 499999; },
             "class 10: ceil is 3999992bit, not 4mbit\n"},
            {[](live_tree &t) { of(t, 0x10).ceil = 5000000000000000; },
             "class 10: ceil is 40000000gbit, not 4mbit\n"},
            {[](live_tree &t) { of(t, 0x11).ceil = 500000; },
             "class 11: ceil is 4mbit, not 8mbit\n"},
            {[](live_tree &t) { of(t, 0x10).prio = 0; }, "class 10: prio is 0, not 5\n"},
            {[](live_tree &t) { of(t, 0x12).prio = 1; }, "class 12: prio is 1, not 0\n"},
            {[](live_tree &t) { of(t, 2).prio = 1; }, "class 2: prio is 1, not 0\n"},
            // The kernel shows no prio of an inner class.
            {[](live_tree &t) { of(t, 0x11).prio = of(t, 3).prio = of(t, 1).prio = 2; }, ""},
            // In the order of the tree
            {[](live_tree &t) {
                 for (live_class &c : t.classes) c.ceil = 125;
             },
             "class 1: ceil is 1kbit, not 100mbit\nclass 2: ceil is 1kbit, not 100mbit\n"
             "class 3: ceil is 1kbit, not 20mbit\nclass 10: ceil is 1kbit, not 4mbit\n"
             "class 11: ceil is 1kbit, not 8mbit\nclass 12: ceil is 1kbit, not 1mbit\n"
             "class 13: ceil is 1kbit, not 1mbit\n"},
            {[](live_tree &t) { of(t, 0x10) = htb(0x10, 3, 1, 2, 3, 4, 6); },
             "class 10: rate is 8bit, not 2mbit\nclass 10: ceil is 16bit, not 4mbit\n"
             "class 10: burst is 3b, not 6000b\nclass 10: cburst is 4b, not 8000b\n"
             "class 10: prio is 6, not 5\n"},
        });
}

// A byte, and 2 us at the rate: 0.5 bytes at 2 Mbit/s for burst, 1 at 4 Mbit/s for cburst
TEST(Compare, BurstsAreNearByAByteAndTwoMicroseconds)
{
    const auto burst = [](double seen) { return [=](live_tree &t) { of(t, 0x10).burst = seen; }; };
    const auto cburst = [](double seen) {
        return [=](live_tree &t) { of(t, 0x10).cburst = seen; };
    };
    expect_differences(interface(htb_policy), htb_tree(),
                       {
                           {burst(6001.49), ""},
                           {burst(6001.51), "class 10: burst is 6002b, not 6000b\n"},
                           {burst(5998.51), ""},
                           {burst(5998.49), "class 10: burst is 5998b, not 6000b\n"},
                           {cburst(8001.99), ""},
                           {cburst(8002.01), "class 10: cburst is 8002b, not 8000b\n"},
                           {cburst(7998.01), ""},
                           {cburst(7997.99), "class 10: cburst is 7998b, not 8000b\n"},
                           // 25 bytes at 100 Mbit/s
                           {[](live_tree &t) { of(t, 1).burst = 1000025.9; }, ""},
                           {[](live_tree &t) { of(t, 1).burst = 1000026.1; },
                            "class 1: burst is 1000026b, not 1000000b\n"},
                           // Left to tc
                           {[](live_tree &t) { of(t, 0x11).burst = of(t, 0x11).cburst = 0; }, ""},
                           {[](live_tree &t) { of(t, 0x11).burst = of(t, 0x11).cburst = 1e9; }, ""},
                       });
}

TEST(Compare, ClassesThatAreMissingOrElsewhere)
{
    expect_differences(
        interface(htb_policy), htb_tree(),
        {
            {[](live_tree &t) { without_class(t, 0x10); }, "new 10: is not there\n"},
            // Nothing more is said of one, not even of its leaf.
            {[](live_tree &t) {
                 without_class(t, 0x10);
                 without_leaf(t, 0x10);
             },
             "new 10: is not there\n"},
            {[](live_tree &t) { of(t, 0x10).parent = 0x10001; },
             "remade 10: hangs on 1:1, not on 1:3\n"},
            {[](live_tree &t) { of(t, 0x12).parent = TC_H_ROOT; },
             "remade 12: hangs on 1:0, not on 1:11\n"},
            {[](live_tree &t) { of(t, 0x12).parent = 0x10000; },
             "remade 12: hangs on 1:0, not on 1:11\n"},
            {[](live_tree &t) { of(t, 1).parent = 0x10002; },
             "remade 1: hangs on 1:2, not on 1:0\n"},
            {[](live_tree &t) { of(t, 1).parent = 0x10000; }, ""},  // two names of the root
            {[](live_tree &t) {
                 of(t, 0x10).parent = 0x10011;
                 of(t, 0x10).prio = 1;
                 leaf(t, 0x10).limit = 1;
             },
             "remade 10: hangs on 1:11, not on 1:3\nclass 10: prio is 1, not 5\n"
             "leaf 10: limit is 1, not 50\n"},
            {[](live_tree &t) {
                 t.classes.push_back(htb(0x20, 3, 1, 1, 1, 1, 0));
                 t.classes.push_back(htb(0xffff, 3, 1, 1, 1, 1, 0));
             },
             "old 20: is not in the policy\nold ffff: is not in the policy\n"},
        });
}

// ---- Leaves -------------------------------------------------------------------------------------

TEST(Compare, LeavesThatAreMissingOrOthers)
{
    expect_differences(
        interface(htb_policy), htb_tree(),
        {
            {[](live_tree &t) { without_leaf(t, 0x10); },
             "leaf 10: has no leaf qdisc, not pfifo\n"},
            {[](live_tree &t) { without_leaf(t, 2); }, "leaf 2: has no leaf qdisc, not sfq\n"},
            {[](live_tree &t) { leaf(t, 0x10).kind = "sfq"; },
             "leaf 10: leaf is sfq 100:, not pfifo 100:\n"},
            {[](live_tree &t) { leaf(t, 0x10).kind = "pfifo_fast"; },
             "leaf 10: leaf is pfifo_fast 100:, not pfifo 100:\n"},
            {[](live_tree &t) { leaf(t, 0x12).kind = "tbf"; },
             "leaf 12: leaf is tbf 120:, not red 120:\n"},
            {[](live_tree &t) { leaf(t, 0x13).handle = 0x80020000; },
             "leaf 13: leaf is tbf 8002:, not tbf 130:\n"},
            {[](live_tree &t) { leaf(t, 0x13).handle = 0; },
             "leaf 13: leaf is tbf 0:, not tbf 130:\n"},
            // Its numbers are not compared then.
            {[](live_tree &t) { leaf(t, 0x12) = leaf_of(0x12, "pfifo"); },
             "leaf 12: leaf is pfifo 120:, not red 120:\n"},
            // An inner class has none, whatever hangs there.
            {[](live_tree &t) { t.qdiscs.push_back(pfifo(0x11, 7)); }, ""},
        });
}

TEST(Compare, EachNumberOfALeaf)
{
    expect_differences(
        interface(htb_policy), htb_tree(),
        {
            {[](live_tree &t) { leaf(t, 0x10).limit = 51; }, "leaf 10: limit is 51, not 50\n"},
            {[](live_tree &t) { leaf(t, 2).perturb = 0; }, "leaf 2: perturb is 0, not 10\n"},
            {[](live_tree &t) { leaf(t, 2).limit = 7; }, ""},  // the kernel's own
            {[](live_tree &t) { leaf(t, 0x12).min = 2001; }, "leaf 12: min is 2001, not 2000\n"},
            {[](live_tree &t) { leaf(t, 0x12).max = 8999; }, "leaf 12: max is 8999, not 9000\n"},
            {[](live_tree &t) { leaf(t, 0x12).limit = 1; }, "leaf 12: limit is 1, not 20000\n"},
            {[](live_tree &t) { leaf(t, 0x12).wlog = 3; }, "leaf 12: ewma is 3, not 2\n"},
            {[](live_tree &t) { leaf(t, 0x12).wlog = 1; }, "leaf 12: ewma is 1, not 2\n"},
            {[](live_tree &t) {
                 live_qdisc q = leaf_of(0x12, "red");
                 leaf(t, 0x12) = q;
             },
             "leaf 12: min is 0, not 2000\nleaf 12: max is 0, not 9000\n"
             "leaf 12: limit is 0, not 20000\nleaf 12: ewma is 0, not 2\n"},
            {[](live_tree &t) { leaf(t, 0x13).rate = 125001; },
             "leaf 13: tbf rate is 1000008bit, not 1mbit\n"},
            // A byte, and 2 us at 125000 bytes/s: 0.25 bytes
            {[](live_tree &t) { leaf(t, 0x13).burst = 5001.24; }, ""},
            {[](live_tree &t) { leaf(t, 0x13).burst = 5001.26; },
             "leaf 13: tbf burst is 5001b, not 5000b\n"},
            {[](live_tree &t) { leaf(t, 0x13).burst = 4998.74; },
             "leaf 13: tbf burst is 4999b, not 5000b\n"},
            // A byte, and a millionth: 0.0075 bytes
            {[](live_tree &t) { leaf(t, 0x13).limit = 7501; }, ""},
            {[](live_tree &t) { leaf(t, 0x13).limit = 7499; }, ""},
            {[](live_tree &t) { leaf(t, 0x13).limit = 7502; },
             "leaf 13: tbf limit is 7502b, not 7500b\n"},
            {[](live_tree &t) { leaf(t, 0x13).limit = 7498; },
             "leaf 13: tbf limit is 7498b, not 7500b\n"},
        });
}

// A class without a leaf of its own has a pfifo, whose limit is left to the kernel.
TEST(Compare, APfifoWithoutALimitMayHaveAny)
{
    const policy_interface iface =
        interface("[[interface]]\nname = 'a'\nroot = 'htb'\ndefault_tree = false\ndefault = 0\n"
                  "[[interface.class]]\nhandle = 1\nrate = '1mbit'\n");
    live_tree t;
    t.qdiscs = {root_of("htb"), pfifo(1, 1000)};
    t.classes = {htb(1, 0, 125000, 125000, 1600, 1600, 0)};
    t.filters = {filter(1)};
    expect_differences(iface, t,
                       {
                           {[](live_tree &o) { leaf(o, 1).limit = 0; }, ""},
                           {[](live_tree &o) { leaf(o, 1).limit = 1; }, ""},
                           {[](live_tree &o) { leaf(o, 1).kind = "sfq"; },
                            "leaf 1: leaf is sfq 10:, not pfifo 10:\n"},
                           {[](live_tree &o) { o.qdiscs[0].default_class = 1; },
                            "tree 0: default class is 1:1, not 1:0\n"},
                       });
}

// 8 Gbit/s are 1000000000 bytes/s: 4 s of them, and 1000000 besides. The millionth is 4001 bytes.
TEST(Compare, ALongTbfLimitIsNearByAMillionth)
{
    const policy_interface iface = interface(
        "[[interface]]\nname = 'a'\nroot = 'prio'\nbands = 3\n[[interface.class]]\nhandle = 1\n"
        "leaf = { type = 'tbf', rate = '8gbit', burst = 1000000, latency = 4000 }\n");
    live_tree t;
    live_qdisc root = root_of("prio");
    root.bands = 3;
    root.priomap = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
    live_qdisc tbf_leaf = leaf_of(1, "tbf");
    tbf_leaf.rate = 1000000000;
    tbf_leaf.burst = 1000000;
    tbf_leaf.limit = 4001000000;
    t.qdiscs = {root, tbf_leaf, pfifo(2, 1), pfifo(3, 1)};
    t.classes = {class_of(1, 0), class_of(2, 0), class_of(3, 0)};
    t.filters = {filter(1), filter(2), filter(3)};
    const auto limit = [](u32 seen) { return [=](live_tree &o) { leaf(o, 1).limit = seen; }; };
    expect_differences(
        iface, t,
        {
            {limit(4001004001), ""},
            {limit(4001004003), "leaf 1: tbf limit is 4001004003b, not 4001000000b\n"},
            {limit(4000995999), ""},
            {limit(4000995997), "leaf 1: tbf limit is 4000995997b, not 4001000000b\n"},
        });
}

// ---- Filters ------------------------------------------------------------------------------------

TEST(Compare, EachLeafClassHasItsFilter)
{
    const char *const other = "filter 0: a filter on the root is not in the policy\n";
    expect_differences(
        interface(htb_policy), htb_tree(),
        {
            {[](live_tree &t) { std::swap(t.filters[0], t.filters[3]); }, ""},
            {[](live_tree &t) { t.filters.erase(t.filters.begin() + 1); },
             "filter 10: no filter sends mark 0x10 there\n"},
            {[](live_tree &t) { t.filters.clear(); },
             "filter 2: no filter sends mark 0x2 there\nfilter 10: no filter sends mark 0x10 "
             "there\n"
             "filter 12: no filter sends mark 0x12 there\nfilter 13: no filter sends mark 0x13 "
             "there\n"},
            {[](live_tree &t) { t.filters[1].id = 0x10012; },
             "filter 10: mark 0x10 goes to 1:12\n"},
            {[](live_tree &t) { t.filters[1].id = 0x20010; },
             "filter 10: mark 0x10 goes to 2:10\n"},
            {[](live_tree &t) { t.filters[1].id = 0; }, "filter 10: mark 0x10 goes to 0:0\n"},
            {[](live_tree &t) { t.filters.push_back(filter(0x11)); },
             "filter 0: a filter for mark 0x11 is not in the policy\n"},
            {[](live_tree &t) {
                 t.filters.push_back(filter(0x99));
                 t.filters.push_back(filter(0x20));
             },
             "filter 0: a filter for mark 0x20 is not in the policy\n"
             "filter 0: a filter for mark 0x99 is not in the policy\n"},
            {[&](live_tree &t) {
                 t.filters.push_back({0x99, 0x10010, false});
             },
             other},
            // The second for a mark, whatever it says
            {[](live_tree &t) { t.filters.push_back(filter(0x10)); }, other},
            // Not plain: it stands for none.
            {[](live_tree &t) { t.filters[1].plain = false; },
             string(other) + "filter 10: no filter sends mark 0x10 there\n"},
            {[](live_tree &t) {
                 t.filters[0].plain = false;
                 t.filters.push_back(filter(2));
             },
             other},
        });
}

// ---- HFSC ---------------------------------------------------------------------------------------

live_class hfsc(u32 handle, u32 parent, std::optional<live_curve> rsc,
                std::optional<live_curve> fsc, std::optional<live_curve> usc)
{
    live_class c = class_of(handle, parent);
    c.kind = "hfsc";
    c.rsc = rsc;
    c.fsc = fsc;
    c.usc = usc;
    return c;
}

constexpr std::optional<live_curve> none;

live_curve line(u32 rate) { return {0, 0, rate}; }

policy_interface hfsc_interface(const string &curves)
{
    return interface("[[interface]]\nname = 'a'\nroot = 'hfsc'\ndefault_tree = false\n"
                     "default = 0x11\n[[interface.class]]\nhandle = 0x10\nparent = 0\n"
                     "ul = '80mbit'\nsc = '40mbit'\n"
                     "[[interface.class]]\nhandle = 0x11\nparent = 0x10\n" +
                     curves + "\n");
}

// Class 1:11 with these curves; 1:10 above it: 10000000 bytes/s at most, 5000000 for sure
live_tree hfsc_tree(std::optional<live_curve> rsc, std::optional<live_curve> fsc,
                    std::optional<live_curve> usc)
{
    live_tree t;
    live_qdisc root = root_of("hfsc");
    root.default_class = 0x11;
    t.qdiscs = {root, pfifo(0x11, 1000)};
    t.classes = {hfsc(0x10, 0, line(5000000), line(5000000), line(10000000)),
                 hfsc(0x11, 0x10, rsc, fsc, usc)};
    t.filters = {filter(0x11)};
    return t;
}

TEST(Compare, AnHfscClassHasTheCurvesThatAreWritten)
{
    // sc is rt and ls to the kernel. Of sc, ls and rt the first is written.
    const live_curve one = line(1000000);
    const live_curve two = line(2000000);
    expect_differences(
        hfsc_interface("ul = '16mbit'\nsc = '8mbit'\nls = '1mbit'\nrt = '1mbit'"),
        hfsc_tree(one, one, two),
        {
            {[](live_tree &t) { of(t, 0x11).rsc.reset(); }, "remade 11: has no curve rt\n"},
            {[](live_tree &t) { of(t, 0x11).fsc.reset(); }, "remade 11: has no curve ls\n"},
            {[](live_tree &t) { of(t, 0x11).usc.reset(); }, "remade 11: has no curve ul\n"},
            {[](live_tree &t) { of(t, 0x11).usc = live_curve{}; }, "remade 11: has no curve ul\n"},
            // Any of these is there.
            {[](live_tree &t) {
                 of(t, 0x11).usc = live_curve{9, 0, 0};
             },
             "class 11: curve ul is 72bit for 0us, then 0kbit; not 0kbit for 0us, then 16mbit\n"},
            {[](live_tree &t) { of(t, 0x11) = hfsc(0x11, 0x10, none, none, none); },
             "remade 11: has no curve ul\nremade 11: has no curve rt\nremade 11: has no curve "
             "ls\n"},
            {[](live_tree &t) { t.qdiscs[0].default_class = 0x10; },
             "root 0: default class is 1:10, not 1:11\n"},
            {[](live_tree &t) { t.qdiscs[0].kind = "htb"; },
             "tree 0: root qdisc is htb 1:, not hfsc 1:\n"},
            {[](live_tree &t) { of(t, 0x11).parent = TC_H_ROOT; },
             "remade 11: hangs on 1:0, not on 1:10\n"},
            {[](live_tree &t) { of(t, 0x10).fsc = line(4000000); },
             "class 10: curve ls is 0kbit for 0us, then 32mbit; not 0kbit for 0us, then 40mbit\n"},
        });
    const auto more = [](std::optional<live_curve> live_class::*curve) {
        return [=](live_tree &t) { of(t, 0x11).*curve = line(1000000); };
    };
    expect_differences(hfsc_interface("ls = '8mbit'\nrt = '1mbit'"), hfsc_tree(none, one, none),
                       {{more(&live_class::usc), "remade 11: has a curve ul\n"},
                        {more(&live_class::rsc), "remade 11: has a curve rt\n"},
                        {[](live_tree &t) {
                             of(t, 0x11).rsc = live_curve{0, 5, 0};
                         },
                         ""}});
    expect_differences(hfsc_interface("rt = '8mbit'"), hfsc_tree(one, none, none),
                       {{more(&live_class::fsc), "remade 11: has a curve ls\n"},
                        {more(&live_class::usc), "remade 11: has a curve ul\n"}});
    expect_differences(hfsc_interface("ul = '8mbit'"), hfsc_tree(none, none, one),
                       {{more(&live_class::fsc), "remade 11: has a curve ls\n"},
                        {more(&live_class::rsc), "remade 11: has a curve rt\n"}});
}

// The kernel takes no rt of an inner class, so none is written.
TEST(Compare, AnInnerHfscClassHasNoRt)
{
    const policy_interface iface =
        interface("[[interface]]\nname = 'a'\nroot = 'hfsc'\ndefault_tree = false\n"
                  "default = 0x11\n[[interface.class]]\nhandle = 0x10\nparent = 0\nrt = '8mbit'\n"
                  "[[interface.class]]\nhandle = 0x11\nparent = 0x10\nrt = '8mbit'\n");
    live_tree t = hfsc_tree(line(1000000), none, none);
    of(t, 0x10) = hfsc(0x10, 0, none, none, none);
    expect_differences(
        iface, t,
        {{[](live_tree &o) { of(o, 0x10).rsc = line(1000000); }, "remade 10: has a curve rt\n"}});
}

TEST(Compare, TheDefaultTreeOfHfsc)
{
    live_tree t;
    live_qdisc root = root_of("hfsc");
    root.default_class = 3;
    t.qdiscs = {root, sfq(2, 10), pfifo(3, 1000)};
    const live_curve phy = line(12500000);
    const live_curve link = line(2500000);
    t.classes = {hfsc(1, 0, phy, phy, phy), hfsc(2, 1, phy, phy, phy),
                 hfsc(3, 1, link, link, link)};
    t.filters = {filter(2), filter(3)};
    expect_differences(
        interface("[[interface]]\nname = 'a'\nroot = 'hfsc'\nphy_tx = '100mbit'\n"
                  "link_tx = '20mbit'\n"),
        t,
        {{[](live_tree &o) { of(o, 3).usc = line(12500000); },
          "class 3: curve ul is 0kbit for 0us, then 100mbit; not 0kbit for 0us, then 20mbit\n"}});
}

// Changes of one number of the ul, whose others stay
std::vector<change> each_ul(u32 live_curve::*number, const std::vector<u32> &near,
                            const std::vector<std::pair<u32, string>> &far)
{
    const auto with = [=](u32 seen) {
        return [=](live_tree &t) { (*of(t, 0x11).usc).*number = seen; };
    };
    std::vector<change> all;
    for (const u32 seen : near) all.push_back({with(seen), ""});
    for (const auto &[seen, expected] : far) all.push_back({with(seen), expected + "\n"});
    return all;
}

// 1503 bytes in 15 ms are 100200 bytes/s, more than 500 kbit/s, 62500 bytes/s: first the one for
// 15000 us, then the other. Near is 2 and a ten thousandth: 12.02, 3.5 and 8.25.
TEST(Compare, CurvesAreNearByTwoAndATenThousandth)
{
    const policy_interface iface =
        hfsc_interface("sc = '8mbit'\nul = { rate = '500kbit', umax = 1503, dmax = 15 }");
    const live_curve one = line(1000000);
    const live_tree t = hfsc_tree(one, one, live_curve{100200, 15000, 62500});
    const auto ul = [](const char *seen) {
        return string("class 11: curve ul is ") + seen +
               "; not 801600bit for 15000us, then 500kbit";
    };
    expect_differences(iface, t,
                       each_ul(&live_curve::m1, {100212, 100188},
                               {{100213, ul("801704bit for 15000us, then 500kbit")},
                                {100187, ul("801496bit for 15000us, then 500kbit")}}));
    expect_differences(iface, t,
                       each_ul(&live_curve::d, {15003, 14997},
                               {{15004, ul("801600bit for 15004us, then 500kbit")},
                                {14996, ul("801600bit for 14996us, then 500kbit")}}));
    expect_differences(iface, t,
                       each_ul(&live_curve::m2, {62508, 62492},
                               {{62509, ul("801600bit for 15000us, then 500072bit")},
                                {62491, ul("801600bit for 15000us, then 499928bit")}}));
}

// The ten thousandth is of the policy's number: 2 and 200000 of 2000000000 (2000000 bytes in 1 ms),
// 2 and 100000 of 1000000000 (8 Gbit/s, and 1000000000 bytes in 1000000 ms), but no more.
TEST(Compare, NearIsNearToThePolicy)
{
    const live_curve one = line(1000000);
    const policy_interface fast =
        hfsc_interface("sc = '8mbit'\nul = { rate = '8gbit', umax = 2000000, dmax = 1 }");
    const live_tree t = hfsc_tree(one, one, live_curve{2000000000, 1000, 1000000000});
    const auto ul = [](const string &seen) {
        return "class 11: curve ul is " + seen + "; not 16gbit for 1000us, then 8gbit";
    };
    expect_differences(fast, t,
                       each_ul(&live_curve::m1, {2000200001},
                               {{2000200003, ul("16001600024bit for 1000us, then 8gbit")}}));
    expect_differences(fast, t,
                       each_ul(&live_curve::m2, {1000100001},
                               {{1000100003, ul("16gbit for 1000us, then 8000800024bit")}}));
    expect_differences(
        hfsc_interface("sc = '8mbit'\nul = { rate = '1kbit', umax = 1000000000, dmax = 1000000 }"),
        hfsc_tree(one, one, live_curve{1000000, 1000000000, 125}),
        each_ul(&live_curve::d, {1000100001},
                {{1000100003, "class 11: curve ul is 8mbit for 1000100003us, then 1kbit; not 8mbit"
                              " for 1000000000us, then 1kbit"}}));
}

struct curve_row {
    const char *given;
    live_curve made;
};

// What tc 6.1 makes of umax (bytes), dmax (ms) and rate. m1 = umax * 1000 / dmax, rounded up, for
// dmax if that is above the rate; else nothing for as long as the rest of dmax takes.
TEST(Compare, CurvesAreWhatTcMakesOfThem)
{
    const curve_row rows[] = {
        {"{ rate = '800kbit' }", {0, 0, 100000}},
        {"{ rate = '800kbit', dmax = 10 }", {0, 0, 100000}},
        // 1501 * 1000 / 7 = 214428.6
        {"{ rate = '800kbit', umax = 1501, dmax = 7 }", {214429, 7000, 100000}},
        // 900 bytes take 9000 us at the rate, so 1000 of 10000 us are left.
        {"{ rate = '800kbit', umax = 900, dmax = 10 }", {0, 1000, 100000}},
        // As fast as the rate: 1000 bytes in 10 ms
        {"{ rate = '800kbit', umax = 1000, dmax = 10 }", {0, 0, 100000}},
        // 100 bytes at 24000 bit/s, 3000 bytes/s, take 33333.3 us: 66666.7 of 100000 are left.
        {"{ rate = '24kbit', umax = 100, dmax = 100 }", {0, 66667, 3000}},
        // Not dmax: tc takes the rate from the start.
        {"{ rate = '800kbit', umax = 1500 }", {0, 0, 100000}},
        // 4294967295 * 1000 bytes/s are cut to 32 bits.
        {"{ rate = '800kbit', umax = 4294967295, dmax = 1 }", {4294967295, 1000, 100000}},
        // The highest rate: 34359738 * 125
        {"'34359738kbit'", {0, 0, 4294967250}},
    };
    const live_curve one = line(1000000);
    for (const curve_row &r : rows) {
        SCOPED_TRACE(r.given);
        const policy_interface iface = hfsc_interface(string("sc = '8mbit'\nul = ") + r.given);
        EXPECT_EQ("", differences(iface, hfsc_tree(one, one, r.made)));
    }
}

// tc counts umax * 1000000 in 32 bits: 5000 * 1000000 - 2^32 = 705032704. At 40 kbit/s, 5000
// bytes/s, that takes 141006.5 us, so tc says 2000000 - 141006 = 1858994 us; without the wrap
// 1000000 us would be left of 2 s.
TEST(Compare, AWrappedDelayIsTakenToo)
{
    const policy_interface iface =
        hfsc_interface("sc = '8mbit'\nul = { rate = '40kbit', umax = 5000, dmax = 2000 }");
    const live_curve one = line(1000000);
    EXPECT_EQ("", differences(iface, hfsc_tree(one, one, live_curve{0, 1000000, 5000})));
    const live_tree wrapped = hfsc_tree(one, one, live_curve{0, 1858994, 5000});
    // Near is 2 and a ten thousandth, 185.9.
    const auto ul = [](const char *seen) {
        return string("class 11: curve ul is ") + seen + "; not 0kbit for 1000000us, then 40kbit";
    };
    expect_differences(iface, wrapped,
                       each_ul(&live_curve::d, {1858994 + 187, 1858994 - 187},
                               {{1858994 + 188, ul("0kbit for 1859182us, then 40kbit")},
                                {1858994 - 188, ul("0kbit for 1858806us, then 40kbit")}}));
    // The delay alone is let pass.
    expect_differences(
        iface, wrapped,
        {{[](live_tree &t) { of(t, 0x11).usc->m2 = 6000; },
          "class 11: curve ul is 0kbit for 1858994us, then 48kbit; not 0kbit for 1858994us, then"
          " 40kbit\n"}});
}

// ---- PRIO and pfifo_fast ------------------------------------------------------------------------

TEST(Compare, PriosBandsAndItsMap)
{
    live_tree t;
    live_qdisc root = root_of("prio");
    root.bands = 2;
    root.priomap = {0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1};
    t.qdiscs = {root, sfq(1, 5), pfifo(2, 9)};
    t.classes = {class_of(1, 0), class_of(2, 0)};
    t.filters = {filter(1), filter(2)};
    const char *const map = "root 0: the priority map differs\n";
    const char *const policy_text =
        "[[interface]]\nname = 'a'\nroot = 'prio'\nbands = 2\n"
        "priomap = [0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1]\n"
        "[[interface.class]]\nhandle = 1\nleaf = { type = 'sfq', perturb = 5 }\n";
    expect_differences(
        interface(policy_text), t,
        {
            // Another number of bands has another map too.
            {[](live_tree &o) {
                 o.qdiscs[0].bands = 3;
                 o.qdiscs[0].priomap[0] = 2;
             },
             "root 0: has 3 bands, not 2\n"},
            {[](live_tree &o) { o.qdiscs[0].priomap[0] = 1; }, map},
            {[](live_tree &o) { o.qdiscs[0].priomap[15] = 0; }, map},
            {[](live_tree &o) { o.qdiscs[0].priomap.pop_back(); }, map},
            // Of what hangs on another root nothing is said.
            {[](live_tree &o) {
                 o.qdiscs[0].kind = "htb";
                 o.classes.clear();
             },
             "tree 0: root qdisc is htb 1:, not prio 1:\n"},
            {[](live_tree &o) { o.qdiscs.erase(o.qdiscs.begin()); },
             "tree 0: has no prio, but its default qdisc\n"},
            {[](live_tree &o) { o.qdiscs[0].default_class = 7; }, ""},
            {[](live_tree &o) { without_class(o, 2); }, "new 2: is not there\n"},
            {[](live_tree &o) { o.classes.push_back(class_of(3, 0)); },
             "old 3: is not in the policy\n"},
            {[](live_tree &o) { leaf(o, 1).perturb = 6; }, "leaf 1: perturb is 6, not 5\n"},
            {[](live_tree &o) { without_leaf(o, 2); }, "leaf 2: has no leaf qdisc, not pfifo\n"},
            {[](live_tree &o) { o.filters.pop_back(); },
             "filter 2: no filter sends mark 0x2 there\n"},
            // A band has no numbers.
            {[](live_tree &o) { o.classes[0].rate = o.classes[0].prio = 7; }, ""},
        });
}

TEST(Compare, PfifoFastIsTheDefaultWithAQueueOfItsLength)
{
    live_tree t;
    t.queue_len = 50;
    live_qdisc unasked = root_of("pfifo_fast");
    unasked.handle = 0;
    t.qdiscs = {unasked};
    expect_differences(
        interface("[[interface]]\nname = 'a'\nroot = 'pfifo_fast'\nqueue_len = 50\n"), t,
        {
            {[](live_tree &o) { o.qdiscs.clear(); }, ""},
            {[](live_tree &o) { o.queue_len = 51; }, "tree 0: queue length is 51, not 50\n"},
            {[](live_tree &o) { o.qdiscs[0].handle = 0x80010000; },
             "tree 0: has the root qdisc pfifo_fast, not its default\n"},
            {[](live_tree &o) {
                 o.qdiscs = {root_of("htb")};
                 o.queue_len = 0;
             },
             "tree 0: has the root qdisc htb, not its default\n"
             "tree 0: queue length is 0, not 50\n"},
            // There are no classes to compare.
            {[](live_tree &o) { o.classes = {class_of(1, 0)}; }, ""},
            {[](live_tree &o) { o.filters = {filter(1)}; }, ""},
        });
}

}  // namespace
