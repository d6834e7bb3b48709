// SPDX-License-Identifier: MIT
// Owns the calls of iptables and iptables-restore. Each call waits a bounded time for the lock that
// iptables processes share (/run/xtables.lock): a program that never lets go of the lock must not
// hold up apply for ever.

#include "iptables.h"

#include <algorithm>

#include "chains.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;

}  // namespace

// iptables sets an alarm of so many seconds and then waits for the lock. alarm(0) sets none: `-w 0`
// waits without end, and so does `-w` without a number. The least wait is 1 s therefore.
iptables::iptables(string ifname, unsigned wait)
    : ifname_(std::move(ifname)), wait_(std::to_string(std::max(wait, 1U)))
{}

run_result iptables::run_one(const lines &words) const
{
    lines all = {"iptables", "-w", wait_, "-t", "mangle"};
    all.insert(all.end(), words.begin(), words.end());
    return run(all);
}

std::optional<lines> iptables::list(string &why) const
{
    const run_result listing = run_one({"-S"});
    if (listing.ok()) return own_lines(listing.out, ifname_);
    why = listing.missing ? "iptables is missing" : "iptables: " + listing.problem;
    return std::nullopt;
}

run_result iptables::restore(const lines &commands) const
{
    lines words = {"iptables-restore", "--noflush", "-w", wait_};
    if (only_tests_) words.emplace_back("--test");
    return run(words, restore_input(commands));
}

iptables iptables::for_a_test() const
{
    iptables tests = *this;
    tests.only_tests_ = true;
    return tests;
}

std::optional<lines> iptables::tried(const lines &commands) const
{
    // A new namespace has an empty mangle table: the listing holds these rules and no others.
    const auto text = in_own_network([&]() -> std::optional<string> {
        if (!restore(commands).ok()) return std::nullopt;
        string why;
        const auto own = list(why);
        if (!own) return std::nullopt;
        string all;
        for (const string &line : *own) all += line + "\n";
        return all;
    });
    return text ? std::optional(lines_of(*text)) : std::nullopt;
}

std::optional<std::size_t> iptables::first_refused(const lines &rules) const
{
    const auto text = in_own_network([&]() -> std::optional<string> {
        // The rules name both chains, so that each -A would be refused without them.
        for (const string &chain : {rule_chain(ifname_), automark_chain(ifname_)})
            if (!run_one({"-N", chain}).ok()) return std::nullopt;
        for (std::size_t i = 0; i < rules.size(); ++i)
            // Behind all others: the chain of the trial is too short for a rule's place.
            if (!run_one(words_of(appending(rules[i]))).ok()) return std::to_string(i);
        return std::nullopt;
    });
    return text ? std::optional<std::size_t>(std::stoul(*text)) : std::nullopt;
}

void iptables::load(const lines &commands) const
{
    if (restore(commands).ok()) return;
    // iptables-restore does all or nothing: one by one, a refused command leaves the others.
    for (const string &one : commands) (void)run_one(words_of(one));
}

bool iptables::remove(const lines &present, string &why) const
{
    if (present.empty()) return true;
    load(texts_of(lines_to_remove(present)));
    const auto left = list(why);
    if (!left) return false;
    if (!left->empty()) why = "still in the mangle table: " + left->front();
    return left->empty();
}

}  // namespace tool
