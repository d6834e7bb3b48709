// What the tree model offers the rules, the reports, the command mordel and the tests.
#pragma once

#include <cstddef>
#include <cstdio>

#include "list_range.h"
#include "mordel.h"

namespace mordel {

// ---- Names -------------------------------------------------------------------------------------

extern const txt_map RootQdiscTypeMap[];
extern const id_map RootClassTypeMap[];  // root type -> the class type add_class makes, or -1
extern const txt_map ClassTypeMap[];
extern const txt_map LeafQdiscTypeMap[];
extern const txt_map CurveTypeMap[];

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

// ---- Building ----------------------------------------------------------------------------------

// Appends the band classes 1..bands; 0, 1 for an unknown interface, 3 when out of memory.
int add_prio_classes(const char *ifname, u8 bands);

// Unlinks and frees a class with all its descendants.
void class_free_tree(qos_class *cls);

// ---- Commands ----------------------------------------------------------------------------------

void root2cmd(FILE *out, qos_if *rec);
void class2cmd(FILE *out, const char *ifname, list_head *classes);
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
