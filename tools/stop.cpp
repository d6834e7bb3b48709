// SPDX-License-Identifier: MIT
// Owns the way back: an interface on its default qdisc, none of its chains in the mangle table, and
// nothing remembered in the state folder.

#include "stop.h"

#include <net/if.h>

#include "kernel.h"
#include "observe.h"
#include "process.h"
#include "state.h"
#include "steps.h"

namespace tool {
namespace {

using std::string;

outcome failed(outcome out, const string &why)
{
    out.failed = true;
    out.error = why;
    return out;
}

// Removes tree and rules. Each is tried even when the other fails: what is left is then less.
outcome run_stop(outcome out, const iptables &tables, const chains_seen &chains)
{
    string why;
    std::size_t done = 0;
    const auto no_tree = run_tc(
        out.steps, [] { return true; }, done);
    const bool no_rules = tables.remove(chains.present, why);
    if (no_tree) {
        out.failed_command = no_tree->command;
        out.failed_line = no_tree->line;
        out = failed(out, no_tree->error);
    }
    if (!no_rules) out = failed(out, out.error + (out.error.empty() ? "" : "; ") + why);
    return out;
}

outcome stop_interface(const string &name, const stop_options &o, const state_folder &state)
{
    outcome out;
    out.name = name;
    string no_tree;
    const auto live = read_kernel(name, no_tree);
    // An interface that has gone takes its tree with it, but its chains and files stay: stop
    // removes those. A kernel that gives no answer about a present interface is a failure.
    const bool gone = !live && ::if_nametoindex(name.c_str()) == 0;
    if (!live && !gone) return failed(out, no_tree);
    const iptables tables(name, o.wait);
    const chains_seen chains = list_chains(tables);
    if (chains.how == chains_seen::looked::failed) return failed(out, chains.why_not);
    const plan p = plan_stop(name, live ? &*live : nullptr, chains);
    out.result = p.result;
    out.steps = p.steps;
    out.notes = p.notes;
    // No interface, no chains, nothing remembered: most likely a name that was mistyped.
    if (gone && p.steps.empty() && !state.read(name).script) return failed(out, no_tree);
    if (o.dry_run) return out;
    out = run_stop(out, tables, chains);
    if (!out.failed) state.forget(name);
    return out;
}

}  // namespace

std::vector<outcome> stop_interfaces(const std::vector<string> &names, const stop_options &o,
                                     const state_folder &state)
{
    std::vector<outcome> all;
    for (const string &name : names) all.push_back(stop_interface(name, o, state));
    return all;
}

}  // namespace tool
