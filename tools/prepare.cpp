// SPDX-License-Identifier: MIT
// Owns the order of what comes before the first change: look, plan, try. What is found here has
// cost nothing; the same found on the way has to be taken back.

#include "prepare.h"

#include <net/if.h>

#include "kernel.h"
#include "observe.h"
#include "process.h"
#include "steps.h"
#include "trial.h"

namespace tool {
namespace {

using std::string;

void fail(prepared &p, const string &why)
{
    p.out.failed = true;
    p.out.error = why;
}

void fail(prepared &p, const step_failure &f)
{
    fail(p, f.error);
    p.out.failed_command = f.command;
    p.out.failed_line = f.line;
}

void take(prepared &p, const plan &made)
{
    p.out.result = made.result;
    p.out.steps = made.steps;
    p.out.notes = made.notes;
    p.entry.undo = undo_of(made.steps, made.steps.size());
}

bool has_step(const prepared &p, program by) { return !commands_of(p.out.steps, by).empty(); }

// Without the rules' program there is the script, which runs iptables for each rule. No step of it
// has an inverse: the way back makes the whole tree anew.
void plan_it(prepared &p, const apply_options &o, const live_tree &live)
{
    if (o.script) return take(p, plan_script("--script"));
    take(p, plan_apply(*p.w, live, p.chains, p.before));
    if (o.dry_run || !has_step(p, program::iptables_restore) || is_on_path("iptables-restore") ||
        !is_on_path("iptables"))
        return;
    const string why = "iptables-restore is missing";
    take(p, plan_script(why));
    p.out.notes.push_back(why + ": ran the script instead");
}

// False when the chains cannot be listed.
bool look(prepared &p)
{
    p.chains = p.w ? look_at_chains(p.tables, *p.w) : list_chains(p.tables);
    p.entry.before.rules = p.chains.present;
    if (p.chains.how != chains_seen::looked::failed) return true;
    fail(p, p.chains.why_not);
    return false;
}

// Whether all programs are there that the plan needs.
bool has_programs(prepared &p)
{
    const bool script = has_step(p, program::start_script);
    if ((script || has_step(p, program::tc)) && !is_on_path("tc")) {
        fail(p, "tc is missing");
        return false;
    }
    if ((script || has_step(p, program::iptables_restore)) && !is_on_path("iptables")) {
        fail(p, "iptables is missing");
        return false;
    }
    return true;
}

void try_it(prepared &p, const apply_options &o, const live_tree &live)
{
    auto refused = try_rules(p.tables, p.out.steps);
    if (refused && p.chains.how == chains_seen::looked::guessed) {
        // The guess that there are no chains yet was wrong, perhaps: now they are listed.
        if (!look(p)) return;
        plan_it(p, o, live);
        refused = try_rules(p.tables, p.out.steps);
    }
    if (!refused) refused = try_tc(p.name(), p.entry.before, p.out.steps);
    if (refused) fail(p, *refused);
}

prepared empty(const string &ifname, const apply_options &o, const state_folder &state)
{
    prepared p{std::nullopt,
               iptables(ifname, o.wait),
               state.read(ifname),
               {},
               {},
               {ifname, ::if_nametoindex(ifname.c_str()), {}, {}}};
    p.out.name = ifname;
    return p;
}

}  // namespace

prepared prepare(const policy_interface &iface, const string &script, const apply_options &o,
                 const state_folder &state)
{
    prepared p = empty(iface.name, o, state);
    p.w.emplace(wanted{iface, script, parse_start_script(script, iface.name)});
    string why;
    const auto live = read_kernel(iface.name, why);
    if (!p.w->script.error.empty())
        fail(p, "its start script: " + p.w->script.error);
    else if (!live)
        fail(p, why);
    if (p.out.failed) {
        p.out.missing = p.entry.index == 0;
        return p;
    }
    p.entry.before = image_of(iface.name, *live);
    const bool guess = !o.script && may_guess(*live, p.before) && is_on_path("iptables-restore");
    if (!guess && !look(p)) return p;
    plan_it(p, o, *live);
    if (!o.dry_run && has_programs(p)) try_it(p, o, *live);
    return p;
}

prepared prepare_stop(const string &ifname, const apply_options &o, const state_folder &state)
{
    prepared p = empty(ifname, o, state);
    string why;
    const auto live = read_kernel(ifname, why);
    // An interface that has gone took its tree with it; its chains stayed.
    if (!live && p.entry.index != 0) fail(p, why);
    if (p.out.failed) return p;
    if (live) p.entry.before = image_of(ifname, *live);
    if (!look(p)) return p;
    take(p, plan_stop(ifname, live ? &*live : nullptr, p.chains));
    if (o.dry_run || !has_programs(p)) return p;
    if (const auto refused = try_rules(p.tables, p.out.steps)) fail(p, *refused);
    return p;
}

}  // namespace tool
