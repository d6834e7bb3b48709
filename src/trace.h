// The trace sinks: /var/tmp/tarnic.log and the console.
//
// A source defines TRACE_SOURCE, its trace_source, before it includes this header. A trace is one
// open, one write of the whole line and one close; it keeps errno.
#pragma once

namespace mordel {

// The sources that trace, by the names they have in the lines
enum trace_source { tarnic_convert, tarnic_qos, tarnic_iptables, tarnic_ipc, tarnic_network };

// Source and line in one number: a hundred calls are smaller for it.
constexpr unsigned trace_place(trace_source source, unsigned line) { return line << 3 | source; }

void trace_file(unsigned place, const char *function, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void trace_console(unsigned place, const char *function, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace mordel

#define TRACE_PLACE ::mordel::trace_place(::mordel::TRACE_SOURCE, __LINE__)
#define TRACE_FILE(...) ::mordel::trace_file(TRACE_PLACE, __func__, __VA_ARGS__)
#define TRACE_CONSOLE(...) ::mordel::trace_console(TRACE_PLACE, __func__, __VA_ARGS__)
