// SPDX-License-Identifier: MIT
// Owns the commands that change nothing: check, render, show and status.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "commands.h"
#include "output.h"
#include "policy_file.h"
#include "recover.h"
#include "show.h"
#include "status.h"

namespace tool {
namespace {

using std::string;
using json = nlohmann::ordered_json;

int printed(const string &text, int status = done) { return write_out(text) ? status : failed; }

// The journal of an apply that was not finished; none where there is none, or none that we may
// read.
std::optional<journal> unfinished()
{
    string why;
    return journal_file(state_folder()).read(why);
}

// What was applied last. An apply that waits for its confirmation has it staged.
memory last_of(const string &name, const std::optional<journal> &waiting)
{
    const state_folder state;
    if (waiting && seconds_left(*waiting) != 0)
        if (memory staged = state.read_staged(name); staged.policy) return staged;
    return state.read(name);
}

// All interfaces that a policy was applied to; of a first one that waits for its confirmation the
// journal alone knows.
std::vector<string> shaped(const std::optional<journal> &waiting)
{
    std::vector<string> names = state_folder().interfaces();
    if (waiting && seconds_left(*waiting) != 0)
        for (const journal_entry &e : waiting->entries)
            if (std::find(names.begin(), names.end(), e.name) == names.end())
                names.push_back(e.name);
    std::sort(names.begin(), names.end());
    return names;
}

// A line about an apply that was not finished; "" without one
string unfinished_text(const std::optional<journal> &j)
{
    if (!j || j->what == journal::phase::committed || j->boot != this_boot()) return "";
    if (const unsigned left = seconds_left(*j); left != 0)
        return format("not confirmed: %u s left; mordel confirm keeps it\n", left);
    return "an apply is under way, or was broken off: mordel recover takes it back\n";
}

// The policy to compare an interface with: the given one, or else the one that was applied last.
// Holds this interface alone, or none when neither policy has it.
policy policy_of(const string &name, const std::optional<loaded> &given, const memory &last)
{
    policy p;
    if (given) {
        p = given->rules;
    } else if (last.policy) {
        diagnostics ignored;  // apply has shown its warnings
        p = read_policy(*last.policy, kernel_kind::vendor, ignored);
    }
    std::erase_if(p.interfaces, [&](const policy_interface &iface) { return iface.name != name; });
    return p;
}

// None, after a message, when the kernel or the library gives no answer about the interface
std::optional<interface_status> status_of(const string &name, const options &o,
                                          const std::optional<loaded> &given, const memory &last)
{
    const policy p = policy_of(name, given, last);
    const auto texts = texts_of(p);
    if (!texts) return std::nullopt;
    std::optional<wanted> w;
    if (!p.interfaces.empty()) {
        const string &script = texts->interfaces.front().start;
        w.emplace(wanted{p.interfaces.front(), script, parse_start_script(script, name)});
        if (!w->script.error.empty()) {
            // A fault of ours: a form that the library writes and start_script.cpp does not know.
            complain(name + ": its start script: " + w->script.error);
            return std::nullopt;
        }
    }
    string why;
    auto s = look_at(name, w ? &*w : nullptr, last, {o.seconds, o.apply.wait}, why);
    if (!s) complain(name + ": " + why);
    return s;
}

}  // namespace

int check(const options &o)
{
    const std::optional<loaded> l = load(o.file, o.kernel);
    if (!l) return refused;
    const int status = l->found.failed() ? refused : done;
    // As JSON all goes to standard output, and a bad policy still ends with status 2.
    if (!o.json) {
        print(o.file, l->found);
        return status;
    }
    json out = {{"file", o.file}, {"ok", status == done}, {"diagnostics", json::array()}};
    for (const diagnostic &d : l->found.sorted())
        out["diagnostics"].push_back({{"severity", d.warning ? "warning" : "error"},
                                      {"line", d.at.line},
                                      {"column", d.at.column},
                                      {"message", d.text}});
    return printed(dumped(std::move(out)), status);
}

int render(const options &o)
{
    const auto l = load_chosen(o.file, o.kernel, o.interface);
    if (!l) return refused;
    const auto texts = texts_of(l->rules);
    if (!texts) return failed;
    string all;
    for (const interface_texts &one : texts->interfaces)
        all += o.stop ? one.stop : o.rules_only ? one.rules : one.start;
    return printed(all);
}

int show(const options &o)
{
    const auto l = load_chosen(o.file, o.kernel, o.interface);
    if (!l) return refused;
    return printed(o.json  ? show_json(l->rules)
                   : o.dot ? show_dot(l->rules)
                           : show_tree(l->rules, look_of_stdout()));
}

int status(const options &o)
{
    const auto waiting = unfinished();
    std::optional<loaded> given;
    if (!o.file.empty() && !(given = load_good(o.file, o.kernel))) return refused;
    // The named interface, or those of the given policy, or all with a remembered policy
    std::vector<string> names;
    if (!o.interface.empty())
        names.push_back(o.interface);
    else if (given)
        for (const policy_interface &iface : given->rules.interfaces) names.push_back(iface.name);
    else
        names = shaped(waiting);
    if (names.empty()) {
        complain("nothing was applied; name an interface, or a policy with --policy");
        return failed;
    }
    // An interface that gives no answer fails the command but does not hide the others.
    int result = done;
    std::vector<interface_status> all;
    for (const string &name : names) {
        if (auto s = status_of(name, o, given, last_of(name, waiting)))
            all.push_back(std::move(*s));
        else
            result = failed;
    }
    string text = unfinished_text(waiting);
    for (const interface_status &s : all) text += status_text(s, look_of_stdout());
    return printed(o.json ? status_json(all, waiting ? seconds_left(*waiting) : 0) : text, result);
}

}  // namespace tool
