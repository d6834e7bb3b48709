// SPDX-License-Identifier: MIT
// System V semaphores and shared memory. This file owns nothing: the kernel keeps the objects and
// serialises what threads and processes do to them.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "mordel.h"

#define TRACE_SOURCE tarnic_ipc
#include "trace.h"

namespace {

constexpr int create = IPC_CREAT | 0666;  // opens the object where it exists

// The fourth argument of semctl. No header defines the type; the caller must. An int in its place
// would be passed differently on some hosts.
union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

// Adds to semaphore 0. SEM_UNDO makes the kernel subtract it again when the process ends, so that a
// process that dies as a holder leaves the lock free.
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
    // Sets an existing lock free too, whoever holds it: a daemon that starts again must not wait
    // for a lock that was left taken before.
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
    (void)::semctl(semid, 0, IPC_RMID);  // callers cannot do better about a failure
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
