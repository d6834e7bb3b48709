// SPDX-License-Identifier: MIT
// The traffic-control model of each interface, and the tc scripts and reports made from it. Owns
// qos_root, the interface records on it and the classes below these; the rules on a record belong
// to tarnic_iptables and are freed here with their interface. Takes no lock: callers serialise all
// calls, whatever the interface.
//
// Lists of classes are walked in a loop, never by recursion: a tree may have more levels than a
// thread's stack has room for calls.

#include "tarnic_qos.h"

#include <cstring>
#include <iterator>

#include "class_walk.h"
#include "guards.h"
#include "script_file.h"

#define TRACE_SOURCE tarnic_qos
#include "trace.h"

constinit list_head qos_root = {&qos_root, &qos_root};

namespace mordel {

// ---- Names --------------------------------------------------------------------------------------

constexpr txt_map RootQdiscTypeMap[] = {
    {R_pfifo_fast, "R_pfifo_fast"},
    {R_HTB, "R_HTB"},
    {R_HFSC, "R_HFSC"},
    {R_PRIO, "R_PRIO"},
    {-1, "Unknown"},
};

// The type of the classes that add_class makes. R_PRIO is -1: its classes are its bands, which
// add_root_qdisc makes.
constexpr id_map RootClassTypeMap[] = {
    {R_pfifo_fast, -1}, {R_HTB, C_HTB}, {R_HFSC, C_HFSC}, {R_PRIO, -1}, {-1, -1},
};

constexpr txt_map ClassTypeMap[] = {
    {C_HTB, "C_HTB"},
    {C_HFSC, "C_HFSC"},
    {C_PRIO, "C_PRIO"},
    {-1, "Unknown"},
};

constexpr txt_map LeafQdiscTypeMap[] = {
    {L_pfifo, "L_pfifo"}, {L_SFQ, "L_SFQ"}, {L_RED, "L_RED"}, {L_TBF, "L_TBF"}, {-1, "Unknown"},
};

static_assert(std::size(RootQdiscTypeMap) == root_types + 1);
static_assert(std::size(LeafQdiscTypeMap) == leaf_types + 1);

constexpr txt_map CurveTypeMap[] = {
    {curve_ul, "ul"}, {curve_sc, "sc"}, {curve_ls, "ls"}, {curve_rt, "rt"}, {-1, "Unknown"},
};

// ---- Lookups ------------------------------------------------------------------------------------

namespace {

bool is_leaf(const qos_class *cls) { return list_empty(&cls->children) != 0; }

}  // namespace

qos_if *root_qdisc_find_by_name(const char *ifname)
{
    for (qos_if &rec : each<&qos_if::node>(qos_root))
        if (::strcmp(rec.ifname, ifname) == 0) return &rec;
    TRACE_CONSOLE("%s not found!!\n", ifname);
    return nullptr;
}

qos_class *class_find_in_list(list_head *classes, u32 handle)
{
    const u16 minor = static_cast<u16>(handle);
    for (qos_class &cls : preorder(classes))
        if (cls.handle == minor) return &cls;
    return nullptr;
}

qos_class *class_find(const char *ifname, u32 handle)
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    return rec == nullptr ? nullptr : class_find_in_list(&rec->classes, handle);
}

// ---- Building -----------------------------------------------------------------------------------

namespace {

// A class of no parameters, linked last below its parent or, without one, at top level; null when
// out of memory.
qos_class *append_class(qos_if *rec, qos_class *parent, u32 type, u16 handle)
{
    class_record *fresh = allocate<class_record>().release();
    if (fresh == nullptr) return nullptr;
    fresh->parent = parent;
    qos_class *cls = &fresh->cls;
    cls->type = type;
    cls->handle = handle;
    list_init(&cls->children);
    list_add_tail(&cls->node, parent == nullptr ? &rec->classes : &parent->children);
    return cls;
}

// By root type: how much of the caller's root parameters is copied
constexpr u8 root_param_size[] = {sizeof(pfifo_fast_root_param), sizeof(class_root_param),
                                  sizeof(class_root_param), sizeof(prio_root_param)};
static_assert(std::size(root_param_size) == R_PRIO + 1);

// add_class and add_leaf_qdisc find the interface by its stored name: a name of more than 31
// characters is stored cut, and what the caller passed would find nothing.
void add_default_classes(const qos_if *rec)
{
    for (const default_class &row : default_classes) {
        const qos_class_param param = default_param(rec, row);
        const leaf_qdisc leaf = default_leaf(row);
        (void)add_class(rec->ifname, row.parent, row.handle, &param, row.name);
        if (leaf.type != L_pfifo) (void)add_leaf_qdisc(rec->ifname, row.handle, &leaf);
    }
}

}  // namespace

int add_prio_classes(const char *ifname, u8 bands)
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) return 1;
    for (u16 i = 1; i <= bands; ++i) {
        qos_class *cls = append_class(rec, nullptr, C_PRIO, i);
        if (cls == nullptr) return 3;
        ::snprintf(cls->name, sizeof cls->name, "Class%d", i);
    }
    return 0;
}

// Goes down to a class without children, frees it and goes on at its parent, which so becomes one
// without children in its turn.
void class_free_tree(qos_class *cls)
{
    for (qos_class *at = cls;;) {
        while (!is_leaf(at)) at = &record_of<&qos_class::node>(at->children.next);
        qos_class *up = at == cls ? nullptr : parent_of(at);
        list_del(&at->node);
        ::free(at);
        if (up == nullptr) return;
        at = up;
    }
}

}  // namespace mordel

using namespace mordel;

int add_root_qdisc(const u32 *speeds, const char *ifname, u32 root_type, const void *root_param)
{
    // The lookup of a new name traces "NAME not found!!". Every new interface so traces it once, on
    // purpose.
    if (root_qdisc_find_by_name(ifname) != nullptr) return 2;
    heap_guard<qos_if> fresh = allocate<qos_if>();
    if (!fresh) return 3;
    fresh->link_tx = speeds[0];
    fresh->link_rx = speeds[1];
    fresh->phy_tx = speeds[2];
    fresh->phy_rx = speeds[3];
    ::strncpy(fresh->ifname, ifname, sizeof fresh->ifname - 1);
    fresh->root_type = root_type;
    list_init(&fresh->classes);
    list_init(&fresh->rules);
    if (root_type > R_PRIO) {
        TRACE_CONSOLE("Internel error occur at not define root qdisc type\n");
        return 3;
    }
    ::memcpy(&fresh->param, root_param, root_param_size[root_type]);
    qos_if *rec = fresh.release();
    list_add_tail(&rec->node, &qos_root);
    if (root_type == R_HTB || root_type == R_HFSC) add_default_classes(rec);
    if (root_type == R_PRIO) (void)add_prio_classes(rec->ifname, rec->param.prio.bands);
    return 0;
}

int del_root_qdisc(const char *ifname)
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) return 1;
    if (rec->root_type <= R_PRIO) {
        for (qos_class &cls : each<&qos_class::node>(rec->classes)) class_free_tree(&cls);
    } else {
        // No record is made with such a type, so something has written over this one. Its list of
        // classes may be overwritten too: walking it could crash, leaving it leaks the classes.
        TRACE_CONSOLE("Internel error occur at not define root qdisc type\n");
    }
    for (qos_rule &rule : each<&qos_rule::node>(rec->rules)) ::free(&rule);
    list_del(&rec->node);
    ::free(rec);
    return 0;
}

int add_class(const char *ifname, u32 parent, u32 handle, const void *class_param,
              const char * /* class_name: only PRIO bands are named */)
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) return 1;
    const int type = MapById(RootClassTypeMap, static_cast<int>(rec->root_type));
    if (type < 0) return 4;
    qos_class *above = nullptr;
    // A top-level class is not tested, on purpose: its handle may be there already.
    if (static_cast<u16>(parent) != 0) {
        above = class_find(ifname, parent);
        if (above == nullptr) return 1;
        if (class_find(ifname, handle) != nullptr) return 2;
    }
    qos_class *cls = append_class(rec, above, static_cast<u32>(type), static_cast<u16>(handle));
    if (cls == nullptr) return 3;
    ::memcpy(&cls->param, class_param,
             type == C_HTB ? sizeof(htb_class_param) : sizeof(hfsc_class_param));
    return 0;
}

int del_class(const char *ifname, u32 handle)
{
    qos_class *cls = class_find(ifname, handle);
    if (cls == nullptr) return 1;
    class_free_tree(cls);
    return 0;
}

int add_leaf_qdisc(const char *ifname, u32 handle, const leaf_qdisc *leaf)
{
    qos_class *cls = class_find(ifname, handle);
    if (cls == nullptr) return 1;
    if (!is_leaf(cls)) return 4;
    cls->leaf = *leaf;
    return 0;
}

int del_leaf_qdisc(const char *ifname, u32 handle)
{
    qos_class *cls = class_find(ifname, handle);
    if (cls == nullptr || !is_leaf(cls)) return 1;
    ::memset(&cls->leaf, 0, sizeof cls->leaf);
    return 0;
}

int check_Key(const char *ifname, u32 key)
{
    const qos_class *cls = class_find(ifname, key);
    return cls != nullptr && is_leaf(cls);
}

// ---- Commands -----------------------------------------------------------------------------------

namespace mordel {
namespace {

// "%-3x" puts blanks behind a handle of less than three digits. They are meant: scripts are
// compared byte for byte.
void htb2cmd(FILE *out, const char *ifname, u16 parent, const qos_class &cls)
{
    const htb_class_param &p = cls.param.htb;
    ::fprintf(out,
              "tc class add dev %s parent 1:0x%-3x classid 1:0x%-3x"
              " htb rate %ukbit ceil %ukbit prio %u ",
              ifname, parent, cls.handle, p.rate, p.ceil, p.prio);
    if (p.burst != 0) ::fprintf(out, "burst %u ", p.burst);
    if (p.cburst != 0) ::fprintf(out, "cburst %u", p.cburst);
    ::fputs("\n", out);
}

void hfsc2cmd(FILE *out, const char *ifname, u16 parent, const qos_class &cls)
{
    const hfsc_class_param &p = cls.param.hfsc;
    ::fprintf(out, "tc class add dev %s parent 1:0x%-3x classid 1:0x%-3x hfsc ", ifname, parent,
              cls.handle);
    curve2cmd(out, &p.ul, curve_ul);
    const hfsc_curve *const curves[] = {&p.ul, &p.sc, &p.ls, &p.rt};  // by curve_id
    const int id = written_curve(p, is_leaf(&cls));
    if (id >= 0) curve2cmd(out, curves[id], id);
    ::fputs("\n", out);
}

}  // namespace

void root2cmd(FILE *out, qos_if *rec)
{
    const qos_root_param &p = rec->param;
    switch (rec->root_type) {
    case R_HTB:
        ::fprintf(out, "tc qdisc add dev %s handle 1:0 root htb default 0x%x\n", rec->ifname,
                  p.classful.default_class);
        break;
    case R_HFSC:
        ::fprintf(out, "tc qdisc add dev %s handle 1:0 root hfsc default 0x%x\n", rec->ifname,
                  p.classful.default_class);
        break;
    case R_PRIO: {
        const u8 *map = p.prio.priomap;
        ::fprintf(out,
                  "tc qdisc add dev %s handle 1:0 root prio bands %d"
                  " priomap %d %d %d %d %d %d %d %d %d %d %d %d %d %d %d %d\n",
                  rec->ifname, p.prio.bands, map[0], map[1], map[2], map[3], map[4], map[5], map[6],
                  map[7], map[8], map[9], map[10], map[11], map[12], map[13], map[14], map[15]);
        break;
    }
    case R_pfifo_fast:
        // The script has deleted the root qdisc, which put the kernel's default one back:
        // pfifo_fast. Its queue length is all there is to set.
        ::fprintf(out, "ifconfig %s txqueuelen %u\n", rec->ifname, p.pfifo_fast.queue_len);
        return;
    default:
        return;
    }
    class2cmd(out, rec->ifname, &rec->classes);
}

void class2cmd(FILE *out, const char *ifname, list_head *classes)
{
    for (qos_class &cls : preorder(classes)) {
        // Class 1 is written below the root qdisc, 1:0, wherever it stands in the tree.
        const qos_class *parent = parent_of(&cls);
        const u16 above = cls.handle == 1 || parent == nullptr ? u16{0} : parent->handle;
        if (cls.type == C_HTB) htb2cmd(out, ifname, above, cls);
        if (cls.type == C_HFSC) hfsc2cmd(out, ifname, above, cls);
        // No line for a PRIO class: the kernel makes one per band with the root qdisc.
        if (is_leaf(&cls)) do_leaf2cmd(out, ifname, cls.handle, &cls.leaf);
    }
}

int written_curve(const hfsc_class_param &p, bool leaf)
{
    if (p.sc.rate != 0) return curve_sc;
    if (p.ls.rate != 0) return curve_ls;
    return p.rt.rate != 0 && leaf ? curve_rt : -1;
}

void curve2cmd(FILE *out, const hfsc_curve *curve, int id)
{
    ::fprintf(out, "%s ", TxtMapById(CurveTypeMap, id));
    if (curve->umax != 0) ::fprintf(out, "umax %ub ", curve->umax);
    if (curve->dmax != 0) ::fprintf(out, "dmax %ums ", curve->dmax);
    ::fprintf(out, "rate %ukbit ", curve->rate);
}

void do_leaf2cmd(FILE *out, const char *ifname, u16 handle, const leaf_qdisc *leaf)
{
    // In 32 bits: from class 0x1000 on the number is more than a qdisc's 16 bits. tc then refuses
    // the line; reduced to 16 bits, the number would name another class's qdisc.
    const u32 major = u32{handle} * 16;
    ::fprintf(out, "tc qdisc add dev %s parent 1:0x%-3x handle 0x%x: ", ifname, handle, major);
    switch (leaf->type) {
    case L_SFQ:
        ::fputs("sfq ", out);
        if (leaf->param.sfq.perturb != 0) ::fprintf(out, "perturb %d", leaf->param.sfq.perturb);
        ::fputs("\n", out);
        break;
    case L_pfifo:
        ::fputs("pfifo ", out);
        if (leaf->param.pfifo.limit != 0) ::fprintf(out, "limit %u", leaf->param.pfifo.limit);
        ::fputs("\n", out);
        break;
    case L_RED: {
        const red_leaf_param &red = leaf->param.red;
        ::fprintf(out, "red min %ub max %ub burst %u limit %ub avpkt %ub\n", red.min, red.max,
                  red.burst, red.limit, red.avpkt);
        break;
    }
    case L_TBF: {
        const tbf_leaf_param &tbf = leaf->param.tbf;
        ::fprintf(out, "tbf latency %ums rate %ukbit burst %ub\n", tbf.latency, tbf.rate,
                  tbf.burst);
        break;
    }
    default:
        // The line is left without an end, on purpose: the filter's command below becomes a part of
        // it, and tc refuses the whole.
        TRACE_CONSOLE("An error occur at not define leaf qdisc type\n");
        break;
    }
    ::fprintf(out,
              "tc filter add dev %s parent 1:0 protocol ip prio 50 handle 0x%x fw classid 1:0x%x\n",
              ifname, handle, handle);
}

void emit_rule_start(FILE *out, qos_if *rec)
{
    (void)renew_qos_rule(out, rec->ifname, &rec->rules);
}

void emit_rule_stop(FILE *out, qos_if *rec) { (void)remove_qos_rule(out, rec->ifname); }

namespace {

// The lines that both scripts begin with
void write_opening(FILE *out, const char *ifname)
{
    write_script_header(out);
    ::fprintf(out, "tc qdisc del dev %s root 2>/dev/null\n", ifname);
}

// Writes one of the two scripts to its place. 1; 0 when it could not.
int write_script(const char *path, const char *ifname,
                 void (*write)(FILE *, const char *, qos_if *))
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) return 0;
    const script_file script(path);
    if (script.stream() == nullptr) return 0;
    write(script.stream(), ifname, rec);
    return 1;
}

}  // namespace

void start2script(FILE *out, const char *ifname, qos_if *rec)
{
    write_opening(out, ifname);
    root2cmd(out, rec);
    emit_rule_start(out, rec);
}

void stop2script(FILE *out, const char *ifname, qos_if *rec)
{
    write_opening(out, ifname);
    emit_rule_stop(out, rec);
}

}  // namespace mordel

int start_qos(const char *ifname)
{
    return write_script("/var/tmp/qos_start", ifname, start2script);
}

int stop_qos(const char *ifname) { return write_script("/var/tmp/qos_stop", ifname, stop2script); }

int restart_qos(const char *ifname) { return stop_qos(ifname) == 0 ? 0 : start_qos(ifname); }

int restart_qos_all(void)
{
    if (list_empty(&qos_root)) {
        TRACE_CONSOLE("Qos list empty!!\n");
        return 0;
    }
    for (const qos_if &rec : each<&qos_if::node>(qos_root)) {
        (void)restart_qos(rec.ifname);
        TRACE_CONSOLE("Start %s's Qos!!\n", rec.ifname);
    }
    return 0;
}

// ---- Report -------------------------------------------------------------------------------------

namespace mordel {

void show_leaf(const leaf_qdisc *leaf)
{
    const char *name = name_of(LeafQdiscTypeMap, leaf->type);
    switch (leaf->type) {
    case L_pfifo:
        TRACE_CONSOLE("leaf qdisc:      %s limit = %u\n", name, leaf->param.pfifo.limit);
        break;
    case L_SFQ:
        TRACE_CONSOLE("leaf qdisc:      %s perturb = %d sec\n", name, leaf->param.sfq.perturb);
        break;
    case L_RED: {
        const red_leaf_param &red = leaf->param.red;
        TRACE_CONSOLE("leaf qdisc:      %s %u byte, %u byte, %u packets, %u byte, %u byte\n", name,
                      red.min, red.max, red.burst, red.limit, red.avpkt);
        break;
    }
    case L_TBF: {
        const tbf_leaf_param &tbf = leaf->param.tbf;
        TRACE_CONSOLE("leaf qdisc:      %s %u ms, %u kbps, %u byte\n", name, tbf.latency, tbf.rate,
                      tbf.burst);
        break;
    }
    default:
        TRACE_CONSOLE("An error occur at not define leaf qdisc type\n");
        break;
    }
}

// In the order of the start script, but class 1 is shown as 1:1 where the script puts it below 0.
// Both are meant.
void draw_class(list_head *classes)
{
    for (const qos_class &cls : preorder(classes)) {
        const qos_class *parent = parent_of(&cls);
        u16 major = parent == nullptr ? u16{0} : parent->handle;
        if (cls.handle == 1) major = 1;
        const char *name = name_of(ClassTypeMap, cls.type);
        if (cls.type == C_HTB) {
            const htb_class_param &p = cls.param.htb;
            TRACE_CONSOLE("class:           %s handle %3d:%-3d %10u kbps %10u kbps %10u byte"
                          " %10u byte prio:%2u\n",
                          name, major, cls.handle, p.rate, p.ceil, p.burst, p.cburst, p.prio);
        }
        if (cls.type == C_HFSC) {
            const hfsc_class_param &p = cls.param.hfsc;
            TRACE_CONSOLE("class:           %s handle %3d:%-3d\n", name, major, cls.handle);
            TRACE_CONSOLE("                 ul:%9u byte/%9u ms/%9u kbps"
                          "   sc:%9u byte/%9u ms/%9u kbps\n",
                          p.ul.umax, p.ul.dmax, p.ul.rate, p.sc.umax, p.sc.dmax, p.sc.rate);
            TRACE_CONSOLE("                 ls:%9u byte/%9u ms/%9u kbps"
                          "   rt:%9u byte/%9u ms/%9u kbps\n",
                          p.ls.umax, p.ls.dmax, p.ls.rate, p.rt.umax, p.rt.dmax, p.rt.rate);
        }
        if (is_leaf(&cls)) show_leaf(&cls.leaf);
    }
}

void show_class(const char *ifname)
{
    qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) {
        TRACE_CONSOLE("didn't found qos setting in this interface!\n");
        return;
    }
    draw_class(&rec->classes);
}

}  // namespace mordel

void show_ifqos(const char *ifname)
{
    const qos_if *rec = root_qdisc_find_by_name(ifname);
    if (rec == nullptr) {
        TRACE_CONSOLE("didn't found qos setting in this interface!\n");
        return;
    }
    const qos_root_param &p = rec->param;
    TRACE_CONSOLE("Interface:       %s\n", rec->ifname);
    TRACE_CONSOLE("Speed:           PHY=%10u/%-10u kbit/s, LINK=%10u/%-10u kbit/s\n", rec->phy_tx,
                  rec->phy_rx, rec->link_tx, rec->link_rx);
    TRACE_CONSOLE("Root QDisc Type: %s\n", name_of(RootQdiscTypeMap, rec->root_type));
    switch (rec->root_type) {
    case R_HTB:
    case R_HFSC:
        TRACE_CONSOLE("Default Class ID:%d\n", p.classful.default_class);
        break;
    case R_PRIO: {
        const u8 *map = p.prio.priomap;
        TRACE_CONSOLE("Band:            %d\n", p.prio.bands);
        TRACE_CONSOLE("PrioMap:\t        %d,%d,%d,%d,%d,%d,%d,%d,%d,%d,%d,%d,%d,%d,%d,%d\n", map[0],
                      map[1], map[2], map[3], map[4], map[5], map[6], map[7], map[8], map[9],
                      map[10], map[11], map[12], map[13], map[14], map[15]);
        break;
    }
    case R_pfifo_fast:
        TRACE_CONSOLE("Queue length:    %u\n", p.pfifo_fast.queue_len);
        return;
    default:
        TRACE_CONSOLE("An error occur at not define root qdisc type\n");
        return;
    }
    show_class(ifname);
}
