// SPDX-License-Identifier: MIT
// Owns the files of /etc/mordel. Root applies at boot what they say, so only root may have written
// them: the folder and each file belong to us, and nobody else may write to them. A file is
// replaced as those of the state folder are: after a power loss the old or the new one is there.

#include "policy_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "guards.h"
#include "own_file.h"
#include "text.h"

namespace tool {

using std::string;

namespace {

constexpr std::size_t most_bytes = std::size_t{64} << 20;
constexpr std::string_view extension = ".toml";

bool is_policy_name(std::string_view name)
{
    return name.ends_with(extension) && safe_name(name.substr(0, name.size() - extension.size()));
}

// None, with errno, when a read fails
std::optional<string> read_at_most(int fd, std::size_t most)
{
    string text;
    std::array<char, 16384> piece{};
    while (text.size() < most) {
        const ssize_t n = ::read(fd, piece.data(), std::min(piece.size(), most - text.size()));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        text.append(piece.data(), static_cast<std::size_t>(n));
    }
    return text;
}

}  // namespace

std::optional<string> read_policy_file(const string &path, string &why)
{
    const bool standard_input = path == "-";
    const mordel::fd_guard file(standard_input ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::optional<string> text;
    if (standard_input || file)
        text = read_at_most(standard_input ? STDIN_FILENO : file.get(), most_bytes + 1);
    if (!text) {
        why = "cannot read " + tool::quoted(path) + ": " + std::strerror(errno);
    } else if (text->size() > most_bytes) {
        why = (standard_input ? "standard input" : harmless(path)) +
              " is larger than 64 MiB; a policy is no more than that";
        text.reset();
    }
    return text;
}

std::vector<string> policy_folder::files(string &why) const
{
    why.clear();
    std::vector<string> found;
    // A missing folder is none of the faults: nothing is saved then.
    if (::access(path_.c_str(), F_OK) != 0 && errno == ENOENT) return found;
    why = not_our_folder(path_);
    if (!why.empty()) return found;
    std::error_code error;
    std::filesystem::directory_iterator entry(path_, error);
    for (const std::filesystem::directory_iterator end; !error && entry != end;
         entry.increment(error)) {
        const string name = entry->path().filename().string();
        if (!name.ends_with(extension) || name.front() == '.') continue;
        const string file = path_ + "/" + name;
        if (place_taken(file).empty())
            found.push_back(file);
        else
            why += (why.empty() ? "" : "; ") + harmless(file) +
                   " is left out: it is no file that is ours and ours alone to write";
    }
    if (error) why = "cannot read " + path_ + ": " + error.message();
    std::sort(found.begin(), found.end());
    return found;
}

string policy_folder::save(const string &name, const string &text) const
{
    if (!is_policy_name(name))
        return tool::quoted(name) +
               " is no name for a saved policy: letters, digits, '.', '_', '-', and "
               ".toml at its end";
    const string why = make_own_folder(path_);
    return why.empty() ? replace_own(path_ + "/" + name, text) : why;
}

}  // namespace tool
