// SPDX-License-Identifier: MIT
// What a sink that somebody else has prepared, or a host in trouble, does to a trace: at most the
// line is lost.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "faults.h"
#include "support.h"

namespace {

using TraceSink = test::mordel_test;

const std::string log_path = "/var/tmp/tarnic.log";

// Traces one line to the log.
void trace()
{
    char buf[16];
    EXPECT_EQ(1, ip2string(0, buf, sizeof buf));
}

TEST_F(TraceSink, LogIsCreatedReadableByAll)
{
    const mode_t old = ::umask(0);
    trace();
    ::umask(old);
    EXPECT_EQ(0644U, test::mode_of(log_path));
    EXPECT_EQ(1U, test::trace_log().size());
}

TEST_F(TraceSink, LogGrowsAtItsEnd)
{
    test::write_file(log_path, "[               x:    1                y()]:::before\n");
    trace();
    const std::vector<test::traced> lines = {
        {"x", "y", "before"}, {"tarnic_convert", "ip2string", "buffer size too small!!"}};
    EXPECT_EQ(lines, test::trace_log());
}

TEST_F(TraceSink, LogIsNotFollowedThroughALink)
{
    test::write_file("/var/tmp/theirs", "kept\n");
    ASSERT_EQ(0, ::symlink("/var/tmp/theirs", log_path.c_str()));
    trace();
    EXPECT_EQ("kept\n", test::read_file("/var/tmp/theirs"));
    ASSERT_EQ(0, ::unlink("/var/tmp/theirs"));
    trace();
    EXPECT_FALSE(test::exists("/var/tmp/theirs"));
}

TEST_F(TraceSink, FifoInPlaceOfTheLogHangsAndSignalsNobody)
{
    ASSERT_EQ(0, ::mkfifo(log_path.c_str(), 0600));
    trace();  // without a reader it cannot be opened
    const int reader = ::open(log_path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_LE(0, reader);
    const test::watch watch;
    trace();  // with one, which may go away before the write, nothing is written
    EXPECT_EQ(0U, watch.calls("write").size());
    EXPECT_EQ(1U, watch.calls("close").size());
    ::close(reader);
}

TEST_F(TraceSink, SecondNameInPlaceOfTheLogIsSkipped)
{
    test::write_file("/var/tmp/theirs", "kept\n");
    ASSERT_EQ(0, ::link("/var/tmp/theirs", log_path.c_str()));
    trace();
    EXPECT_EQ("kept\n", test::read_file("/var/tmp/theirs"));
    ASSERT_EQ(0, ::unlink("/var/tmp/theirs"));  // then it is a log like any other
    test::write_file(log_path, "");
    trace();
    EXPECT_EQ(1U, test::trace_log().size());
}

TEST_F(TraceSink, DirectoryInPlaceOfTheLogIsSkipped)
{
    ASSERT_EQ(0, ::mkdir(log_path.c_str(), 0700));
    trace();
}

TEST_F(TraceSink, ErrnoStaysTheCallers)
{
    errno = EXDEV;
    trace();
    EXPECT_EQ(EXDEV, errno);
    errno = EXDEV;
    EXPECT_EQ(0, check_Key("none", 1));
    EXPECT_EQ(EXDEV, errno);
    const test::watch watch("open", -1, ENOENT);
    errno = EXDEV;
    EXPECT_EQ(0, check_Key("none", 1));
    EXPECT_EQ(EXDEV, errno);
    EXPECT_TRUE(watch.failed());
}

TEST_F(TraceSink, SinksAreOpenedToAppendAndNeverLeak)
{
    const test::watch watch;
    trace();
    EXPECT_EQ(0, check_Key("none", 1));
    const auto opened = watch.calls("open");
    ASSERT_EQ(2U, opened.size());
    EXPECT_EQ(log_path, opened[0].text);
    EXPECT_EQ(O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
              opened[0].flags);
    EXPECT_EQ("/dev/console", opened[1].text);
    // Not created where it is missing, nor made the controlling terminal
    EXPECT_EQ(O_WRONLY | O_APPEND | O_NOCTTY | O_CLOEXEC, opened[1].flags);
}

TEST_F(TraceSink, LongLineWithoutMemoryIsCutButStillALine)
{
    const std::string name(600, 'n');
    {
        const test::watch watch("malloc", -1);
        EXPECT_EQ(0, check_Key(name.c_str(), 1));
        EXPECT_TRUE(watch.failed());
    }
    const std::string line = test::console_raw();
    EXPECT_EQ(255U, line.size());
    EXPECT_EQ(0U, line.find("[      tarnic_qos:"));
    EXPECT_EQ("nnn\n", line.substr(251));
    EXPECT_EQ(1, std::count(line.begin(), line.end(), '\n'));
}

}  // namespace
