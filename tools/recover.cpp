// SPDX-License-Identifier: MIT
// Owns what is done with a journal that is found: gone on with when only the end was missing, else
// taken back, the interface that was changed last first.

#include "recover.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "journal.h"
#include "policy_folder.h"
#include "process.h"
#include "take_back.h"
#include "text.h"

namespace tool {
namespace {

using std::string;

outcome taken_back_outcome(const journal_entry &e, const state_folder &state, unsigned wait)
{
    outcome out;
    out.name = e.name;
    const way_back back = take_back(e, iptables(e.name, wait), state);
    out.back = back.how;
    out.why_not_before = back.why;
    out.failed = back.how == taken_back::failed;
    state.drop_staged(e.name);
    return out;
}

// Of an earlier start of the machine: the kernel holds nothing of it, and the folder, where it
// outlives a start, remembers what ran then.
string forget_old(const journal &j, const state_folder &state)
{
    for (const journal_entry &e : j.entries) {
        state.drop_staged(e.name);
        state.forget(e.name);
    }
    return journal_file(state).remove();
}

}  // namespace

double boot_seconds()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

unsigned seconds_left(const journal &j)
{
    if (j.what != journal::phase::unconfirmed) return 0;
    const double left = std::ceil(j.until - boot_seconds());
    return left > 0 ? static_cast<unsigned>(left) : 0;
}

string commit(journal j, const state_folder &state)
{
    const journal_file file(state);
    if (j.what != journal::phase::committed) {
        // From here on a run that finds the journal goes on with this, not back.
        j.what = journal::phase::committed;
        if (string error = file.write(j); !error.empty()) return error;
    }
    for (const journal_entry &e : j.entries)
        if (!state.take_staged(e.name)) state.forget(e.name);
    const string error = j.saved_as.empty() ? "" : policy_folder().save(j.saved_as, j.policy);
    const string stays = file.remove();
    return error.empty() ? stays : error;
}

bool recovery::failed() const
{
    return !error.empty() || std::any_of(interfaces.begin(), interfaces.end(),
                                         [](const outcome &r) { return r.failed; });
}

recovery recover(const state_folder &state, unsigned wait, bool waiting)
{
    const uninterrupted section;
    recovery r;
    const journal_file file(state);
    const auto j = file.read(r.error);
    if (!j) {
        // Without a journal nothing was begun, and what was staged is of no use.
        if (r.error.empty()) state.drop_all_staged();
        if (r.error.empty() || !waiting) return r;
        // Asked for by a person: only so the next apply gets on.
        r.found = true;
        r.note = r.error + ": nobody can go by it, and it is removed";
        r.error = file.remove();
        return r;
    }
    if (j->boot != this_boot()) {
        r.error = forget_old(*j, state);
        return r;
    }
    r.found = true;
    if (j->what == journal::phase::committed) {
        r.gone_on = true;
        r.error = commit(*j, state);
        return r;
    }
    if (!waiting) r.seconds_left = seconds_left(*j);
    if (r.seconds_left != 0) return r;
    for (auto e = j->entries.rbegin(); e != j->entries.rend(); ++e)
        r.interfaces.push_back(taken_back_outcome(*e, state, wait));
    // Only what is not back yet stays in the journal, for another try.
    std::vector<string> back;
    for (const outcome &one : r.interfaces)
        if (!one.failed) back.push_back(one.name);
    r.error = leave_out(back, state);
    if (!r.failed()) state.drop_all_staged();
    return r;
}

string leave_out(const std::vector<string> &names, const state_folder &state)
{
    const journal_file file(state);
    string error;
    auto j = file.read(error);
    if (!j) return error;
    std::erase_if(j->entries, [&](const journal_entry &e) {
        return std::find(names.begin(), names.end(), e.name) != names.end();
    });
    return j->entries.empty() ? file.remove() : file.write(*j);
}

std::vector<string> recovery_lines(const recovery &r)
{
    std::vector<string> all;
    if (!r.note.empty()) all.push_back(r.note);
    if (r.gone_on) all.emplace_back("the end of an apply that was broken off is made up for");
    if (!r.interfaces.empty()) all.emplace_back("an apply that was not finished is taken back");
    for (const outcome &one : r.interfaces)
        for (const string &line : complaints(one)) all.push_back(line);
    if (!r.error.empty()) all.push_back(r.error);
    return all;
}

}  // namespace tool
