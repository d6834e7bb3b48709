// SPDX-License-Identifier: MIT
// What an apply left in its journal, and the end of it.
#pragma once

#include <string>
#include <vector>

#include "journal.h"
#include "report.h"
#include "state.h"

namespace tool {

// Seconds since the machine was started, by a clock that nobody sets and that goes on in sleep
double boot_seconds();

// Whole seconds that are left to confirm; 0: the time is over, or nothing waits.
unsigned seconds_left(const journal &j);

// Makes what a journal's run has staged the memory of its interfaces, saves the policy where that
// was asked for, and removes the journal. "", or what of it failed.
std::string commit(journal j, const state_folder &state);

struct recovery {
    bool found = false;               // there was something to finish
    bool gone_on = false;             // it was finished, not taken back: only its end was missing
    unsigned seconds_left = 0;        // an apply waits for its confirmation and was left alone
    std::string error;                // "" or why the journal stays
    std::string note;                 // of a journal that nobody can read
    std::vector<outcome> interfaces;  // that were taken back
    bool failed() const;
};

// Finishes an apply that was broken off or not confirmed in time; with `waiting`, also one that
// still waits for its confirmation. The caller holds the lock. wait: seconds for that of iptables.
recovery recover(const state_folder &state, unsigned wait, bool waiting);

// Takes interfaces out of the journal: what was begun on them is of no more interest.
std::string leave_out(const std::vector<std::string> &names, const state_folder &state);

// What it did, a line each; none when there was nothing to do
std::vector<std::string> recovery_lines(const recovery &r);

}  // namespace tool
