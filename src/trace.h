// The trace sinks: /var/tmp/tarnic.log and the console.
//
// A source defines TRACE_STEM, the name it has in its trace lines, before it includes this header.
// A trace is one open, one write of the whole line and one close; it keeps errno.
#pragma once

namespace mordel {

void trace_file(const char *stem, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
void trace_console(const char *stem, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace mordel

#define TRACE_FILE(...) ::mordel::trace_file(TRACE_STEM, __LINE__, __func__, __VA_ARGS__)
#define TRACE_CONSOLE(...) ::mordel::trace_console(TRACE_STEM, __LINE__, __func__, __VA_ARGS__)
