// SPDX-License-Identifier: MIT
// Owns the trials: which of the steps can be tried, on which part of the tree, and the interface
// for it. That is the namespace's own loopback, renamed: it is in every namespace, where a dummy
// interface takes a module that the kernel may lack or that would stay loaded.

#include "trial.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>

#include "guards.h"
#include "process.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using lines = std::vector<string>;
using kind = object::kind;

// ---- The part of the tree -----------------------------------------------------------------------

// The 0x10 of "... parent 1:0x10 ..." for the word "parent"; 0 for the root, and without the word
u32 class_behind(const lines &words, std::string_view word)
{
    // An interface may be named "parent" too; no number follows there.
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const std::size_t colon = words[i + 1].find(':');
        if (words[i] == word && colon != string::npos)
            return static_cast<u32>(std::strtoul(words[i + 1].c_str() + colon + 1, nullptr, 16));
    }
    return 0;
}

// The classes that some steps are about or speak of, and those above each
class classes_needed {
public:
    explicit classes_needed(const std::vector<command> &tree)
    {
        for (const command &c : tree)
            if (c.what.what == kind::tree_class)
                parents_[c.what.number] = class_behind(words_of(c.text), "parent");
    }
    void add(const step &s)
    {
        const lines words = words_of(s.command);
        for (const u32 handle :
             {s.what.number, class_behind(words, "parent"), class_behind(words, "classid")})
            if (handle != 0 && named_.insert(handle).second) add_with_ancestors(handle);
    }
    // With leaves and filters
    bool is_named(u32 handle) const { return named_.contains(handle); }
    bool is_needed(u32 handle) const { return all_.contains(handle); }

private:
    void add_with_ancestors(u32 handle)
    {
        while (handle != 0 && all_.insert(handle).second) {
            const auto above = parents_.find(handle);
            handle = above == parents_.end() ? 0 : above->second;
        }
    }

    std::map<u32, u32> parents_;
    std::set<u32> named_;
    std::set<u32> all_;
};

// The commands for the root, for what the steps name, and for the classes above: HFSC refuses a
// class without its parent, and HTB hangs it elsewhere.
lines needed(const image &before, const std::vector<step> &steps)
{
    classes_needed classes(before.tree);
    for (const step &s : steps) classes.add(s);
    lines all;
    for (const command &c : before.tree) {
        const u32 number = c.what.number;
        if (c.what.what == kind::root ||
            (c.what.what == kind::tree_class ? classes.is_needed(number)
                                             : classes.is_named(number)))
            all.push_back(c.text);
    }
    return all;
}

// What is run: first the part of the tree, whose refusal says nothing, then the steps
struct trial {
    lines part;
    std::vector<step> steps;  // none: there is nothing to try
};

trial trial_of(const image &before, const std::vector<step> &steps)
{
    trial t;
    std::copy_if(steps.begin(), steps.end(), std::back_inserter(t.steps),
                 [](const step &s) { return s.by == program::tc; });
    if (t.steps.empty()) return t;
    const step &first = t.steps.front();
    const bool of_root = first.what.what == kind::root;
    if (of_root && first.command.starts_with("qdisc add ")) return {};
    if (of_root && first.command.starts_with("qdisc del ")) {
        // The tree is built anew, on an interface that is as empty as it is behind this step.
        t.steps.erase(t.steps.begin());
        return t;
    }
    if (!before.unwritable.empty()) return {};
    t.part = needed(before, t.steps);
    return t;
}

// ---- The interface ------------------------------------------------------------------------------

ifreq request_for(const string &ifname)
{
    ifreq request{};
    // One byte is left for the NUL.
    ifname.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

bool ask(unsigned long what, ifreq &request)
{
    const mordel::fd_guard socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket && ::ioctl(socket.get(), what, &request) == 0;
}

// 0 when there is no such interface
int mtu_of(const string &ifname)
{
    ifreq request = request_for(ifname);
    return ask(SIOCGIFMTU, request) ? request.ifr_mtu : 0;
}

// Makes the loopback of a new namespace an interface of this name and MTU. With its own, of 64 KiB,
// the kernel would warn of bursts that are less than a packet.
bool make_interface(const string &ifname, int mtu)
{
    ifreq resized = request_for("lo");
    resized.ifr_mtu = mtu;
    if (mtu > 0 && !ask(SIOCSIFMTU, resized)) return false;
    if (ifname == "lo") return true;
    ifreq renamed = request_for("lo");
    ifname.copy(renamed.ifr_newname, IFNAMSIZ - 1);
    return ask(SIOCSIFNAME, renamed);
}

// ---- The answer ---------------------------------------------------------------------------------

// A refusal as the text that comes back from the namespace's process: line, command and error, a
// line each; "" when nothing was refused. None for another failure: a tc that was killed was not
// refused anything.
std::optional<string> text_of(const std::optional<step_failure> &failure)
{
    if (!failure) return "";
    if (failure->what != step_failure::kind::refused) return std::nullopt;
    return format("%u\n%s\n%s\n", failure->line, failure->command.c_str(), failure->error.c_str());
}

std::optional<step_failure> failure_in(const string &text)
{
    const lines fields = lines_of(text);
    if (fields.size() < 3) return std::nullopt;
    step_failure f;
    f.line = static_cast<unsigned>(std::strtoul(fields[0].c_str(), nullptr, 10));
    f.command = fields[1];
    f.error = fields[2];
    return f;
}

bool run_all(const lines &commands)
{
    string input;
    for (const string &one : commands) input += one + "\n";
    return commands.empty() || run({"tc", "-batch", "-"}, input).ok();
}

}  // namespace

std::optional<step_failure> try_rules(const iptables &tables, const std::vector<step> &steps)
{
    // The kernel is not asked, and so its log has nothing about it.
    const auto failure = load_rules(tables.for_a_test(), steps, "/dev/null");
    using what = step_failure::kind;
    const bool is_refusal =
        failure && (failure->what == what::refused || failure->what == what::busy);
    return is_refusal ? failure : std::nullopt;
}

std::optional<step_failure> try_tc(const string &ifname, const image &before,
                                   const std::vector<step> &steps)
{
    const trial t = trial_of(before, steps);
    if (t.steps.empty()) return std::nullopt;
    const int mtu = mtu_of(ifname);
    const auto answer = in_own_network([&]() -> std::optional<string> {
        if (!make_interface(ifname, mtu) || !run_all(t.part)) return std::nullopt;
        std::size_t done = 0;
        return text_of(run_tc(
            t.steps, [] { return true; }, done));
    });
    return answer ? failure_in(*answer) : std::nullopt;
}

}  // namespace tool
