// SPDX-License-Identifier: MIT
// Traces to the two sinks: TRACE_FILE to /var/tmp/tarnic.log, TRACE_CONSOLE to the console.
//
// A source file defines TRACE_SOURCE, its trace_source, before it includes this header. Each trace
// opens its sink, writes its line in one write, and closes the sink; errno stays as it was.
#pragma once

namespace mordel {

// The source files that trace, named as trace lines name them
enum trace_source { tarnic_convert, tarnic_qos, tarnic_iptables, tarnic_ipc, tarnic_network };

// A source file and a line of it in one number: that makes each of some hundred calls smaller by an
// argument.
constexpr unsigned trace_place(trace_source source, unsigned line) { return line << 3 | source; }

void trace_file(unsigned place, const char *function, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void trace_console(unsigned place, const char *function, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace mordel

#define TRACE_PLACE ::mordel::trace_place(::mordel::TRACE_SOURCE, __LINE__)
#define TRACE_FILE(...) ::mordel::trace_file(TRACE_PLACE, __func__, __VA_ARGS__)
#define TRACE_CONSOLE(...) ::mordel::trace_console(TRACE_PLACE, __func__, __VA_ARGS__)
