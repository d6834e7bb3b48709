// SPDX-License-Identifier: MIT
// The lock file, in a folder of the test's own.
#include "lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

namespace {

using std::string;
using tool::file_lock;
namespace fs = std::filesystem;

class Lock : public testing::Test {
protected:
    void SetUp() override
    {
        string path = testing::TempDir() + "mordel-lock-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(path.data()));
        root_ = path;
        file_ = root_ + "/lock";
        (void)::alarm(60);  // ends the program where a pipe or a lock is waited for
    }
    ~Lock() override
    {
        (void)::alarm(0);
        fs::remove_all(root_);
    }

    string error_of() const { return file_lock(file_, 0).error(); }

    string root_;
    string file_;
};

TEST_F(Lock, IsHeldUntilItsEnd)
{
    std::optional<file_lock> lock(std::in_place, file_, 0);
    EXPECT_EQ("", lock->error());
    EXPECT_EQ("another mordel is at work and holds " + file_ + "; waited 0 s", error_of());
    lock.reset();
    EXPECT_EQ("", error_of());
}

// A killed mordel leaves its tc running: the next mordel waits for that tc, by the lock that tc has
// inherited.
TEST_F(Lock, IsKeptByAProgramThatWasStartedUnderIt)
{
    int pipe[2];
    ASSERT_EQ(0, ::pipe2(pipe, O_CLOEXEC));
    std::optional<file_lock> lock(std::in_place, file_, 0);
    ASSERT_EQ("", lock->error());
    const pid_t child = ::fork();
    ASSERT_LE(0, child);
    if (child == 0) {
        (void)::dup2(pipe[0], STDIN_FILENO);
        (void)::execlp("cat", "cat", nullptr);  // ends when the pipe is closed
        ::_exit(127);
    }
    ASSERT_EQ(0, ::close(pipe[0]));
    lock.reset();
    // Asked while cat may not have been started yet: the answer must be the same before and after.
    for (int i = 0; i < 20; ++i) {
        EXPECT_NE("", error_of());
        (void)::usleep(10000);
    }
    ASSERT_EQ(0, ::close(pipe[1]));
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ("", error_of());
}

TEST_F(Lock, IsAPlainFileOfOurs)
{
    const string elsewhere = root_ + "/elsewhere";
    std::ofstream(elsewhere) << "untouched";
    const string not_ours = file_ + " is no plain file of ours";
    ASSERT_EQ(0, ::symlink(elsewhere.c_str(), file_.c_str()));
    EXPECT_EQ(not_ours, error_of()) << "a link";
    fs::remove(file_);
    ASSERT_EQ(0, ::link(elsewhere.c_str(), file_.c_str()));
    EXPECT_EQ(not_ours, error_of()) << "a second name of another file";
    fs::remove(file_);
    ASSERT_EQ(0, ::mkfifo(file_.c_str(), 0600));
    EXPECT_EQ(not_ours, error_of()) << "a pipe";
    fs::remove(file_);
    fs::create_directory(file_);
    EXPECT_EQ(not_ours, error_of()) << "a folder";
    fs::remove(file_);
    std::ofstream(file_) << "";
    ASSERT_EQ(0, ::chmod(file_.c_str(), 0666));
    EXPECT_EQ(file_ + " may be written to by others", error_of());
    EXPECT_EQ("cannot open " + root_ + "/none/lock: No such file or directory",
              file_lock(root_ + "/none/lock", 0).error());
}

}  // namespace
