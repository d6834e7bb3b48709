/* SPDX-License-Identifier: MIT */
/* Prints the bandwidth of interfaces, a line each per period.
 *
 *     bandwidth SECONDS COUNT NAME...
 *
 * SECONDS: the period, 1 to 255. COUNT: how many periods; 0: until SIGINT or SIGTERM.
 */
#define _POSIX_C_SOURCE 200809L

#include <mordel.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <time.h>

static bm_list registry; /* lives as long as its thread */

static int fail(const char *what)
{
    fprintf(stderr, "bandwidth: %s\n", what);
    return 1;
}

static void print_rates(const char *name)
{
    bm_sample rates;

    /* Rates are bytes per second; links are told in bits. */
    if (query_bm_by_iface(name, &registry, &rates) == 1)
        printf("%-15s rx %10.1f kbit/s  tx %10.1f kbit/s\n", name, (double)rates.rx_rate / 125,
               (double)rates.tx_rate / 125);
    else
        printf("%-15s no such interface\n", name);
}

/* The thread ends at its next period, when it has emptied the list. */
static void stop_and_wait(void)
{
    int empty = 0;

    __atomic_store_n(&registry.stop, 1, __ATOMIC_RELEASE);
    while (!empty) {
        const struct timespec pause = {0, 50000000}; /* 50 ms */
        nanosleep(&pause, NULL);
        downdown(registry.semid, __FILE__, __LINE__, __func__);
        empty = list_empty(&registry.list) != 0;
        upup(registry.semid, __FILE__, __LINE__, __func__);
    }
}

/* count periods, or without end for 0; a signal ends it sooner. */
static int print_periods(long count, long seconds, char *const *names, const sigset_t *signals)
{
    const struct timespec second = {1, 0};
    const struct timespec period = {seconds, 0};
    char *const *name;

    for (name = names; *name != NULL; ++name)
        if (add_bm_by_iface(*name, &registry) != 1) return fail("no memory");
    if (bm_start(&registry) != 0) return fail("no thread");
    /* The first sample is taken at once, and only primes the counters. */
    if (sigtimedwait(signals, NULL, &second) < 0) {
        while (sigtimedwait(signals, NULL, &period) < 0) {
            for (name = names; *name != NULL; ++name) print_rates(*name);
            if (count != 0 && --count == 0) break;
        }
    }
    stop_and_wait();
    return 0;
}

int main(int argc, char **argv)
{
    const long seconds = argc > 3 ? strtol(argv[1], NULL, 10) : 0;
    const long count = argc > 3 ? strtol(argv[2], NULL, 10) : 0;
    sigset_t signals;
    int status;

    if (seconds < 1 || seconds > 255 || count < 0) {
        fprintf(stderr, "usage: bandwidth SECONDS COUNT NAME...\n");
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    /* Private: no other process shares this registry. No history: only the last rates are shown. */
    if (init_bm(&registry, IPC_PRIVATE, (u8)seconds, 0) != 1) return fail("no semaphore");
    status = print_periods(count, seconds, argv + 3, &signals);
    sem_delete(registry.semid); /* else it outlives the process */
    return status;
}
