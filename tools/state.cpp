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
namespace {

std::string path_of(const std::string &ifname, const char *kind)
{
    return std::string(state_folder) + "/" + ifname + "." + kind;
}

}  // namespace

std::string make_state_folder()
{
    if (::mkdir(state_folder, 0755) != 0 && errno != EEXIST)
        return format("cannot make %s: %s", state_folder, std::strerror(errno));
    struct stat st {};
    if (::lstat(state_folder, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid())
        return format("%s is no folder of ours", state_folder);
    return "";
}

std::optional<std::string> read_state(const std::string &ifname, const char *kind)
{
    // A pipe that lies there must not hold us up.
    const int fd = ::open(path_of(ifname, kind).c_str(),
                          O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    const mordel::stream_guard in(fd < 0 ? nullptr : ::fdopen(fd, "r"));
    struct stat st {};
    if (!in || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
    std::string text;
    for (int c = 0; (c = std::fgetc(in.get())) != EOF;) text += static_cast<char>(c);
    return text;
}

bool write_state(const std::string &ifname, const char *kind, const std::string &text)
{
    // Whole or not at all
    const std::string path = path_of(ifname, kind);
    const std::string fresh = path + ".new";
    mordel::stream_guard out(std::fopen(fresh.c_str(), "we"));
    if (out && std::fwrite(text.data(), 1, text.size(), out.get()) == text.size() &&
        std::fflush(out.get()) == 0 && std::rename(fresh.c_str(), path.c_str()) == 0)
        return true;
    (void)::unlink(fresh.c_str());
    return false;
}

void remove_state(const std::string &ifname)
{
    for (const char *kind : {"toml", "start", "rules"})
        (void)::unlink(path_of(ifname, kind).c_str());
}

std::vector<std::string> state_names()
{
    std::vector<std::string> names;
    std::error_code none;  // no folder: nothing was applied
    for (const auto &entry : std::filesystem::directory_iterator(state_folder, none))
        if (entry.path().extension() == ".toml") names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace tool
