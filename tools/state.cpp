// SPDX-License-Identifier: MIT
// Owns the files of /var/run/mordel: NAME.toml, NAME.start and NAME.rules for each interface. Who
// writes them holds the lock (lock.h); `status` reads them without it, and so each file is replaced
// in one step.

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
    struct stat st {};
    if (::lstat(path_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid())
        return path_ + " is no folder of ours";
    return "";
}

std::optional<string> state_folder::read_part(const string &ifname, const char *part) const
{
    // O_NONBLOCK: opening a pipe that somebody put there would wait for its writer.
    const int fd = ::open(file(ifname, part).c_str(),
                          O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    const mordel::stream_guard in(fd < 0 ? nullptr : ::fdopen(fd, "r"));
    struct stat st {};
    if (!in || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    string text;
    for (int c = 0; (c = std::fgetc(in.get())) != EOF;) text += static_cast<char>(c);
    return text;
}

bool state_folder::write_part(const string &ifname, const char *part,
                              const std::optional<string> &text) const
{
    const string path = file(ifname, part);
    if (!text) return ::unlink(path.c_str()) == 0 || errno == ENOENT;
    const string fresh = path + ".new";
    const mordel::stream_guard out(std::fopen(fresh.c_str(), "we"));
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
    std::error_code none;  // no folder: nothing was applied
    for (const auto &entry : std::filesystem::directory_iterator(path_, none))
        if (entry.path().extension() == ".toml") names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace tool
