// SPDX-License-Identifier: MIT
// Owns the two batch forms, `tc -batch -` and `iptables-restore --noflush`, one process each, and
// the reading of their messages: which command was refused, and which line of the script it is.

#include "steps.h"

#include <cstdlib>

#include "chains.h"
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

}  // namespace

string brief(const string &said)
{
    constexpr std::size_t most = 300;
    string line = one_line(said);
    line.resize(line.find_last_not_of(' ') + 1);
    return line.size() <= most ? line : line.substr(0, most) + "...";
}

std::optional<step_failure> run_tc(const std::vector<step> &steps)
{
    const auto batch = steps_of(steps, program::tc);
    if (batch.empty()) return std::nullopt;
    string input;
    for (const step *s : batch) input += s->command + "\n";
    const run_result tc = run({"tc", "-batch", "-"}, input);
    if (tc.ok()) return std::nullopt;
    if (tc.missing) return missing("tc");
    // tc ends at the first refused line, and names it behind its message: "Command failed -:7".
    constexpr std::string_view sign = "Command failed -:";
    const std::size_t at = tc.err.rfind(sign);
    step_failure f{failure::refused, "", "tc: " + brief(tc.err.substr(0, at)), "", 0};
    if (at == string::npos) return f;
    const std::size_t number = std::strtoul(tc.err.c_str() + at + sign.size(), nullptr, 10);
    if (number >= 1 && number <= batch.size()) blame(f, "tc ", *batch[number - 1]);
    return f;
}

std::optional<step_failure> load_rules(const iptables &tables, const std::vector<step> &steps)
{
    const auto loaded = steps_of(steps, program::iptables_restore);
    if (loaded.empty()) return std::nullopt;
    const run_result restore = tables.restore(commands_of(steps, program::iptables_restore));
    if (restore.ok()) return std::nullopt;
    if (restore.missing) return missing(is_on_path("iptables") ? "iptables-restore" : "iptables");
    step_failure f;
    if (restore.status == restore_busy)
        f.what = failure::busy;
    else
        blame_rule(tables, loaded, restore.err, f);
    f.error = "iptables-restore: " + without_opening(restore.err, !f.command.empty());
    return f;
}

}  // namespace tool
