// SPDX-License-Identifier: MIT
// The trace sinks. This file owns nothing and needs no lock: every trace opens its sink anew, so
// that a log that was rotated and a console that comes and goes need no care, and appends its line
// in one write, so that the lines of threads and processes do not mix.

#include "trace.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstring>

#include "guards.h"
#include "plain_file.h"

namespace mordel {
namespace {

// Most lines fit into this; a longer one (of a caller's long name) is put together on the heap.
constexpr size_t usual_size = 256;

// The names of the source files, by trace_source
constexpr char source_names[][16] = {"tarnic_convert", "tarnic_qos", "tarnic_iptables",
                                     "tarnic_ipc", "tarnic_network"};

struct place {
    unsigned source_and_line;
    const char *function;
};

// Writes prefix and message to text, cut to size. Returns the length of the whole line; 0 when the
// message cannot be formatted.
size_t format_line(char *text, size_t size, const place &at, const char *format, va_list args)
{
    const int prefix =
        ::snprintf(text, size, "[%16s:%5u %16s()]:::", source_names[at.source_and_line & 7],
                   at.source_and_line >> 3, at.function);
    const int message =
        ::vsnprintf(text + prefix, size - static_cast<size_t>(prefix), format, args);
    return message < 0 ? 0 : static_cast<size_t>(prefix + message);
}

void write_line(int fd, const place &at, const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    char usual[usual_size];
    const char *text = usual;
    size_t length = format_line(usual, sizeof usual, at, format, args);
    heap_guard<char> longer;
    if (length >= sizeof usual) {
        longer.reset(static_cast<char *>(::malloc(length + 1)));
        if (longer) {
            (void)format_line(longer.get(), length + 1, at, format, again);
            text = longer.get();
        } else {
            length = sizeof usual - 1;  // without memory: what fits, ended as a line
            usual[length - 1] = '\n';
        }
    }
    va_end(again);
    (void)!::write(fd, text, length);  // a failure cannot be traced either
}

struct sink {
    const char *path;
    int flags;        // of open, besides those that both sinks have
    bool plain_only;  // whether anything but a plain file is skipped
};

// Anybody may write to /var/tmp and plant something under this name. So no link is followed, and
// only a plain file with one name is written to. O_NONBLOCK and the check keep a planted FIFO from
// blocking open, and from raising SIGPIPE at the write.
constexpr sink log_file = {"/var/tmp/tarnic.log", O_CREAT | O_NOFOLLOW | O_NONBLOCK, true};

// Without O_CREAT: where the console is missing, a plain file in its place would grow without end.
// Without O_NONBLOCK: a serial line is slower than a report's lines come, and would lose some.
constexpr sink console = {"/dev/console", 0, false};

// Writes one trace line to a sink; a sink that cannot be opened is skipped. errno stays as it was.
void trace(const sink &to, const place &at, const char *format, va_list args)
{
    const int error = errno;
    {
        const fd_guard fd{
            ::open(to.path, O_WRONLY | O_APPEND | O_NOCTTY | O_CLOEXEC | to.flags, 0644)};
        struct stat st;
        if (fd && (!to.plain_only || is_plain_file(fd.get(), &st)))
            write_line(fd.get(), at, format, args);
    }
    errno = error;
}

}  // namespace

void trace_file(unsigned place, const char *function, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    trace(log_file, {place, function}, format, args);
    va_end(args);
}

void trace_console(unsigned place, const char *function, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    trace(console, {place, function}, format, args);
    va_end(args);
}

}  // namespace mordel
