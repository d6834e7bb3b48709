// SPDX-License-Identifier: MIT
// Owns all that is written to standard output and error, but for watch.cpp's picture.

#include "output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "text.h"

namespace tool {
namespace {

using std::string;

// By the locale's name alone: small routers have no locale data for setlocale to find.
// The first variable that is set and not empty decides, as in setlocale.
bool is_utf8_locale()
{
    for (const char *variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char *value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        return ::strcasestr(value, "UTF-8") != nullptr || ::strcasestr(value, "utf8") != nullptr;
    }
    return false;
}

}  // namespace

void complain(const string &what) { std::fprintf(stderr, "mordel: %s\n", harmless(what).c_str()); }

look look_of_stdout()
{
    // NO_COLOR: the custom is that any text but an empty one forbids colours.
    const char *no_color = std::getenv("NO_COLOR");
    look how;
    how.colour = ::isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
    how.utf8 = is_utf8_locale();
    return how;
}

bool write_out(const string &text, const char *complaint)
{
    // The flush is checked too: on a full disk fwrite succeeds into the buffer and only it fails.
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0)
        return true;
    complain(string(complaint) + ": " + std::strerror(errno));
    return false;
}

// replace: a file name may be no UTF-8, for which dump would throw otherwise.
string dumped(nlohmann::ordered_json &&taken)
{
    const nlohmann::ordered_json value = std::move(taken);
    return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace tool
