// SPDX-License-Identifier: MIT
// Owns the files of /var/run/mordel that remember policies: NAME.applied for each interface, and
// NAME.applied.new for a memory that is staged. apply and stop write the files under the lock
// (lock.h). `status` reads them without the lock: a file is replaced by a rename, and no reader
// meets half a file. All parts of a memory are in one file, so that they are always of one policy.

#include "state.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "own_file.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using std::string_view;

constexpr string_view extension = ".applied";

// ---- The file's text ----------------------------------------------------------------------------

// After the head each part has a line with its name and its length in bytes, and its text as it is:
// a person can read the file.
constexpr string_view head = "mordel 1\n";

struct memory_part {
    string_view name;
    std::optional<string> memory::*text;
};
constexpr memory_part parts[] = {{"from", &memory::source},
                                 {"policy", &memory::policy},
                                 {"script", &memory::script},
                                 {"rules", &memory::rules}};

string text_of(const memory &m)
{
    string out(head);
    for (const memory_part &p : parts) {
        const std::optional<string> &text = m.*p.text;
        if (text) out += string(p.name) + format(" %zu\n", text->size()) + *text + "\n";
    }
    return sealed(out);
}

bool take(string_view &rest, string_view word)
{
    if (!rest.starts_with(word)) return false;
    rest.remove_prefix(word.size());
    return true;
}

// Takes "123\n", so many bytes and a line's end; none when the text is another.
std::optional<string> take_counted(string_view &rest)
{
    std::size_t size = 0;
    const auto [behind, error] = std::from_chars(rest.data(), rest.data() + rest.size(), size);
    if (error != std::errc{}) return std::nullopt;
    rest.remove_prefix(static_cast<std::size_t>(behind - rest.data()));
    if (!take(rest, "\n") || size >= rest.size() || rest[size] != '\n') return std::nullopt;
    string text(rest.substr(0, size));
    rest.remove_prefix(size + 1);
    return text;
}

// No part for a file that was cut short, or is of another version.
memory parse_memory(const string &file)
{
    const auto text = unsealed(file);
    string_view rest = text ? string_view(*text) : string_view();
    memory m;
    if (!take(rest, head)) return {};
    for (const memory_part &p : parts)
        if (take(rest, string(p.name) + " ") && !(m.*p.text = take_counted(rest))) return {};
    return rest.empty() ? m : memory{};
}

memory read_memory(const string &path)
{
    string ignored;  // what is wrong with a file, stage() refuses
    const auto file = read_own(path, ignored);
    return file ? parse_memory(*file) : memory{};
}

}  // namespace

// ---- The folder ---------------------------------------------------------------------------------

string state_folder::make() const { return make_own_folder(path_); }

string state_folder::file(const string &ifname) const
{
    return path_ + "/" + ifname + string(extension);
}

string state_folder::staged(const string &ifname) const { return file(ifname) + ".new"; }

std::vector<string> state_folder::interfaces() const
{
    std::vector<string> names;
    std::error_code error;  // a missing folder: nothing was applied since the boot
    std::filesystem::directory_iterator entry(path_, error);
    for (const std::filesystem::directory_iterator end; !error && entry != end;
         entry.increment(error)) {
        const std::filesystem::path &path = entry->path();
        // A name that no policy can have may hold escape sequences, which a terminal would obey.
        if (path.extension() == extension && safe_name(path.stem().string()))
            names.push_back(path.stem().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// ---- One interface ------------------------------------------------------------------------------

memory state_folder::read(const string &ifname) const
{
    return safe_name(ifname) ? read_memory(file(ifname)) : memory{};
}

bool state_folder::write(const string &ifname, const memory &m) const
{
    if (stage(ifname, m) && take_staged(ifname)) return true;
    drop_staged(ifname);
    forget(ifname);
    return false;
}

void state_folder::forget(const string &ifname) const
{
    if (safe_name(ifname)) (void)remove_own(file(ifname));
}

bool state_folder::stage(const string &ifname, const memory &m) const
{
    // What is in the memory's own place is looked at now, while a failure changes nothing yet.
    return safe_name(ifname) && place_taken(file(ifname)).empty() &&
           write_own(staged(ifname), text_of(m)).empty();
}

bool state_folder::take_staged(const string &ifname) const
{
    if (!safe_name(ifname)) return false;
    string why;
    const auto fresh = read_own(staged(ifname), why);
    if (!fresh) return why.empty();
    if (parse_memory(*fresh) != memory{}) return rename_own(staged(ifname), file(ifname)).empty();
    // The staged file goes last: after a crash it still says that the older memory has to go.
    return remove_own(file(ifname)).empty() && remove_own(staged(ifname)).empty();
}

void state_folder::drop_staged(const string &ifname) const
{
    if (safe_name(ifname)) (void)remove_own(staged(ifname));
}

void state_folder::drop_all_staged() const
{
    std::error_code error;
    std::vector<string> found;
    for (const auto &entry : std::filesystem::directory_iterator(path_, error))
        if (entry.path().extension() == ".new") found.push_back(entry.path().string());
    for (const string &path : found) (void)remove_own(path);
}

memory state_folder::read_staged(const string &ifname) const
{
    return safe_name(ifname) ? read_memory(staged(ifname)) : memory{};
}

}  // namespace tool
