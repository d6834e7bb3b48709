// SPDX-License-Identifier: MIT
// The table of the root kinds, and above it, under each kind's name, the functions that its row
// holds. Pure: no file, no kernel, no state.
#include "root.h"

#include <linux/pkt_sched.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "kinds.h"
#include "tarnic_qos.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;
using std::vector;
using json = nlohmann::ordered_json;
using scope = difference::scope;

// ---- What several of them share -----------------------------------------------------------------

// An array alone means enabled. The marks are kept with their places as well, since check_mark asks
// later whether each is a leaf class.
void read_automark(table_reader &in, policy_interface &iface, automark_value &out)
{
    const string right = "it is an array of eight marks, or { enable = true, marks = [...] }";
    const toml::node *node = in.get("automark");
    if (node == nullptr) return;
    const toml::array *marks = node->as_array();
    out.enable = 1;
    if (const toml::table *table = node->as_table()) {
        table_reader sub(*table, "automark", {"enable", "marks"}, in.found());
        sub.must({"marks"}, "an array of eight marks");
        out.enable = sub.flag("enable").get_or(true) ? 1 : 0;
        marks = sub.array("marks", right);
    } else if (marks == nullptr) {
        in.wrong("automark", right);
    }
    if (marks == nullptr) return;
    if (marks->size() != std::size(out.mark)) {
        in.found().error(place(*marks), format("automark has %zu marks; it needs eight, 0 for none",
                                               marks->size()));
        return;
    }
    std::size_t i = 0;
    for (const toml::node &mark : *marks) {
        iface.automark[i] = in.number_in("automark", mark, 0, 65535);
        out.mark[i] = static_cast<u16>(iface.automark[i].get());
        ++i;
    }
}

// Whether the root qdisc is of the wanted kind and numbered 1:0, under which the scripts put all
// classes; else false, with the difference. Without a root of the policy's kind, comparing the
// classes below would only repeat "is not there" for each.
bool is_the_root(const policy_interface &wanted, const live_tree &seen, differences &found)
{
    const string kind(kind_of(wanted).name);
    const live_qdisc *root = seen.root();
    if (root == nullptr) {
        found.add(scope::tree, 0, "has no " + kind + ", but its default qdisc");
        return false;
    }
    if (root->kind != kind || root->handle != root_id) {
        found.add(scope::tree, 0,
                  format("root qdisc is %s %x:, not %s 1:", root->kind.c_str(), root->handle >> 16,
                         kind.c_str()),
                  "the kernel changes neither kind nor number of a root");
        return false;
    }
    return true;
}

// ---- HTB and HFSC -------------------------------------------------------------------------------

void read_classful(table_reader &in, policy_interface &iface)
{
    iface.default_tree = in.flag("default_tree").get_or(true);
    class_root_param &root = iface.param.classful;
    iface.default_class = in.handle("default", 0);
    if (iface.default_tree) {
        in.must({"phy_tx", "link_tx"}, "a rate, since the default tree is made with it");
        // speeds: link_tx is the first, phy_tx the third.
        iface.built_in = default_tree(iface.root_type, iface.speeds[0], iface.speeds[2]);
        // Class 3 of the default tree, at link_tx: what no rule picks is held to the line's speed.
        // Class 2 would let it send at the port's.
        iface.default_class.default_to(3);
    } else if (iface.default_class.is_absent()) {
        in.missing("default", "the handle of the class for what no rule picks");
    }
    root.default_class = static_cast<u16>(iface.default_class.get());
    read_automark(in, iface, root.automark);
}

void read_htb(table_reader &in, policy_interface &iface)
{
    in.only("an HTB interface", {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx",
                                 "default", "default_tree", "automark", "class", "rule"});
    read_classful(in, iface);
}

void read_hfsc(table_reader &in, policy_interface &iface)
{
    in.only("an HFSC interface", {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx",
                                  "default", "default_tree", "automark", "class", "rule"});
    read_classful(in, iface);
}

// The default tree is made with both speeds: its class 1 has phy_tx, its class 3 below it link_tx.
// The policy does not write these classes, so what tc would refuse of them is told at the speeds.
void check_speeds(const policy_interface &iface, diagnostics &found)
{
    if (!iface.default_tree) return;
    const struct {
        const char *key;
        const value<u32> &rate;
    } speeds[] = {{"phy_tx", iface.phy_tx}, {"link_tx", iface.link_tx}};
    for (const auto &[key, rate] : speeds)
        if (rate.is_good() && rate.get() == 0)
            found.error(rate.at(), format("%s is the rate of a class, and tc takes no rate of 0;"
                                          " give 1kbit or more",
                                          key));
    const u32 link = iface.link_tx.get();
    const u32 phy = iface.phy_tx.get();
    // Class 3 hangs on class 1: a rate above its parent's limit would break that limit.
    if (link > phy && phy != 0)
        found.error(iface.link_tx.at(),
                    format("link_tx, %s, is above phy_tx, %s, which holds the whole tree; lower"
                           " it to that or less",
                           rate_text(link).c_str(), rate_text(phy).c_str()));
}

// Handle 0 asks for no default class. A class with children holds no packets: as a default it would
// be as good as none, HTB sending unshaped and HFSC dropping what no rule picks.
void check_default(const policy_interface &iface, const vector<tree_class> &tree,
                   diagnostics &found)
{
    const u32 handle = iface.default_class.get();
    if (handle == 0) return;
    const tree_class *c = find_class(tree, handle);
    if (c == nullptr || c->has_children)
        found.error(iface.default_class.at(), format("default 0x%x is no leaf class; there are: %s",
                                                     handle, listed_leaves(tree).c_str()));
}

void check_htb(const policy_interface &iface, const vector<tree_class> &tree, diagnostics &found)
{
    check_speeds(iface, found);
    check_default(iface, tree, found);
}

void check_hfsc(const policy_interface &iface, const vector<tree_class> &tree, diagnostics &found)
{
    if (iface.default_tree)
        // HFSC rates are 32 bits of bytes/s in the kernel; HTB has 64.
        for (const value<u32> &rate : {iface.phy_tx, iface.link_tx})
            if (rate.get() > most_hfsc_kbit) found.error(rate.at(), hfsc_right());
    check_speeds(iface, found);
    check_default(iface, tree, found);
    if (iface.default_class.is_good() && iface.default_class.get() == 0)
        found.warning(iface.default_class.at(),
                      "without a default class HFSC drops what no rule picks");
}

const automark_value *classful_automark(const policy_interface &iface)
{
    return &iface.param.classful.automark;
}

void htb_from_kernel(live_qdisc &seen, const attribute &options)
{
    each_attribute(options.value, [&](const attribute &a) {
        if (a.type != TCA_HTB_INIT) return;
        const auto root = a.as<tc_htb_glob>();
        seen.default_class = root.defcls;
        constexpr u32 usual = 10;  // where r2q is not given
        seen.more = root.rate2quantum != usual;
    });
}

void hfsc_from_kernel(live_qdisc &seen, const attribute &options)
{
    seen.default_class = options.as<tc_hfsc_qopt>().defcls;
}

string htb_root_command(const live_qdisc &q) { return format("htb default 0x%x", q.default_class); }
string hfsc_root_command(const live_qdisc &q)
{
    return format("hfsc default 0x%x", q.default_class);
}

void compare_default(scope what, const policy_interface &wanted, const live_tree &seen,
                     differences &found, const char *because = "")
{
    const u32 handle = wanted.param.classful.default_class;
    if (seen.root()->default_class != handle)
        found.add(what, 0,
                  format("default class is 1:%x, not 1:%x", seen.root()->default_class, handle),
                  because);
}

bool compare_htb(const policy_interface &wanted, const live_tree &seen, differences &found)
{
    if (!is_the_root(wanted, seen, found)) return false;
    compare_default(scope::tree, wanted, seen, found, "the kernel changes no default class of HTB");
    return true;
}

bool compare_hfsc(const policy_interface &wanted, const live_tree &seen, differences &found)
{
    if (!is_the_root(wanted, seen, found)) return false;
    compare_default(scope::root, wanted, seen, found);
    return true;
}

string no_text(const policy_interface &) { return ""; }

u32 default_of(const policy_interface &iface) { return iface.param.classful.default_class; }

void classful_json(const policy_interface &iface, json &out)
{
    out["default"] = iface.param.classful.default_class;
}

// ---- PRIO ---------------------------------------------------------------------------------------

// The kernel's own priomap: the band for each of the 16 packet priorities, which the kernel takes
// from a packet's TOS. Its highest band is 2, so it needs 3 bands.
constexpr u8 usual_priomap[16] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};

void read_priomap(table_reader &in, prio_root_param &root)
{
    std::copy_n(usual_priomap, std::size(usual_priomap), root.priomap);
    const toml::array *map = in.array("priomap", "it is an array of 16 bands");
    if (map == nullptr) {
        if (!in.has("priomap") && root.bands < 3)
            in.missing("priomap", "an array of 16 bands, since the kernel's own needs 3 bands");
        return;
    }
    if (map->size() != std::size(root.priomap)) {
        in.found().error(place(*map), format("priomap has %zu bands; it needs 16, one for each"
                                             " packet priority",
                                             map->size()));
        return;
    }
    std::size_t i = 0;
    for (const toml::node &band : *map)
        root.priomap[i++] =
            static_cast<u8>(in.number_in("priomap", band, 0, root.bands - 1U).get());
}

void read_prio(table_reader &in, policy_interface &iface)
{
    in.only("a PRIO interface", {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx", "bands",
                                 "priomap", "automark", "class", "rule"});
    prio_root_param &root = iface.param.prio;
    value<u32> bands = in.number("bands", 2, 16);
    // The kernel's own number of bands.
    bands.default_to(3);
    // A wrong `bands` has been reported. 255 stands for it, above any band or class that could be
    // right, so that none of these is reported because of it.
    root.bands = static_cast<u8>(bands.get_or(255));
    read_automark(in, iface, root.automark);
    read_priomap(in, root);
    // The library makes and names the bands' classes alike (add_prio_classes).
    for (u32 band = 1; band <= root.bands; ++band) {
        tree_class &c = iface.built_in.emplace_back();
        c.handle = band;
        c.name = format("Class%u", band);
    }
}

// Entries name bands. A handle above `bands` has no class that the leaf could hang on.
void check_prio(const policy_interface &iface, const vector<tree_class> &, diagnostics &found)
{
    for (const policy_class &entry : iface.classes)
        if (entry.placed() && entry.handle.get() > iface.param.prio.bands)
            found.error(entry.handle.at(),
                        format("PRIO has no class 0x%x; its classes are its bands, 1 to %d",
                               entry.handle.get(), iface.param.prio.bands));
}

const automark_value *prio_automark(const policy_interface &iface)
{
    return &iface.param.prio.automark;
}

void prio_from_kernel(live_qdisc &seen, const attribute &options)
{
    const auto prio = options.as<tc_prio_qopt>();
    seen.bands = static_cast<u32>(prio.bands);
    seen.priomap.assign(prio.priomap, prio.priomap + sizeof prio.priomap);
}

string prio_root_command(const live_qdisc &q)
{
    string out = format("prio bands %u priomap", q.bands);
    for (const u8 band : q.priomap) out += format(" %d", band);
    return out;
}

bool compare_prio(const policy_interface &wanted, const live_tree &seen, differences &found)
{
    if (!is_the_root(wanted, seen, found)) return false;
    const prio_root_param &p = wanted.param.prio;
    const live_qdisc &root = *seen.root();
    if (root.bands != p.bands)
        found.add(scope::root, 0, format("has %u bands, not %d", root.bands, p.bands));
    else if (root.priomap != vector<u8>(std::begin(p.priomap), std::end(p.priomap)))
        found.add(scope::root, 0, "the priority map differs");
    return true;
}

string prio_text(const policy_interface &iface)
{
    string out = format("  %d bands, by packet priority:", iface.param.prio.bands);
    for (const u8 band : iface.param.prio.priomap) out += format(" %d", band);
    return out;
}

u32 no_default(const policy_interface &) { return 0; }

void prio_json(const policy_interface &iface, json &out)
{
    out["bands"] = iface.param.prio.bands;
    out["priomap"] = iface.param.prio.priomap;
}

// ---- pfifo_fast ---------------------------------------------------------------------------------

void read_pfifo_fast(table_reader &in, policy_interface &iface)
{
    in.only("a pfifo_fast interface",
            {"name", "root", "phy_tx", "phy_rx", "link_tx", "link_rx", "queue_len", "rule"});
    in.must({"queue_len"}, "a number of packets");
    iface.param.pfifo_fast.queue_len = in.number("queue_len", 0, no_limit).get();
}

void no_check(const policy_interface &, const vector<tree_class> &, diagnostics &) {}
const automark_value *no_automark(const policy_interface &) { return nullptr; }
void nothing_from_kernel(live_qdisc &, const attribute &) {}

// The interface keeps its default qdisc; only its queue's length is set. False: there are no
// classes to compare.
bool compare_pfifo_fast(const policy_interface &wanted, const live_tree &seen, differences &found)
{
    if (const live_qdisc *root = seen.root())
        found.add(scope::tree, 0, "has the root qdisc " + root->kind + ", not its default");
    const u32 length = wanted.param.pfifo_fast.queue_len;
    if (seen.queue_len != length)
        found.add(scope::tree, 0, format("queue length is %u, not %u", seen.queue_len, length));
    return false;
}

string pfifo_fast_text(const policy_interface &iface)
{
    return format("  queue of %u packets", iface.param.pfifo_fast.queue_len);
}

void pfifo_fast_json(const policy_interface &iface, json &out)
{
    out["queue_len"] = iface.param.pfifo_fast.queue_len;
}

// ---- The table ----------------------------------------------------------------------------------

// clang-format off
constexpr root_kind kinds[] = {
    {"pfifo_fast", nullptr, R_pfifo_fast, false,
     read_pfifo_fast, no_check, no_automark, nothing_from_kernel, nullptr,
     compare_pfifo_fast,
     pfifo_fast_text, no_default, pfifo_fast_json},
    {"htb", &htb_class, R_HTB, true,
     read_htb, check_htb, classful_automark, htb_from_kernel, htb_root_command,
     compare_htb,
     no_text, default_of, classful_json},
    {"hfsc", &hfsc_class, R_HFSC, true,
     read_hfsc, check_hfsc, classful_automark, hfsc_from_kernel, hfsc_root_command,
     compare_hfsc,
     no_text, default_of, classful_json},
    {"prio", &prio_band, R_PRIO, false,
     read_prio, check_prio, prio_automark, prio_from_kernel, prio_root_command,
     compare_prio,
     prio_text, no_default, prio_json},
};
// clang-format on

constexpr auto names = names_of(kinds);

static_assert(std::size(kinds) == mordel::root_types, "a row for each R_…, and no other");
static_assert(are_by_type(kinds));

}  // namespace

std::span<const root_kind> root_kinds() { return kinds; }
std::span<const std::string_view> root_names() { return names; }
const root_kind &kind_of(const policy_interface &iface) { return kinds[iface.root_type]; }

const root_kind *find_root_kind(std::string_view name) { return find_by_name(kinds, name); }

}  // namespace tool
