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

// The first of them in words; the set has them in order.
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
        if (c.parent != c.handle) parents.insert(c.parent);
    for (tree_class &c : all) c.has_children = parents.contains(c.handle);
    return all;
}

std::vector<tree_class> tree_of(const policy_interface &iface)
{
    const std::vector<tree_class> all = declared_classes(iface);
    std::map<u32, std::vector<const tree_class *>> children;
    // Last first, since the walk takes them from the end.
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
        children.erase(c->handle);  // a class is walked once
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
    default:
        return {};
    }
}

}  // namespace tool
