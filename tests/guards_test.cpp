// SPDX-License-Identifier: MIT
// The owners of src/guards.h: what they close, and that closing shows nowhere else.
#include "guards.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "faults.h"

namespace {

using mordel::fd_guard;

int null_device() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

// The descriptors that closing reached, while a guard lived and ended.
std::vector<int> closed_by_guard(int fd)
{
    const test::watch watch("close", -1, EBADF);  // none is closed for good
    {
        const fd_guard guard(fd);
    }
    std::vector<int> all;
    for (const test::call &call : watch.calls("close")) all.push_back(call.fd);
    return all;
}

// A daemon may have closed its standard input: then 0 is a descriptor like any other.
TEST(FdGuard, OwnsDescriptor0)
{
    EXPECT_EQ(std::vector<int>{0}, closed_by_guard(0));
    EXPECT_EQ(std::vector<int>{7}, closed_by_guard(7));
    const test::watch watch("close", -1, EBADF);
    const fd_guard guard(0);
    EXPECT_TRUE(guard);
    EXPECT_EQ(0, guard.get());
}

TEST(FdGuard, ClosesNothingWhereThereIsNone)
{
    EXPECT_EQ(std::vector<int>{}, closed_by_guard(-1));
    const fd_guard none(-1);
    EXPECT_FALSE(none);
}

TEST(FdGuard, ClosesOnceAndForAll)
{
    const int fd = null_device();
    ASSERT_LE(0, fd);
    {
        const fd_guard guard(fd);
        EXPECT_NE(-1, ::fcntl(fd, F_GETFD));
    }
    EXPECT_EQ(-1, ::fcntl(fd, F_GETFD));
}

TEST(FdGuard, ReleasesItsDescriptorOpen)
{
    for (const int fd : {0, null_device()}) {
        const test::watch watch;
        {
            fd_guard guard(fd);
            EXPECT_EQ(fd, guard.release());
            EXPECT_FALSE(guard);
            EXPECT_EQ(-1, guard.get());
        }
        EXPECT_EQ(0U, watch.calls("close").size());
        if (fd != 0) ::close(fd);
    }
}

// What failed before the early return is what the caller finds in errno.
TEST(FdGuard, ErrnoOutlivesAFailingClose)
{
    const test::watch watch("close", 1, EIO);
    {
        const fd_guard guard(0);
        errno = EXDEV;
    }
    EXPECT_EQ(EXDEV, errno);
    EXPECT_TRUE(watch.failed());
}

}  // namespace
