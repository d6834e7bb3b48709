// SPDX-License-Identifier: MIT
// Owns the careful way to files in a folder that only we may write to. A file is opened without
// following a link or waiting for the other end of a pipe, and taken only when it is a plain file
// of ours. A file is written whole beside its place, synced, and renamed; then the folder is
// synced.

#include "own_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "guards.h"
#include "process.h"
#include "text.h"

namespace tool {
namespace {

using std::string;

// "cannot open /var/run/mordel/lock: Permission denied", from errno
string cannot(const char *what, const string &path)
{
    return format("cannot %s %s: %s", what, path.c_str(), std::strerror(errno));
}

// "", or why a file is not ours alone
string not_ours(const string &path, const struct stat &st)
{
    // A second name of a file (a hard link) would let us change that file under its other name.
    // Root's files are trusted too: `status` may be run by anybody.
    if (!S_ISREG(st.st_mode) || st.st_nlink > 1 || (st.st_uid != ::geteuid() && st.st_uid != 0))
        return path + " is no plain file of ours";
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return path + " may be written to by others";
    return "";
}

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Waits until the disk has the names in a file's folder.
string sync_folder_of(const string &path)
{
    const string folder = path.substr(0, path.find_last_of('/') + 1);
    const mordel::fd_guard fd{::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    // EINVAL: a file system that cannot sync a folder keeps nothing over a loss of power anyway.
    if (fd && (::fsync(fd.get()) == 0 || errno == EINVAL)) return "";
    return cannot("sync", folder);
}

// A sum in which each byte counts by its place (FNV-1a, 64 bit): one changed byte always changes
// it.
u64 sum_of(std::string_view text)
{
    u64 sum = 0xcbf29ce484222325;
    for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return sum;
}

string seal_of(std::string_view text)
{
    return format("sum %016llx\n", static_cast<unsigned long long>(sum_of(text)));
}

constexpr std::size_t seal_size = 21;  // "sum ", 16 digits and the line's end

}  // namespace

string not_our_folder(const string &path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return cannot("read", path);
    // lstat: a link in the folder's place, or a folder of another user, would let that user choose
    // the files that root reads and replaces. Root's folders are read by everybody.
    if (!S_ISDIR(st.st_mode) || (st.st_uid != ::geteuid() && st.st_uid != 0))
        return path + " is no folder of ours";
    return (st.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? path + " may be written to by others" : "";
}

string make_own_folder(const string &path)
{
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return cannot("make", path);
    return not_our_folder(path);
}

int open_own(const string &path, int flags, string &why)
{
    why.clear();
    mordel::fd_guard fd{
        ::open(path.c_str(), flags | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY, S_IRUSR | S_IWUSR)};
    if (!fd) {
        // So fail the open of a link, of a folder and of a pipe without a reader.
        if (errno == ELOOP || errno == EISDIR || errno == ENXIO)
            why = path + " is no plain file of ours";
        else if (errno != ENOENT || (flags & O_CREAT) != 0)
            why = cannot("open", path);
        return -1;
    }
    struct stat st {};
    why = ::fstat(fd.get(), &st) == 0 ? not_ours(path, st) : cannot("read", path);
    return why.empty() ? fd.release() : -1;
}

std::optional<string> read_own(const string &path, string &why)
{
    const mordel::fd_guard fd{open_own(path, O_RDONLY | O_CLOEXEC, why)};
    if (!fd) return std::nullopt;
    auto text = read_rest(fd.get());
    if (!text) why = cannot("read", path);
    return text;
}

string write_own(const string &path, const string &text)
{
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) return cannot("remove", path);
    // O_EXCL: what somebody puts there after the unlink fails the open and is not written to.
    const mordel::fd_guard fd{::open(path.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                     S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH)};
    if (!fd) return cannot("write", path);
    if (write_all(fd.get(), text) && ::fsync(fd.get()) == 0) return "";
    string why = cannot("write", path);
    (void)::unlink(path.c_str());
    return why;
}

string rename_own(const string &from, const string &to)
{
    if (string why = place_taken(to); !why.empty()) return why;
    if (std::rename(from.c_str(), to.c_str()) != 0) return cannot("write", to);
    return sync_folder_of(to);
}

string replace_own(const string &path, const string &text)
{
    const string fresh = path + ".new";
    string why = write_own(fresh, text);
    if (!why.empty()) return why;
    why = rename_own(fresh, path);
    if (!why.empty()) (void)::unlink(fresh.c_str());
    return why;
}

string remove_own(const string &path)
{
    if (::unlink(path.c_str()) == 0) return sync_folder_of(path);
    return errno == ENOENT ? "" : cannot("remove", path);
}

string place_taken(const string &path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) return not_ours(path, st);
    return errno == ENOENT ? "" : cannot("read", path);
}

string sealed(const string &text) { return text + seal_of(text); }

std::optional<string> unsealed(const string &file)
{
    if (file.size() < seal_size) return std::nullopt;
    string text = file.substr(0, file.size() - seal_size);
    if (file.substr(text.size()) != seal_of(text)) return std::nullopt;
    return text;
}

}  // namespace tool
