// SPDX-License-Identifier: MIT
// Owns what is done with a journal that is found: gone on with when only the end was missing, else
// taken back, the interface that was changed last first.

#include "recover.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "journal.h"
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
    return file.remove();
}

bool recovery::failed() const
{
    return !error.empty() || std::any_of(interfaces.begin(), interfaces.end(),
                                         [](const outcome &r) { return r.failed; });
}

recovery recover(const state_folder &state, unsigned wait, bool waiting)
{
    recovery r;
    const journal_file file(state);
    string why;
    const auto j = file.read(why);
    if (!j) {
        // A journal that was cut short has begun nothing: it is whole before the first step.
        if (!why.empty()) r.error = file.remove();
        return r;
    }
    r.found = true;
    if (j->boot != this_boot()) {
        r.found = false;
        r.error = forget_old(*j, state);
        return r;
    }
    if (j->what == journal::phase::committed) {
        r.gone_on = true;
        r.error = commit(*j, state);
        return r;
    }
    if (!waiting) r.seconds_left = seconds_left(*j);
    if (r.seconds_left != 0) return r;
    for (auto e = j->entries.rbegin(); e != j->entries.rend(); ++e)
        r.interfaces.push_back(taken_back_outcome(*e, state, wait));
    if (!r.failed()) r.error = file.remove();
    return r;
}

std::vector<string> recovery_lines(const recovery &r)
{
    std::vector<string> all;
    if (r.gone_on) all.emplace_back("the end of an apply that was broken off is made up for");
    if (!r.interfaces.empty()) all.emplace_back("an apply that was not finished is taken back");
    for (const outcome &one : r.interfaces)
        for (const string &line : complaints(one)) all.push_back(line);
    if (!r.error.empty()) all.push_back(r.error);
    return all;
}

}  // namespace tool
