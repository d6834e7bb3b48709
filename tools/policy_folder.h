// SPDX-License-Identifier: MIT
// Policy files: the one that a user names, and those that are applied at boot.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tool {

// The text of a policy file, of standard input for "-". None, and the reason in `why`, when it
// cannot be read or is larger than 64 MiB: /dev/zero has no end.
std::optional<std::string> read_policy_file(const std::string &path, std::string &why);

// The folder of the policies that are applied at boot
class policy_folder {
public:
    explicit policy_folder(std::string path = "/etc/mordel") : path_(std::move(path)) {}

    const std::string &path() const { return path_; }

    // The paths of its *.toml, sorted; none when there is no folder. why: "", or why files or the
    // whole folder are left out. A link, a pipe and what others may write to are left out.
    std::vector<std::string> files(std::string &why) const;

    // Puts a policy there under a name as "home.toml", in the place of an older one; makes the
    // folder if it is missing. "", or why not: the older one is still there then, whole.
    std::string save(const std::string &name, const std::string &text) const;

private:
    std::string path_;
};

}  // namespace tool
