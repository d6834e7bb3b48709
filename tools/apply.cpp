// SPDX-License-Identifier: MIT
// Owns the way of a plan into the kernel: runs the steps, reads the kernel again and verifies its
// tree. After a failure the interface goes back to its default qdisc without chains: half a policy
// would shape in a way that nobody wrote. plan.cpp decides which steps there are.

#include "apply.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kernel.h"
#include "observe.h"
#include "process.h"
#include "script_run.h"
#include "state.h"
#include "steps.h"
#include "stop.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;

// The arguments of the work on one interface
struct job {
    const policy &whole;
    const string &policy_text;
    const apply_options &options;
    wanted w;
    iptables tables;
    state_folder state;

    const string &name() const { return w.iface.name; }
};

outcome begin(const string &name, const plan &p)
{
    outcome out;
    out.name = name;
    out.result = p.result;
    out.steps = p.steps;
    out.notes = p.notes;
    return out;
}

outcome failed(outcome out, const string &why)
{
    out.failed = true;
    out.error = why;
    return out;
}

outcome taken_back(const job &j, outcome out, const string &error)
{
    out = failed(out, error);
    string why;
    out.restored = take_back(j.name(), j.tables, why);
    // Forgets the policy of before too: the kernel no longer has it.
    j.state.forget(j.name());
    if (!out.restored) out.notes.push_back("could not be taken back whole: " + why);
    return out;
}

// ---- Verified and remembered --------------------------------------------------------------------

// Reads the kernel again and compares. "" when no part of the tree is missing; a number that the
// kernel has cut to its own limits only adds a note.
string verified(const job &j, outcome &out)
{
    string why;
    const auto live = read_kernel(j.name(), why);
    if (!live) return why;
    const verification v = verify(j.w, *live);
    out.notes.insert(out.notes.end(), v.notes.begin(), v.notes.end());
    return v.error;
}

// The rules as the table lists them now, for kernels without a namespace to try rules in: the next
// apply compares with this listing. None where a trial works, and after a load onto no chains.
std::optional<string> rules_to_remember(const job &j, const chains_seen &chains)
{
    if (chains.present.empty() || chains.expected) return std::nullopt;
    string why;
    const auto present = j.tables.list(why);
    if (!present) return std::nullopt;
    string text;
    for (const string &line : *present) text += line + "\n";
    return text;
}

outcome kept(const job &j, const chains_seen &chains, outcome out)
{
    // Only a note: the policy is in force, whether it is remembered or not.
    if (!j.state.write(j.name(), {j.policy_text, j.w.text, rules_to_remember(j, chains)}))
        out.notes.push_back(
            format("cannot write to %s: status will not know the policy", j.state.path().c_str()));
    return out;
}

// ---- By the script ------------------------------------------------------------------------------

// The script silences some commands and gives no exit status of use, so its rules are counted. ""
// when all are in the table.
string rules_missing(const job &j)
{
    string why;
    const auto present = j.tables.list(why);
    if (!present) return why;
    const std::size_t wanted_lines = 2 + j.w.script.rules.size();  // the two chains
    if (present->size() == wanted_lines) return "";
    return format("%zu of %zu rules, jumps and chains are in the mangle table", present->size(),
                  wanted_lines);
}

// Runs the start script. "", or why the interface is not as wanted. begun: set once it has run.
string run_script(const job &j, outcome &out, bool &begun)
{
    string why;
    if (!is_on_path("tc")) return "tc is missing";
    // The script's iptables commands set no bound to their wait. A listing that has one comes
    // first: a lock that another program keeps is met before the old tree is gone.
    if (!read_kernel(j.name(), why) || !j.tables.list(why)) return why;
    if (!write_start_script(j.whole, j.name())) return format("cannot write %s", start_script_path);
    const auto failure = run_start_script(
        start_script_path, j.w.text, [] { return true; }, begun);
    if (failure) {
        out.failed_command = failure->command;
        out.failed_line = failure->line;
        return failure->error;
    }
    why = verified(j, out);
    return why.empty() ? rules_missing(j) : why;
}

// begun: earlier steps have changed the interface, so that a failure must be taken back.
outcome by_script(const job &j, const chains_seen &chains, outcome out, bool begun)
{
    if (j.options.dry_run) return out;
    const string error = run_script(j, out, begun);
    if (error.empty()) return kept(j, chains, out);
    return begun ? taken_back(j, out, error) : failed(out, error);
}

// For a router that has iptables but no iptables-restore: the script runs iptables for each rule.
// The tc steps have run by now; the script begins by removing the tree that they built.
outcome by_script_instead(const job &j, const chains_seen &chains, outcome out, const string &why)
{
    const plan p = plan_script(why);
    out.result = p.result;
    out.steps = p.steps;
    out.notes.push_back(why + ": ran the script instead");
    return by_script(j, chains, out, true);
}

// ---- By commands --------------------------------------------------------------------------------

// After a refused load on the guess that there are no chains: lists the chains, puts the steps for
// what is really there in place of the refused ones, and loads once more. `refused` is returned
// when the listing fails.
std::optional<step_failure> load_listed(const job &j, const memory &before, chains_seen &chains,
                                        std::vector<step> &steps, const step_failure &refused)
{
    const chains_seen seen = look_at_chains(j.tables, j.w);
    if (seen.how != chains_seen::looked::listed) return refused;
    chains = seen;
    const auto is_rule = [](const step &s) { return s.by == program::iptables_restore; };
    const auto place = std::find_if(steps.begin(), steps.end(), is_rule) - steps.begin();
    std::erase_if(steps, is_rule);
    const std::vector<step> rules = plan_rules(j.w, chains, before);
    steps.insert(steps.begin() + place, rules.begin(), rules.end());
    return load_rules(j.tables, steps);
}

std::optional<step_failure> set_queue(const job &j, const std::vector<step> &steps)
{
    if (commands_of(steps, program::ifconfig).empty() ||
        set_queue_len(j.name(), j.w.iface.param.pfifo_fast.queue_len))
        return std::nullopt;
    step_failure f;
    f.error = format("cannot set the queue length: %s", std::strerror(errno));
    return f;
}

std::optional<step_failure> run_steps(const job &j, const memory &before, chains_seen &chains,
                                      std::vector<step> &steps)
{
    std::size_t done = 0;
    if (auto failure = run_tc(
            steps, [] { return true; }, done))
        return failure;
    auto failure = load_rules(j.tables, steps);
    if (failure && failure->what == step_failure::kind::refused &&
        chains.how == chains_seen::looked::guessed)
        failure = load_listed(j, before, chains, steps, *failure);
    return failure ? failure : set_queue(j, steps);
}

outcome run_plan(const job &j, const memory &before, chains_seen chains, outcome out)
{
    if (!commands_of(out.steps, program::tc).empty() && !is_on_path("tc"))
        return failed(out, "tc is missing");
    if (const auto failure = run_steps(j, before, chains, out.steps)) {
        if (failure->program == "iptables-restore")
            return by_script_instead(j, chains, out, failure->error);
        out.failed_command = failure->command;
        out.failed_line = failure->line;
        return taken_back(j, out, failure->error);
    }
    const string error = verified(j, out);
    return error.empty() ? kept(j, chains, out) : taken_back(j, out, error);
}

outcome by_commands(const job &j)
{
    string why;
    const auto live = read_kernel(j.name(), why);
    if (!live) return failed(begin(j.name(), {}), why);
    const memory before = j.state.read(j.name());
    chains_seen chains;
    if (!may_guess(*live, before)) chains = look_at_chains(j.tables, j.w);
    if (chains.how == chains_seen::looked::failed)
        return failed(begin(j.name(), {}), chains.why_not);
    outcome out = begin(j.name(), plan_apply(j.w, *live, chains, before));
    if (j.options.dry_run) return out;
    return out.steps.empty() ? kept(j, chains, out) : run_plan(j, before, chains, out);
}

outcome apply_interface(const job &j)
{
    if (!j.w.script.error.empty())
        return failed(begin(j.name(), {}), "its start script: " + j.w.script.error);
    if (!j.options.script) return by_commands(j);
    return by_script(j, {}, begin(j.name(), plan_script("--script")), false);
}

}  // namespace

std::vector<outcome> apply_policy(const policy &p, const string &text, const rendering &texts,
                                  const apply_options &o)
{
    const uninterrupted section;
    std::vector<outcome> all;
    for (std::size_t i = 0; i < p.interfaces.size(); ++i) {
        const policy_interface &iface = p.interfaces[i];
        const string &script = texts.interfaces[i].start;
        all.push_back(apply_interface({p,
                                       text,
                                       o,
                                       {iface, script, parse_start_script(script, iface.name)},
                                       iptables(iface.name, o.wait),
                                       state_folder()}));
        if (all.back().failed) break;
    }
    return all;
}

}  // namespace tool
