// SPDX-License-Identifier: MIT
// Log files: the table, what a log's creation does to its file, lines, renaming by count.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "faults.h"
#include "support.h"

namespace {

namespace fs = std::filesystem;

using names = std::set<std::string>;

const std::string dir = "/var/tmp/logs";
constexpr time_t noon = 1700000000;

std::set<int> descriptors()
{
    std::set<int> open;
    for (int fd = 0; fd < 1024; ++fd)
        if (::fcntl(fd, F_GETFD) != -1) open.insert(fd);
    return open;
}

std::set<int> descriptors_since(const std::set<int> &before)
{
    std::set<int> fresh;
    for (const int fd : descriptors())
        if (!before.contains(fd)) fresh.insert(fd);
    return fresh;
}

names files(const std::string &in = dir)
{
    names all;
    for (const auto &entry : fs::directory_iterator(in)) all.insert(entry.path().filename());
    return all;
}

std::string in_dir(const std::string &file) { return dir + "/" + file; }

int create(const std::string &file, const std::string &where = dir)
{
    return createLog("a log", file.c_str(), where.c_str());
}

std::string line(const std::string &first, const std::string &second, time_t when = noon)
{
    return first + "|" + second + "|" + std::to_string(when) + "\n";
}

// The lines FROM to TO as put() writes them.
std::string lines(int from, int to)
{
    std::string text;
    for (int n = from; n <= to; ++n) text += line("daemon", std::to_string(n), noon + n);
    return text;
}

// Writes the lines FROM to TO, each at a time of its own.
void put(int index, int from, int to)
{
    for (int n = from; n <= to; ++n) {
        const test::clock_at clock(noon + n);
        putlog(index, "daemon", std::to_string(n).c_str());
    }
}

template <size_t N>
std::string all_of(const char (&field)[N])
{
    return {field, N};
}

std::string padded(std::string text, size_t size)
{
    text.resize(size, '\0');
    return text;
}

// A directory of exactly this many characters.
std::string long_dir(size_t size)
{
    std::string path = dir + "/" + std::string(size - dir.size() - 1, 'd');
    fs::create_directories(path);
    return path;
}

using table = std::array<log_entry, 8>;

table whole_table()
{
    table copy;
    std::memcpy(copy.data(), logList, sizeof logList);
    return copy;
}

bool same(const table &before) { return std::memcmp(before.data(), logList, sizeof logList) == 0; }

// What the library starts with, taken before main.
const table first_table = whole_table();
const u8 first_is_init = isInit;

// Before initLogSys.
class LogTable : public test::silent_test {
protected:
    void SetUp() override
    {
        silent_test::SetUp();
        forget();
        fs::create_directory(dir);
        before = descriptors();
    }

    // The streams stay, empty, with no descriptor below them.
    void TearDown() override
    {
        forget();
        for (const int fd : descriptors_since(before)) ::close(fd);
        silent_test::TearDown();
    }

    std::set<int> before;

private:
    static void forget()
    {
        std::memset(logList, 0, sizeof logList);
        isInit = 0;
    }
};

// Behind it.
class LogFiles : public LogTable {
protected:
    void SetUp() override
    {
        LogTable::SetUp();
        ASSERT_EQ(1, initLogSys());
    }
};

// ---- The table ---------------------------------------------------------------------------------

TEST_F(LogTable, StartsAllZero)
{
    EXPECT_TRUE(same(first_table));  // SetUp has put zeroes there
    EXPECT_EQ(0, first_is_init);
}

TEST_F(LogTable, IsInitTellsWhetherItWasSetUp)
{
    EXPECT_EQ(0, isLogSysInit());
    EXPECT_EQ(1, initLogSys());
    EXPECT_EQ(1, isInit);
    EXPECT_EQ(1, isLogSysInit());
    EXPECT_EQ(1, initLogSys());
    EXPECT_EQ(1, isLogSysInit());
    for (const int value : {0, 7, 255}) {
        isInit = static_cast<u8>(value);
        EXPECT_EQ(value, isLogSysInit());
    }
    EXPECT_EQ(1, initLogSys());
    EXPECT_EQ(1, isInit);
}

TEST_F(LogTable, InitEmptiesEverySlot)
{
    std::memset(logList, 0xff, sizeof logList);
    EXPECT_EQ(1, initLogSys());
    for (const log_entry &slot : logList) {
        EXPECT_EQ(padded("", 64), all_of(slot.name));
        EXPECT_EQ(padded("", 64), all_of(slot.file));
        EXPECT_EQ(padded("", 128), all_of(slot.dir));
        EXPECT_EQ(0, slot.lines);
        EXPECT_EQ(-1, slot.state);
    }
}

TEST_F(LogTable, BeforeInitNoSlotIsFreeButTheFileIsEmptied)
{
    test::write_file(in_dir("old"), "old\n");
    const table untouched = whole_table();
    EXPECT_EQ(-1, create("old"));
    EXPECT_EQ(-1, create("new"));
    EXPECT_TRUE(same(untouched));
    EXPECT_EQ((names{"new", "old"}), files());
    EXPECT_EQ("", test::read_file(in_dir("old")));
    putlog(0, "a", "b");
    EXPECT_EQ("", test::read_file(in_dir("old")));
    EXPECT_EQ(0, isLogSysInit());
}

TEST_F(LogTable, FreeSlotsCountWhateverIsInitSays)
{
    isInit = 1;
    EXPECT_EQ(-1, create("a"));
    logList[3].state = -1;
    isInit = 0;
    EXPECT_EQ(3, create("a"));
    EXPECT_EQ(0, isInit);
    const test::clock_at clock(noon);
    putlog(3, "x", "y");
    EXPECT_EQ(line("x", "y"), test::read_file(in_dir("a")));
}

TEST_F(LogFiles, InitForgetsTheLogsButNotTheirFiles)
{
    ASSERT_EQ(0, create("a"));
    ASSERT_EQ(1, create("b"));
    put(0, 1, 3);
    EXPECT_EQ(1, initLogSys());
    put(0, 4, 4);
    EXPECT_EQ(lines(1, 3), test::read_file(in_dir("a")));
    EXPECT_EQ((names{"a", "b"}), files());
    EXPECT_EQ(0, logList[0].lines);
    EXPECT_EQ(0, create("b"));
}

// ---- Creation ----------------------------------------------------------------------------------

TEST_F(LogFiles, EightLogsFitAndTheNinthFileIsEmptiedAllTheSame)
{
    for (int i = 0; i < 8; ++i) {
        const std::string file = "log" + std::to_string(i);
        test::write_file(in_dir(file), "old\n");
        EXPECT_EQ(i, create(file));
        EXPECT_EQ("", test::read_file(in_dir(file)));
    }
    const table full = whole_table();
    test::write_file(in_dir("ninth"), "old\n");
    EXPECT_EQ(-1, create("ninth"));
    EXPECT_EQ(-1, create("tenth"));
    EXPECT_EQ("", test::read_file(in_dir("ninth")));
    EXPECT_EQ("", test::read_file(in_dir("tenth")));
    EXPECT_TRUE(same(full));
    EXPECT_EQ(-2, create("eleventh", "/var/tmp/none"));
    EXPECT_TRUE(same(full));
}

TEST_F(LogFiles, CreationFillsItsSlotAlone)
{
    const table untouched = whole_table();
    ASSERT_EQ(0, createLog("system events", "app.log", dir.c_str()));
    EXPECT_EQ(padded("system events", 64), all_of(logList[0].name));
    EXPECT_EQ(padded("app.log", 64), all_of(logList[0].file));
    EXPECT_EQ(padded(dir, 128), all_of(logList[0].dir));
    EXPECT_EQ(0, logList[0].lines);
    EXPECT_EQ(1, logList[0].state);
    EXPECT_EQ(0, std::memcmp(&untouched[1], &logList[1], 7 * sizeof(log_entry)));
    EXPECT_EQ((names{"app.log"}), files());
    EXPECT_EQ("", test::read_file(in_dir("app.log")));
}

TEST_F(LogFiles, TheNameMayBeEmptyAndNeedNotBeUnique)
{
    EXPECT_EQ(0, createLog("", "a", dir.c_str()));
    EXPECT_EQ(1, createLog("same", "b", dir.c_str()));
    EXPECT_EQ(2, createLog("same", "c", dir.c_str()));
    EXPECT_EQ(padded("", 64), all_of(logList[0].name));
    put(0, 1, 1);
    put(1, 2, 2);
    put(2, 3, 3);
    EXPECT_EQ(lines(1, 1), test::read_file(in_dir("a")));
    EXPECT_EQ(lines(2, 2), test::read_file(in_dir("b")));
    EXPECT_EQ(lines(3, 3), test::read_file(in_dir("c")));
}

TEST_F(LogFiles, WhatCannotBeCreatedTakesNoSlot)
{
    const table untouched = whole_table();
    fs::create_directory(in_dir("folder"));
    EXPECT_EQ(-2, create("a", "/var/tmp/none"));
    EXPECT_EQ(-2, create("folder"));
    EXPECT_EQ(-2, create(""));
    EXPECT_EQ(-2, create("none/a"));
    {
        test::write_file(in_dir("old"), "old\n");
        const test::watch watch("open", 1, EMFILE);
        EXPECT_EQ(-2, create("old"));
        EXPECT_EQ(1U, watch.calls("open").size());
    }
    EXPECT_EQ("old\n", test::read_file(in_dir("old")));
    EXPECT_TRUE(same(untouched));
    EXPECT_EQ((names{"folder", "old"}), files());
    EXPECT_EQ(0, create("a"));
}

TEST_F(LogFiles, TheFirstSlotOfStateMinusOneIsTaken)
{
    const int states[8] = {1, 0, 2, -2, -1, 1, -1, INT_MIN};
    for (int i = 0; i < 8; ++i) logList[i].state = states[i];
    EXPECT_EQ(4, create("a"));
    EXPECT_EQ(6, create("b"));
    EXPECT_EQ(-1, create("c"));
    logList[0].state = -1;
    EXPECT_EQ(0, create("d"));
    const int after[8] = {1, 0, 2, -2, 1, 1, 1, INT_MIN};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(after[i], logList[i].state) << i;
}

TEST_F(LogFiles, FieldsAreCutToTheirSizeLessOne)
{
    for (const size_t size : {62U, 63U, 64U, 65U, 200U}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(1, initLogSys());
        const std::string name(size, 'n');
        const std::string file(size, 'f');
        const std::string where = long_dir(size + 64);
        ASSERT_EQ(0, createLog(name.c_str(), file.c_str(), where.c_str()));
        EXPECT_TRUE(test::exists(where + "/" + file));
        EXPECT_EQ(padded(name.substr(0, 63), 64), all_of(logList[0].name));
        EXPECT_EQ(padded(file.substr(0, 63), 64), all_of(logList[0].file));
        EXPECT_EQ(padded(where.substr(0, 127), 128), all_of(logList[0].dir));
        EXPECT_EQ(0, logList[0].lines);
        EXPECT_EQ(1, logList[0].state);
    }
}

TEST_F(LogFiles, LinesOfALongFileNameGoToTheShorterName)
{
    const std::string file = std::string(62, 'f') + "ghi";
    ASSERT_EQ(0, create(file));
    EXPECT_EQ((names{file}), files());
    put(0, 1, 2);
    EXPECT_EQ((names{file, std::string(62, 'f') + "g"}), files());
    EXPECT_EQ("", test::read_file(in_dir(file)));
    EXPECT_EQ(lines(1, 2), test::read_file(in_dir(std::string(62, 'f') + "g")));
    EXPECT_EQ(2, logList[0].lines);
}

TEST_F(LogFiles, LinesOfALongDirectoryGoToTheShorterOne)
{
    const std::string where = long_dir(126) + "/deep";
    fs::create_directory(where);
    ASSERT_EQ(0, create("a", where));
    const std::string shorter = where.substr(0, 127);  // ends in the slash
    put(0, 1, 1);
    EXPECT_EQ("", test::read_file(where + "/a"));
    EXPECT_EQ(lines(1, 1), test::read_file(shorter + "a"));
    EXPECT_EQ(1, logList[0].lines);

    // Where there is no such directory the lines are lost
    const std::string other = long_dir(125) + "/other";
    fs::create_directory(other);
    ASSERT_EQ(1, create("a", other));
    put(1, 1, 1);
    EXPECT_EQ("", test::read_file(other + "/a"));
    EXPECT_EQ(0, logList[1].lines);
}

// Every length near the sizes a buffer might have, so that none of them is a limit; PATH_MAX counts
// the NUL.
TEST_F(LogFiles, PathsAreNeverCutShort)
{
    const std::string file = "app.log";
    for (const size_t size :
         {191U, 192U, 193U, 255U, 256U, 257U, 319U, 320U, 511U, 512U, 513U, 1023U, 1024U, 1025U,
          2047U, 2048U, 4000U, unsigned{PATH_MAX} - 2, unsigned{PATH_MAX} - 1}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(1, initLogSys());
        const std::string slashes(size - 1 - file.size() - dir.size(), '/');
        const test::watch watch;
        EXPECT_EQ(0, create(file, dir + slashes));
        ASSERT_EQ(1U, watch.calls("open").size());
        EXPECT_EQ(dir + slashes + "/" + file, watch.calls("open")[0].text);
        EXPECT_EQ((names{file}), files());
        fs::remove(in_dir(file));
    }
    for (const size_t size : {unsigned{PATH_MAX}, unsigned{PATH_MAX} + 1, 8192U, 70000U}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(1, initLogSys());
        const table untouched = whole_table();
        const std::string slashes(size - 1 - file.size() - dir.size(), '/');
        EXPECT_EQ(-2, create(file, dir + slashes));
        EXPECT_TRUE(same(untouched));
        EXPECT_EQ(names{}, files());
    }
    const std::string longest(NAME_MAX, 'f');
    EXPECT_EQ(-2, create(longest + "f"));
    EXPECT_EQ(names{}, files());
    EXPECT_EQ(0, create(longest));
    EXPECT_EQ((names{longest}), files());
}

TEST_F(LogFiles, ASlotFreedByHandKeepsTheTailOfItsOlderTexts)
{
    fs::create_directories(dir + "-of-old");
    ASSERT_EQ(0, createLog("older name", "older file", (dir + "-of-old").c_str()));
    put(0, 1, 5);
    logList[0].state = -1;
    ASSERT_EQ(0, createLog("new", "a", dir.c_str()));
    EXPECT_EQ(padded("newer name", 64), all_of(logList[0].name));
    EXPECT_EQ(padded("alder file", 64), all_of(logList[0].file));
    EXPECT_EQ(padded(dir + "-of-old", 128), all_of(logList[0].dir));
    EXPECT_EQ(5, logList[0].lines) << "the count goes on";
    EXPECT_EQ((names{"a"}), files());
    put(0, 6, 6);
    EXPECT_EQ("", test::read_file(in_dir("a")));
    EXPECT_EQ(lines(6, 6), test::read_file(dir + "-of-old/alder file"));
    EXPECT_EQ(6, logList[0].lines);
}

TEST_F(LogFiles, CopiesWriteTheirCharactersAlone)
{
    for (const size_t size : {0U, 1U, 62U, 63U, 64U, 100U}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(1, initLogSys());
        std::memset(logList[0].name, '#', sizeof logList[0].name);
        std::memset(logList[0].file, '#', sizeof logList[0].file);
        std::memset(logList[0].dir, '#', sizeof logList[0].dir);
        const std::string name(size, 'n');
        const std::string file(size + 1, 'f');
        const std::string where = long_dir(64 + size);
        const auto over = [](const std::string &text, size_t capacity) {
            const std::string kept = text.substr(0, capacity - 1);
            return kept + std::string(capacity - kept.size(), '#');
        };
        ASSERT_EQ(0, createLog(name.c_str(), file.c_str(), where.c_str()));
        EXPECT_EQ(over(name, 64), all_of(logList[0].name));
        EXPECT_EQ(over(file, 64), all_of(logList[0].file));
        EXPECT_EQ(over(where, 128), all_of(logList[0].dir));
        EXPECT_EQ(0, logList[0].lines);
        EXPECT_EQ(1, logList[0].state);
    }
}

// ---- Directories that others may write to -------------------------------------------------------

const std::string victim = "/var/tmp/victim";
const std::string planted = in_dir("app.log");

// What somebody else could put in a log's place; each leads to the victim, or is a trap of its own.
struct plant {
    const char *name;
    std::function<void()> put;
};

void PrintTo(const plant &each, std::ostream *out) { *out << each.name; }

const plant plants[] = {
    {"SymbolicLink", [] { fs::create_symlink(victim, planted); }},
    {"DanglingLink", [] { fs::create_symlink("/var/tmp/nothing", planted); }},
    {"LinkToALink",
     [] {
         fs::create_symlink(victim, "/var/tmp/link");
         fs::create_symlink("/var/tmp/link", planted);
     }},
    {"HardLink", [] { fs::create_hard_link(victim, planted); }},
    {"Fifo", [] { ASSERT_EQ(0, ::mkfifo(planted.c_str(), 0600)); }},
    {"ForeignFile",
     [] {
         test::write_file(planted, "theirs\n");
         if (::chown(planted.c_str(), 12345, 12345) != 0) GTEST_SKIP() << "no second user here";
     }},
    {"Directory", [] { fs::create_directory(planted); }},
};

class LogPlant : public LogFiles, public testing::WithParamInterface<plant> {
protected:
    void SetUp() override
    {
        LogFiles::SetUp();
        test::write_file(victim, "precious\n");
    }
    void expect_untouched() const
    {
        EXPECT_EQ("precious\n", test::read_file(victim));
        EXPECT_FALSE(test::exists("/var/tmp/nothing"));
        if (std::string(GetParam().name) == "ForeignFile") {
            EXPECT_EQ("theirs\n", test::read_file(planted));
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Each, LogPlant, testing::ValuesIn(plants),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_P(LogPlant, TakesNoSlotAndNoLine)
{
    for (const mode_t mode : {01777U, 0777U, 0757U, 0775U}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(1, initLogSys());
        ASSERT_EQ(0, ::chmod(dir.c_str(), mode));
        ASSERT_EQ(0, create("app.log"));
        fs::remove(planted);
        ASSERT_NO_FATAL_FAILURE(GetParam().put());
        if (IsSkipped()) return;
        const table before_plant = whole_table();
        EXPECT_EQ(-2, create("app.log"));
        putlog(0, "first", "second");
        EXPECT_TRUE(same(before_plant));
        expect_untouched();
        fs::remove(planted);
        fs::remove("/var/tmp/link");
    }
}

// The owner of a directory may write to it, whatever its mode.
TEST_P(LogPlant, IsRefusedInTheDirectoryOfAnotherUser)
{
    if (::chown(dir.c_str(), 12345, 12345) != 0) GTEST_SKIP() << "no second user here";
    ASSERT_NO_FATAL_FAILURE(GetParam().put());
    EXPECT_EQ(-2, create("app.log"));
    expect_untouched();
}

// Where nobody else can write, a link is the owner's own.
TEST_F(LogFiles, ADirectoryOfOnesOwnMayHoldLinks)
{
    test::write_file(victim, "old\n");
    fs::create_symlink(victim, planted);
    EXPECT_EQ(0, create("app.log"));
    EXPECT_EQ("", test::read_file(victim));
    put(0, 1, 1);
    EXPECT_EQ(lines(1, 1), test::read_file(victim));
    fs::remove(planted);
    fs::create_hard_link(victim, planted);
    EXPECT_EQ(1, create("app.log"));
    put(1, 2, 3);
    EXPECT_EQ(lines(2, 3), test::read_file(victim));
}

TEST_F(LogFiles, ADirectoryOfADaemonsOwnMayHoldLinks)
{
    const std::string home = in_dir("home");
    test::write_file(home, "old\n");
    if (::chown(home.c_str(), 12345, 0) != 0 || ::chown(dir.c_str(), 12345, 0) != 0)
        GTEST_SKIP() << "no second user here";
    fs::create_symlink(home, planted);
    ASSERT_EQ(0, ::seteuid(12345));
    const int index = create("app.log");
    ASSERT_EQ(0, ::seteuid(0));
    EXPECT_EQ(0, index);
    EXPECT_EQ("", test::read_file(home));
}

TEST_F(LogFiles, InASharedDirectoryAPlainFileIsEmptiedAndAppendedTo)
{
    ASSERT_EQ(0, ::chmod(dir.c_str(), 01777));
    test::write_file(planted, "old\n");
    ASSERT_EQ(0, ::chmod(planted.c_str(), 0640));
    const size_t start = test::open_descriptors();
    ASSERT_EQ(0, create("app.log"));
    EXPECT_EQ(start + 1, test::open_descriptors());
    EXPECT_EQ("", test::read_file(planted));
    put(0, 1, 127);
    EXPECT_EQ(lines(1, 127), test::read_file(planted));
    EXPECT_EQ(0640U, test::mode_of(planted));
    put(0, 128, 129);
    EXPECT_EQ((names{"app.log", "app.log_1700000128"}), files());
    EXPECT_EQ(lines(1, 128), test::read_file(in_dir("app.log_1700000128")));
    EXPECT_EQ(lines(129, 129), test::read_file(planted));
    EXPECT_EQ(start + 1, test::open_descriptors());
    ASSERT_EQ(1, create("app.log", "/var/tmp/logs/../logs/"));
    EXPECT_EQ("", test::read_file(planted));
    {
        const test::watch watch("ftruncate", 1, EIO);
        EXPECT_EQ(-2, create("app.log"));
        EXPECT_TRUE(watch.failed());
    }
    EXPECT_EQ(start + 2, test::open_descriptors());
}

// The directory is the one that the whole path names, not the one that was passed.
TEST_F(LogFiles, TheDirectoryOfTheFileIsTheOneThatCounts)
{
    test::write_file(victim, "precious\n");
    const std::string below = in_dir("below");
    fs::create_directory(below);
    fs::create_symlink(victim, below + "/app.log");
    ASSERT_EQ(0, ::chmod(below.c_str(), 0777));
    EXPECT_EQ(-2, create("below/app.log"));
    EXPECT_EQ("precious\n", test::read_file(victim));
    ASSERT_EQ(0, ::chmod(below.c_str(), 0755));
    ASSERT_EQ(0, ::chmod(dir.c_str(), 0777));
    EXPECT_EQ(0, create("below/app.log"));
    EXPECT_EQ("", test::read_file(victim));
    EXPECT_EQ(-2, create("", "/"));
    EXPECT_EQ(-2, create(".", ""));
}

// ---- Descriptors -------------------------------------------------------------------------------

TEST_F(LogFiles, EachFileCreatedLeavesOneDescriptorOpenAndNoLineDoes)
{
    const size_t start = test::open_descriptors();
    for (size_t i = 0; i < 8; ++i) {
        ASSERT_EQ(static_cast<int>(i), create("log" + std::to_string(i)));
        EXPECT_EQ(start + i + 1, test::open_descriptors());
    }
    EXPECT_EQ(-1, create("ninth"));
    EXPECT_EQ(start + 9, test::open_descriptors());
    EXPECT_EQ(-2, create("a", "/var/tmp/none"));
    EXPECT_EQ(start + 9, test::open_descriptors());
    put(0, 1, 129);
    putlog(9, "a", "b");
    logList[1].dir[0] = 'x';
    putlog(1, "a", "b");
    EXPECT_EQ(start + 9, test::open_descriptors());
    for (const int fd : descriptors_since(before))
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD)) << fd;
}

TEST_F(LogFiles, FilesAreOpenedCloseOnExec)
{
    const test::watch watch;
    ASSERT_EQ(0, create("app.log"));
    put(0, 1, 2);
    const auto opened = watch.calls("open");
    ASSERT_EQ(3U, opened.size());
    for (const auto &call : opened) {
        EXPECT_EQ(in_dir("app.log"), call.text);
        EXPECT_EQ(O_CLOEXEC, call.flags & O_CLOEXEC);
    }
}

// ---- Lines -------------------------------------------------------------------------------------

TEST_F(LogFiles, ALineIsBothTextsAndTheTime)
{
    ASSERT_EQ(0, create("app.log"));
    const std::string huge(100000, 'h');
    const std::pair<std::string, std::string> texts[] = {
        {"dhcpd", "lease 192.168.1.2"},
        {"", "text"},
        {"text", ""},
        {"", ""},
        {"a|b", "c|d"},
        {"%s%n%lu", "100%"},
        {" ", "\t"},
        {huge, "after"},
        {"before", huge},
        {"\xc4\xff", "\x01"},
    };
    const std::pair<time_t, std::string> times[] = {
        {1, "|1\n"}, {noon, "|1700000000\n"}, {-1, "|" + std::to_string(ULONG_MAX) + "\n"}};
    std::string expected;
    for (const auto &[now, ending] : times) {
        const test::clock_at clock(now);
        for (const auto &[first, second] : texts) {
            putlog(0, first.c_str(), second.c_str());
            expected += first + "|" + second + ending;
            ASSERT_TRUE(expected == test::read_file(in_dir("app.log"))) << first << "|" << second;
        }
    }
    EXPECT_EQ(30, logList[0].lines);
}

TEST_F(LogFiles, LinesAreAddedBehindWhatOthersWrote)
{
    ASSERT_EQ(0, create("app.log"));
    put(0, 1, 1);
    test::write_file(in_dir("app.log"), "unfinished");
    put(0, 2, 2);
    EXPECT_EQ("unfinished" + lines(2, 2), test::read_file(in_dir("app.log")));
    fs::remove(in_dir("app.log"));
    put(0, 3, 4);
    EXPECT_EQ(lines(3, 4), test::read_file(in_dir("app.log")));
    EXPECT_EQ(4, logList[0].lines);
}

TEST_F(LogFiles, EveryLogHasItsOwnFileAndCount)
{
    for (int i = 0; i < 8; ++i) ASSERT_EQ(i, create("log" + std::to_string(i)));
    for (int i = 0; i < 8; ++i) put(i, 10 * i, 11 * i);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(lines(10 * i, 11 * i), test::read_file(in_dir("log" + std::to_string(i))));
        EXPECT_EQ(i + 1, logList[i].lines);
    }
}

TEST_F(LogFiles, OtherIndexesAndSlotsDoNothing)
{
    for (int i = 0; i < 8; ++i) ASSERT_EQ(i, create("log" + std::to_string(i)));
    const table full = whole_table();
    {
        const test::watch watch;
        for (const int index : {-1, -8, 8, 9, 256, 65536, INT_MAX, INT_MIN})
            putlog(index, "a", "b");
        EXPECT_EQ(0U, watch.calls("open").size());
    }
    EXPECT_TRUE(same(full));
    for (const int state : {-1, 0, 2, -2, 257, 0x10000001, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(state);
        logList[5].state = state;
        const table before_line = whole_table();
        putlog(5, "a", "b");
        EXPECT_TRUE(same(before_line));
        EXPECT_EQ("", test::read_file(in_dir("log5")));
    }
    put(7, 1, 1);
    EXPECT_EQ(lines(1, 1), test::read_file(in_dir("log7")));
}

TEST_F(LogFiles, ALineWhoseFileCannotBeOpenedIsLostAndNotCounted)
{
    ASSERT_EQ(0, create("app.log"));
    put(0, 1, 2);
    for (const u16 count : {u16{2}, u16{127}}) {
        logList[0].lines = count;
        const table counted = whole_table();
        {
            const test::watch watch("open", 1, EMFILE);
            putlog(0, "lost", "");
            EXPECT_TRUE(watch.failed());
            EXPECT_EQ(0U, watch.calls("rename").size());
        }
        fs::rename(dir, dir + ".away");
        putlog(0, "lost", "");
        EXPECT_FALSE(test::exists(dir));
        fs::rename(dir + ".away", dir);
        EXPECT_TRUE(same(counted));
    }
    EXPECT_EQ(lines(1, 2), test::read_file(in_dir("app.log")));
    put(0, 3, 3);
    EXPECT_EQ((names{"app.log_1700000003"}), files());
    EXPECT_EQ(lines(1, 3), test::read_file(in_dir("app.log_1700000003")));
}

TEST_F(LogFiles, ALineThatCannotBeWrittenIsCounted)
{
    ASSERT_EQ(0, create("app.log"));
    fs::remove(in_dir("app.log"));
    fs::create_symlink("/dev/full", in_dir("app.log"));
    const std::string huge(100000, 'h');
    putlog(0, "lost", "");
    EXPECT_EQ(1, logList[0].lines);
    putlog(0, huge.c_str(), "");
    EXPECT_EQ(2, logList[0].lines);
}

// ---- Renaming ----------------------------------------------------------------------------------

TEST_F(LogFiles, The128thLineMovesTheFileAside)
{
    ASSERT_EQ(0, create("app.log"));
    for (int n = 1; n < 128; ++n) {
        put(0, n, n);
        ASSERT_EQ(n, logList[0].lines);
        ASSERT_EQ((names{"app.log"}), files());
    }
    EXPECT_EQ(lines(1, 127), test::read_file(in_dir("app.log")));
    {
        const test::watch watch;
        put(0, 128, 128);
        ASSERT_EQ(1U, watch.calls("rename").size());
        EXPECT_EQ(in_dir("app.log") + " " + in_dir("app.log_1700000128"),
                  watch.calls("rename")[0].text);
    }
    EXPECT_EQ(0, logList[0].lines);
    EXPECT_EQ((names{"app.log_1700000128"}), files());
    EXPECT_EQ(lines(1, 128), test::read_file(in_dir("app.log_1700000128")));

    put(0, 129, 129);
    EXPECT_EQ(1, logList[0].lines);
    EXPECT_EQ((names{"app.log", "app.log_1700000128"}), files());
    EXPECT_EQ(lines(129, 129), test::read_file(in_dir("app.log")));

    put(0, 130, 600);
    EXPECT_EQ(600 - 4 * 128, logList[0].lines);
    EXPECT_EQ((names{"app.log", "app.log_1700000128", "app.log_1700000256", "app.log_1700000384",
                     "app.log_1700000512"}),
              files());
    for (int n = 128; n <= 512; n += 128)
        EXPECT_EQ(lines(n - 127, n),
                  test::read_file(in_dir("app.log_1700000" + std::to_string(n))));
    EXPECT_EQ(lines(513, 600), test::read_file(in_dir("app.log")));
}

TEST_F(LogFiles, OfTwoRenamedInOneSecondTheLaterStays)
{
    ASSERT_EQ(0, create("app.log"));
    const test::clock_at clock(noon);
    std::string later;
    for (int n = 1; n <= 257; ++n) {
        putlog(0, "n", std::to_string(n).c_str());
        if (n > 128 && n <= 256) later += line("n", std::to_string(n));
    }
    EXPECT_EQ((names{"app.log", "app.log_1700000000"}), files());
    EXPECT_EQ(later, test::read_file(in_dir("app.log_1700000000")));
    EXPECT_EQ(line("n", "257"), test::read_file(in_dir("app.log")));
    EXPECT_EQ(1, logList[0].lines);
}

TEST_F(LogFiles, OfTwoLogsEachIsRenamedByItsOwnCount)
{
    ASSERT_EQ(0, create("a"));
    ASSERT_EQ(1, create("b"));
    ASSERT_EQ(2, create("a"));  // another count on the first's file
    put(0, 1, 100);
    put(2, 101, 200);
    put(1, 1, 127);
    EXPECT_EQ((names{"a", "b"}), files());
    put(0, 201, 228);
    EXPECT_EQ((names{"a_1700000228", "b"}), files());
    EXPECT_EQ(lines(1, 228), test::read_file(in_dir("a_1700000228")));
    put(2, 229, 256);
    EXPECT_EQ((names{"a_1700000228", "a_1700000256", "b"}), files());
    EXPECT_EQ(lines(229, 256), test::read_file(in_dir("a_1700000256")));
    put(1, 128, 128);
    EXPECT_EQ((names{"a_1700000228", "a_1700000256", "b_1700000128"}), files());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0, logList[i].lines);
}

TEST_F(LogFiles, EachProcessCountsItsOwnLines)
{
    ASSERT_EQ(0, create("app.log"));
    put(0, 1, 100);
    const pid_t child = ::fork();
    if (child == 0) {
        put(0, 101, 127);
        ::_exit(logList[0].lines);
    }
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(127, WEXITSTATUS(status));
    put(0, 128, 154);
    EXPECT_EQ(127, logList[0].lines);
    EXPECT_EQ((names{"app.log"}), files());
    put(0, 155, 155);
    EXPECT_EQ((names{"app.log_1700000155"}), files());
    EXPECT_EQ(lines(1, 155), test::read_file(in_dir("app.log_1700000155")));
}

TEST_F(LogFiles, AFileThatCannotBeRenamedIsCountedAnewAndGoesOn)
{
    ASSERT_EQ(0, create("app.log"));
    put(0, 1, 127);
    {
        const test::watch watch("rename", 1, EACCES);
        put(0, 128, 128);
        EXPECT_TRUE(watch.failed());
        EXPECT_EQ(0, logList[0].lines);
        put(0, 129, 255);
        EXPECT_EQ(1U, watch.calls("rename").size());
    }
    EXPECT_EQ(127, logList[0].lines);
    EXPECT_EQ((names{"app.log"}), files());
    EXPECT_EQ(lines(1, 255), test::read_file(in_dir("app.log")));
    put(0, 256, 256);
    EXPECT_EQ((names{"app.log_1700000256"}), files());
    EXPECT_EQ(lines(1, 256), test::read_file(in_dir("app.log_1700000256")));

    // A real obstacle: a directory of that name
    fs::create_directory(in_dir("app.log_1700000384"));
    put(0, 257, 385);
    EXPECT_EQ(1, logList[0].lines);
    EXPECT_EQ((names{"app.log", "app.log_1700000256", "app.log_1700000384"}), files());
    EXPECT_EQ(lines(257, 385), test::read_file(in_dir("app.log")));
}

TEST_F(LogFiles, OnlyACountOfExactly128Renames)
{
    struct {
        u16 count, after;
    } const cases[] = {{0, 1},     {126, 127},     {127, 0},       {128, 129},     {129, 130},
                       {199, 200}, {255, 256},     {383, 384},     {384, 385},     {511, 512},
                       {639, 640}, {32767, 32768}, {32895, 32896}, {65534, 65535}, {65535, 0}};
    ASSERT_EQ(0, create("app.log"));
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        logList[0].lines = c.count;
        put(0, 1, 1);
        EXPECT_EQ(c.after, logList[0].lines);
        const std::string name = c.count == 127 ? "app.log_1700000001" : "app.log";
        EXPECT_EQ((names{name}), files());
        EXPECT_EQ(lines(1, 1), test::read_file(in_dir(name)));
        fs::remove(in_dir(name));
    }
}

TEST_F(LogFiles, ACountAbove128GoesOnUntilItWraps)
{
    ASSERT_EQ(0, create("app.log"));
    logList[0].lines = 65500;
    put(0, 1, 36 + 127);
    EXPECT_EQ(127, logList[0].lines);
    EXPECT_EQ((names{"app.log"}), files());
    put(0, 164, 164);
    EXPECT_EQ((names{"app.log_1700000164"}), files());
    EXPECT_EQ(lines(1, 164), test::read_file(in_dir("app.log_1700000164")));
    EXPECT_EQ(0, logList[0].lines);
}

TEST_F(LogFiles, TheLongestPathIsRenamedWhole)
{
    const std::string where = long_dir(127);
    const std::string file(63, 'f');
    ASSERT_EQ(0, create(file, where));
    logList[0].lines = 127;
    const test::clock_at clock(-1);
    putlog(0, "a", "b");
    const std::string number = std::to_string(ULONG_MAX);
    EXPECT_EQ((names{file + "_" + number}), files(where));
    EXPECT_EQ("a|b|" + number + "\n", test::read_file(where + "/" + file + "_" + number));
}

// The path that was registered, and the one of the process's own directory.
TEST_F(LogFiles, ALogNearTheLongestPathIsRenamed)
{
    const std::string slashes(PATH_MAX - 1 - dir.size() - std::strlen("/app.log"), '/');
    ASSERT_EQ(0, create("app.log", dir + slashes));
    put(0, 1, 128);
    EXPECT_EQ((names{"app.log_1700000128"}), files());
    EXPECT_EQ(lines(1, 128), test::read_file(in_dir("app.log_1700000128")));

    const fs::path start = fs::current_path();
    fs::current_path(dir);
    const std::string step(200, 's');
    size_t length = dir.size();
    for (; length + 1 + step.size() < PATH_MAX - 1; length += 1 + step.size()) {
        fs::create_directory(step);
        fs::current_path(step);
    }
    const std::string last(PATH_MAX - 1 - length - std::strlen("//app.log"), 'l');
    fs::create_directory(last);
    fs::current_path(last);  // of its log, the whole path is as long as one may be
    ASSERT_EQ(1, create("app.log", "."));
    put(1, 129, 256);
    EXPECT_EQ((names{"app.log_1700000256"}), files("."));
    EXPECT_EQ(lines(129, 256), test::read_file("app.log_1700000256"));
    fs::current_path(start);
}

TEST_F(LogFiles, TheFileIsClosedBeforeItIsRenamed)
{
    ASSERT_EQ(0, create("app.log"));
    logList[0].lines = 126;
    const int events = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(::inotify_add_watch(events, dir.c_str(), IN_OPEN | IN_CLOSE | IN_MOVE), 0);
    put(0, 127, 128);
    alignas(inotify_event) char bytes[4096];
    const ssize_t size = ::read(events, bytes, sizeof bytes);
    ::close(events);
    std::vector<std::pair<u32, std::string>> seen;
    for (ssize_t at = 0; at < size;) {
        const auto *event = reinterpret_cast<const inotify_event *>(bytes + at);
        seen.emplace_back(event->mask, event->name);
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    EXPECT_EQ((std::vector<std::pair<u32, std::string>>{{IN_OPEN, "app.log"},
                                                        {IN_CLOSE_WRITE, "app.log"},
                                                        {IN_OPEN, "app.log"},
                                                        {IN_CLOSE_WRITE, "app.log"},
                                                        {IN_MOVED_FROM, "app.log"},
                                                        {IN_MOVED_TO, "app.log_1700000128"}}),
              seen);
}

// Reads a pipe that a line is being written to, and sets the clock on before the line can end.
std::string read_late(int pipe, size_t size, time_t now)
{
    std::string text;
    while (text.size() < size) {
        struct pollfd readable {};
        readable.fd = pipe;
        readable.events = POLLIN;
        if (::poll(&readable, 1, 10000) != 1) break;
        test::clock_at::set(now);
        char bytes[4096];
        const ssize_t got = ::read(pipe, bytes, sizeof bytes);
        if (got > 0) text.append(bytes, static_cast<size_t>(got));
        if (got == 0) break;
    }
    return text;
}

TEST_F(LogFiles, TheNewNameHasTheTimeOfTheRenaming)
{
    ASSERT_EQ(0, create("app.log"));
    fs::remove(in_dir("app.log"));
    ASSERT_EQ(0, ::mkfifo(in_dir("app.log").c_str(), 0600));
    const int pipe = ::open(in_dir("app.log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    logList[0].lines = 127;
    const std::string huge(1 << 20, 'h');  // more than a pipe holds
    const std::string expected = line(huge, "late", noon);
    const test::clock_at clock(noon);
    std::string text;
    std::thread reader([&] { text = read_late(pipe, expected.size(), noon + 5); });
    putlog(0, huge.c_str(), "late");
    reader.join();
    ::close(pipe);
    EXPECT_TRUE(expected == text) << text.size();
    EXPECT_EQ((names{"app.log_1700000005"}), files());
}

// Only an owner who fills a slot by hand can bring this about.
TEST_F(LogFiles, FieldsWithoutANulEndWhereTheyEnd)
{
    const test::clock_at clock(noon);
    std::string place = "/var/tmp";
    while (place.size() < sizeof logList[0].dir) place += "/.";
    const std::string file(sizeof logList[0].file, 'f');
    test::put(logList[0].dir, place);
    test::put(logList[0].file, file);
    logList[0].lines = 0x6161;
    logList[0].state = 1;
    putlog(0, "first", "second");
    EXPECT_EQ(line("first", "second", noon), test::read_file("/var/tmp/" + file));
}

}  // namespace
