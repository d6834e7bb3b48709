// SPDX-License-Identifier: MIT
// Owns the two batch forms, `tc -batch -` and `iptables-restore --noflush`, and the reading of
// their messages: which command was refused, and which line of the script it is.

#include "steps.h"

#include <algorithm>
#include <cstdlib>
#include <span>

#include "chains.h"
#include "module_hint.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using failure = step_failure::kind;

constexpr int restore_busy = 4;  // the exit status of iptables-restore when the lock stayed held

std::vector<const step *> steps_of(const std::vector<step> &steps, program by)
{
    std::vector<const step *> all;
    for (const step &s : steps)
        if (s.by == by) all.push_back(&s);
    return all;
}

step_failure missing(const char *program)
{
    return {failure::missing, program, string(program) + " is missing", "", 0};
}

// The failure of a program that has run, or that is there and could not be started
step_failure failure_of(const run_result &r, const char *program)
{
    const bool has_reason = r.ended && !brief(r.err).empty();
    return {has_reason ? failure::refused : failure::failed, "", string(program) + ": " + r.problem,
            "", 0};
}

// Appends what the kernel has written to its log meanwhile. Of a busy lock it knows nothing.
step_failure with_log(step_failure f, kernel_log &log)
{
    const string said = f.what == failure::refused || f.what == failure::failed ? log.last() : "";
    if (!said.empty()) f.error += "; the kernel said: " + said;
    return f;
}

void blame(step_failure &f, const char *program, const step &s)
{
    // The library writes blanks behind some commands; a person would not type them.
    f.command = program + s.command.substr(0, s.command.find_last_not_of(' ') + 1);
    f.line = s.line;
}

// The 7 of "iptables-restore: line 7 failed"; 0 when no line is named
std::size_t line_named(const string &said)
{
    const std::size_t at = said.find("line");
    const std::size_t digits = said.find_first_of("0123456789", at);
    if (at == string::npos || digits == string::npos) return 0;
    return std::strtoul(said.c_str() + digits, nullptr, 10);
}

// Finds the rule that iptables-restore refused. A rule that it cannot parse is named by its line in
// the input. A rule that the kernel refuses shows only at the end, and the line named is COMMIT's:
// the rules are then tried one by one.
void blame_rule(const iptables &tables, const std::vector<const step *> &loaded, const string &said,
                step_failure &f)
{
    constexpr char program[] = "iptables -t mangle ";
    const std::size_t number = line_named(said);
    // Wraps around for a number below the first line; the next test drops that.
    const std::size_t index = number - first_restore_line;
    if (number >= first_restore_line && index < loaded.size() && loaded[index]->line != 0)
        return blame(f, program, *loaded[index]);
    std::vector<const step *> added;
    lines commands;
    for (const step *s : loaded) {
        if (s->line == 0) continue;
        added.push_back(s);
        commands.push_back(s->command);
    }
    if (const auto first = tables.first_refused(commands)) blame(f, program, *added[*first]);
}

// A message of iptables-restore without its opening "iptables-restore v1.8.9: ". "line 7 failed"
// counts lines of an input that no user sees: where the command is known, "refused" stands instead.
string without_opening(const string &said, bool command_known)
{
    const bool names_line =
        said.find("line ") != string::npos && said.find(" failed") != string::npos;
    if (names_line && command_known) return "refused";
    const std::size_t at = said.find(": ");
    return brief(at == string::npos ? said : said.substr(at + 2));
}

// ---- tc -----------------------------------------------------------------------------------------

// Ctrl-C is heeded between two batches: on a small router tc makes some 1,000 objects a second.
constexpr std::size_t slice = 256;

std::vector<std::size_t> places_of(const std::vector<step> &steps, program by)
{
    std::vector<std::size_t> all;
    for (std::size_t i = 0; i < steps.size(); ++i)
        if (steps[i].by == by) all.push_back(i);
    return all;
}

// Runs some of the steps in one tc and moves `done` on.
std::optional<step_failure> run_batch(const std::vector<step> &steps,
                                      std::span<const std::size_t> places, std::size_t &done)
{
    string input;
    for (const std::size_t place : places) input += steps[place].command + "\n";
    const run_result tc = run({"tc", "-batch", "-"}, input);
    if (tc.missing) return missing("tc");
    if (!tc.started) return failure_of(tc, "tc");
    done = places.back() + 1;
    if (tc.ok()) return std::nullopt;
    step_failure f = failure_of(tc, "tc");
    // tc ends at the first refused line, and names it behind its message: "Command failed -:7".
    constexpr std::string_view sign = "Command failed -:";
    const std::size_t at = tc.err.rfind(sign);
    if (f.what == failure::failed || at == string::npos) return f;
    const string said = brief(tc.err.substr(0, at));
    f.error = "tc: " + (said.empty() ? "refused" : said);
    const std::size_t number = std::strtoul(tc.err.c_str() + at + sign.size(), nullptr, 10);
    if (number < 1 || number > places.size()) return f;
    done = places[number - 1];
    blame(f, "tc ", steps[done]);
    f.error += module_hint(program::tc, said, steps[done].command);
    return f;
}

}  // namespace

std::optional<step_failure> run_tc(const std::vector<step> &steps,
                                   const std::function<bool()> &go_on, std::size_t &done,
                                   const char *log)
{
    done = 0;
    const auto places = places_of(steps, program::tc);
    kernel_log said(log);
    for (std::size_t first = 0; first < places.size(); first += slice) {
        if (!go_on()) return step_failure{failure::interrupted, "", "interrupted", "", 0};
        const std::size_t size = std::min(slice, places.size() - first);
        if (auto f = run_batch(steps, std::span(places).subspan(first, size), done))
            return with_log(*f, said);
    }
    return std::nullopt;
}

void run_tolerant(const lines &tc_commands)
{
    string input;
    for (const string &one : tc_commands) input += one + "\n";
    // The kernel tells what has come of it, not tc's status: each command may fail.
    if (!input.empty()) (void)run({"tc", "-force", "-batch", "-"}, input);
}

std::optional<step_failure> load_rules(const iptables &tables, const std::vector<step> &steps,
                                       const char *log)
{
    const auto loaded = steps_of(steps, program::iptables_restore);
    if (loaded.empty()) return std::nullopt;
    kernel_log said(log);
    const run_result restore = tables.restore(commands_of(steps, program::iptables_restore));
    if (restore.ok()) return std::nullopt;
    if (restore.missing) return missing(is_on_path("iptables") ? "iptables-restore" : "iptables");
    step_failure f = failure_of(restore, "iptables-restore");
    if (f.what == failure::failed) return with_log(f, said);
    if (restore.status == restore_busy)
        f.what = failure::busy;
    else
        blame_rule(tables, loaded, restore.err, f);
    f.error = "iptables-restore: " + without_opening(restore.err, !f.command.empty());
    f.error += module_hint(program::iptables_restore, restore.err, f.command);
    return with_log(f, said);
}

}  // namespace tool
