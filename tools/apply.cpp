// SPDX-License-Identifier: MIT
// Owns the transaction: what was prepared is written to the journal, run, read back from the kernel
// and remembered; or it is taken back. prepare.cpp decides what is done, take_back.cpp how an
// interface gets back.

#include "apply.h"

#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <new>
#include <thread>

#include "interruption.h"
#include "kernel.h"
#include "memory_reserve.h"
#include "policy_folder.h"
#include "recover.h"
#include "render.h"
#include "script_run.h"
#include "steps.h"
#include "text.h"
#include "timer.h"

namespace tool {
namespace {

using std::string;

void fail(outcome &out, const string &why)
{
    out.failed = true;
    out.error = why;
}

const char *signal_name(int number)
{
    return number == SIGINT ? "SIGINT" : number == SIGTERM ? "SIGTERM" : "SIGHUP";
}

bool has_work(const prepared &p) { return !p.out.failed && !p.out.steps.empty(); }

// ---- One interface ------------------------------------------------------------------------------

// The rules as the table lists them now, for kernels without a namespace to try rules in: the next
// apply compares with this listing. None where a trial works, and after a load onto no chains.
std::optional<string> rules_to_remember(const prepared &p)
{
    if (p.chains.present.empty() || p.chains.expected) return std::nullopt;
    string why;
    const auto present = p.tables.list(why);
    if (!present) return std::nullopt;
    string text;
    for (const string &line : *present) text += line + "\n";
    return text;
}

// The script gives no exit status of use, so its rules are counted. "" when all are in the table.
string rules_missing(const prepared &p)
{
    string why;
    const auto present = p.tables.list(why);
    if (!present) return why;
    const std::size_t wanted_lines = 2 + p.w->script.rules.size();  // the two chains
    if (present->size() == wanted_lines) return "";
    return format("%zu of %zu rules, jumps and chains are in the mangle table", present->size(),
                  wanted_lines);
}

std::optional<step_failure> set_queue(const prepared &p)
{
    if (commands_of(p.out.steps, program::ifconfig).empty() ||
        set_queue_len(p.name(), p.w->iface.param.pfifo_fast.queue_len))
        return std::nullopt;
    step_failure f;
    f.error = format("cannot set the queue length: %s", std::strerror(errno));
    return f;
}

std::optional<step_failure> run_commands(prepared &p, const std::function<bool()> &go_on)
{
    std::size_t done = 0;
    auto failure = run_tc(p.out.steps, go_on, done);
    p.entry.undo = undo_of(p.out.steps, done);
    if (!failure) failure = load_rules(p.tables, p.out.steps);
    if (!failure) return set_queue(p);
    // Where the guess was wrong that there are no chains, they are not to be taken for ours.
    string why;
    if (p.chains.how == chains_seen::looked::guessed)
        if (const auto present = p.tables.list(why)) p.entry.before.rules = *present;
    return failure;
}

std::optional<step_failure> run_script(prepared &p, const policy &whole,
                                       const std::function<bool()> &go_on)
{
    if (!write_start_script(whole, p.name()))
        return step_failure{{}, "", format("cannot write %s", start_script_path), "", 0};
    p.begun = false;  // a script that did not get to the disk whole has changed nothing
    const auto refused = run_start_script(start_script_path, p.w->text, go_on, p.begun);
    if (!refused) {
        const string missing = rules_missing(p);
        return missing.empty() ? std::nullopt : std::optional(step_failure{{}, "", missing, "", 0});
    }
    return step_failure{{}, "", refused->error, refused->command, refused->line};
}

// "" when nothing of a policy is left on an interface that was taken down.
string left_of(const prepared &p)
{
    string why;
    const auto live = read_kernel(p.name(), why);
    if (live && live->root() != nullptr) return "it still has a root qdisc";
    const auto rules = p.tables.list(why);
    if (!rules) return why;
    return rules->empty() ? "" : "still in the mangle table: " + rules->front();
}

// Reads the kernel again and compares. A number that the kernel has cut to its own limits only adds
// a note.
bool verified(prepared &p)
{
    string why = p.w ? "" : left_of(p);
    const auto live = p.w ? read_kernel(p.name(), why) : std::nullopt;
    if (live) {
        const verification v = verify(*p.w, *live);
        p.out.notes.insert(p.out.notes.end(), v.notes.begin(), v.notes.end());
        why = v.error;
    }
    if (!why.empty()) fail(p.out, why);
    return why.empty();
}

// ---- All of a file ------------------------------------------------------------------------------

class transaction {
public:
    transaction(const policy &p, const string &text, const rendering &texts, const apply_options &o,
                const state_folder &state)
        : policy_(p), text_(text), texts_(texts), o_(o), state_(state), journal_(state)
    {}

    applied go()
    {
        if (!o_.dry_run) {
            stop_.emplace();
            reserve_.emplace();
        }
        prepare_all();
        if (o_.dry_run) return result();
        const bool change = std::any_of(parts_.begin(), parts_.end(), has_work);
        if (may_begin() && (!change || open_journal())) {
            if (change) run_all();
            // What comes from here on comes too late: half of the memories could not be taken back.
            if (is_good()) stop_->over();
            good_ = is_good();
            if (good_)
                keep(change);
            else
                take_all_back();
        }
        // The report is printed whatever comes.
        stop_->over();
        return result();
    }

private:
    // Why nothing more may be done; "" while all goes on.
    string cut_short() const
    {
        if (stop_->signal() != 0) return string("interrupted by ") + signal_name(stop_->signal());
        return memory_reserve::ran_out() ? "out of memory" : "";
    }
    bool any_failed() const
    {
        return std::any_of(parts_.begin(), parts_.end(),
                           [&](const prepared &p) { return p.out.failed && !is_excused(p); });
    }
    bool is_excused(const prepared &p) const { return p.out.missing && o_.missing_is_fine; }
    // An interface that nobody could take back must not be forgotten: all is taken back then, and
    // the journal stays.
    bool any_lost() const
    {
        return std::any_of(parts_.begin(), parts_.end(),
                           [](const prepared &p) { return p.out.back == taken_back::failed; });
    }
    bool is_good() const
    {
        return cut_short().empty() && !any_lost() && (o_.keep_going || !any_failed());
    }

    bool may_begin()
    {
        if (error_.empty()) error_ = cut_short();
        return error_.empty() && is_good();
    }

    void wait_for_interfaces() const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(o_.wait_interface);
        const auto is_missing = [](const policy_interface &iface) {
            return ::if_nametoindex(iface.name.c_str()) == 0;
        };
        while (std::any_of(policy_.interfaces.begin(), policy_.interfaces.end(), is_missing) &&
               std::chrono::steady_clock::now() < end && cut_short().empty())
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    void prepare_all()
    {
        if (!o_.dry_run) wait_for_interfaces();
        parts_.reserve(policy_.interfaces.size() + o_.prune.size());
        for (std::size_t i = 0; i < policy_.interfaces.size(); ++i) {
            if (!o_.dry_run && !cut_short().empty()) return;
            parts_.push_back(
                prepare(policy_.interfaces[i], texts_.interfaces[i].start, o_, state_));
        }
        for (const string &name : o_.prune) parts_.push_back(prepare_stop(name, o_, state_));
    }

    journal journal_of(enum journal::phase what) const
    {
        journal j;
        j.what = what;
        j.boot = this_boot();
        j.saved_as = o_.saved_as;
        if (!j.saved_as.empty()) j.policy = text_;
        for (const prepared &p : parts_)
            if (has_work(p)) j.entries.push_back(p.entry);
        if (what == journal::phase::committed)  // nothing is taken back any more
            for (journal_entry &e : j.entries) e = {e.name, e.index, {}, {}};
        return j;
    }

    bool open_journal()
    {
        error_ = journal_.write(journal_of(journal::phase::under_way));
        return error_.empty();
    }

    void run_all()
    {
        for (prepared &p : parts_) {
            if (!has_work(p)) continue;
            p.begun = true;
            if (!run(p) && o_.keep_going && cut_short().empty()) take_back_one(p);
            if (!is_good()) return;
        }
    }

    bool run(prepared &p)
    {
        const auto go_on = [this] { return cut_short().empty(); };
        stop_->left(p.name() + ": all that was done is to be taken back");
        const bool by_script = !commands_of(p.out.steps, program::start_script).empty();
        std::optional<step_failure> failure;
        try {
            failure = by_script ? run_script(p, policy_, go_on) : run_commands(p, go_on);
        } catch (const std::bad_alloc &) {
            failure = step_failure{{}, "", "out of memory", "", 0};
        }
        if (!failure && cut_short().empty()) return verified(p);
        // A step may have failed of the interruption: then that is the reason to tell.
        const string why = cut_short();
        fail(p.out, why.empty() ? failure->error : why);
        if (!why.empty()) return false;
        p.out.failed_command = failure->command;
        p.out.failed_line = failure->line;
        return false;
    }

    void take_back_one(prepared &p)
    {
        const way_back back = take_back(p.entry, p.tables, state_);
        p.out.back = back.how;
        p.out.why_not_before = back.why;
    }

    void take_all_back()
    {
        bool all_back = true;
        for (std::size_t i = parts_.size(); i > 0; --i) {
            prepared &p = parts_[i - 1];
            stop_->left(format("%s: %zu tc commands and the rules; %zu interfaces behind it",
                               p.name().c_str(), p.entry.undo.size(), i - 1));
            if (p.begun && p.out.back == taken_back::untouched) take_back_one(p);
            all_back = all_back && p.out.back != taken_back::failed;
            state_.drop_staged(p.name());
        }
        // An interface that nobody could take back stays in the journal, for another try.
        if (all_back) note_error(journal_.remove());
    }

    void note_error(const string &what)
    {
        if (error_.empty()) error_ = what;
    }

    // ---- What went well -------------------------------------------------------------------------

    void keep(bool change)
    {
        std::vector<string> unstaged;
        for (prepared &p : parts_) {
            if (p.out.failed) continue;
            if (!stage(p)) unstaged.push_back(p.name());
            // Of an interface that needed nothing there is nothing to take back.
            if (!has_work(p)) (void)state_.take_staged(p.name());
        }
        if (!change) return keep_unchanged();
        journal j =
            journal_of(o_.confirm != 0 ? journal::phase::unconfirmed : journal::phase::committed);
        j.until = o_.confirm != 0 ? boot_seconds() + o_.confirm : 0;
        // A later confirmation could not tell a memory that was not written from one that stays.
        if (o_.confirm != 0 && !unstaged.empty()) error_ = cannot_remember();
        if (error_.empty()) error_ = journal_.write(j);
        if (error_.empty() && o_.confirm != 0) error_ = start_timer(state_, j.until);
        if (!error_.empty()) return take_all_back();
        confirm_ = o_.confirm;
        if (confirm_ == 0) note_error(commit(j, state_));
        // What was applied before is not what runs.
        for (const string &name : unstaged) state_.forget(name);
    }

    void keep_unchanged()
    {
        if (!o_.saved_as.empty()) note_error(policy_folder().save(o_.saved_as, text_));
    }

    string cannot_remember() const
    {
        return format("cannot write to %s: status will not know the policy", state_.path().c_str());
    }

    // A memory that says what is remembered already is not written anew: flash wears out.
    bool stage(prepared &p)
    {
        memory fresh;  // of an interface that was taken down nothing is remembered
        if (p.w)
            fresh = {text_, p.w->text, rules_to_remember(p),
                     o_.source.empty() ? std::nullopt : std::optional(o_.source)};
        if (fresh == p.before || state_.stage(p.name(), fresh)) return true;
        // Only a note: the policy is in force, whether it is remembered or not.
        p.out.notes.push_back(cannot_remember());
        return false;
    }

    // In the policy's order, then those that are taken down; an interruption may have come before
    // the last was looked at.
    applied result()
    {
        applied all;
        for (const prepared &p : parts_) all.interfaces.push_back(p.out);
        for (std::size_t i = parts_.size(); i < policy_.interfaces.size(); ++i)
            all.interfaces.emplace_back().name = policy_.interfaces[i].name;
        for (std::size_t i = 0; i < all.interfaces.size(); ++i) {
            const bool begun = i < parts_.size() && parts_[i].begun;
            outcome &out = all.interfaces[i];
            out.left_alone = !o_.dry_run && !good_ && !begun && !out.failed;
        }
        all.error = error_;
        all.signal = stop_ && !good_ ? stop_->signal() : 0;
        all.confirm = confirm_;
        return all;
    }

    const policy &policy_;
    const string &text_;
    const rendering &texts_;
    const apply_options &o_;
    const state_folder &state_;
    const journal_file journal_;
    std::optional<interruption> stop_;
    std::optional<memory_reserve> reserve_;
    std::vector<prepared> parts_;
    bool good_ = false;  // all went well and is kept
    string error_;
    unsigned confirm_ = 0;
};

}  // namespace

bool applied::failed() const
{
    return !error.empty() || std::any_of(interfaces.begin(), interfaces.end(),
                                         [](const outcome &r) { return r.failed; });
}

applied apply_policy(const policy &p, const string &text, const rendering &texts,
                     const apply_options &o, const state_folder &state)
{
    return transaction(p, text, texts, o, state).go();
}

}  // namespace tool
