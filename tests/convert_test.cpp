// SPDX-License-Identifier: MIT
// Address texts, the signal quality figure, and the shell helpers.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/wait.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>

#include "faults.h"
#include "fence.h"
#include "support.h"

namespace {

using test::traced;

const traced too_small{"tarnic_convert", "ip2string", "buffer size too small!!"};

// ---- Addresses ---------------------------------------------------------------------------------

class AddressText : public test::silent_test {
protected:
    // The whole 80-byte buffer after ip2string, which held 'x' everywhere.
    static std::string printed(u32 ip, int size, int expected)
    {
        char buf[80];
        std::memset(buf, 'x', sizeof buf);
        EXPECT_EQ(expected, ip2string(ip, buf, size));
        return std::string(buf, sizeof buf);
    }

    // `text`, filled up with NULs to `size`, then what was there before.
    static std::string filled(std::string text, size_t size)
    {
        text.resize(size, '\0');
        text.resize(80, 'x');
        return text;
    }
};

TEST_F(AddressText, IsPrintedFromTheMostSignificantByteDown)
{
    const struct {
        u32 ip;
        const char *text;
    } cases[] = {
        {0xC0A80101, "192.168.1.1"},     {0x00000000, "0.0.0.0"},
        {0xFFFFFFFF, "255.255.255.255"}, {0x01020304, "1.2.3.4"},
        {0x80000001, "128.0.0.1"},       {0x0A63C8FF, "10.99.200.255"},
        {0x00FF0000, "0.255.0.0"},       {0x7FFFFFFF, "127.255.255.255"},
    };
    for (const auto &row : cases) EXPECT_EQ(filled(row.text, 17), printed(row.ip, 17, 0));
}

TEST_F(AddressText, PrintsEveryValueOfEveryByte)
{
    for (u32 byte = 0; byte < 256; ++byte) {
        const std::string n = std::to_string(byte);
        ASSERT_EQ(filled(n + ".1.2.3", 17), printed(byte << 24 | 0x010203, 17, 0));
        ASSERT_EQ(filled("1." + n + ".2.3", 17), printed(byte << 16 | 0x01000203, 17, 0));
        ASSERT_EQ(filled("1.2." + n + ".3", 17), printed(byte << 8 | 0x01020003, 17, 0));
        ASSERT_EQ(filled("1.2.3." + n, 17), printed(byte | 0x01020300, 17, 0));
    }
}

TEST_F(AddressText, FillsTheWholeBufferWithZeroBytes)
{
    for (const int size : {17, 18, 19, 32, 64, 80})
        EXPECT_EQ(filled("10.0.0.7", static_cast<size_t>(size)), printed(0x0A000007, size, 0))
            << size;
    EXPECT_EQ(filled("255.255.255.255", 17), printed(0xFFFFFFFF, 17, 0));
}

TEST_F(AddressText, BufferBelowSeventeenIsLeftAsItWas)
{
    for (const int size : {16, 15, 8, 1, 0, -1, -17, INT_MIN}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(std::string(80, 'x'), printed(0xC0A80101, size, 1));
        EXPECT_EQ((std::vector<traced>{too_small}), test::trace_log());
    }
    EXPECT_EQ(1, ip2string(1, nullptr, 16));
    EXPECT_EQ((std::vector<traced>{too_small}), test::trace_log());
}

TEST_F(AddressText, FailureTraceIsOneOpenOneWriteOneClose)
{
    std::vector<test::call> calls;
    char buf[16];
    {
        const test::watch watch;
        EXPECT_EQ(1, ip2string(1, buf, 16));
        calls = watch.calls();
    }
    const std::string text = test::read_file("/var/tmp/tarnic.log");
    ASSERT_EQ(3U, calls.size());
    EXPECT_EQ("open", calls[0].function);
    EXPECT_EQ("/var/tmp/tarnic.log", calls[0].text);
    EXPECT_EQ(O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
              calls[0].flags & (O_ACCMODE | O_APPEND | O_CREAT | O_CLOEXEC | O_TRUNC));
    EXPECT_EQ("write", calls[1].function);
    EXPECT_EQ(text, calls[1].text);
    EXPECT_EQ(calls[0].fd, calls[1].fd);
    EXPECT_EQ("close", calls[2].function);
    EXPECT_EQ(calls[0].fd, calls[2].fd);
    EXPECT_EQ((std::vector<traced>{too_small}), test::trace_log());
}

TEST_F(AddressText, TracesAreAppended)
{
    test::write_file("/var/tmp/tarnic.log",
                     "[  tarnic_convert:    1        ip2string()]:::earlier\n");
    EXPECT_EQ(1, ip2string(1, nullptr, 0));
    EXPECT_EQ((std::vector<traced>{{"tarnic_convert", "ip2string", "earlier"}, too_small}),
              test::trace_log());
}

TEST_F(AddressText, TraceFileThatCannotBeOpenedOrWrittenChangesNoResult)
{
    for (const char *function : {"open", "write", "close"}) {
        SCOPED_TRACE(function);
        const test::watch watch(function, -1, ENOSPC);
        EXPECT_EQ(std::string(80, 'x'), printed(0xC0A80101, 16, 1));
        EXPECT_TRUE(watch.failed());
        EXPECT_EQ(function == std::string("open") ? 0U : 1U, watch.calls("write").size());
        EXPECT_EQ(function == std::string("open") ? 0U : 1U, watch.calls("close").size());
    }
    EXPECT_EQ((std::vector<traced>{too_small}), test::trace_log());  // of the failing close
    std::filesystem::remove("/var/tmp/tarnic.log");
    test::log_raw();
    std::filesystem::create_directory("/var/tmp/tarnic.log");
    EXPECT_EQ(1, ip2string(1, nullptr, 16));
    std::filesystem::remove("/var/tmp/tarnic.log");
}

TEST_F(AddressText, IsReadIntoNetworkByteOrder)
{
    const struct {
        const char *text;
        int result;
        u32 ip;  // first octet in the most significant byte
    } cases[] = {
        {"0.0.0.0", 0, 0},
        {"255.255.255.255", 0, 0xFFFFFFFF},
        {"192.168.1.1", 0, 0xC0A80101},
        {"1.2.3.4", 0, 0x01020304},
        {"10.1", 0, 0x0A000001},
        {"1.2.3", 0, 0x01020003},
        {"1.2.772", 0, 0x01020304},
        {"1.131844", 0, 0x01020304},
        {"16909060", 0, 0x01020304},
        {"1", 0, 0x00000001},
        {"0", 0, 0x00000000},
        {"0.0.0", 0, 0x00000000},
        {"0x7f.1", 0, 0x7F000001},
        {"0x7F000001", 0, 0x7F000001},
        {"0177.0.0.01", 0, 0x7F000001},
        {"127.0xff.010.1", 0, 0x7FFF0801},
        {"255.255.255.254", 0, 0xFFFFFFFE},
        {"255.255.255", 0, 0xFFFF00FF},
        {"4294967294", 0, 0xFFFFFFFE},
        // The all-ones address in any other form cannot be told from a failure.
        {"4294967295", 1, 0xFFFFFFFF},
        {"0xffffffff", 1, 0xFFFFFFFF},
        {"255.255.65535", 1, 0xFFFFFFFF},
        {"0377.0377.0377.0377", 1, 0xFFFFFFFF},
        {"255.255.255.0255.", 1, 0xFFFFFFFF},
        {"255.255.255.255 ", 1, 0xFFFFFFFF},
        {"255.255.255.256", 1, 0xFFFFFFFF},
        {"300.1.1.1", 1, 0xFFFFFFFF},
        {"256.0.0.0", 1, 0xFFFFFFFF},
        {"1.2.3.4.5", 1, 0xFFFFFFFF},
        {"1.2.3.4x", 1, 0xFFFFFFFF},
        {"0.0.0.0x", 1, 0xFFFFFFFF},
        {"0.0.0.0.", 1, 0xFFFFFFFF},
        {"1.2.65536", 1, 0xFFFFFFFF},
        {"1.16777216", 1, 0xFFFFFFFF},
        {"-1", 1, 0xFFFFFFFF},
        {".1", 1, 0xFFFFFFFF},
        {"", 1, 0xFFFFFFFF},
        {"router", 1, 0xFFFFFFFF},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.text);
        const test::fenced_text text(row.text);
        u32 ip = 0x5A5A5A5A;
        EXPECT_EQ(row.result, string2ip(text, &ip));
        EXPECT_EQ(htonl(row.ip), ip);
    }
}

TEST_F(AddressText, ReadAndPrintedAgain)
{
    u32 ip = 0;
    EXPECT_EQ(0, string2ip("192.168.100.7", &ip));
    EXPECT_EQ(filled("192.168.100.7", 17), printed(ntohl(ip), 17, 0));
}

// ---- Signal quality ----------------------------------------------------------------------------

class SignalQuality : public test::mordel_test {};

TEST_F(SignalQuality, EveryLevel)
{
    constexpr int lower[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};      // -91..-81
    constexpr int upper[] = {                                         // -80..-37
                             28, 29, 31, 32, 34, 35, 37, 38, 40, 41,  // -80..-71
                             43, 44, 46, 47, 49, 50, 52, 53, 55, 56,  // -70..-61
                             58, 59, 61, 62, 64, 65, 67, 68, 70, 71,  // -60..-51
                             73, 74, 76, 77, 79, 80, 82, 83, 85, 86,  // -50..-41
                             88, 89, 91, 92};                         // -40..-37
    static_assert(std::size(lower) == 11 && std::size(upper) == 44);
    for (int dbm = -200; dbm < -91; ++dbm) EXPECT_EQ(1, dbm2Rssi(dbm)) << dbm;
    for (int dbm = -91; dbm <= -81; ++dbm) EXPECT_EQ(lower[dbm + 91], dbm2Rssi(dbm)) << dbm;
    for (int dbm = -80; dbm <= -37; ++dbm) EXPECT_EQ(upper[dbm + 80], dbm2Rssi(dbm)) << dbm;
    for (int dbm = -36; dbm <= 50; ++dbm) EXPECT_EQ(100, dbm2Rssi(dbm)) << dbm;
}

TEST_F(SignalQuality, LevelsFarOutside)
{
    for (const int dbm : {INT_MIN, INT_MIN + 1, INT_MIN / 3, -1000000, -256, -201})
        EXPECT_EQ(1, dbm2Rssi(dbm)) << dbm;
    for (const int dbm : {51, 255, 256, 1000000, INT_MAX / 3, INT_MAX - 1, INT_MAX})
        EXPECT_EQ(100, dbm2Rssi(dbm)) << dbm;
}

// ---- Shell helpers -----------------------------------------------------------------------------

constexpr char ran[] = "/var/tmp/ran";  // what a command leaves that did run

class ShellHelper : public test::silent_test {
protected:
    // A command of exactly `size` characters that leaves `ran`.
    static std::string command(size_t size)
    {
        std::string text = std::string("echo > ") + ran + " #";
        EXPECT_LE(text.size(), size);
        text.resize(size, 'p');
        return text;
    }

    static std::string read_all(FILE *stream)
    {
        std::string all;
        for (int c = std::fgetc(stream); c != EOF; c = std::fgetc(stream))
            all += static_cast<char>(c);
        return all;
    }
};

TEST_F(ShellHelper, RunReturnsTheLengthOfTheCommandWhateverItsStatus)
{
    EXPECT_EQ(4, _system("true"));
    EXPECT_EQ(5, _system("false"));
    EXPECT_EQ(7, _system("exit %d", 77));
    EXPECT_EQ(12, _system("kill -9 \"%s\"", "$$"));
    const test::watch watch;
    EXPECT_EQ(0, _system("%s", ""));  // a command like any other
    ASSERT_EQ(1U, watch.calls("system").size());
    EXPECT_EQ("", watch.calls("system")[0].text);
}

TEST_F(ShellHelper, RunFormatsTheCommandAndHandsItToTheShellOnce)
{
    const test::watch watch;
    EXPECT_EQ(45, _system("echo '%s' %d %5.2f %x%% > %s; true", "a  b", -7, 2.5, 255U, ran));
    const auto calls = watch.calls("system");
    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ("echo 'a  b' -7  2.50 ff% > /var/tmp/ran; true", calls[0].text);
    EXPECT_EQ("a  b -7 2.50 ff%\n", test::read_file(ran));
    EXPECT_EQ(0U, watch.calls("popen").size());
}

TEST_F(ShellHelper, RunWaitsForTheCommand)
{
    _system("sleep 0.2; echo done > %s", ran);
    EXPECT_EQ("done\n", test::read_file(ran));
}

TEST_F(ShellHelper, RunIgnoresThatNoShellCouldBeStarted)
{
    const test::watch watch("system", 1);
    EXPECT_EQ(4, _system("true"));
    EXPECT_TRUE(watch.failed());
}

TEST_F(ShellHelper, RunTakesUpTo511Characters)
{
    for (const size_t size : {size_t{100}, size_t{510}, size_t{511}}) {
        SCOPED_TRACE(size);
        std::filesystem::remove(ran);
        const test::watch watch;
        EXPECT_EQ(static_cast<int>(size), _system("%s", command(size).c_str()));
        ASSERT_EQ(1U, watch.calls("system").size());
        EXPECT_EQ(command(size), watch.calls("system")[0].text);
        EXPECT_TRUE(test::exists(ran));
    }
}

TEST_F(ShellHelper, LongerCommandIsNotRun)
{
    for (const size_t size :
         {size_t{512}, size_t{513}, size_t{1023}, size_t{1024}, size_t{70000}}) {
        SCOPED_TRACE(size);
        const test::watch watch;
        EXPECT_EQ(static_cast<int>(size), _system("%s", command(size).c_str()));
        EXPECT_EQ(nullptr, _system_read("%s", command(size).c_str()));
        EXPECT_EQ(0U, watch.calls().size());
        EXPECT_FALSE(test::exists(ran));
    }
}

TEST_F(ShellHelper, ReadGivesTheCommandsOutput)
{
    FILE *stream = _system_read("echo '%s'; echo %d; exit 0", "a  b", 12);
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(::fileno(stream), F_GETFD));
    EXPECT_EQ("a  b\n12\n", read_all(stream));
    EXPECT_EQ(0, _system_close(stream));
}

TEST_F(ShellHelper, ReadTakesUpTo511Characters)
{
    const test::watch watch;
    FILE *stream = _system_read("%s", command(511).c_str());
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ("", read_all(stream));
    EXPECT_EQ(0, _system_close(stream));
    EXPECT_TRUE(test::exists(ran));
    const auto calls = watch.calls("popen");
    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ(command(511), calls[0].text);
    EXPECT_EQ(0U, watch.calls("system").size());
}

TEST_F(ShellHelper, ReadIsNullWhenTheCommandCouldNotBeStarted)
{
    const test::watch watch("popen", 1);
    EXPECT_EQ(nullptr, _system_read("true"));
    EXPECT_TRUE(watch.failed());
}

TEST_F(ShellHelper, CloseReturnsTheWaitStatus)
{
    const struct {
        const char *command;
        int status;
    } cases[] = {{"exit 0", 0},          {"exit 1", 1 << 8},      {"exit 3", 3 << 8},
                 {"exit 255", 255 << 8}, {"kill -9 $$", SIGKILL}, {"kill -15 $$", SIGTERM}};
    for (const auto &row : cases) {
        SCOPED_TRACE(row.command);
        FILE *stream = _system_read("%s", row.command);
        ASSERT_NE(nullptr, stream);
        EXPECT_EQ("", read_all(stream));
        EXPECT_EQ(row.status, _system_close(stream));
    }
}

TEST_F(ShellHelper, CloseWaitsForTheCommand)
{
    FILE *stream = _system_read("exec >&-; sleep 0.2; echo done > %s", ran);
    ASSERT_NE(nullptr, stream);
    EXPECT_EQ(0, _system_close(stream));
    EXPECT_EQ("done\n", test::read_file(ran));
}

TEST_F(ShellHelper, CloseOfACommandSomebodyElseWaitedForFails)
{
    FILE *stream = _system_read("true");
    ASSERT_NE(nullptr, stream);
    int status = 0;
    ASSERT_GT(::wait(&status), 0);
    EXPECT_EQ(-1, _system_close(stream));
}

TEST_F(ShellHelper, CloseOfNullDoesNothing)
{
    const test::watch watch;
    EXPECT_EQ(0, _system_close(nullptr));
    EXPECT_EQ(0U, watch.calls().size());
}

}  // namespace
