// SPDX-License-Identifier: MIT
// The kernel's log. Stood for by a pipe that keeps each write apart, as /dev/kmsg keeps its
// records.
#include "kernel_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

using std::string;
using tool::kernel_log;
using tool::kernel_message;

TEST(KernelLog, GivesTheTextOfTheKernelsOwnRecords)
{
    const struct {
        const char *record, *text;
    } cases[] = {
        {"6,339,5140900,-;xt_CT: bad\n", "xt_CT: bad"},
        {"0,1,2,-;worst", "worst"},
        {"7,1,2,c,x=y;a;b\n SUBSYSTEM=net\n DEVICE=n2\n", "a;b"},
        {"6,1,2,-;\\x1b[2J\n", "\\x1b[2J"},
        {"6,1,2,-;\33[2J", " [2J"},
        {"6,1,2,-;eth0: renamed from lo\n", ""},  // by a trial
        {"12,339,5140900,-;a program\n", ""},     // facility 1
        {"30,339,5140900,-;a daemon\n", ""},      // facility 3
        {"6,339,5140900,-", ""},
        {"6", ""},
        {"", ""},
        {";no number", ""},
    };
    for (const auto &c : cases) EXPECT_EQ(c.text, kernel_message(c.record)) << c.record;
}

TEST(KernelLog, GivesTheLastMessageSinceTheLastLook)
{
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_DIRECT));
    const auto write = [&](const string &record) {
        EXPECT_EQ(static_cast<ssize_t>(record.size()),
                  ::write(ends[1], record.data(), record.size()));
    };
    kernel_log log(("/proc/self/fd/" + std::to_string(ends[0])).c_str());
    EXPECT_EQ("", log.last());
    write("6,1,1,-;first\n");
    write("6,2,2,-;second\n");
    write("14,3,3,-;a program\n");
    EXPECT_EQ("second", log.last());
    EXPECT_EQ("", log.last());
    write("6,4,4,-;third\n");
    EXPECT_EQ("third", log.last());
    (void)::close(ends[0]);
    (void)::close(ends[1]);
}

TEST(KernelLog, ThatMayNotBeReadIsEmpty)
{
    EXPECT_EQ("", kernel_log("/nowhere/at/all").last());
    EXPECT_EQ("", kernel_log("/").last());
}

}  // namespace
