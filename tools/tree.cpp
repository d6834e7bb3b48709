// SPDX-License-Identifier: MIT
// The tree that comes of an interface's entries and of the classes that come by themselves. Pure:
// takes records and gives records.
#include "tree.h"

#include <map>
#include <set>

#include "tarnic_qos.h"
#include "text.h"

namespace tool {
namespace {

// The first 12 handles in words, lowest first: a policy may have thousands, and a message is one
// line.
std::string listed(const std::set<u32> &handles)
{
    constexpr std::size_t shown = 12;
    std::string list;
    std::size_t n = 0;
    for (const u32 handle : handles)
        if (n++ < shown) list += (list.empty() ? "" : ", ") + hex(handle);
    if (n > shown) list += format(" and %zu more", n - shown);
    return list.empty() ? "none" : list;
}

}  // namespace

// An entry for a class that comes by itself gives that class its name and leaf; any other entry
// adds a class. Nothing is sorted or left out by its parent: the checks of a policy work on this
// list, and a class without a good parent has no place in a tree.
std::vector<tree_class> declared_classes(const policy_interface &iface)
{
    std::vector<tree_class> all = iface.built_in;
    for (const policy_class &entry : iface.classes) {
        tree_class *known = nullptr;
        for (tree_class &c : all)
            if (entry.existing && c.handle == entry.handle.get()) known = &c;
        if (known == nullptr) {
            if (entry.existing || !entry.handle.is_good()) continue;  // no such band, or unknown
            known = &all.emplace_back();
            known->handle = entry.handle.get();
            known->parent = entry.placed() ? entry.parent.get() : no_parent;
            known->param = entry.param;
        }
        known->entry = &entry;
        if (!entry.name.get().empty()) known->name = entry.name.get();
        if (entry.leaf.is_good()) known->leaf = entry.leaf.get();
    }
    std::set<u32> parents;
    for (const tree_class &c : all)
        // A class below itself has an error of its own, and is no parent for that.
        if (c.parent != c.handle) parents.insert(c.parent);
    for (tree_class &c : all) c.has_children = parents.contains(c.handle);
    return all;
}

// Pre-order: a class, all that is below it, then its next sibling. The start script has this order,
// so each class is added after its parent. The walk keeps a stack of its own and calls itself for
// no class: a policy can hang 4,095 classes one below another.
std::vector<tree_class> tree_of(const policy_interface &iface)
{
    const std::vector<tree_class> all = declared_classes(iface);
    std::map<u32, std::vector<const tree_class *>> children;
    // Siblings last first: the walk takes classes from the end of `waiting`.
    for (auto c = all.rbegin(); c != all.rend(); ++c) children[c->parent].push_back(&*c);
    std::vector<tree_class> out;
    std::vector<const tree_class *> waiting = children[0];
    while (!waiting.empty()) {
        const tree_class *c = waiting.back();
        waiting.pop_back();
        out.push_back(*c);
        if (c->handle == 0) continue;
        const auto &below = children[c->handle];
        waiting.insert(waiting.end(), below.begin(), below.end());
        // A second class of this handle finds no children: a loop of parents ends here.
        children.erase(c->handle);
    }
    return out;
}

const tree_class *find_class(const std::vector<tree_class> &tree, u32 handle)
{
    for (const tree_class &c : tree)
        if (c.handle == handle) return &c;
    return nullptr;
}

std::string listed_classes(const std::vector<tree_class> &tree)
{
    std::set<u32> all;
    for (const tree_class &c : tree) all.insert(c.handle);
    return listed(all);
}

std::string listed_leaves(const std::vector<tree_class> &tree)
{
    std::set<u32> all;
    for (const tree_class &c : tree)
        if (!c.has_children) all.insert(c.handle);
    return listed(all);
}

std::vector<tree_class> default_tree(u32 root_type, u32 link_kbit, u32 phy_kbit)
{
    // The library's own table and functions make the classes. A copy of its numbers here would go
    // on agreeing with itself when the script no longer does.
    qos_if rec{};
    rec.root_type = root_type;
    rec.link_tx = link_kbit;
    rec.phy_tx = phy_kbit;
    std::vector<tree_class> all;
    for (const mordel::default_class &row : mordel::default_classes) {
        tree_class &c = all.emplace_back();
        c.handle = row.handle;
        c.parent = row.parent;
        c.name = row.name;
        c.param = mordel::default_param(&rec, row);
        c.leaf = mordel::default_leaf(row);
    }
    return all;
}

class_curve written_curve(const hfsc_class_param &p, bool has_children)
{
    const int id = mordel::written_curve(p, !has_children);
    switch (id) {
    case mordel::curve_sc:
        return {id, &p.sc};
    case mordel::curve_ls:
        return {id, &p.ls};
    case mordel::curve_rt:
        return {id, &p.rt};
    default:  // no curve besides ul
        return {};
    }
}

}  // namespace tool
