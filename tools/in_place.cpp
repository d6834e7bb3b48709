// SPDX-License-Identifier: MIT
// Owns the order of the commands that change a tree object by object, and each one's inverse. What
// goes, goes first and children before parents, since the kernel deletes no class that has a filter
// or classes below it; what comes, comes parents first. Pure: takes records and gives records.
#include "in_place.h"

#include <linux/pkt_sched.h>

#include <map>
#include <set>

#include "leaf.h"
#include "root.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using kind = object::kind;
using scope = difference::scope;

// "class add dev ..." as "class change dev ..."
string with_verb(string text, const char *verb)
{
    return text.replace(text.find(' ') + 1, std::string_view("add").size(), verb);
}

step tc_step(const string &text, const object &what, unsigned line, const string &why,
             const lines &undo)
{
    return {program::tc, text, what, line, why, false, undo};
}

step destructive(step s)
{
    s.destructive = true;
    return s;
}

// The handle of a class's parent; 0 for the root, which HTB names by TC_H_ROOT and HFSC by 1:0.
u32 parent_of(const live_class &c) { return c.parent == TC_H_ROOT ? 0 : c.parent & 0xffff; }

class changes {
public:
    changes(const wanted &w, const live_tree &live, const image &before,
            const std::vector<difference> &found)
        : w_(w),
          live_(live),
          index_(live),
          before_(before),
          classes_come_alone_(kind_of(w.iface).classes->command != nullptr)
    {
        for (const tree_class &c : tree_of(w.iface)) tree_.emplace(c.handle, c);
        for (const live_class &c : live.classes) children_[parent_of(c)].push_back(c.id & 0xffff);
        // A class with three differences takes one command, not three.
        for (const difference &d : found) {
            string &why = reasons_[d.what][d.handle];
            why += (why.empty() ? "" : "; ") + d.text;
        }
        if (classes_come_alone_) find_going();
    }

    std::vector<step> steps()
    {
        delete_filters();
        delete_leaves();
        delete_classes();
        change_classes();
        add_classes();
        change_root();
        make_leaves();
        make_filters();
        return steps_;
    }

private:
    // ---- What goes, and why ---------------------------------------------------------------------

    // A class that goes takes along all classes below it; those that the policy wants come again.
    void find_going()
    {
        going_ = reasons_[scope::old_class];
        going_.insert(reasons_[scope::remade_class].begin(), reasons_[scope::remade_class].end());
        std::vector<u32> above;
        for (const auto &[handle, why] : going_) above.push_back(handle);
        while (!above.empty()) {
            const u32 handle = above.back();
            above.pop_back();
            for (const u32 child : children_[handle])
                if (going_.emplace(child, format("class 1:%x above it goes", handle)).second)
                    above.push_back(child);
        }
    }

    bool goes(u32 handle) const { return going_.contains(handle); }
    // Whether a class of the policy is yet to be made
    bool comes(u32 handle) const
    {
        return goes(handle) || index_.find(root_id | handle) == nullptr;
    }
    const tree_class *wanted_class(u32 handle) const
    {
        const auto c = tree_.find(handle);
        return c == tree_.end() ? nullptr : &c->second;
    }
    bool has_classes_below(u32 handle) const { return children_.contains(handle); }

    // "" where there is no such difference
    string reason(scope what, u32 handle) const
    {
        const auto all = reasons_.find(what);
        if (all == reasons_.end()) return "";
        const auto one = all->second.find(handle);
        return one == all->second.end() ? "" : one->second;
    }

    // Why a class that comes is made, and why its leaf and filter are
    string why_it_comes(u32 handle) const
    {
        const auto why = going_.find(handle);
        return why != going_.end() ? why->second : reason(scope::new_class, handle);
    }

    string why_it_has_more(u32 handle) const
    {
        return goes(handle) ? "its class is made anew" : "its class is new";
    }

    // The command that made an object, as a command with another verb; none where nothing of ours
    // makes the object.
    lines as_before(kind what, u32 number, const char *verb = "add") const
    {
        const command *c = before_.find(what, number);
        return c == nullptr ? lines{} : lines{with_verb(c->text, verb)};
    }

    unsigned line_of(kind what, u32 number) const
    {
        const command *c = w_.script.find(what, number);
        return c == nullptr ? 0 : c->line;
    }

    const string &name() const { return w_.iface.name; }

    // ---- Filters that go ------------------------------------------------------------------------

    void delete_filters()
    {
        for (const live_filter &f : live_.filters) {
            if (!f.plain)
                delete_foreign(f);
            else if (!filters_.emplace(f.mark, f.id).second)
                delete_filter(f.mark, "there are two");
            else if (w_.script.find(kind::filter, f.mark) == nullptr)
                delete_filter(f.mark, "not in the policy");
            else if (TC_H_MAJ(f.id) == root_id && goes(f.id & 0xffff))
                delete_filter(f.mark, format("its class 1:%x goes", f.id & 0xffff));
        }
    }

    void delete_filter(u32 mark, const string &why)
    {
        filters_.erase(mark);
        steps_.push_back(tc_step(deletion_of_filter(mark), {kind::filter, mark, ""},
                                 line_of(kind::filter, mark), why, as_before(kind::filter, mark)));
    }

    string deletion_of_filter(u32 mark) const
    {
        return format("filter del dev %s parent 1:0 protocol ip prio 50 handle 0x%x fw",
                      name().c_str(), mark);
    }

    // Among the policy's own filters a foreign one is deleted by its handle. Elsewhere all filters
    // of the priority are, by one command: no filter there is the policy's, and a u32 filter's own
    // handles cannot all be deleted.
    void delete_foreign(const live_filter &f)
    {
        const string where = format("filter del dev %s parent 1:0 protocol 0x%04x prio %u",
                                    name().c_str(), f.protocol, f.priority);
        const bool own_place = f.priority == 50 && f.protocol == 0x0800 && f.chain == 0;
        string text = where + (f.chain == 0 ? "" : format(" chain %u", f.chain));
        if (own_place && f.kind == "fw") text = deletion_of_filter(f.mark);
        if (!foreign_.insert(text).second) return;
        steps_.push_back(destructive(tc_step(text, {kind::filter, f.mark, ""}, 0,
                                             "somebody else's filter is not in the policy", {})));
    }

    // ---- Leaves that go -------------------------------------------------------------------------

    void delete_leaves()
    {
        // What hangs below a leaf goes before the leaf does.
        for (const live_qdisc &q : live_.qdiscs)
            if (q.handle != 0 && TC_H_MAJ(q.parent) != root_id && q.parent < TC_H_INGRESS &&
                is_in_the_way(q))
                delete_leaf(q, 0, "its number is another's");
        for (const live_qdisc &q : live_.qdiscs) {
            if (q.handle == 0 || TC_H_MAJ(q.parent) != root_id) continue;
            const u32 handle = q.parent & 0xffff;
            const tree_class *c = wanted_class(handle);
            if (c == nullptr || goes(handle)) continue;
            if (c->has_children ? !has_classes_below(handle) : is_replaced(*c, q))
                delete_leaf(q, handle,
                            c->has_children ? "its class gets classes below it"
                                            : reason(scope::leaf, handle));
            else if (is_in_the_way(q))
                delete_leaf(q, handle, "its number is another's");
        }
    }

    // Whether the number of a qdisc is wanted for the leaf of another class. tc would refuse that
    // leaf.
    bool is_in_the_way(const live_qdisc &q) const { return has_number_of_another(w_, q); }

    // A command without options cannot change: tc would leave the old options set where the policy
    // wants the kernel's defaults.
    bool is_replaced(const tree_class &c, const live_qdisc &q) const
    {
        if (reason(scope::leaf, c.handle).empty()) return false;
        const leaf_kind &row = kind_of(c.leaf);
        const bool same = q.kind == row.name && q.handle == c.handle << 20;
        return !same || !row.changeable || !w_.script.find(kind::leaf, c.handle)->options;
    }

    void delete_leaf(const live_qdisc &q, u32 handle, const string &why)
    {
        deleted_leaves_.insert(handle);
        steps_.push_back(destructive(
            tc_step(format("qdisc del dev %s parent %x:%x", name().c_str(), q.parent >> 16,
                           q.parent & 0xffff),
                    {kind::leaf, handle, ""}, line_of(kind::leaf, handle), why,
                    TC_H_MAJ(q.parent) == root_id ? as_before(kind::leaf, handle) : lines{})));
    }

    // ---- Classes --------------------------------------------------------------------------------

    // Children first. A class's leaf goes with it.
    void delete_classes()
    {
        std::vector<u32> parents_first = {0};
        for (std::size_t i = 0; i < parents_first.size(); ++i) {
            const auto below = children_.find(parents_first[i]);
            if (below != children_.end())
                parents_first.insert(parents_first.end(), below->second.begin(),
                                     below->second.end());
        }
        for (auto handle = parents_first.rbegin(); handle != parents_first.rend(); ++handle)
            if (goes(*handle)) delete_class(*handle);
    }

    void delete_class(u32 handle)
    {
        lines undo = as_before(kind::tree_class, handle);
        for (const string &leaf : as_before(kind::leaf, handle)) undo.push_back(leaf);
        steps_.push_back(
            destructive(tc_step(deletion_of_class(handle), {kind::tree_class, handle, ""},
                                line_of(kind::tree_class, handle), going_.at(handle), undo)));
    }

    string deletion_of_class(u32 handle) const
    {
        return format("class del dev %s classid 1:0x%x", name().c_str(), handle);
    }

    void change_classes()
    {
        std::map<u32, string> changed = reasons_[scope::class_parameters];
        // What the kernel took of the class while it had classes below it may not be all.
        if (kind_of(w_.iface).classes->leaf_options)
            for (const auto &[handle, c] : tree_)
                if (!c.has_children && has_classes_below(handle))
                    changed.emplace(handle, "has no classes below it any more");
        for (const auto &[handle, why] : changed) {
            const command *c = w_.script.find(kind::tree_class, handle);
            if (c == nullptr || comes(handle)) continue;
            steps_.push_back(tc_step(with_verb(c->text, "change"), c->what, c->line, why,
                                     as_before(kind::tree_class, handle, "change")));
        }
    }

    void add_classes()
    {
        for (const command &c : w_.script.tree)
            if (c.what.what == kind::tree_class && comes(c.what.number))
                steps_.push_back(tc_step(c.text, c.what, c.line, why_it_comes(c.what.number),
                                         {deletion_of_class(c.what.number)}));
    }

    // ---- The root -------------------------------------------------------------------------------

    // Bands that a PRIO loses take their leaves along.
    void change_root()
    {
        const string why = reason(scope::root, 0);
        if (why.empty()) return;
        const command &c = *w_.script.find(kind::root, 0);
        step s = tc_step(with_verb(c.text, "change"), c.what, c.line, why,
                         as_before(kind::root, 0, "change"));
        for (const auto &[handle, all] : reasons_[scope::old_class]) {
            if (classes_come_alone_) break;
            s.destructive = true;
            for (const string &leaf : as_before(kind::leaf, handle)) s.undo.push_back(leaf);
        }
        steps_.push_back(s);
    }

    // ---- Leaves and filters that come -----------------------------------------------------------

    void make_leaves()
    {
        for (const command &c : w_.script.tree) {
            if (c.what.what != kind::leaf) continue;
            const u32 handle = c.what.number;
            const string why =
                comes(handle) ? why_it_has_more(handle) : reason(scope::leaf, handle);
            if (why.empty()) continue;
            // One that the kernel put there itself is nothing to change.
            const live_qdisc *seen = index_.leaf_of(root_id | handle);
            const bool there = !comes(handle) && !deleted_leaves_.contains(handle) &&
                               seen != nullptr && seen->handle != 0;
            if (there)
                steps_.push_back(tc_step(with_verb(c.text, "change"), c.what, c.line, why,
                                         as_before(kind::leaf, handle, "change")));
            else
                steps_.push_back(tc_step(c.text, c.what, c.line, why,
                                         {format("qdisc del dev %s parent 1:0x%x handle 0x%x:",
                                                 name().c_str(), handle, handle * 16)}));
        }
    }

    void make_filters()
    {
        for (const command &c : w_.script.tree) {
            if (c.what.what != kind::filter) continue;
            const u32 mark = c.what.number;
            const auto seen = filters_.find(mark);
            if (seen != filters_.end() && seen->second == (root_id | mark)) continue;
            string why = reason(scope::filter, mark);
            if (comes(mark)) why = why_it_has_more(mark);
            if (why.empty()) why = "its class is another";
            if (seen != filters_.end())
                steps_.push_back(tc_step(with_verb(c.text, "replace"), c.what, c.line, why,
                                         as_before(kind::filter, mark, "replace")));
            else
                steps_.push_back(tc_step(c.text, c.what, c.line, why, {deletion_of_filter(mark)}));
        }
    }

    const wanted &w_;
    const live_tree &live_;
    const live_index index_;
    const image_index before_;
    const bool classes_come_alone_;  // else with their root, as the bands of PRIO
    std::map<u32, tree_class> tree_;
    std::map<u32, std::vector<u32>> children_;  // that the kernel holds
    std::map<scope, std::map<u32, string>> reasons_;
    std::map<u32, string> going_;  // classes, and why each goes
    std::map<u32, u32> filters_;   // the plain ones that stay, from mark to class
    std::set<string> foreign_;     // the commands that delete the others
    std::set<u32> deleted_leaves_;
    std::vector<step> steps_;
};

}  // namespace

bool has_number_of_another(const wanted &w, const live_qdisc &q)
{
    // The leaf of class 1:10 has the handle 100:, which the kernel carries as 0x01000000.
    const u32 number = q.handle >> 20;
    return q.handle != 0 && q.handle == number << 20 && q.parent != (root_id | number) &&
           w.script.find(kind::leaf, number) != nullptr;
}

std::vector<step> steps_in_place(const wanted &w, const live_tree &live, const image &before,
                                 const std::vector<difference> &found)
{
    return changes(w, live, before, found).steps();
}

step removal_of_root(const string &ifname, const image &before, const string &why)
{
    lines undo;
    for (const command &c : before.tree) undo.push_back(c.text);
    return destructive(
        tc_step("qdisc del dev " + ifname + " root", {kind::root, 0, ""}, 0, why, undo));
}

std::vector<step> steps_anew(const wanted &w, const image &before, const string &why)
{
    std::vector<step> steps;
    if (!why.empty()) steps.push_back(removal_of_root(w.iface.name, before, why));
    // All that is below the root goes with it again.
    for (const command &c : w.script.tree) {
        const bool root = c.what.what == kind::root;
        steps.push_back(tc_step(c.text, c.what, c.line,
                                why.empty() ? "new" : "the tree is built anew",
                                root ? lines{"qdisc del dev " + w.iface.name + " root"} : lines{}));
    }
    return steps;
}

}  // namespace tool
