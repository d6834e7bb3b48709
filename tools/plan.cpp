// SPDX-License-Identifier: MIT
// Owns the decision how an interface gets to its policy: no step, object by object, or by a new
// tree. Pure: takes the kernel's tree as a record, runs nothing.

#include "plan.h"

#include <algorithm>
#include <set>

#include "in_place.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using kind = object::kind;
using scope = difference::scope;

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

// Adds a difference where the number of a wanted leaf is taken by a qdisc on a class with classes
// below it: from such a class the kernel takes no qdisc off.
void add_stuck_leaves(const wanted &w, const live_tree &live, std::vector<difference> &found)
{
    std::set<u32> parents;
    for (const live_class &c : live.classes) parents.insert(c.parent);
    for (const live_qdisc &q : live.qdiscs)
        if (parents.contains(q.parent) && has_number_of_another(w, q))
            found.push_back({scope::tree, 0,
                             format("an inner class has the leaf %x:", q.handle >> 16),
                             "the kernel takes no leaf off an inner class"});
}

// Why the tree is built anew: the first difference that takes it
string main_reason(const std::vector<difference> &found, const difference &main)
{
    string text = difference_text(main);
    if (found.size() != 1) text += format(", and %zu more", found.size() - 1);
    return main.because.empty() ? text : text + "; " + main.because;
}

// result: effect::built where the tree is built anew, else effect::changed
std::vector<step> tree_steps(const wanted &w, const live_tree &live,
                             const std::vector<difference> &found, effect &result)
{
    const auto main = std::find_if(found.begin(), found.end(),
                                   [](const difference &d) { return d.what == scope::tree; });
    result = main == found.end() ? effect::changed : effect::built;
    if (found.empty()) return {};
    const image before = image_of(w.iface.name, live);
    if (main == found.end()) return steps_in_place(w, live, before, found);
    // tc refuses to delete a root that nobody has put there, and its batch would end at that line.
    return steps_anew(w, before, live.root() == nullptr ? "" : main_reason(found, *main));
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
    add_stuck_leaves(w, live, found);
    effect result = effect::none;
    p.steps = tree_steps(w, live, found, result);
    add(p.steps, plan_rules(w, chains, before));
    if (w.script.queue_length && live.queue_len != w.iface.param.pfifo_fast.queue_len) {
        const command &c = *w.script.queue_length;
        p.steps.push_back(
            {program::ifconfig, c.text, c.what, c.line, format("is %u", live.queue_len), false});
    }
    if (!p.steps.empty()) p.result = result;
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
    if (live != nullptr && live->root() != nullptr)
        p.steps.push_back(removal_of_root(ifname, image_of(ifname, *live), why));
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
        if (d.what != scope::class_parameters && d.what != scope::leaf) {
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
