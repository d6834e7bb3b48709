// SPDX-License-Identifier: MIT
// Compares a policy's tree with the kernel's: the root, the classes, the leaves, the filters. The
// options of one kind are compared by that kind's row. Pure: takes records and gives records.
#include "compare.h"

#include <linux/pkt_sched.h>

#include <map>
#include <set>

#include "leaf.h"
#include "root.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using scope = difference::scope;
using std::string;

// The script numbers a leaf 16 times its class: class 1:10 has leaf 100:. A qdisc's number is the
// high half of its handle, hence the shift by 20 (4 + 16).
void compare_leaf(const tree_class &c, const live_qdisc *seen, differences &found)
{
    const leaf_kind &kind = kind_of(c.leaf);
    const char *name = kind.name.data();
    if (seen == nullptr)
        found.add(scope::leaf, c.handle, format("has no leaf qdisc, not %s", name));
    else if (seen->kind != kind.name || seen->handle != c.handle << 20)
        found.add(scope::leaf, c.handle,
                  format("leaf is %s %x:, not %s %x:", seen->kind.c_str(), seen->handle >> 16, name,
                         c.handle * 16));
    else
        kind.compare(c.handle, c.leaf, *seen, found);
}

void compare_class(const class_kind &kind, const tree_class &c, const live_index &kernel,
                   differences &found)
{
    const live_class *seen = kernel.find(root_id | c.handle);
    if (seen == nullptr) {
        found.add(scope::new_class, c.handle, "is not there");
        return;
    }
    const u32 parent = root_id | c.parent;
    // HTB names the root as a parent by TC_H_ROOT; HFSC and PRIO say 1:0.
    const u32 seen_parent = seen->parent == TC_H_ROOT ? root_id : seen->parent;
    if (seen_parent != parent)
        // The kernel moves no class to another parent.
        found.add(scope::remade_class, c.handle,
                  format("hangs on 1:%x, not on 1:%x", seen_parent & 0xffff, parent & 0xffff));
    kind.compare(c, *seen, found);
    if (!c.has_children) compare_leaf(c, kernel.leaf_of(root_id | c.handle), found);
}

// Each leaf class has one filter, for the mark that is its handle. A filter too many is a
// difference as well: it could send a leaf's packets elsewhere.
void compare_filters(const std::vector<tree_class> &tree, const live_tree &kernel,
                     differences &found)
{
    std::map<u32, u32> seen;
    for (const live_filter &f : kernel.filters)
        if (!f.plain || !seen.emplace(f.mark, f.id).second)
            found.add(scope::filter, 0, "a filter on the root is not in the policy");
    std::set<u32> wanted;
    for (const tree_class &c : tree) {
        if (c.has_children) continue;
        wanted.insert(c.handle);
        const auto filter = seen.find(c.handle);
        if (filter == seen.end())
            found.add(scope::filter, c.handle, format("no filter sends mark 0x%x there", c.handle));
        else if (filter->second != (root_id | c.handle))
            found.add(scope::filter, c.handle,
                      format("mark 0x%x goes to %x:%x", c.handle, filter->second >> 16,
                             filter->second & 0xffff));
    }
    for (const auto &[mark, id] : seen)
        if (!wanted.contains(mark))
            found.add(scope::filter, 0,
                      format("a filter for mark 0x%x is not in the policy", mark));
}

}  // namespace

std::vector<difference> compare(const policy_interface &iface, const live_tree &kernel)
{
    differences found;
    const root_kind &kind = kind_of(iface);
    if (!kind.compare(iface, kernel, found)) return found.all();
    // Parents first, so that the first difference of a missing branch names its top.
    const std::vector<tree_class> tree = tree_of(iface);
    const live_index index(kernel);
    std::set<u32> wanted;
    for (const tree_class &c : tree) {
        wanted.insert(c.handle);
        compare_class(*kind.classes, c, index, found);
    }
    for (const live_class &seen : kernel.classes)
        if (!wanted.contains(seen.id & 0xffff))
            found.add(scope::old_class, seen.id & 0xffff, "is not in the policy");
    compare_filters(tree, kernel, found);
    return found.all();
}

}  // namespace tool
