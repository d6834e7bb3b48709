// SPDX-License-Identifier: MIT
// Owns the reading of /dev/kmsg: a read gives one record. The kernel refuses some rules with a bare
// "Invalid argument" and tells the reason only there.

#include "kernel_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "text.h"

namespace tool {

using std::string;

string kernel_message(std::string_view record)
{
    unsigned priority = 0;
    const auto [end, error] =
        std::from_chars(record.data(), record.data() + record.size(), priority);
    // Above the three bits of the level stands who wrote: 0 is the kernel.
    if (error != std::errc() || *end != ',' || priority >> 3 != 0) return "";
    const std::size_t text = record.find(';');
    if (text == std::string_view::npos) return "";
    // Lines below the first name the device, for programs.
    const string said = brief(record.substr(text + 1, record.find('\n', text) - text - 1));
    // A trial gives its interface a name, and says nothing of a refusal by that.
    return said.find(": renamed from ") == string::npos ? said : "";
}

kernel_log::kernel_log(const char *path)
    : fd_(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY))
{
    if (fd_) (void)::lseek(fd_.get(), 0, SEEK_END);  // where it fails, all of the log is read
}

string kernel_log::last()
{
    string message;
    std::array<char, 8192> record{};  // the longest that the kernel gives
    while (fd_) {
        const ssize_t n = ::read(fd_.get(), record.data(), record.size());
        // EPIPE: records were overwritten before we came; the next read goes on behind them.
        if (n < 0 && (errno == EPIPE || errno == EINTR)) continue;
        if (n <= 0) break;
        string one = kernel_message({record.data(), static_cast<std::size_t>(n)});
        if (!one.empty()) message = std::move(one);
    }
    return message;
}

}  // namespace tool
