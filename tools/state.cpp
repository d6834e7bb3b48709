// SPDX-License-Identifier: MIT
// Owns the files of /var/run/mordel: NAME.toml, NAME.start and NAME.rules for each interface. apply
// and stop write the files under the lock (lock.h). `status` reads them without the lock: so each
// file is replaced by a rename, and no reader meets half a file.

#include "state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "guards.h"
#include "process.h"
#include "text.h"

namespace tool {

using std::string;

string state_folder::file(const string &ifname, const char *part) const
{
    return path_ + "/" + ifname + "." + part;
}

string state_folder::make() const
{
    if (::mkdir(path_.c_str(), 0755) != 0 && errno != EEXIST)
        return format("cannot make %s: %s", path_.c_str(), std::strerror(errno));
    // lstat: a link in the folder's place, or a folder of another user, would let that user choose
    // the files that root reads and replaces.
    struct stat st {};
    if (::lstat(path_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid())
        return path_ + " is no folder of ours";
    return "";
}

std::optional<string> state_folder::read_part(const string &ifname, const char *part) const
{
    // O_NONBLOCK: the open of a named pipe in the file's place would wait for a writer.
    const mordel::fd_guard fd{::open(file(ifname, part).c_str(),
                                     O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC)};
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    return read_rest(fd.get());
}

bool state_folder::write_part(const string &ifname, const char *part,
                              const std::optional<string> &text) const
{
    const string path = file(ifname, part);
    if (!text) return ::unlink(path.c_str()) == 0 || errno == ENOENT;
    const string fresh = path + ".new";
    const mordel::stream_guard out(std::fopen(fresh.c_str(), "we"));
    // No fsync: nothing here is asked for after a crash of the machine (see state.h).
    if (out && std::fwrite(text->data(), 1, text->size(), out.get()) == text->size() &&
        std::fflush(out.get()) == 0 && std::rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    (void)::unlink(fresh.c_str());
    return false;
}

memory state_folder::read(const string &ifname) const
{
    return {read_part(ifname, "toml"), read_part(ifname, "start"), read_part(ifname, "rules")};
}

bool state_folder::write(const string &ifname, const memory &m) const
{
    // NAME.toml comes after the script: interfaces() counts an interface by its NAME.toml.
    if (write_part(ifname, "start", m.script) && write_part(ifname, "toml", m.policy) &&
        write_part(ifname, "rules", m.rules))
        return true;
    forget(ifname);
    return false;
}

void state_folder::forget(const string &ifname) const
{
    for (const char *part : {"toml", "start", "rules"}) (void)::unlink(file(ifname, part).c_str());
}

std::vector<string> state_folder::interfaces() const
{
    std::vector<string> names;
    std::error_code none;  // swallows a missing folder: nothing was applied since the boot
    for (const auto &entry : std::filesystem::directory_iterator(path_, none))
        if (entry.path().extension() == ".toml") names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace tool
