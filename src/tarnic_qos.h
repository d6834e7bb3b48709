// SPDX-License-Identifier: MIT
// What the tree model offers the rules, the reports, the command mordel and the tests.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "list_range.h"
#include "mordel.h"

namespace mordel {

// ---- Names -------------------------------------------------------------------------------------

extern const txt_map RootQdiscTypeMap[];
extern const id_map RootClassTypeMap[];  // root type -> the class type add_class makes, or -1
extern const txt_map ClassTypeMap[];
extern const txt_map LeafQdiscTypeMap[];
extern const txt_map CurveTypeMap[];

// How many there are: a row of the tables that are indexed by them for each
inline constexpr u32 root_types = 4;  // R_…
inline constexpr u32 leaf_types = 4;  // L_…

// The text of an id. Records hold ids unsigned, maps signed; this is the one place that converts.
inline const char *name_of(const txt_map *map, u32 id)
{
    return TxtMapById(map, static_cast<int>(id));
}

enum curve_id { curve_ul = 0, curve_sc = 1, curve_ls = 2, curve_rt = 3 };

// Behind each qos_class the library keeps a way up to its parent (class_walk.h). A function below
// that takes a list of classes takes one of classes that add_class or add_prio_classes has made, no
// caller's own.

// ---- Lookups -----------------------------------------------------------------------------------

// The interface of exactly this name; null, with a trace, when there is none.
qos_if *root_qdisc_find_by_name(const char *ifname);

// The first class of this handle in pre-order; null when there is none. Handle: taken modulo 65536.
qos_class *class_find_in_list(list_head *classes, u32 handle);
qos_class *class_find(const char *ifname, u32 handle);

// ---- The default tree --------------------------------------------------------------------------

// The classes that an HTB or HFSC interface starts with
struct default_class {
    u16 handle;
    u16 parent;
    bool at_link;  // at the LINK rate, not the PHY rate
    u32 burst;     // bytes
    u8 perturb;    // seconds: its leaf is an SFQ; 0: it is a pfifo
    const char *name;
};
inline constexpr default_class default_classes[] = {
    {1, 0, false, 1000000, 0, "root"},
    {2, 1, false, 6000, 10, "non-limit"},
    {3, 1, true, 6000, 0, "user"},
};

// A default class's parameters, by the record's speeds and root type, and its leaf
inline qos_class_param default_param(const qos_if *rec, const default_class &row)
{
    const u32 rate = row.at_link ? rec->link_tx : rec->phy_tx;
    // Zeroed as a whole: two long names may be stored alike, and add_class then finds the older
    // interface. If that one is HFSC and this one HTB, the longer HFSC parameters are read here.
    qos_class_param param;
    ::memset(&param, 0, sizeof param);
    if (rec->root_type == R_HTB) {
        param.htb = {rate, rate, row.burst, row.burst, 0};
    } else {
        param.hfsc.ul.rate = rate;
        param.hfsc.sc.rate = rate;
    }
    return param;
}

inline leaf_qdisc default_leaf(const default_class &row)
{
    leaf_qdisc leaf;
    ::memset(&leaf, 0, sizeof leaf);
    if (row.perturb == 0) return leaf;
    leaf.type = L_SFQ;
    leaf.param.sfq.perturb = row.perturb;
    return leaf;
}

// ---- Building ----------------------------------------------------------------------------------

// Appends the band classes 1..bands; 0, 1 for an unknown interface, 3 when out of memory.
int add_prio_classes(const char *ifname, u8 bands);

// Unlinks and frees a class with all its descendants.
void class_free_tree(qos_class *cls);

// ---- Commands ----------------------------------------------------------------------------------

void root2cmd(FILE *out, qos_if *rec);
void class2cmd(FILE *out, const char *ifname, list_head *classes);
// The curve that a class's line has besides ul: curve_sc, curve_ls or curve_rt; -1: none. A
// real-time curve has no effect in a class with children.
int written_curve(const hfsc_class_param &p, bool leaf);
void curve2cmd(FILE *out, const hfsc_curve *curve, int id);
void do_leaf2cmd(FILE *out, const char *ifname, u16 handle, const leaf_qdisc *leaf);
void emit_rule_start(FILE *out, qos_if *rec);
void emit_rule_stop(FILE *out, qos_if *rec);

// The two scripts whole. ifname: the name as the caller gave it.
void start2script(FILE *out, const char *ifname, qos_if *rec);
void stop2script(FILE *out, const char *ifname, qos_if *rec);

// ---- Report ------------------------------------------------------------------------------------

void show_class(const char *ifname);
void draw_class(list_head *classes);
void show_leaf(const leaf_qdisc *leaf);

}  // namespace mordel
