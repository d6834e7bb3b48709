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

    // The lines that own_lines() finds in the mangle table. None, and the reason in `why`, when
    // iptables fails or is missing.
    std::optional<std::vector<std::string>> list(std::string &why) const;

    // Runs iptables-restore --noflush: all of the commands take effect or none.
    run_result restore(const std::vector<std::string> &commands) const;

    // The same, but its restore() changes nothing: iptables-restore only looks whether it could.
    iptables for_a_test() const;

    // The lines that list() would give after restore(commands), found by a trial in an empty
    // network namespace; none where the kernel gives no namespace or a command fails.
    std::optional<std::vector<std::string>> tried(const std::vector<std::string> &commands) const;

    // The index of the first "-A ..." or "-I ..." command that iptables refuses, run one by one in
    // an empty network namespace. For a refusal at COMMIT, where iptables-restore names no rule.
    // None when all pass there or the kernel gives no namespace.
    std::optional<std::size_t> first_refused(const std::vector<std::string> &rules) const;

    // The same, or where it is refused or missing, each command by itself, whatever becomes of it:
    // for taking back, where the table is listed afterwards. No command is one of iptables-restore
    // alone (":CHAIN").
    void load(const std::vector<std::string> &commands) const;

    // Deletes the lines that list() gave: by one restore, or one by one after a refusal. False, and
    // the reason in `why`, when a line stays.
    bool remove(const std::vector<std::string> &present, std::string &why) const;

private:
    run_result run_one(const std::vector<std::string> &words) const;

    std::string ifname_;
    std::string wait_;
    bool only_tests_ = false;
};

}  // namespace tool
