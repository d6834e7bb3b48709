// SPDX-License-Identifier: MIT
// Semaphores and shared memory: real System V objects, between processes.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <memory>

#include "faults.h"
#include "support.h"

namespace {

using test::traced;
using test::traces;

constexpr int key = 0x6d6f7264;
constexpr int no_id = INT_MAX;  // beyond what the kernel gives out
constexpr int create_flags = 0666 | IPC_CREAT;
static_assert(create_flags == 950);

union semun {
    int val;
    struct semid_ds *buf;
};

// A forked process that runs a body and exits with its result. It dies with its owner.
class child {
public:
    explicit child(const std::function<int()> &body) : pid_(::fork())
    {
        if (pid_ == 0) {
            ::alarm(300);
            ::_exit(body());
        }
        EXPECT_LT(0, pid_);
    }
    ~child()
    {
        if (pid_ > 0) signal(SIGKILL), wait();
    }
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    void signal(int number) const { EXPECT_EQ(0, ::kill(pid_, number)); }
    // Its exit status, or the negative number of the signal that ended it
    int wait()
    {
        int status = 0;
        EXPECT_EQ(pid_, ::waitpid(pid_, &status, 0));
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_;
};

int hold_on()
{
    for (;;) ::pause();
}

int down(int semid) { return downdown(semid, "file.c", 12, "caller"); }
int up(int semid) { return upup(semid, "file.c", 12, "caller"); }

int value_of(int semid) { return ::semctl(semid, 0, GETVAL, semun{0}); }
int waiters_of(int semid) { return ::semctl(semid, 0, GETNCNT, semun{0}); }

traced ipc(const std::string &function, const std::string &message)
{
    return {"tarnic_ipc", function, message};
}

// ---- Semaphores --------------------------------------------------------------------------------

class Semaphore : public test::silent_test {
protected:
    void SetUp() override
    {
        test::silent_test::SetUp();
        ASSERT_EQ(0, sem_create(key, &semid_));
    }
    void TearDown() override
    {
        EXPECT_EQ(0, sem_delete(semid_));
        test::silent_test::TearDown();
    }
    bool becomes(int value) const
    {
        return test::eventually([&] { return value_of(semid_) == value; });
    }
    bool waiters(int count) const
    {
        return test::eventually([&] { return waiters_of(semid_) == count; });
    }

    int semid_ = -1;
};

TEST_F(Semaphore, IsASetOfOneThatIsFreeAndOpenToAll)
{
    struct semid_ds status {};
    semun argument{};
    argument.buf = &status;
    ASSERT_EQ(0, ::semctl(semid_, 0, IPC_STAT, argument));
    EXPECT_EQ(1U, status.sem_nsems);
    EXPECT_EQ(0666U, status.sem_perm.mode & 0777U);
    EXPECT_EQ(1, value_of(semid_));
    EXPECT_EQ(semid_, ::semget(key, 1, 0));
}

TEST_F(Semaphore, IsOpenToAllWhateverTheUmask)
{
    EXPECT_EQ(0, sem_delete(semid_));
    const mode_t old = ::umask(0777);
    EXPECT_EQ(0, sem_create(key, &semid_));
    ::umask(old);
    struct semid_ds status {};
    semun argument{};
    argument.buf = &status;
    ASSERT_EQ(0, ::semctl(semid_, 0, IPC_STAT, argument));
    EXPECT_EQ(0666U, status.sem_perm.mode & 0777U);
}

TEST_F(Semaphore, CreatingIsOneOpenAndOneSetting)
{
    const test::watch watch;
    int again = -1;
    EXPECT_EQ(0, sem_create(key, &again));
    ASSERT_EQ(1U, watch.calls("semget").size());
    EXPECT_EQ(create_flags, watch.calls("semget")[0].flags);
    ASSERT_EQ(1U, watch.calls("semctl").size());
    EXPECT_EQ(SETVAL, watch.calls("semctl")[0].flags);
    EXPECT_EQ(semid_, again);
}

TEST_F(Semaphore, CreatingAgainKeepsTheIdAndSetsItFree)
{
    for (const int value : {0, 1, 2, 32767}) {
        SCOPED_TRACE(value);
        ASSERT_EQ(0, ::semctl(semid_, 0, SETVAL, semun{value}));
        int again = -1;
        EXPECT_EQ(0, sem_create(key, &again));
        EXPECT_EQ(semid_, again);
        EXPECT_EQ(1, value_of(semid_));
    }
}

TEST_F(Semaphore, KeysAreSignedAndToldApart)
{
    for (const int other : {INT_MIN, -1, 1, INT_MAX}) {
        SCOPED_TRACE(other);
        int id = -1;
        EXPECT_EQ(0, sem_create(other, &id));
        EXPECT_NE(semid_, id);
        EXPECT_EQ(id, ::semget(other, 1, 0));
        EXPECT_EQ(0, sem_delete(id));
    }
}

TEST_F(Semaphore, PrivateKeyMakesANewOneEachTime)
{
    int first = -1;
    int second = -1;
    EXPECT_EQ(0, sem_create(IPC_PRIVATE, &first));
    EXPECT_EQ(0, sem_create(IPC_PRIVATE, &second));
    EXPECT_NE(first, second);
    EXPECT_EQ(0, sem_delete(first));
    EXPECT_EQ(0, sem_delete(second));
}

TEST_F(Semaphore, FailedOpenLeavesMinusOne)
{
    for (const int some : {-5, key}) {
        SCOPED_TRACE(some);
        int id = 77;
        {
            const test::watch watch("semget", 1, ENOSPC);
            EXPECT_EQ(1, sem_create(some, &id));
            EXPECT_EQ(0U, watch.calls("semctl").size());
            EXPECT_EQ(1U, watch.calls("semget").size());
        }
        EXPECT_EQ(-1, id);
        EXPECT_EQ((traces{ipc("sem_create", "key=" + std::to_string(some) + " semget fail")}),
                  test::trace_log());
    }
    EXPECT_EQ(1, value_of(semid_));
}

TEST_F(Semaphore, FailedSettingLeavesTheId)
{
    ASSERT_EQ(0, down(semid_));
    int id = 77;
    {
        const test::watch watch("semctl", 1, EACCES);
        EXPECT_EQ(1, sem_create(key, &id));
        EXPECT_EQ(1U, watch.calls("semctl").size());
    }
    EXPECT_EQ(semid_, id);
    EXPECT_EQ(0, value_of(semid_));
    EXPECT_EQ((traces{ipc("sem_create", "semid=" + std::to_string(semid_) + " semctl fail")}),
              test::trace_log());
}

TEST_F(Semaphore, DeletingRemovesItAndAlwaysSucceeds)
{
    {
        const test::watch watch;
        EXPECT_EQ(0, sem_delete(semid_));
        ASSERT_EQ(1U, watch.calls("semctl").size());
        EXPECT_EQ(IPC_RMID, watch.calls("semctl")[0].flags);
    }
    errno = 0;
    EXPECT_EQ(-1, ::semget(key, 1, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0, sem_delete(semid_));
    EXPECT_EQ(0, sem_delete(-1));
    EXPECT_EQ(0, sem_delete(no_id));
    const test::watch watch("semctl", 1, EPERM);
    EXPECT_EQ(0, sem_delete(semid_));
}

TEST_F(Semaphore, IsTakenAndGivenBackByOneOperationEach)
{
    const test::watch watch;
    EXPECT_EQ(0, down(semid_));
    EXPECT_EQ(0, value_of(semid_));
    EXPECT_EQ(0, up(semid_));
    EXPECT_EQ(1, value_of(semid_));
    const auto calls = watch.calls("semop");
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(-1, calls[0].flags);
    EXPECT_EQ(1, calls[1].flags);
}

TEST_F(Semaphore, GivenBackWhenFreeAdmitsTwo)
{
    EXPECT_EQ(0, up(semid_));
    EXPECT_EQ(2, value_of(semid_));
    EXPECT_EQ(0, down(semid_));
    EXPECT_EQ(1, value_of(semid_));
    EXPECT_EQ(0, down(semid_));
    EXPECT_EQ(0, value_of(semid_));
}

TEST_F(Semaphore, MakesAnotherProcessWait)
{
    ASSERT_EQ(0, down(semid_));
    child other([&] { return down(semid_); });
    EXPECT_TRUE(waiters(1));
    EXPECT_EQ(0, value_of(semid_));
    EXPECT_EQ(0, up(semid_));
    EXPECT_EQ(0, other.wait());
}

TEST_F(Semaphore, KilledHolderGivesItBack)
{
    child holder([&] { return down(semid_) != 0 ? 1 : hold_on(); });
    ASSERT_TRUE(becomes(0));
    child heir([&] { return down(semid_); });
    EXPECT_TRUE(waiters(1));
    holder.signal(SIGKILL);
    EXPECT_EQ(-SIGKILL, holder.wait());
    EXPECT_EQ(0, heir.wait());
    EXPECT_TRUE(becomes(1));  // the heir ended as a holder, too
}

TEST_F(Semaphore, EndOfAProcessUndoesBothWays)
{
    ASSERT_EQ(0, ::semctl(semid_, 0, SETVAL, semun{5}));
    EXPECT_EQ(0, child([&] { return down(semid_) + down(semid_); }).wait());
    EXPECT_EQ(5, value_of(semid_));
    EXPECT_EQ(0, child([&] { return up(semid_); }).wait());
    EXPECT_EQ(5, value_of(semid_));
    EXPECT_EQ(0, child([&] { return down(semid_) + up(semid_); }).wait());
    EXPECT_EQ(5, value_of(semid_));
}

TEST_F(Semaphore, CreatingAgainFreesWhatAnotherProcessHolds)
{
    child holder([&] { return down(semid_) != 0 ? 1 : hold_on(); });
    ASSERT_TRUE(becomes(0));
    int again = -1;
    EXPECT_EQ(0, sem_create(key, &again));
    EXPECT_EQ(semid_, again);
    EXPECT_EQ(1, value_of(semid_));
    EXPECT_EQ(0, down(semid_));
    holder.signal(SIGKILL);
    EXPECT_EQ(-SIGKILL, holder.wait());
    EXPECT_EQ(0, value_of(semid_));  // setting it has settled the dead holder's account
}

TEST_F(Semaphore, SignalEndsTheWait)
{
    ASSERT_EQ(0, down(semid_));
    child waiter([&] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        ::sigaction(SIGUSR1, &action, nullptr);
        return downdown(semid_, "waiter.cpp", 345, "wait_here");
    });
    ASSERT_TRUE(waiters(1));
    waiter.signal(SIGUSR1);
    EXPECT_EQ(1, waiter.wait());
    EXPECT_EQ(0, value_of(semid_));
    EXPECT_EQ((traces{ipc("downdown", "waiter.cpp:345:::wait_here:::semid=" +
                                          std::to_string(semid_) + " down fail")}),
              test::trace_log());
}

TEST_F(Semaphore, DeletingEndsTheWait)
{
    ASSERT_EQ(0, down(semid_));
    child waiter([&] { return down(semid_); });
    ASSERT_TRUE(waiters(1));
    EXPECT_EQ(0, sem_delete(semid_));
    EXPECT_EQ(1, waiter.wait());
    EXPECT_EQ((traces{ipc("downdown",
                          "file.c:12:::caller:::semid=" + std::to_string(semid_) + " down fail")}),
              test::trace_log());
}

TEST_F(Semaphore, FailureTracesNameTheCallersPlace)
{
    int deleted = -1;
    ASSERT_EQ(0, sem_create(IPC_PRIVATE, &deleted));
    ASSERT_EQ(0, sem_delete(deleted));
    const struct {
        int semid;
        const char *file;
        int line;
        const char *function;
        std::string place;
    } cases[] = {
        {-1, "a", 1, "f", "a:1:::f:::semid=-1"},
        {no_id, "dir/file.c", INT_MAX, "main", "dir/file.c:2147483647:::main:::semid=2147483647"},
        {deleted, "", -7, "", ":-7::::::semid=" + std::to_string(deleted)}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.place);
        EXPECT_EQ(1, downdown(c.semid, c.file, c.line, c.function));
        EXPECT_EQ((traces{ipc("downdown", c.place + " down fail")}), test::trace_log());
        EXPECT_EQ(1, upup(c.semid, c.file, c.line, c.function));
        EXPECT_EQ((traces{ipc("upup", c.place + " up fail")}), test::trace_log());
    }
}

TEST_F(Semaphore, GivenBackBeyondItsLargestValueFails)
{
    ASSERT_EQ(0, ::semctl(semid_, 0, SETVAL, semun{32767}));
    EXPECT_EQ(1, up(semid_));
    EXPECT_EQ(32767, value_of(semid_));
    EXPECT_EQ(
        (traces{ipc("upup", "file.c:12:::caller:::semid=" + std::to_string(semid_) + " up fail")}),
        test::trace_log());
}

TEST_F(Semaphore, FailingOperationIsNotRepeated)
{
    for (const int error : {EINTR, EAGAIN, ENOSPC}) {
        SCOPED_TRACE(error);
        const test::watch watch("semop", -1, error);
        EXPECT_EQ(1, down(semid_));
        EXPECT_EQ(1, up(semid_));
        EXPECT_EQ(2U, watch.calls("semop").size());
        EXPECT_EQ(2U, test::trace_log().size());
    }
    EXPECT_EQ(1, value_of(semid_));
}

TEST_F(Semaphore, ResultsStandWithoutATraceFile)
{
    const test::watch watch("open", -1, EACCES);
    EXPECT_EQ(1, down(-1));
    EXPECT_EQ(1, up(-1));
    int shmid = 0;
    EXPECT_EQ(1, shm_create(key, 0, &shmid));
    EXPECT_EQ(3U, watch.calls("open").size());
    EXPECT_EQ(0U, watch.calls("write").size());
}

// ---- Shared memory -----------------------------------------------------------------------------

class SharedMemory : public test::silent_test {
protected:
    void SetUp() override
    {
        test::silent_test::SetUp();
        ASSERT_EQ(0, shm_create(key, 5000, &shmid_));
    }
    void TearDown() override
    {
        EXPECT_EQ(0, ::shmctl(shmid_, IPC_RMID, nullptr));
        test::silent_test::TearDown();
    }
    struct shmid_ds status() const
    {
        struct shmid_ds all {};
        EXPECT_EQ(0, ::shmctl(shmid_, IPC_STAT, &all));
        return all;
    }

    int shmid_ = -1;
};

TEST_F(SharedMemory, IsASegmentOpenToAllThatNobodyIsAttachedTo)
{
    EXPECT_EQ(5000U, status().shm_segsz);
    EXPECT_EQ(0666U, status().shm_perm.mode & 0777U);
    EXPECT_EQ(0U, status().shm_nattch);
    EXPECT_EQ(shmid_, ::shmget(key, 0, 0));
}

TEST_F(SharedMemory, CreatingIsOneCall)
{
    const test::watch watch;
    int again = -1;
    EXPECT_EQ(0, shm_create(key, 5000, &again));
    ASSERT_EQ(1U, watch.calls("shmget").size());
    EXPECT_EQ(create_flags, watch.calls("shmget")[0].flags);
}

TEST_F(SharedMemory, CreatingAgainOpensTheSameUpToItsSize)
{
    for (const u32 size : {5000U, 4999U, 1U, 0U}) {
        SCOPED_TRACE(size);
        int again = -1;
        EXPECT_EQ(0, shm_create(key, size, &again));
        EXPECT_EQ(shmid_, again);
    }
    EXPECT_EQ(5000U, status().shm_segsz);
}

TEST_F(SharedMemory, LargerThanTheExistingOneIsRefused)
{
    for (const u32 size : {5001U, 0x80000000U, 0xffffffffU}) {
        SCOPED_TRACE(size);
        int again = 77;
        EXPECT_EQ(1, shm_create(key, size, &again));
        EXPECT_EQ(-1, again);
        EXPECT_EQ((traces{ipc("shm_create", "key=" + std::to_string(key) + " shmget fail")}),
                  test::trace_log());
    }
    EXPECT_EQ(5000U, status().shm_segsz);
}

TEST_F(SharedMemory, NewOneOfNoSizeIsRefused)
{
    int none = 77;
    EXPECT_EQ(1, shm_create(-3, 0, &none));
    EXPECT_EQ(-1, none);
    EXPECT_EQ((traces{ipc("shm_create", "key=-3 shmget fail")}), test::trace_log());
}

TEST_F(SharedMemory, FailureIsTracedAndNotRepeated)
{
    int none = 77;
    {
        const test::watch watch("shmget", 1, ENOSPC);
        EXPECT_EQ(1, shm_create(key, 5000, &none));
        EXPECT_EQ(1U, watch.calls("shmget").size());
    }
    EXPECT_EQ(-1, none);
    EXPECT_EQ((traces{ipc("shm_create", "key=" + std::to_string(key) + " shmget fail")}),
              test::trace_log());
}

// What the two are for: a count that processes raise together, slowly enough to lose steps if the
// lock did not hold.
TEST_F(SharedMemory, IsGuardedByASemaphoreBetweenProcesses)
{
    constexpr int processes = 4;
    constexpr int steps = 100;
    int semid = -1;
    ASSERT_EQ(0, sem_create(key, &semid));
    auto *const count = static_cast<volatile int *>(::shmat(shmid_, nullptr, 0));
    ASSERT_NE(reinterpret_cast<void *>(-1), const_cast<int *>(count));
    EXPECT_EQ(0, *count);
    std::vector<std::unique_ptr<child>> children;
    for (int i = 0; i < processes; ++i)
        children.push_back(std::make_unique<child>([&] {
            int failures = 0;
            for (int step = 0; step < steps; ++step) {
                failures += down(semid);
                const int before = *count;
                const timespec moment = {0, 20000};
                ::nanosleep(&moment, nullptr);
                *count = before + 1;
                failures += up(semid);
            }
            return failures;
        }));
    for (const auto &c : children) EXPECT_EQ(0, c->wait());
    EXPECT_EQ(processes * steps, *count);
    EXPECT_EQ(1, value_of(semid));
    EXPECT_EQ(0, ::shmdt(const_cast<int *>(count)));
    EXPECT_EQ(0, sem_delete(semid));
}

}  // namespace
