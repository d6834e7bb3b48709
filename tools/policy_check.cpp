// SPDX-License-Identifier: MIT
// The second half of reading a policy: judges values together, as the library, tc and the kernel
// will. Pure: takes records. What concerns one kind of root, class, leaf, match or target stands
// with that kind.
#include <set>

#include "leaf.h"
#include "match.h"
#include "names.h"
#include "policy_read.h"
#include "root.h"
#include "text.h"
#include "tree.h"

namespace tool {
namespace {

using std::string;

// Checks one interface. Reports every fault, and none that only follows from another: a value that
// is wrong has been reported, so whoever needs it good stays silent.
class interface_checker {
public:
    interface_checker(const policy &p, const policy_interface &iface, kernel_kind kernel,
                      diagnostics &found)
        : policy_(p),
          iface_(iface),
          kind_(kind_of(iface)),
          kernel_(kernel),
          found_(found),
          classes_(declared_classes(iface))
    {}

    void check()
    {
        kind_.check(iface_, classes_, found_);
        check_order();
        for (const tree_class &c : classes_)
            // A class that comes by itself and has no entry says nothing that could be wrong.
            if (c.entry != nullptr) check_class(c);
        check_automark();
        std::set<u32> indexes;
        for (const policy_rule &rule : iface_.rules) {
            if (rule.index.is_good() && !indexes.insert(rule.index.get()).second)
                found_.error(rule.at, format("a second rule with index %u; give each its own",
                                             rule.index.get()));
            check_rule(rule);
        }
    }

private:
    // Handles are unique, and parents stand before their children: the library refuses a class
    // whose parent it does not know yet. The classes that come by themselves are `known` from the
    // start but not `entered`, since each may have one entry.
    void check_order()
    {
        std::set<u32> known;
        std::set<u32> entered;
        for (const tree_class &c : iface_.built_in) known.insert(c.handle);
        for (const policy_class &c : iface_.classes) {
            if (!c.placed()) continue;  // reported already
            const u32 handle = c.handle.get();
            const bool again = !entered.insert(handle).second;
            if (again)
                found_.error(c.at,
                             format("a second class with handle 0x%x; give each its own", handle));
            else if (!c.existing)
                check_parent(c, known);
            known.insert(handle);
        }
    }

    void check_parent(const policy_class &c, const std::set<u32> &known)
    {
        const u32 handle = c.handle.get();
        const u32 parent = c.parent.get();
        const position at = c.parent.at();
        // The script writes class 1 below the root qdisc whatever its parent is.
        if (handle == 1 && parent != 0) {
            found_.error(at, "class 1 always hangs on the root; leave out parent");
            return;
        }
        if (parent == 0 || known.contains(parent)) return;
        bool later = false;
        for (const policy_class &other : iface_.classes) later |= other.handle.get() == parent;
        if (parent == handle)
            found_.error(at, "a class below itself; give another class, or 0");
        else if (later)
            found_.error(at, format("class 0x%x stands before its parent 0x%x; move it behind",
                                    handle, parent));
        else
            found_.error(at, format("there is no class 0x%x to be a parent; there are: %s", parent,
                                    listed_classes(classes_).c_str()));
    }

    void check_class(const tree_class &c)
    {
        const policy_class &entry = *c.entry;
        if (entry.leaf.is_good() && c.has_children)
            found_.error(entry.leaf.at(),
                         format("class 0x%x has classes below it, so its leaf would never be"
                                " attached; leave it out",
                                c.handle));
        if (entry.leaf.is_good())
            kind_of(entry.leaf.get()).check(entry.leaf.get(), entry.leaf.at(), found_);
        // Such an entry gives a name and a leaf, no parameters.
        if (entry.existing) return;
        // check_parent has reported a class below itself. Held against itself it would be reported
        // twice.
        const tree_class *parent = c.parent == c.handle ? nullptr : find_class(classes_, c.parent);
        kind_.classes->check(c, parent, kernel_, found_);
    }

    // A mark of 0 is none; an absent or a wrong one reads as 0 too.
    void check_automark()
    {
        for (const value<u32> &mark : iface_.automark)
            if (mark.get() != 0) check_mark(mark.get(), mark.at());
    }

    // Only leaf classes have a filter. A packet with the mark of another class would go where
    // packets without a mark go, and no command would fail.
    void check_mark(u32 mark, position at)
    {
        if (kind_.classes == nullptr) {
            found_.error(at, "a mark on an interface without classes; leave out mark, or take"
                             " another root");
            return;
        }
        if (is_no_leaf(mark))
            found_.error(at, format("mark 0x%x is no leaf class; there are: %s", mark,
                                    listed_leaves(classes_).c_str()));
    }

    // Whether the handle is certainly that of no leaf class. While some entry's handle could not be
    // read, a handle that no class has may be meant for that entry.
    bool is_no_leaf(u32 handle) const
    {
        const tree_class *c = find_class(classes_, handle);
        return c == nullptr ? iface_.handles_known : c->has_children;
    }

    void check_rule(const policy_rule &rule)
    {
        if (has(rule.target.flags, mordel::target_mark))
            check_mark(rule.target.mark, rule.target_at[mordel::target_mark]);
        const qos_sched *schedule = nullptr;
        if (rule.schedule.is_good()) schedule = check_schedule(rule.schedule);
        // What follows warns of what a mainline kernel refuses.
        if (kernel_ == kernel_kind::vendor) return;
        if (schedule != nullptr && schedule->days != 0)
            warn_of_mainline(found_, rule.schedule.at(), "the days of a schedule",
                             "leave them out");
        warn_of_kinds(rule, found_);
    }

    // The schedule that a rule names; null, and an error, when there is none.
    const qos_sched *check_schedule(const value<u32> &index)
    {
        const qos_sched *named = nullptr;
        for (const policy_schedule &s : policy_.schedules)
            if (s.sched.index == index.get()) named = &s.sched;
        if (named == nullptr)
            found_.error(
                index.at(),
                format("there is no schedule %u; add a [[schedule]] with that index", index.get()));
        return named;
    }

    const policy &policy_;
    const policy_interface &iface_;
    const root_kind &kind_;
    kernel_kind kernel_;
    diagnostics &found_;
    std::vector<tree_class> classes_;
};

}  // namespace

void check_policy(const policy &p, kernel_kind kernel, diagnostics &found)
{
    std::set<u8> indexes;
    for (const policy_schedule &s : p.schedules)
        // Index 0: it was missing or wrong, which is reported.
        if (s.sched.index != 0 && !indexes.insert(s.sched.index).second)
            found.error(
                s.at, format("a second schedule with index %d; give each its own", s.sched.index));
    std::set<string> names;
    for (const policy_interface &iface : p.interfaces) {
        if (!iface.name.empty() && !names.insert(iface.name).second)
            found.error(iface.at,
                        "a second interface named " + quoted(iface.name) + "; give each one entry");
        // Chains are QOS_NAME for the rules and QOS_NAME_AUTO for automark: the rules of "x_AUTO"
        // would stand in the automark chain of "x".
        const std::string_view suffix = mordel::automark_suffix;
        if (iface.name.size() > suffix.size() && iface.name.ends_with(suffix))
            found.error(iface.name_at, "the chain of such an interface is the automark chain of one"
                                       " named without _AUTO; rename it");
        // Without the root's kind no key was read that could be judged.
        if (iface.known) interface_checker(p, iface, kernel, found).check();
    }
}

}  // namespace tool
