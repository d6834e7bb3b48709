// SPDX-License-Identifier: MIT
// Owns the files of /etc/mordel. Root applies at boot what they say, so only root may have written
// them: the folder and each file belong to us, and nobody else may write to them. A file is
// replaced by a rename and synced: after a power loss the old or the new one is there, whole.

#include "policy_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "guards.h"
#include "text.h"

namespace tool {

using std::string;

namespace {

constexpr std::size_t most_bytes = std::size_t{64} << 20;
constexpr std::string_view extension = ".toml";

struct folder_closer {
    void operator()(DIR *folder) const { (void)::closedir(folder); }
};

bool is_policy_name(std::string_view name)
{
    return name.ends_with(extension) && safe_name(name.substr(0, name.size() - extension.size()));
}

bool is_ours_alone(const struct stat &st)
{
    return st.st_uid == ::geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

string because(const char *what, const string &path)
{
    return format("cannot %s %s: %s", what, harmless(path).c_str(), std::strerror(errno));
}

// O_NOFOLLOW: a link in the folder's place could lead to a folder of anybody.
mordel::fd_guard open_folder(const string &path, string &why)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    mordel::fd_guard folder(fd);
    struct stat st {};
    if (fd < 0 && (errno == ENOTDIR || errno == ELOOP))
        why = path + " is no folder";
    else if (fd < 0 || ::fstat(fd, &st) != 0)
        why = because("open", path);
    else if (st.st_uid != ::geteuid())
        why = path + " is no folder of ours";
    else if (!is_ours_alone(st))
        why = path + " may be written to by others";
    return mordel::fd_guard(why.empty() ? folder.release() : -1);
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

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Makes a file that was not there, with the text, and waits until the disk has it. O_EXCL: nothing
// that somebody put there, a link or a pipe, is opened.
bool write_new(int folder, const char *name, const string &text)
{
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const mordel::fd_guard file(::openat(folder, name, flags, 0644));
    return file && write_all(file.get(), text) && ::fsync(file.get()) == 0;
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
        why = "cannot read " + quoted(path) + ": " + std::strerror(errno);
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
    mordel::fd_guard folder = open_folder(path_, why);
    if (!folder) return found;
    const std::unique_ptr<DIR, folder_closer> list(::fdopendir(folder.get()));
    if (!list) {
        why = because("read", path_);
        return found;
    }
    const int fd = folder.release();  // the list's now
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(list.get());
        if (entry == nullptr) break;
        const string name = entry->d_name;
        if (!name.ends_with(extension) || name.front() == '.') continue;
        struct stat st {};
        const string file = path_ + "/" + name;
        if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
            is_ours_alone(st))
            found.push_back(file);
        else
            why =
                harmless(file) + " is left out: it is no file that is ours and ours alone to write";
    }
    if (errno != 0) why = because("read", path_);
    std::sort(found.begin(), found.end());
    return found;
}

string policy_folder::save(const string &name, const string &text) const
{
    if (!is_policy_name(name))
        return quoted(name) + " is no name for a saved policy: letters, digits, '.', '_', '-', and "
                              ".toml at its end";
    if (::mkdir(path_.c_str(), 0755) != 0 && errno != EEXIST) return because("make", path_);
    string why;
    const mordel::fd_guard folder = open_folder(path_, why);
    if (!folder) return why;
    const string fresh = name + ".new";
    (void)::unlinkat(folder.get(), fresh.c_str(), 0);  // of a run that was broken off
    if (write_new(folder.get(), fresh.c_str(), text) &&
        ::renameat(folder.get(), fresh.c_str(), folder.get(), name.c_str()) == 0 &&
        ::fsync(folder.get()) == 0)
        return "";
    why = because("write", path_ + "/" + name);
    (void)::unlinkat(folder.get(), fresh.c_str(), 0);
    return why;
}

}  // namespace tool
