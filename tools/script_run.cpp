// SPDX-License-Identifier: MIT
// Owns the running of a start script's lines. A shell would go on after a command that fails, could
// be killed apart from the tc that it has started, and runs half a script that a full disk has
// left.

#include "script_run.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>

#include "command.h"
#include "guards.h"
#include "process.h"
#include "text.h"

namespace tool {
namespace {

using std::string;
using clock = std::chrono::steady_clock;

// The script starts a process for each line: 2,000 classes are some 6,000 of them.
constexpr std::chrono::seconds most_time(600);

// Compares the file with the text. "", or why nothing may be run.
string difference(const string &path, const string &text)
{
    // O_NONBLOCK: the open of a named pipe in the file's place would wait for a writer.
    const mordel::fd_guard fd{
        ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC)};
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0)
        return format("cannot read %s: %s; nothing of it was run", path.c_str(),
                      std::strerror(errno));
    if (!S_ISREG(st.st_mode)) return path + " is no regular file; nothing of it was run";
    // The size first: of a file that grew without end nothing is read.
    if (st.st_size != static_cast<off_t>(text.size()))
        return format("%s holds %lld bytes of %zu; nothing of it was run", path.c_str(),
                      static_cast<long long>(st.st_size), text.size());
    const auto found = read_rest(fd.get());
    if (!found)
        return format("cannot read %s: %s; nothing of it was run", path.c_str(),
                      std::strerror(errno));
    if (*found != text)
        return path + " is not the script that was written there; nothing of it was run";
    return "";
}

// Takes the redirection off a line; true when the line had one.
bool take_silence(string &line)
{
    constexpr std::string_view silence = " 2>/dev/null";
    if (!line.ends_with(silence)) return false;
    line.resize(line.size() - silence.size());
    return true;
}

// The whole seconds that are left, at least 1; 0 when the time is up
unsigned seconds_left(clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::seconds>(end - clock::now()).count();
    return left > 0 ? static_cast<unsigned>(left) : 0;
}

}  // namespace

std::optional<script_failure> run_start_script(const string &path, const string &text,
                                               const std::function<bool()> &go_on, bool &begun)
{
    const string error = difference(path, text);
    if (!error.empty()) return script_failure{error, "", 0, false};
    const auto end = clock::now() + most_time;
    unsigned number = 0;
    for (string line : lines_of(text)) {
        ++number;
        if (line.empty() || line.front() == '#') continue;
        if (!go_on()) return script_failure{"interrupted", "", 0, true};
        const string command = line.substr(0, line.find_last_not_of(' ') + 1);
        const bool silent = take_silence(line);
        const auto words = words_of(line);
        const unsigned left = seconds_left(end);
        if (left == 0) return script_failure{"600 s were not enough", command, number, false};
        const run_result r = run(words, "", left);
        begun = begun || r.started;
        if (r.ok() || (silent && r.ended)) continue;
        return script_failure{words.front() + (r.missing ? " " : ": ") + r.problem, command, number,
                              false};
    }
    return std::nullopt;
}

}  // namespace tool
