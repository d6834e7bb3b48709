// SPDX-License-Identifier: MIT
// Owns the words and the JSON about plans and their outcomes. Apply runs the same steps that a dry
// run and `status` show: nobody makes a second list for showing.

#include "report.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "text.h"

namespace tool {
namespace {

using std::string;
using json = nlohmann::ordered_json;
using kind = object::kind;

// The words are contract: scripts read them from --json.
const char *word_for(const outcome &r)
{
    if (r.failed) return "failed";
    if (r.left_alone) return "left alone";
    if (r.back != taken_back::untouched) return "taken back";
    switch (r.result) {
    case effect::none:
        return "unchanged";
    case effect::built:
        return "built";
    case effect::changed:
        return "changed";
    case effect::stopped:
        return "stopped";
    }
    return "";
}

const char *word_for(taken_back how)
{
    switch (how) {
    case taken_back::before:
        return "before";
    case taken_back::last_policy:
        return "last policy";
    case taken_back::default_qdisc:
        return "default qdisc";
    case taken_back::untouched:
    case taken_back::failed:
        break;
    }
    return "no";
}

// How an interface came back, a line each; none of one that was not touched
std::vector<string> way_lines(const outcome &r)
{
    std::vector<string> all;
    if (!r.why_not_before.empty() && r.back != taken_back::failed)
        all.push_back("what it held before is not to be had: " + r.why_not_before);
    switch (r.back) {
    case taken_back::before:
        all.emplace_back("brought back to what it held before");
        break;
    case taken_back::last_policy:
        all.emplace_back("could not be brought back to what it held before: the policy applied"
                         " last is in force again");
        break;
    case taken_back::default_qdisc:
        all.emplace_back("back on its default qdisc, without rules");
        break;
    case taken_back::failed:
        all.push_back("could not be taken back whole: " + r.why_not_before);
        break;
    case taken_back::untouched:
        // Of a refusal that came of a trial: nobody has to fear for what runs.
        if (r.failed && !r.steps.empty()) all.emplace_back("nothing was changed");
        break;
    }
    return all;
}

struct counts {
    std::size_t tc = 0;
    std::size_t rules = 0;  // iptables-restore's commands, and that of the queue length
    // The script's own commands are not counted: nobody sees which of them ran.
    bool by_script = false;
};

counts count(const std::vector<step> &steps)
{
    counts all;
    for (const step &s : steps) {
        if (s.by == program::start_script)
            all.by_script = true;
        else if (s.by == program::tc)
            ++all.tc;
        else
            ++all.rules;
    }
    return all;
}

// An object with the fields that its kind has and no others: a number of 0 or an empty chain would
// look like a value.
json object_json(const object &o)
{
    switch (o.what) {
    case kind::root:
        return {{"kind", "root"}};
    case kind::tree_class:
        return {{"kind", "class"}, {"handle", o.number}};
    case kind::leaf:
        return {{"kind", "leaf"}, {"handle", o.number}};
    case kind::filter:
        return {{"kind", "filter"}, {"mark", o.number}};
    case kind::queue_length:
        return {{"kind", "queue_length"}};
    case kind::chain:
        return {{"kind", "chain"}, {"chain", o.chain}};
    case kind::jump:
        return {{"kind", "jump"}, {"chain", o.chain}};
    case kind::rule:
        return {{"kind", "rule"}, {"chain", o.chain}};
    case kind::interface:
        return {{"kind", "interface"}};
    }
    return {};
}

}  // namespace

string outcome_text(const outcome &r, bool dry_run)
{
    // What was taken back has its lines among the complaints.
    if (r.back != taken_back::untouched) return "";
    if (r.left_alone) return r.name + ": left alone\n";
    // "unchanged" is the word for programs; a person is told why nothing happened.
    // harmless: names, and rules as the table lists them, may hold escape sequences.
    string out = harmless(r.name) + ": ";
    if (r.result == effect::none) return out + "nothing to do\n";
    if (dry_run) {
        out += format("would be %s by\n", word_for(r));
        for (const step &s : r.steps) out += "  " + harmless(step_text(s)) + "\n";
        return out;
    }
    const counts n = count(r.steps);
    out += word_for(r);
    if (n.by_script) return out + ", by the script\n";
    return out + format(", %zu tc and %zu iptables commands\n", n.tc, n.rules);
}

std::vector<string> complaints(const outcome &r)
{
    std::vector<string> all;
    if (r.failed && !r.error.empty()) all.push_back(r.name + ": " + r.error);
    // The start script is the one text with line numbers that a user can see: mordel render.
    if (!r.failed_command.empty())
        all.push_back(format("%s: line %u of its start script: %s", r.name.c_str(), r.failed_line,
                             r.failed_command.c_str()));
    for (const string &note : r.notes) all.push_back(r.name + ": " + note);
    for (const string &line : way_lines(r)) all.push_back(r.name + ": " + line);
    return all;
}

json outcome_json(const outcome &r)
{
    const counts n = count(r.steps);
    json commands = json::array();
    for (const step &s : r.steps) commands.push_back(step_text(s));
    json out = {{"name", r.name},
                {"result", word_for(r)},
                {"tc_commands", n.tc},
                {"rule_commands", n.rules},
                {"by_script", n.by_script},
                {"commands", commands},
                {"steps", steps_json(r.steps)},
                {"notes", r.notes}};
    // The fields of a failure are absent from a success, not empty.
    if (!r.failed && r.back == taken_back::untouched) return out;
    out["error"] = r.error;
    out["failed_command"] = r.failed_command;
    out["failed_line"] = r.failed_line;
    out["restored"] = r.back != taken_back::untouched && r.back != taken_back::failed;
    out["taken_back"] = word_for(r.back);
    return out;
}

json steps_json(const std::vector<step> &steps)
{
    json all = json::array();
    for (const step &s : steps)
        all.push_back({{"object", object_json(s.what)},
                       {"command", step_text(s)},
                       {"line", s.line},
                       {"why", s.why},
                       {"destructive", s.destructive}});
    return all;
}

}  // namespace tool
