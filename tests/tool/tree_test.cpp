// SPDX-License-Identifier: MIT
// The tree that comes of a policy: its order, its default classes and the curves that are written,
// beside what the library makes of the same calls.
#include "tree.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "class_walk.h"
#include "leaf.h"
#include "policy_read.h"
#include "root.h"
#include "tarnic_qos.h"
#include "text.h"

namespace {

using std::string;
using std::vector;
using tool::diagnostics;
using tool::kernel_kind;
using tool::policy;
using tool::tree_class;

// With errors, if the text has some: what a checker is given
policy parsed(const string &text)
{
    diagnostics found;
    return tool::parse_policy(text, found);
}

policy good(const string &text)
{
    diagnostics found;
    policy p = tool::read_policy(text, kernel_kind::vendor, found);
    for (const tool::diagnostic &d : found.all()) EXPECT_TRUE(d.warning) << d.text;
    return p;
}

// "HANDLE on PARENT" and an asterisk for an inner class
string order(const vector<tree_class> &tree)
{
    string all;
    for (const tree_class &c : tree)
        all += tool::format("%s%x on %x%s", all.empty() ? "" : ", ", c.handle, c.parent,
                            c.has_children ? "*" : "");
    return all;
}

string htb(const string &more, bool default_tree = true)
{
    const string head = "[[interface]]\nname = 'tree0'\nroot = 'htb'\n";
    return head +
           (default_tree ? "phy_tx = '100mbit'\nlink_tx = '20mbit'\n"
                         : "default_tree = false\ndefault = 0\n") +
           more;
}

string entry(u32 handle, u32 parent)
{
    return tool::format("[[interface.class]]\nhandle = %u\nparent = %u\nrate = 1\n", handle,
                        parent);
}

// ---- Order --------------------------------------------------------------------------------------

// 0x10 and 0x12 hang on 3, 0x11 on 2, 0x13 on 0x10: the file's order, but children behind their
// parent.
const string crossed = htb("default = 20\n" + entry(0x10, 3) + entry(0x11, 2) + entry(0x12, 3) +
                           entry(0x13, 0x10) + entry(0x14, 1));
// Two classes on the root, and no class 1
const string two_roots =
    htb(entry(0x20, 0) + entry(0x10, 0) + entry(0x11, 0x10) + entry(0x21, 0x20), false);

// As a daemon would: by the calls that a policy's entries stand for. False when one is refused.
bool declare(const tool::policy_interface &iface)
{
    bool ok = add_root_qdisc(iface.speeds, "tree0", iface.root_type, &iface.param) == 0;
    if (tool::kind_of(iface).takes_classes && !iface.default_tree)
        ok = del_class("tree0", 1) == 0 && ok;
    for (const tool::policy_class &c : iface.classes) {
        const u32 handle = c.handle.get();
        if (!c.existing)
            ok = add_class("tree0", c.parent.get(), handle, &c.param, nullptr) == 0 && ok;
        if (c.leaf.is_good()) ok = add_leaf_qdisc("tree0", handle, &c.leaf.get()) == 0 && ok;
    }
    return ok;
}

TEST(Tree, ClassesStandBehindTheirParentsInTheOrderOfTheFile)
{
    const struct {
        string text;
        const char *declared;
        const char *tree;
    } rows[] = {
        {htb(""), "1 on 0*, 2 on 1, 3 on 1", "1 on 0*, 2 on 1, 3 on 1"},
        {htb("", false), "", ""},
        {crossed, "1 on 0*, 2 on 1*, 3 on 1*, 10 on 3*, 11 on 2, 12 on 3, 13 on 10, 14 on 1",
         "1 on 0*, 2 on 1*, 11 on 2, 3 on 1*, 10 on 3*, 13 on 10, 12 on 3, 14 on 1"},
        {two_roots, "20 on 0*, 10 on 0*, 11 on 10, 21 on 20",
         "20 on 0*, 21 on 20, 10 on 0*, 11 on 10"},
        {"[[interface]]\nname = 'tree0'\nroot = 'prio'\nbands = 3\n", "1 on 0, 2 on 0, 3 on 0",
         "1 on 0, 2 on 0, 3 on 0"},
        {"[[interface]]\nname = 'tree0'\nroot = 'pfifo_fast'\nqueue_len = 1\n", "", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const policy p = good(row.text);
        EXPECT_EQ(row.declared, order(tool::declared_classes(p.interfaces[0])));
        EXPECT_EQ(row.tree, order(tool::tree_of(p.interfaces[0])));
    }
}

// A policy that is not good has a tree of what hangs on the root; nothing is walked twice.
TEST(Tree, WhatHangsOnNothingIsInNoTree)
{
    const struct {
        string text;
        const char *declared;
        const char *tree;
    } rows[] = {
        // Below itself: it has no child by that.
        {entry(0x10, 0x10) + entry(0x11, 0), "10 on 10, 11 on 0", "11 on 0"},
        // Each below the other
        {entry(0x10, 0x11) + entry(0x11, 0x10), "10 on 11*, 11 on 10*", ""},
        {entry(0x11, 0x99), "11 on 99", ""},
        // A parent, or a handle, that could not be read
        {"[[interface.class]]\nhandle = 16\nparent = 'x'\n" + entry(0x11, 0x10),
         "10 on ffffffff*, 11 on 10", ""},
        {"[[interface.class]]\nhandle = 'x'\nparent = 0\n" + entry(0x11, 0), "11 on 0", "11 on 0"},
        // One handle twice: the children hang on the first.
        {entry(0x10, 0) + entry(0x10, 0) + entry(0x11, 0x10), "10 on 0*, 10 on 0*, 11 on 10",
         "10 on 0*, 11 on 10, 10 on 0*"},
        {entry(0x10, 0) + "[[interface.class]]\nhandle = 17\n" + entry(0x12, 0),
         "10 on 0, 11 on 1, 12 on 0", "10 on 0, 12 on 0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const policy p = parsed(htb(row.text, false));
        ASSERT_EQ(1U, p.interfaces.size());
        EXPECT_EQ(row.declared, order(tool::declared_classes(p.interfaces[0])));
        EXPECT_EQ(row.tree, order(tool::tree_of(p.interfaces[0])));
    }
    const policy bands = parsed("[[interface]]\nname = 'a'\nroot = 'prio'\nbands = 2\n"
                                "[[interface.class]]\nhandle = 3\nname = 'no such band'\n");
    EXPECT_EQ("1 on 0, 2 on 0", order(tool::declared_classes(bands.interfaces[0])));
}

TEST(Tree, AnEntryForAClassThatIsThereNamesItAndGivesItALeaf)
{
    const policy p = good(htb("[[interface.class]]\nhandle = 2\nname = 'fast'\n"
                              "[[interface.class]]\nhandle = 3\n"
                              "leaf = { type = 'pfifo', limit = 7 }\n" +
                              entry(0x10, 1)));
    const vector<tree_class> tree = tool::tree_of(p.interfaces[0]);
    ASSERT_EQ("1 on 0*, 2 on 1, 3 on 1, 10 on 1", order(tree));
    EXPECT_EQ("root", tree[0].name);
    EXPECT_EQ(nullptr, tree[0].entry);
    EXPECT_EQ("fast", tree[1].name);
    EXPECT_EQ(L_SFQ, tree[1].leaf.type);
    EXPECT_EQ(100000U, tree[1].param.htb.rate);
    EXPECT_EQ(&p.interfaces[0].classes[0], tree[1].entry);
    EXPECT_EQ("user", tree[2].name);
    EXPECT_EQ(L_pfifo, tree[2].leaf.type);
    EXPECT_EQ(7U, tree[2].leaf.param.pfifo.limit);
    EXPECT_EQ("", tree[3].name);
    EXPECT_EQ(1U, tree[3].param.htb.rate);
    EXPECT_EQ(&p.interfaces[0].classes[2], tree[3].entry);
}

TEST(Tree, AClassIsFoundByItsHandle)
{
    const policy p = good(crossed);
    const vector<tree_class> tree = tool::tree_of(p.interfaces[0]);
    for (const tree_class &c : tree) EXPECT_EQ(&c, tool::find_class(tree, c.handle));
    EXPECT_EQ(nullptr, tool::find_class(tree, 0));
    EXPECT_EQ(nullptr, tool::find_class(tree, 4));
    EXPECT_EQ(nullptr, tool::find_class({}, 1));
}

// ---- Handles in messages ------------------------------------------------------------------------

vector<tree_class> classes(std::initializer_list<u32> handles)
{
    vector<tree_class> all;
    for (const u32 handle : handles) {
        tree_class &c = all.emplace_back();
        c.handle = handle;
    }
    return all;
}

TEST(Tree, TwelveHandlesAreListedAndTheOthersCounted)
{
    EXPECT_EQ("none", tool::listed_classes({}));
    EXPECT_EQ("0x1", tool::listed_classes(classes({1})));
    EXPECT_EQ("0x3, 0x10", tool::listed_classes(classes({16, 3, 16})));
    const char *const twelve = "0x1, 0x2, 0x3, 0x4, 0x5, 0x6, 0x7, 0x8, 0x9, 0xa, 0xb, 0xc";
    EXPECT_EQ(twelve, tool::listed_classes(classes({12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1})));
    EXPECT_EQ(string(twelve) + " and 1 more",
              tool::listed_classes(classes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13})));
    EXPECT_EQ(string(twelve) + " and 3 more",
              tool::listed_classes(
                  classes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0xffff, 0xff, 0xfff})));
}

TEST(Tree, LeavesAreListedAlone)
{
    vector<tree_class> tree = classes({1, 2, 3});
    tree[0].has_children = true;
    EXPECT_EQ("0x2, 0x3", tool::listed_leaves(tree));
    EXPECT_EQ("0x1, 0x2, 0x3", tool::listed_classes(tree));
    tree[1].has_children = tree[2].has_children = true;
    EXPECT_EQ("none", tool::listed_leaves(tree));
}

// ---- Curves -------------------------------------------------------------------------------------

// sc, else ls, else the rt of a leaf; a curve is there by its rate.
TEST(Tree, OneCurveIsWrittenBesideUl)
{
    struct row {
        u32 sc, ls, rt;
        int leaf, inner;
    };
    constexpr int none = -1;
    using namespace mordel;
    const row rows[] = {
        {0, 0, 0, none, none},         {0, 0, 3, curve_rt, none},     {0, 2, 0, curve_ls, curve_ls},
        {0, 2, 3, curve_ls, curve_ls}, {1, 0, 0, curve_sc, curve_sc}, {1, 0, 3, curve_sc, curve_sc},
        {1, 2, 0, curve_sc, curve_sc}, {1, 2, 3, curve_sc, curve_sc},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(tool::format("sc %u ls %u rt %u", r.sc, r.ls, r.rt));
        // What has no rate is none, whatever else it has.
        const hfsc_class_param p = {{9, 9, 9}, {7, 7, r.sc}, {7, 7, r.ls}, {7, 7, r.rt}};
        const hfsc_curve *const of_id[] = {&p.ul, &p.sc, &p.ls, &p.rt};
        for (const bool inner : {false, true}) {
            const int id = inner ? r.inner : r.leaf;
            const tool::class_curve written = tool::written_curve(p, inner);
            EXPECT_EQ(id, written.id);
            EXPECT_EQ(id == none ? nullptr : of_id[id], written.curve);
        }
    }
}

// ---- Beside the library -------------------------------------------------------------------------

// All of a class's record but its name, which the library has for bands alone
string record(u32 type, u32 handle, u32 parent, bool inner, const qos_class_param &p,
              const leaf_qdisc &leaf)
{
    string out = tool::format("%x on %x%s", handle, parent, inner ? "*" : "");
    if (type == C_HTB)
        out += tool::format(" htb %u %u %u %u %u", p.htb.rate, p.htb.ceil, p.htb.burst,
                            p.htb.cburst, p.htb.prio);
    if (type == C_HFSC) {
        out += " hfsc";
        for (const hfsc_curve &c : {p.hfsc.ul, p.hfsc.sc, p.hfsc.ls, p.hfsc.rt})
            out += tool::format(" %u/%u/%u", c.umax, c.dmax, c.rate);
    }
    out += tool::format(" leaf %u", leaf.type);
    if (leaf.type == L_pfifo) out += tool::format(" %u", leaf.param.pfifo.limit);
    if (leaf.type == L_SFQ) out += tool::format(" %d", leaf.param.sfq.perturb);
    return out + "\n";
}

// The library's tree of an interface that is declared
string library_tree(const char *ifname)
{
    string all;
    qos_if *rec = mordel::root_qdisc_find_by_name(ifname);
    if (rec == nullptr) return "no interface";
    for (qos_class &c : mordel::preorder(&rec->classes)) {
        const qos_class *parent = mordel::parent_of(&c);
        all += record(c.type, c.handle, parent == nullptr ? 0 : parent->handle,
                      list_empty(&c.children) == 0, c.param, c.leaf);
    }
    return all;
}

string tool_tree(u32 type, const vector<tree_class> &tree)
{
    string all;
    for (const tree_class &c : tree)
        all += record(type, c.handle, c.parent, c.has_children, c.param, c.leaf);
    return all;
}

struct declared_root {
    declared_root(const u32 *speeds, u32 type, const void *param)
    {
        EXPECT_EQ(0, add_root_qdisc(speeds, "tree0", type, param));
    }
    declared_root(const declared_root &) = delete;
    declared_root &operator=(const declared_root &) = delete;
    ~declared_root() { (void)del_root_qdisc("tree0"); }
};

// link_tx 20 Mbit/s, phy_tx 100 Mbit/s
TEST(Tree, TheDefaultTreeIsTheLibrarys)
{
    const u32 speeds[4] = {20000, 1, 100000, 2};
    const struct {
        u32 root;
        u32 type;
        const char *expected;
    } rows[] = {
        {R_HTB, C_HTB,
         "1 on 0* htb 100000 100000 1000000 1000000 0 leaf 0 0\n"
         "2 on 1 htb 100000 100000 6000 6000 0 leaf 1 10\n"
         "3 on 1 htb 20000 20000 6000 6000 0 leaf 0 0\n"},
        {R_HFSC, C_HFSC,
         "1 on 0* hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0 leaf 0 0\n"
         "2 on 1 hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0 leaf 1 10\n"
         "3 on 1 hfsc 0/0/20000 0/0/20000 0/0/0 0/0/0 leaf 0 0\n"},
    };
    for (const auto &row : rows) {
        const class_root_param param{};
        const declared_root there(speeds, row.root, &param);
        EXPECT_EQ(row.expected, library_tree("tree0"));
        tool::policy_interface iface;
        iface.built_in = tool::default_tree(row.root, 20000, 100000);
        EXPECT_EQ(row.expected, tool_tree(row.type, tool::tree_of(iface)));
        ASSERT_EQ(3U, iface.built_in.size());
        EXPECT_EQ("root", iface.built_in[0].name);
        EXPECT_EQ("non-limit", iface.built_in[1].name);
        EXPECT_EQ("user", iface.built_in[2].name);
    }
}

TEST(Tree, ThePoliciesTreeIsTheLibrarys)
{
    const char *const hfsc =
        "[[interface]]\nname = 'tree0'\nroot = 'hfsc'\nphy_tx = '100mbit'\nlink_tx = '20mbit'\n"
        "default = 2\n[[interface.class]]\nhandle = 16\nparent = 3\n"
        "ul = { rate = 1000, umax = 1500, dmax = 10 }\nls = 500\n"
        "leaf = { type = 'sfq', perturb = 3 }\n"
        "[[interface.class]]\nhandle = 17\nul = 7\nrt = 6\n";
    const char *const prio =
        "[[interface]]\nname = 'tree0'\nroot = 'prio'\nbands = 4\n"
        "[[interface.class]]\nhandle = 4\nleaf = { type = 'pfifo', limit = 9 }\n";
    const struct {
        string text;
        u32 type;
        const char *expected;
    } rows[] = {
        {crossed, C_HTB,
         "1 on 0* htb 100000 100000 1000000 1000000 0 leaf 0 0\n"
         "2 on 1* htb 100000 100000 6000 6000 0 leaf 1 10\n"
         "11 on 2 htb 1 1 0 0 0 leaf 0 0\n"
         "3 on 1* htb 20000 20000 6000 6000 0 leaf 0 0\n"
         "10 on 3* htb 1 1 0 0 0 leaf 0 0\n"
         "13 on 10 htb 1 1 0 0 0 leaf 0 0\n"
         "12 on 3 htb 1 1 0 0 0 leaf 0 0\n"
         "14 on 1 htb 1 1 0 0 0 leaf 0 0\n"},
        {two_roots, C_HTB,
         "20 on 0* htb 1 1 0 0 0 leaf 0 0\n21 on 20 htb 1 1 0 0 0 leaf 0 0\n"
         "10 on 0* htb 1 1 0 0 0 leaf 0 0\n11 on 10 htb 1 1 0 0 0 leaf 0 0\n"},
        {hfsc, C_HFSC,
         "1 on 0* hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0 leaf 0 0\n"
         "2 on 1 hfsc 0/0/100000 0/0/100000 0/0/0 0/0/0 leaf 1 10\n"
         "3 on 1* hfsc 0/0/20000 0/0/20000 0/0/0 0/0/0 leaf 0 0\n"
         "10 on 3 hfsc 1500/10/1000 0/0/0 0/0/500 0/0/0 leaf 1 3\n"
         "11 on 1 hfsc 0/0/7 0/0/0 0/0/0 0/0/6 leaf 0 0\n"},
        {prio, C_PRIO, "1 on 0 leaf 0 0\n2 on 0 leaf 0 0\n3 on 0 leaf 0 0\n4 on 0 leaf 0 9\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const policy p = good(row.text);
        EXPECT_TRUE(declare(p.interfaces[0]));
        EXPECT_EQ(row.expected, library_tree("tree0"));
        EXPECT_EQ(row.expected, tool_tree(row.type, tool::tree_of(p.interfaces[0])));
        EXPECT_EQ(0, del_root_qdisc("tree0"));
    }
}

// ---- The tables of kinds ------------------------------------------------------------------------

TEST(Tree, EachKindOfLeafHasItsRow)
{
    const struct {
        u32 type;
        const char *name;
        bool changeable;
    } rows[] = {{L_pfifo, "pfifo", true},
                {L_SFQ, "sfq", false},
                {L_RED, "red", true},
                {L_TBF, "tbf", true}};
    ASSERT_EQ(std::size(rows), tool::leaf_kinds().size());
    for (const auto &row : rows) {
        leaf_qdisc leaf{};
        leaf.type = row.type;
        EXPECT_EQ(&tool::leaf_kinds()[row.type], &tool::kind_of(leaf));
        EXPECT_EQ(&tool::leaf_kinds()[row.type], tool::find_leaf_kind(row.name));
        EXPECT_EQ(row.name, tool::kind_of(leaf).name);
        EXPECT_EQ(row.changeable, tool::kind_of(leaf).changeable) << row.name;
    }
    for (const char *name : {"", "PFIFO", "pfif", "pfifo_fast", "htb"})
        EXPECT_EQ(nullptr, tool::find_leaf_kind(name)) << name;
}

TEST(Tree, EachKindOfRootHasItsRow)
{
    const struct {
        u32 type;
        const char *name;
        const tool::class_kind *classes;
        bool takes_classes;
    } rows[] = {{R_pfifo_fast, "pfifo_fast", nullptr, false},
                {R_HTB, "htb", &tool::htb_class, true},
                {R_HFSC, "hfsc", &tool::hfsc_class, true},
                {R_PRIO, "prio", &tool::prio_band, false}};
    ASSERT_EQ(std::size(rows), tool::root_kinds().size());
    for (const auto &row : rows) {
        tool::policy_interface iface;
        iface.root_type = row.type;
        EXPECT_EQ(&tool::root_kinds()[row.type], &tool::kind_of(iface));
        EXPECT_EQ(&tool::root_kinds()[row.type], tool::find_root_kind(row.name));
        EXPECT_EQ(row.name, tool::kind_of(iface).name);
        EXPECT_EQ(row.name, tool::root_names()[row.type]);
        EXPECT_EQ(row.classes, tool::kind_of(iface).classes);
        EXPECT_EQ(row.takes_classes, tool::kind_of(iface).takes_classes);
    }
    for (const char *name : {"", "HTB", "ht", "htbx", "pfifo", "noqueue"})
        EXPECT_EQ(nullptr, tool::find_root_kind(name)) << name;
}

// ---- Values -------------------------------------------------------------------------------------

// absent, wrong or good, and what each gives
TEST(Tree, AValueIsAbsentWrongOrGood)
{
    using tool::value;
    const tool::position table{3, 1};
    const tool::position here{4, 7};
    value<u32> absent = value<u32>::absent(table);
    value<u32> wrong = value<u32>::wrong(here);
    value<u32> is_good = value<u32>::good(5, here);
    const auto state = [](const value<u32> &v) {
        return tool::format("%d%d%d %u %u %u:%u", v.is_absent(), v.is_wrong(), v.is_good(), v.get(),
                            v.get_or(8), v.at().line, v.at().column);
    };
    EXPECT_EQ("100 0 8 1:1", state(value<u32>()));
    EXPECT_EQ("100 0 8 3:1", state(absent));
    EXPECT_EQ("010 0 8 4:7", state(wrong));
    EXPECT_EQ("001 5 5 4:7", state(is_good));
    absent.default_to(6);
    wrong.default_to(6);
    is_good.default_to(6);
    EXPECT_EQ("001 6 6 3:1", state(absent));
    EXPECT_EQ("010 0 8 4:7", state(wrong));
    EXPECT_EQ("001 5 5 4:7", state(is_good));
}

}  // namespace
