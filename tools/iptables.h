// SPDX-License-Identifier: MIT
// iptables and iptables-restore, run for one interface's chains.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "process.h"

namespace tool {

class iptables {
public:
    // wait: seconds that each call waits for the lock that all iptables calls share; at least 1
    iptables(std::string ifname, unsigned wait);

    // What own_lines() finds in the mangle table. None when iptables fails; `why` says so.
    std::optional<std::vector<std::string>> list(std::string &why) const;

    run_result restore(const std::vector<std::string> &commands) const;

    // What list() would give after such a restore, tried in a network namespace of its own; none
    // where the kernel has no such namespaces or the commands fail.
    std::optional<std::vector<std::string>> tried(const std::vector<std::string> &commands) const;

    // The first of some "-A ..." commands that fails in a namespace of its own, where
    // iptables-restore cannot say which it was; none when that cannot be told.
    std::optional<std::size_t> first_refused(const std::vector<std::string> &rules) const;

    // Takes away what list() gave, with one command each where it must. False, with why, when
    // something stays.
    bool remove(const std::vector<std::string> &present, std::string &why) const;

private:
    run_result run_one(const std::vector<std::string> &words) const;

    std::string ifname_;
    std::string wait_;
};

}  // namespace tool
