// System V semaphores and shared memory. No state; safe on any thread and in any process.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "mordel.h"

#define TRACE_SOURCE tarnic_ipc
#include "trace.h"

namespace {

constexpr int create = IPC_CREAT | 0666;  // or open what is there

// The argument of semctl, which its callers define. Not an int: some hosts pass the two
// differently.
union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

// One step of semaphore 0, which the kernel takes back when the process ends.
bool step(int semid, short by)
{
    struct sembuf op = {0, by, SEM_UNDO};
    return ::semop(semid, &op, 1) == 0;
}

}  // namespace

int sem_create(int key, int *semid)
{
    *semid = ::semget(key, 1, create);
    if (*semid == -1) {
        TRACE_FILE("key=%d semget fail\n", key);
        return 1;
    }
    // An old lock too is set free, whoever holds it: daemons that restart must not wait for it.
    union semun unlocked;
    unlocked.val = 1;
    if (::semctl(*semid, 0, SETVAL, unlocked) == -1) {
        TRACE_FILE("semid=%d semctl fail\n", *semid);
        return 1;
    }
    return 0;
}

int sem_delete(int semid)
{
    (void)::semctl(semid, 0, IPC_RMID);  // gone already is as good
    return 0;
}

int downdown(int semid, const char *file, int line, const char *func)
{
    if (step(semid, -1)) return 0;
    TRACE_FILE("%s:%d:::%s:::semid=%d down fail\n", file, line, func, semid);
    return 1;
}

int upup(int semid, const char *file, int line, const char *func)
{
    if (step(semid, 1)) return 0;
    TRACE_FILE("%s:%d:::%s:::semid=%d up fail\n", file, line, func, semid);
    return 1;
}

int shm_create(int key, u32 size, int *shmid)
{
    *shmid = ::shmget(key, size, create);
    if (*shmid != -1) return 0;
    TRACE_FILE("key=%d shmget fail\n", key);
    return 1;
}
