// SPDX-License-Identifier: MIT
// Owns the way back of an interface, from the best that can be had to the last resort. After each
// try the kernel is read: what it holds decides, not what the programs say.

#include "take_back.h"

#include <net/if.h>

#include <algorithm>

#include "chains.h"
#include "kernel.h"
#include "plan.h"
#include "policy_read.h"
#include "process.h"
#include "render.h"
#include "steps.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;

// The interface's chains; none where there is no iptables, for then nobody has made any.
std::optional<lines> present_rules(const iptables &tables, string &why)
{
    return is_on_path("iptables") ? tables.list(why) : std::optional(lines());
}

class way {
public:
    way(const journal_entry &e, const iptables &tables, const state_folder &state)
        : e_(e), tables_(tables), state_(state)
    {}

    way_back go()
    {
        for (const auto &attempt : {&way::leave_it, &way::undo, &way::make_anew}) {
            if (!(this->*attempt)()) continue;
            const answer now = look();
            if (now == answer::as_before) return {came_back(), ""};
            // Where the kernel cannot be asked, it may hold what it should: nothing is torn down.
            if (now == answer::unknown && attempt != &way::leave_it)
                return {taken_back::failed, why_};
        }
        const string why = why_;
        if (apply_last_policy()) return {taken_back::last_policy, why};
        if (clear()) return {taken_back::default_qdisc, was_empty() ? "" : why};
        return {taken_back::failed, why_};
    }

private:
    // The interface of that name may be another one by now: the tree went with the old one.
    bool is_the_same() const { return ::if_nametoindex(e_.name.c_str()) == e_.index; }

    bool was_empty() const
    {
        return e_.before.tree.empty() && e_.before.unwritable.empty() && e_.before.rules.empty();
    }
    taken_back came_back() const
    {
        return was_empty() ? taken_back::default_qdisc : taken_back::before;
    }

    enum class answer { as_before, other, unknown };

    answer look()
    {
        const auto rules = present_rules(tables_, why_);
        if (!rules) return answer::unknown;
        image now = e_.before;
        if (is_the_same()) {
            const auto live = read_kernel(e_.name, why_);
            if (!live) return answer::unknown;
            now = image_of(e_.name, *live);
        }
        now.rules = *rules;
        if (now == e_.before) return answer::as_before;
        why_ = "the kernel holds something else than before";
        return answer::other;
    }

    // ---- Each gives false when it is no way at all ----------------------------------------------

    bool leave_it() { return true; }

    // Rules and queue length as before; the tree is left alone.
    void restore_the_rest()
    {
        string why;
        const auto present = present_rules(tables_, why);
        if (present && *present != e_.before.rules)
            tables_.load(texts_of(lines_to_restore(*present, e_.before.rules)));
        if (is_the_same()) (void)set_queue_len(e_.name, e_.before.queue_len);
    }

    bool undo()
    {
        if (is_the_same()) run_tolerant(e_.undo);
        restore_the_rest();
        return true;
    }

    // The whole tree from the image: for the rare case that a command of the undo was refused.
    bool make_anew()
    {
        if (!e_.before.unwritable.empty()) {
            why_ = "nobody can put back its " + e_.before.unwritable;
            return false;
        }
        if (!is_the_same()) return false;
        lines commands = {"qdisc del dev " + e_.name + " root"};
        const lines tree = texts_of(e_.before.tree);
        commands.insert(commands.end(), tree.begin(), tree.end());
        run_tolerant(commands);
        return true;
    }

    bool apply_last_policy()
    {
        const auto text = state_.read(e_.name).policy;
        if (!text) return false;
        diagnostics ignored;  // its apply has shown its warnings
        policy p = read_policy(*text, kernel_kind::vendor, ignored);
        std::erase_if(p.interfaces, [&](const auto &iface) { return iface.name != e_.name; });
        if (ignored.failed() || p.interfaces.empty()) return false;
        const rendering texts = render(p);
        if (!texts.refused.empty()) return false;
        const string &script = texts.interfaces.front().start;
        return load_whole({p.interfaces.front(), script, parse_start_script(script, e_.name)});
    }

    // A policy's tree, rules and queue length, whatever the kernel holds
    bool load_whole(const wanted &w)
    {
        string why;
        run_tolerant({"qdisc del dev " + e_.name + " root"});
        run_tolerant(texts_of(w.script.tree));
        const auto present = present_rules(tables_, why);
        if (present) {
            auto commands = texts_of(lines_to_remove(*present));
            const auto load = texts_of(lines_to_load(w.script.rules, e_.name));
            commands.insert(commands.end(), load.begin(), load.end());
            tables_.load(commands);
        }
        if (w.script.queue_length) (void)set_queue_len(e_.name, w.iface.param.pfifo_fast.queue_len);
        const auto live = read_kernel(e_.name, why);
        const auto rules = present_rules(tables_, why);
        return live && verify(w, *live).error.empty() && rules &&
               rules->size() == 2 + w.script.rules.size();  // the two chains
    }

    // The default qdisc and no chain: half a tree would shape in a way that nobody wrote.
    bool clear()
    {
        run_tolerant({"qdisc del dev " + e_.name + " root"});
        string why;
        const auto present = present_rules(tables_, why);
        const bool no_rules = present && (present->empty() || tables_.remove(*present, why));
        const auto live = read_kernel(e_.name, why);
        const bool no_tree = !is_the_same() || (live && live->root() == nullptr);
        // Nothing of a policy is left, so none may be remembered as the one that runs.
        if (no_rules && no_tree) state_.forget(e_.name);
        if (!why.empty()) why_ = why;
        return no_rules && no_tree;
    }

    const journal_entry &e_;
    const iptables &tables_;
    const state_folder &state_;
    string why_;  // why the last try failed
};

}  // namespace

way_back take_back(const journal_entry &e, const iptables &tables, const state_folder &state)
{
    return way(e, tables, state).go();
}

}  // namespace tool
