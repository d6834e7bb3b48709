// SPDX-License-Identifier: MIT
// What was applied last, by interface, kept until the next boot.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tool {

// Of one interface. Each part is a file of its own, and may be missing.
struct memory {
    std::optional<std::string> policy;  // the text of the file
    std::optional<std::string> script;  // the start script that came of it
    std::optional<std::string> rules;   // its lines of `iptables -S`, where they cannot be foretold
};

class state_folder {
public:
    explicit state_folder(std::string path = "/var/run/mordel") : path_(std::move(path)) {}

    const std::string &path() const { return path_; }

    // Makes the folder where it is missing; "" or why it cannot be had.
    std::string make() const;

    memory read(const std::string &ifname) const;
    // All of it or nothing: after a failure nothing is remembered of the interface.
    bool write(const std::string &ifname, const memory &m) const;
    void forget(const std::string &ifname) const;
    std::vector<std::string> interfaces() const;  // of which a policy is remembered, sorted

private:
    std::string file(const std::string &ifname, const char *part) const;
    std::optional<std::string> read_part(const std::string &ifname, const char *part) const;
    bool write_part(const std::string &ifname, const char *part,
                    const std::optional<std::string> &text) const;

    std::string path_;
};

}  // namespace tool
