// An interface's chains in the mangle table: listed, loaded in one step, taken away.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "process.h"

namespace tool {

class rule_chains {
public:
    // wait: seconds that each call waits for the lock that all iptables calls share; at least 1
    rule_chains(std::string ifname, unsigned wait);

    // What the table holds of this interface, as `iptables -S` says it: its two chains, their
    // rules, and the jumps into them. None when iptables fails; `why` says so.
    std::optional<std::vector<std::string>> list(std::string &why) const;

    // The input of iptables-restore that brings in the rule commands of a script. `present`: what
    // list() gave; null: nothing is there, and the load fails if there is.
    std::string load_input(const std::vector<std::string> &commands,
                           const std::vector<std::string> *present) const;
    // The one that takes away what list() gave
    static std::string removal_input(const std::vector<std::string> &present);

    run_result restore(const std::string &input) const;

    // What list() would give once the commands had run, tried in a network namespace of its own;
    // none where the kernel has no such namespaces or the commands fail.
    std::optional<std::vector<std::string>>
    expected(const std::vector<std::string> &commands) const;

    // The first command that fails in a namespace of its own, where iptables-restore cannot say
    // which it was; none when that cannot be told.
    std::optional<std::size_t> first_refused(const std::vector<std::string> &commands) const;

    // Takes away whatever is there, with one command each where it must. False, with why, when
    // something stays.
    bool remove(std::string &why) const;

private:
    bool is_own(const std::string &line) const;
    std::vector<std::string> iptables(const std::vector<std::string> &words) const;

    std::string ifname_;
    std::string chain_;
    std::string wait_;
};

// "iptables -t mangle -A X 2>/dev/null" as "-A X"; "" for any other line
std::string rule_command(const std::string &script_line);

}  // namespace tool
