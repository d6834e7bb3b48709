// SPDX-License-Identifier: MIT
// Owns the decision how an interface gets to its policy: no step, parameters changed in place, or a
// new tree. Pure: takes the kernel's tree as a record, runs nothing.

#include "plan.h"

#include <algorithm>
#include <map>

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

step tc_step(const command &c, const string &why)
{
    return {program::tc, c.text, c.what, c.line, why, false};
}

step removal_of_root(const string &ifname, const string &why)
{
    return {program::tc, "qdisc del dev " + ifname + " root", {kind::root, 0, ""}, 0, why, true};
}

// The script's command that mends a difference; null where only a new tree does.
const command *mending(const wanted &w, const difference &d)
{
    if (d.what == scope::tree) return nullptr;
    return w.script.find(d.what == scope::leaf ? kind::leaf : kind::tree_class, d.handle);
}

// ---- What differs -------------------------------------------------------------------------------

// Adds a difference for each class and leaf whose command in the script applied last is another. A
// dump does not show every parameter (a burst of 0 is left to tc, for one): a change of such a
// parameter can be seen by the script alone.
void add_remembered(const wanted &w, const memory &before, std::vector<difference> &found)
{
    if (!before.script || *before.script == w.text) return;
    const start_script then = parse_start_script(*before.script, w.iface.name);
    for (const command &now : w.script.tree) {
        const bool leaf = now.what.what == kind::leaf;
        if (!leaf && now.what.what != kind::tree_class) continue;
        const command *old = then.find(now.what.what, now.what.number);
        if (old != nullptr && old->text != now.text)
            found.push_back({leaf ? scope::leaf : scope::class_parameters, now.what.number,
                             "was applied otherwise"});
    }
}

// Whether the handle of a wanted leaf is taken by a qdisc on another class. tc would refuse to add
// the leaf, and the order in which single leaves move is not planned: the tree is built anew.
bool has_misplaced_leaf(const wanted &w, const live_tree &live)
{
    return std::any_of(live.qdiscs.begin(), live.qdiscs.end(), [&](const live_qdisc &q) {
        // The leaf of class 1:10 has the handle 100:, which the kernel carries as 0x01000000.
        const u32 number = q.handle >> 20;
        return q.handle != 0 && q.handle == number << 20 &&
               w.script.find(kind::leaf, number) != nullptr && q.parent != (root_id | number);
    });
}

bool can_be_changed(const wanted &w, const live_tree &live, const std::vector<difference> &found)
{
    return kind_of(w.iface).classes != nullptr && !has_misplaced_leaf(w, live) &&
           std::all_of(found.begin(), found.end(),
                       [&](const difference &d) { return mending(w, d) != nullptr; });
}

// ---- In place -----------------------------------------------------------------------------------

// "class add dev ..." as "class change dev ..."
command changing(command c)
{
    c.text.replace(c.text.find(' ') + 1, std::string_view("add").size(), "change");
    return c;
}

// Changes a leaf in place, or else deletes and adds it. A command without options cannot change: tc
// would leave the old options set where the policy wants the kernel's defaults.
void plan_leaf(const string &ifname, const tree_class *of, const live_qdisc *seen, const command &c,
               const string &why, std::vector<step> &steps)
{
    const u32 handle = c.what.number;
    const bool same_kind = of != nullptr && seen != nullptr &&
                           seen->kind == kind_of(of->leaf).name && seen->handle == handle << 20;
    if (same_kind && kind_of(of->leaf).changeable && c.options) {
        steps.push_back(tc_step(changing(c), why));
        return;
    }
    // Handle 0: the kernel's own qdisc of a class without a leaf, which cannot be deleted.
    if (seen != nullptr && seen->handle != 0)
        steps.push_back({program::tc,
                         format("qdisc del dev %s parent 1:%x", ifname.c_str(), handle), c.what,
                         c.line, why, true});
    steps.push_back(tc_step(c, why));
}

// By handle, the texts of its differences: a class with three takes one command, not three.
std::map<u32, string> reasons(const std::vector<difference> &found, scope what)
{
    std::map<u32, string> all;
    for (const difference &d : found)
        if (d.what == what) all[d.handle] += (all[d.handle].empty() ? "" : "; ") + d.text;
    return all;
}

std::vector<step> changes(const wanted &w, const live_tree &live,
                          const std::vector<difference> &found)
{
    const std::vector<tree_class> tree = tree_of(w.iface);
    std::vector<step> steps;
    for (const auto &[handle, why] : reasons(found, scope::class_parameters))
        steps.push_back(tc_step(changing(*w.script.find(kind::tree_class, handle)), why));
    for (const auto &[handle, why] : reasons(found, scope::leaf))
        plan_leaf(w.iface.name, find_class(tree, handle), live.leaf_of(root_id | handle),
                  *w.script.find(kind::leaf, handle), why, steps);
    return steps;
}

// ---- Anew ---------------------------------------------------------------------------------------

// Why the tree is built anew: the first difference that no single command mends. There is none when
// only a misplaced leaf forces the new tree: then the first of all.
string main_reason(const wanted &w, const std::vector<difference> &found)
{
    const auto first = std::find_if(found.begin(), found.end(),
                                    [&](const difference &d) { return mending(w, d) == nullptr; });
    const string text = difference_text(first == found.end() ? found.front() : *first);
    return found.size() == 1 ? text : format("%s, and %zu more", text.c_str(), found.size() - 1);
}

std::vector<step> new_tree(const wanted &w, const live_tree &live,
                           const std::vector<difference> &found)
{
    std::vector<step> steps;
    // tc refuses to delete a root that nobody has put there, and its batch would end at that line.
    const bool fresh = live.root() == nullptr;
    if (!fresh) steps.push_back(removal_of_root(w.iface.name, main_reason(w, found)));
    for (const command &c : w.script.tree)
        steps.push_back(tc_step(c, fresh ? "new" : "the tree is built anew"));
    return steps;
}

void add(std::vector<step> &all, const std::vector<step> &more)
{
    all.insert(all.end(), more.begin(), more.end());
}

void note_unseen(const chains_seen &chains, lines &notes)
{
    if (!chains.why_not.empty()) notes.push_back("rules not looked at: " + chains.why_not);
}

}  // namespace

bool may_guess(const live_tree &live, const memory &before)
{
    return live.root() == nullptr && !before.script;
}

plan plan_apply(const wanted &w, const live_tree &live, const chains_seen &chains,
                const memory &before)
{
    plan p;
    note_unseen(chains, p.notes);
    std::vector<difference> found = compare(w.iface, live);
    add_remembered(w, before, found);
    const bool anew = !found.empty() && !can_be_changed(w, live, found);
    p.steps = anew ? new_tree(w, live, found) : changes(w, live, found);
    add(p.steps, plan_rules(w, chains, before));
    if (w.script.queue_length && live.queue_len != w.iface.param.pfifo_fast.queue_len) {
        const command &c = *w.script.queue_length;
        p.steps.push_back(
            {program::ifconfig, c.text, c.what, c.line, format("is %u", live.queue_len), false});
    }
    if (!p.steps.empty()) p.result = anew ? effect::built : effect::changed;
    return p;
}

plan plan_script(const string &why)
{
    return {effect::built, {{program::start_script, start_script_path, {}, 0, why, true}}, {}};
}

plan plan_stop(const string &ifname, const live_tree *live, const chains_seen &chains)
{
    const string why = "the policy is taken away";
    plan p;
    note_unseen(chains, p.notes);
    if (live != nullptr && live->root() != nullptr) p.steps.push_back(removal_of_root(ifname, why));
    add(p.steps, plan_no_rules(chains, why));
    if (!p.steps.empty()) p.result = effect::stopped;
    return p;
}

// A missing part of the tree is an error, for traffic would go another way. A number that differs
// is a note: kernels cut limits to their own bounds and shape all the same.
verification verify(const wanted &w, const live_tree &live)
{
    verification v;
    for (const difference &d : compare(w.iface, live)) {
        if (d.what == scope::tree) {
            v.error = "the kernel does not hold what it was given: " + difference_text(d);
            return v;
        }
        v.notes.push_back("the kernel has its own mind: " + difference_text(d));
    }
    return v;
}

string difference_text(const difference &d)
{
    return d.handle == 0 ? d.text : format("class 1:%x: %s", d.handle, d.text.c_str());
}

}  // namespace tool
