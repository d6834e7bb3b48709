// SPDX-License-Identifier: MIT
// What the tests share: private namespaces, the two trace sinks read back, scripts read back.
//
// main() (in support.cpp) moves the whole test program into private mount, network and IPC
// namespaces before the first test: /var/tmp is an empty tmpfs, /dev/console a private file, and of
// interfaces there is the loopback alone, which is up.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mordel.h"

namespace test {

// One line of a trace sink, taken apart.
struct trace_line {
    std::string source;    // "tarnic_qos"
    int line = 0;          // > 0
    std::string function;  // "add_qos_rule"
    std::string message;   // without the final line feed
};

// A trace line less its line number, as tests expect it.
struct traced {
    std::string source;
    std::string function;
    std::string message;
    bool operator==(const traced &) const = default;
};
std::ostream &operator<<(std::ostream &, const traced &);
using traces = std::vector<traced>;

// What every lookup of an unknown interface traces.
traced not_found(const std::string &ifname);

// The lines written to a sink since the last call (or the start of the test). A line that is not
// "[%16s:%5d %16s()]:::message\n", exactly padded, fails the test.
std::vector<trace_line> console_lines();
std::vector<trace_line> log_lines();
traces console();  // the same, for EXPECT_EQ with a list
traces trace_log();
std::string console_raw();  // the bytes themselves
std::string log_raw();

// The text that `write` puts into a stream.
std::string written(const std::function<void(FILE *)> &write);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);
bool exists(const std::string &path);
unsigned mode_of(const std::string &path);  // the permission bits, as 0700

// Compares `text`, byte for byte, with tests/golden/NAME. MORDEL_BLESS=1 rewrites the file instead.
// MORDEL_GOLDEN_OUT names a directory that receives the text as well.
void expect_golden(const std::string &name, const std::string &text);

// Fills a char array with a text and zeros; a text of the array's length leaves no NUL.
template <size_t N>
void put(char (&field)[N], std::string_view text)
{
    ASSERT_LE(text.size(), N);
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), text.size());
}

// A match with no kind in force, yet every field filled: what no flag asks for must not show.
qos_match full_match();

// Runs `sh -n` on a script; "" when the shell accepts it, else what it said.
std::string shell_syntax(const std::string &path);

// Runs a shell command that must succeed; what it said is shown when it does not.
void shell(const std::string &command);

// Waits, at most two minutes, until something holds. False when it never did. Far longer than a
// busy machine takes: what fails here is broken, not slow.
bool eventually(const std::function<bool()> &holds);

// The descriptors that this process has open.
size_t open_descriptors();

// Runs a body in a thread of a 64 KiB stack (more where the host's threads take no less, and under
// the sanitizers, whose frames are larger). The body asserts nothing: no room for that.
void on_a_small_stack(std::function<void()> body);

// Starts every test with empty sinks, an empty /var/tmp, and empty qos_root and sched_root; ends it
// by deleting whatever is left on the two lists.
class mordel_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// For what keeps silent: what a test has not read of the sinks by its end fails it.
class silent_test : public mordel_test {
protected:
    void TearDown() override;
};

}  // namespace test
