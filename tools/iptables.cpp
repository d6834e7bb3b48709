// SPDX-License-Identifier: MIT
// Owns the calls of iptables and iptables-restore. Each call waits a bounded time for the lock that
// iptables processes share (/run/xtables.lock): a program that never lets go of the lock must not
// hold up apply for ever.

#include "iptables.h"

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>

#include "chains.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;

lines texts_of(const std::vector<command> &commands)
{
    lines all;
    for (const command &c : commands) all.push_back(c.text);
    return all;
}

// Runs a body in a child process with a network namespace of its own, and gives the text that the
// body returns; none when the body gives none or the kernel gives no namespace. A child, because
// unshare would take this process away from the machine's interfaces for good. The answer comes by
// a file that parent and child share.
std::optional<string> in_own_namespace(const std::function<std::optional<string>()> &body)
{
    const auto answer = make_temporary();
    if (!answer) return std::nullopt;
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        // _exit, here and below: exit would write our unwritten standard output a second time.
        if (::unshare(CLONE_NEWNET) != 0) ::_exit(1);
        const std::optional<string> text = body();
        if (!text || std::fwrite(text->data(), 1, text->size(), answer.get()) != text->size() ||
            std::fflush(answer.get()) != 0)
            ::_exit(1);
        ::_exit(0);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return std::nullopt;
    if (status != 0) return std::nullopt;
    return contents(answer.get());
}

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
    why = listing.missing ? "iptables is missing" : "iptables: " + one_line(listing.err);
    return std::nullopt;
}

run_result iptables::restore(const lines &commands) const
{
    return run({"iptables-restore", "--noflush", "-w", wait_}, restore_input(commands));
}

std::optional<lines> iptables::tried(const lines &commands) const
{
    // A new namespace has an empty mangle table: the listing holds these rules and no others.
    const auto text = in_own_namespace([&]() -> std::optional<string> {
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
    const auto text = in_own_namespace([&]() -> std::optional<string> {
        // The rules name both chains, so that each -A would be refused without them.
        for (const string &chain : {rule_chain(ifname_), automark_chain(ifname_)})
            if (!run_one({"-N", chain}).ok()) return std::nullopt;
        for (std::size_t i = 0; i < rules.size(); ++i)
            if (!run_one(words_of(rules[i])).ok()) return std::to_string(i);
        return std::nullopt;
    });
    return text ? std::optional<std::size_t>(std::stoul(*text)) : std::nullopt;
}

bool iptables::remove(const lines &present, string &why) const
{
    if (present.empty()) return true;
    const lines commands = texts_of(lines_to_remove(present));
    if (!restore(commands).ok())
        // iptables-restore does all or nothing: one by one, a refused command leaves the others.
        for (const string &one : commands) (void)run_one(words_of(one));
    const auto left = list(why);
    if (!left) return false;
    if (!left->empty()) why = "still in the mangle table: " + left->front();
    return left->empty();
}

}  // namespace tool
