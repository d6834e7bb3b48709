// The trace sinks. No state: every line opens its sink anew, so that log rotation and a console
// that comes and goes need no care.

#include "trace.h"

#include <fcntl.h>

#include <cstdarg>
#include <cstring>

#include "guards.h"
#include "plain_file.h"

namespace mordel {
namespace {

// Most lines fit; a longer one (a caller's long name) goes through the heap.
constexpr size_t usual_size = 256;

// By trace_source
constexpr char source_names[][16] = {"tarnic_convert", "tarnic_qos", "tarnic_iptables",
                                     "tarnic_ipc", "tarnic_network"};

struct place {
    unsigned source_and_line;
    const char *function;
};

// Prefix and message into text; the length they need, whatever the size.
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
            length = sizeof usual - 1;  // without memory: what fits, still a line
            usual[length - 1] = '\n';
        }
    }
    va_end(again);
    (void)!::write(fd, text, length);  // nobody to tell
}

struct sink {
    const char *path;
    int flags;        // besides those of both
    bool plain_only;  // whether anything but a plain file is skipped
};

// The directory is everybody's: no link is followed, and a planted FIFO must neither hang nor
// signal us.
constexpr sink log_file = {"/var/tmp/tarnic.log", O_CREAT | O_NOFOLLOW | O_NONBLOCK, true};

// Never created: a missing console must not become a file that grows. Blocking, since a serial line
// is slower than a report and would lose it.
constexpr sink console = {"/dev/console", 0, false};

// One trace. A sink that cannot be opened is skipped; errno stays what the caller had.
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
