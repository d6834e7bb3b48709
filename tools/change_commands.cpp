// SPDX-License-Identifier: MIT
// Owns the commands that change what the kernel holds. Each takes the lock, and first finishes what
// an apply that was broken off has left.

#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

#include "apply.h"
#include "commands.h"
#include "interruption.h"
#include "lock.h"
#include "output.h"
#include "policy_file.h"
#include "policy_folder.h"
#include "policy_read.h"
#include "process.h"
#include "recover.h"
#include "stop.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using json = nlohmann::ordered_json;

// ---- What all of them share ---------------------------------------------------------------------

bool is_root(bool dry_run)
{
    if (dry_run || ::geteuid() == 0) return true;
    complain("this takes root; --dry-run shows what would be done");
    return false;
}

// Takes the lock that serialises all that change something; false, after a message, when another
// mordel keeps it or the folder is not to be trusted.
bool take_lock(const state_folder &state, unsigned wait, std::optional<file_lock> &lock)
{
    string error = state.make();
    if (error.empty()) error = lock.emplace(state.lock_path(), wait).error();
    if (!error.empty()) complain(error);
    return error.empty();
}

void tell(const recovery &r)
{
    for (const string &line : recovery_lines(r)) complain(line);
}

// Finishes what an earlier apply left. False, after a message, when that cannot be done.
bool finish_earlier(const state_folder &state, unsigned wait)
{
    const recovery r = recover(state, wait, false);
    tell(r);
    if (r.seconds_left == 0) return !r.failed();
    complain(format("an apply waits for its confirmation, %u s left: mordel confirm keeps it,"
                    " mordel recover takes it back",
                    r.seconds_left));
    return false;
}

json report_json(bool dry_run)
{
    return {{"ok", true}, {"dry_run", dry_run}, {"interfaces", json::array()}};
}

// What the user is told of one or several files' applies
struct account {
    explicit account(bool dry_run) : out(report_json(dry_run)) {}
    account(const account &) = delete;

    string text;
    json out;
    int status = done;
};

// Complaints go to standard error also beside --json: a person behind a program sees them.
void report(const std::vector<outcome> &all, bool dry_run, string &text, json &out)
{
    for (const outcome &r : all) {
        for (const string &what : complaints(r)) complain(what);
        out["interfaces"].push_back(outcome_json(r));
        // A failed interface has had its word on standard error.
        if (!r.failed) text += outcome_text(r, dry_run);
    }
}

// The kernel is as it should be and nobody has been told: that is no failure of the work.
int reported(const options &o, account &a)
{
    a.out["ok"] = a.status == done;
    const string whole = o.json ? dumped(std::move(a.out)) : a.text;
    const bool is_work = a.status == done && !o.apply.dry_run;
    if (write_out(whole, is_work ? "done, but cannot write the report" : "cannot write"))
        return a.status;
    return is_work ? unreported : a.status == done ? failed : a.status;
}

// ---- apply --------------------------------------------------------------------------------------

string absolute(const string &file)
{
    std::error_code none;
    const auto path = std::filesystem::canonical(file, none);
    return none ? file : path.string();
}

bool has(const std::vector<string> &names, const string &name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// The paths that say of an interface that it came from this file: a saved one has two.
std::vector<string> sources_of(const options &o, const apply_options &how)
{
    std::vector<string> all;
    if (!how.source.empty()) all.push_back(how.source);
    if (o.save) all.push_back(absolute(o.file));
    return all;
}

// The interfaces that this file was applied to and that it does not name any more
std::vector<string> left_over(const loaded &l, const std::vector<string> &sources,
                              const state_folder &state)
{
    std::vector<string> names;
    for (const string &name : state.interfaces())
        if (!has(l.names, name) && has(sources, state.read(name).source.value_or("")))
            names.push_back(name);
    return names;
}

void name_left_over(const std::vector<string> &names, account &a)
{
    for (const string &name : names) {
        complain(name + ": no longer in the policy, still shaped; --prune takes it down");
        a.out["no_longer_in_policy"].push_back(name);
    }
}

int exit_status_of(const applied &r, const apply_options &o)
{
    const bool as_before =
        std::all_of(r.interfaces.begin(), r.interfaces.end(), [](const outcome &one) {
            return one.why_not_before.empty() && one.back != taken_back::failed;
        });
    if (r.signal != 0 && as_before) return 128 + r.signal;
    const bool bad = std::any_of(r.interfaces.begin(), r.interfaces.end(), [&](const outcome &one) {
        return one.failed && !(one.missing && o.missing_is_fine);
    });
    return bad || !r.error.empty() ? failed : done;
}

// Why a policy cannot be saved under its file's name; "" when it can. Of two saved policies for one
// interface the second would undo the first at each start.
string cannot_save(const loaded &l, const string &name)
{
    string left_out;
    for (const string &other : policy_folder().files(left_out)) {
        if (std::filesystem::path(other).filename() == name) continue;
        diagnostics ignored;
        string unread;
        const auto text = read_policy_file(other, unread);
        if (!text) continue;
        for (const policy_interface &iface :
             read_policy(*text, kernel_kind::vendor, ignored).interfaces)
            if (has(l.names, iface.name))
                return format("%s is in %s too, and both would be applied at a start; delete one",
                              iface.name.c_str(), harmless(other).c_str());
    }
    return "";
}

// Applies one file and adds to the account what became of it.
void apply_file(const loaded &l, const options &o, apply_options how, const state_folder &state,
                account &a)
{
    // With one interface chosen, the others are none of its business.
    const auto others =
        o.interface.empty() ? left_over(l, sources_of(o, how), state) : std::vector<string>();
    if (o.prune) how.prune = others;
    const auto texts = texts_of(l.rules);
    if (!texts) {
        a.status = failed;
        return;
    }
    const applied r = apply_policy(l.rules, l.text, *texts, how, state);
    report(r.interfaces, how.dry_run, a.text, a.out);
    if (!r.error.empty()) complain(r.error);
    if (const int status = exit_status_of(r, how); status != done) a.status = status;
    if (r.confirm != 0) {
        a.text += format("to be confirmed within %u s, by: mordel confirm\n", r.confirm);
        a.out["confirm_seconds_left"] = r.confirm;
    }
    if (!o.prune) name_left_over(others, a);
}

// ---- At boot ------------------------------------------------------------------------------------

// Every saved policy in turn. A file that is bad, or whose interface is missing, stops no other.
int apply_saved(const options &o, const apply_options &how, const state_folder &state, account &a)
{
    string why;
    const auto files = policy_folder().files(why);
    if (!why.empty()) {
        complain(why);
        a.status = failed;
    }
    for (const string &file : files) {
        apply_options one = how;
        one.source = file;
        const auto l = load_good(file, o.kernel);
        if (!l) {
            a.status = refused;
            continue;
        }
        // Of a hook's interface that is in no file, or in another, nothing is to be said.
        if (const auto chosen = only(*l, o.interface)) apply_file(*chosen, o, one, state, a);
        if (const int number = interruption::late(); number != 0) a.status = 128 + number;
        if (a.status >= 128) break;
    }
    return a.status;
}

// ---- stop ---------------------------------------------------------------------------------------

// Whether an argument of stop is a policy file, not an interface: a name with a slash or the ending
// of one, standard input, or a file that is there while no such interface is.
bool is_a_file(const string &word)
{
    std::error_code none;
    return word == "-" || word.find('/') != string::npos || word.ends_with(".toml") ||
           (::if_nametoindex(word.c_str()) == 0 && std::filesystem::is_regular_file(word, none));
}

// The interfaces to stop; none, after a message, when a file among the words is bad
std::optional<std::vector<string>> names_to_stop(const options &o, const state_folder &state)
{
    if (o.all) return state.interfaces();
    std::vector<string> names;
    for (const string &word : o.words) {
        if (!is_a_file(word)) {
            if (!safe_name(word)) {
                complain(tool::quoted(word) + " is no interface's name");
                return std::nullopt;
            }
            names.push_back(word);
            continue;
        }
        const auto l = load_chosen(word, o.kernel, o.interface);
        if (!l) return std::nullopt;
        for (const policy_interface &iface : l->rules.interfaces) names.push_back(iface.name);
    }
    return names;
}

}  // namespace

int apply(const options &o)
{
    apply_options how = o.apply;
    std::optional<loaded> l;
    if (!o.boot) {
        if (!(l = load_chosen(o.file, o.kernel, o.interface))) return refused;
        how.source = o.file == "-" ? "" : absolute(o.file);
    }
    if (!is_root(how.dry_run)) return failed;
    if (o.save) {
        how.saved_as = std::filesystem::path(o.file).filename().string();
        how.source = policy_folder().path() + "/" + how.saved_as;
        if (const string why = cannot_save(*l, how.saved_as); !why.empty()) {
            complain(why);
            return refused;
        }
    }
    const state_folder state;
    // A dry run changes nothing and takes no lock: without root the lock file cannot be opened.
    std::optional<file_lock> lock;
    if (!how.dry_run && (!take_lock(state, how.wait, lock) || !finish_earlier(state, how.wait)))
        return failed;
    account a(how.dry_run);
    if (o.boot) {
        how.keep_going = how.missing_is_fine = true;
        (void)apply_saved(o, how, state, a);
    } else {
        apply_file(*l, o, how, state, a);
    }
    return reported(o, a);
}

// Whether a journal is about one of these interfaces
bool concerns(const std::vector<string> &names, const state_folder &state)
{
    string why;
    const auto j = journal_file(state).read(why);
    return j && std::any_of(j->entries.begin(), j->entries.end(),
                            [&](const journal_entry &e) { return has(names, e.name); });
}

int stop(const options &o)
{
    const state_folder state;
    auto names = names_to_stop(o, state);
    if (!names) return refused;
    if (!is_root(o.apply.dry_run)) return failed;
    const uninterrupted section;
    std::optional<file_lock> lock;
    if (!o.apply.dry_run && !take_lock(state, o.apply.wait, lock)) return failed;
    if (o.all) names = state.interfaces();  // those of an apply that has just ended too
    if (!o.apply.dry_run) tell(recover(state, o.apply.wait, concerns(*names, state)));
    account a(o.apply.dry_run);
    const auto stopped = stop_interfaces(*names, {o.apply.dry_run, o.apply.wait}, state);
    report(stopped, o.apply.dry_run, a.text, a.out);
    for (const outcome &one : stopped)
        if (one.failed) a.status = failed;
    // What nobody could take back is stopped now, and holds up no later apply.
    if (!o.apply.dry_run && a.status == done && concerns(*names, state))
        if (const string error = leave_out(*names, state); !error.empty()) complain(error);
    if (names->empty()) a.text = "nothing is shaped\n";
    return reported(o, a);
}

int recover(const options &o)
{
    const state_folder state;
    const uninterrupted section;
    std::optional<file_lock> lock;
    if (!is_root(false) || !take_lock(state, o.apply.wait, lock)) return failed;
    const recovery r = recover(state, o.apply.wait, true);
    tell(r);
    if (r.failed()) return failed;
    return r.found || write_out("nothing to recover\n") ? done : failed;
}

int confirm(const options &o)
{
    const state_folder state;
    const uninterrupted section;
    std::optional<file_lock> lock;
    if (!is_root(false) || !take_lock(state, o.apply.wait, lock)) return failed;
    string why;
    const auto j = journal_file(state).read(why);
    if (!j || seconds_left(*j) == 0 || j->boot != this_boot()) {
        // One whose time is over just now is taken back, here or by its timer.
        tell(recover(state, o.apply.wait, false));
        complain("nothing waits for a confirmation");
        return failed;
    }
    if (const string error = commit(*j, state); !error.empty()) {
        complain(error);
        return failed;
    }
    return write_out("confirmed\n") ? done : unreported;
}

}  // namespace tool
