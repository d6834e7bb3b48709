// SPDX-License-Identifier: MIT
// Remembers, for each interface, the policy that was applied last, until the next boot.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tool {

// The memory of one interface. Each part may be missing; a memory without any is none.
struct memory {
    std::optional<std::string> policy;  // the policy file's text
    std::optional<std::string> script;  // the start script rendered from that policy
    // Its lines of `iptables -S` after the load, on kernels without a namespace to try rules in
    std::optional<std::string> rules;
    // The policy file's absolute path; none for a policy from standard input
    std::optional<std::string> source = std::nullopt;
    bool operator==(const memory &) const = default;
};

// Of a name that no policy can have nothing is remembered.
class state_folder {
public:
    explicit state_folder(std::string path = "/var/run/mordel") : path_(std::move(path)) {}

    const std::string &path() const { return path_; }
    std::string lock_path() const { return path_ + "/lock"; }

    // Makes the folder if it is missing. "", or why there is no folder that we may trust.
    std::string make() const;

    memory read(const std::string &ifname) const;
    // Remembers all parts, and no older one. After a failure nothing is remembered.
    bool write(const std::string &ifname, const memory &m) const;
    void forget(const std::string &ifname) const;
    std::vector<std::string> interfaces() const;  // those with a remembered policy, sorted

    // A memory in two halves, so that those of several interfaces change together: stage() writes
    // it beside the older one, which stays in force, and take_staged() puts it in the older one's
    // place. A taken memory without parts forgets the interface.
    bool stage(const std::string &ifname, const memory &m) const;
    // May be repeated after a crash: true as well when the staged memory has been taken.
    bool take_staged(const std::string &ifname) const;
    void drop_staged(const std::string &ifname) const;
    void drop_all_staged() const;  // also of what else was broken off while it was written
    memory read_staged(const std::string &ifname) const;

private:
    std::string file(const std::string &ifname) const;
    std::string staged(const std::string &ifname) const;

    std::string path_;
};

}  // namespace tool
