// SPDX-License-Identifier: MIT
// Remembers, for each interface, the policy that was applied last, until the next boot.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tool {

// The memory of one interface. Each part is a file of its own, and may be missing.
struct memory {
    std::optional<std::string> policy;  // the policy file's text
    std::optional<std::string> script;  // the start script rendered from that policy
    // Its lines of `iptables -S` after the load, on kernels without a namespace to try rules in
    std::optional<std::string> rules;
};

class state_folder {
public:
    explicit state_folder(std::string path = "/var/run/mordel") : path_(std::move(path)) {}

    const std::string &path() const { return path_; }

    // Makes the folder if it is missing. "", or why there is no folder that we may trust.
    std::string make() const;

    memory read(const std::string &ifname) const;
    // Writes all parts, and removes the file of an absent one. After a failure nothing is
    // remembered of the interface.
    bool write(const std::string &ifname, const memory &m) const;
    void forget(const std::string &ifname) const;
    std::vector<std::string> interfaces() const;  // those with a remembered policy, sorted

private:
    std::string file(const std::string &ifname, const char *part) const;
    std::optional<std::string> read_part(const std::string &ifname, const char *part) const;
    bool write_part(const std::string &ifname, const char *part,
                    const std::optional<std::string> &text) const;

    std::string path_;
};

}  // namespace tool
