/* SPDX-License-Identifier: MIT */
/* Sends back whatever its clients send, until SIGINT or SIGTERM.
 *
 *     echo_service ADDRESS PORT
 *
 * One listening socket, and one dispatcher thread for it and all its clients. The dispatcher only
 * says what happened; the handlers do all reading and closing. It serves as many clients at a time
 * as it has descriptors for; those who come later wait until one has left.
 */
#define _POSIX_C_SOURCE 200809L

#include <mordel.h>

#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>

enum {
    BACKLOG = 128,
    OTHERS = 8 /* descriptors that are no client's: the standard ones, the listener, a trace's */
};

/* What main and the dispatcher tell each other */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int asked_to_end; /* main has had its signal */
static int has_ended;    /* the dispatcher calls no more handlers */

/* The dispatcher's own, once it runs */
static int listener;
static long clients;
static long capacity; /* clients at a time, at least 1 */

/* ---- Handlers: all on the dispatcher's thread, one at a time ---------------------------- */

static int on_accept(pthread_t self, int new_fd, ipport *peer)
{
    const u8 *ip = (const u8 *)&peer->ip; /* network byte order: the first octet first */
    const u8 *port = (const u8 *)&peer->port;

    (void)self;
    printf("%d: from %u.%u.%u.%u:%u\n", new_fd, ip[0], ip[1], ip[2], ip[3],
           port[0] * 256U + port[1]);
    ++clients;
    return 0;
}

/* A plain recv takes what there is; socket_recv would wait for an exact count. A client that does
 * not read what it is sent holds up the others: a real service would keep a queue for each. */
static int on_readable(pthread_t self, int fd)
{
    char bytes[4096];
    const ssize_t got = recv(fd, bytes, sizeof bytes, 0);
    u32 len = got > 0 ? (u32)got : 0;

    (void)self;
    /* Not closed here, since it is still watched: without its other half on_close comes next. */
    if (socket_send(fd, SOCKET_OPT_SEND_NOSIGNAL, bytes, &len, NULL) != 0) shutdown(fd, SHUT_RDWR);
    return 0;
}

static int on_close(pthread_t self, int fd)
{
    (void)self;
    printf("%d: closed\n", fd);
    --clients;
    return socket_close(fd);
}

static int on_pass(pthread_t self, fd_set *watch, int *exit_flag)
{
    (void)self;
    /* While the listener is not watched, newcomers wait in its backlog. watch is null when the pass
     * timed out, and then no client has come or left. */
    if (watch != NULL) {
        if (clients < capacity)
            FD_SET(listener, watch);
        else
            FD_CLR(listener, watch);
    }
    pthread_mutex_lock(&lock);
    if (asked_to_end) *exit_flag = 1;
    pthread_mutex_unlock(&lock);
    return 0;
}

/* Nothing to do, but the passes that time out let on_pass look again. */
static int on_timeout(pthread_t self, fd_set *watch)
{
    (void)self, (void)watch;
    return 0;
}

static int on_error(pthread_t self, int code)
{
    (void)self;
    fprintf(stderr, "echo_service: dispatcher error %d\n", code);
    return 0;
}

static int on_exit_dispatcher(pthread_t self, int reason)
{
    (void)self, (void)reason;
    pthread_mutex_lock(&lock);
    has_ended = 1;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
    return 0;
}

/* ----------------------------------------------------------------------------------------- */

/* How many clients there are descriptors for: of those that this process may have, and of those
 * that select can watch. */
static long room_for_clients(void)
{
    struct rlimit limit;
    long most = FD_SETSIZE;

    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < FD_SETSIZE)
        most = (long)limit.rlim_cur;
    return most > OTHERS ? most - OTHERS : 1;
}

static int fail(const char *what)
{
    fprintf(stderr, "echo_service: %s (/var/tmp/tarnic.log says more)\n", what);
    return 1;
}

int main(int argc, char **argv)
{
    const socket_select_handlers handlers = {on_accept,  on_readable, on_close,          on_pass,
                                             on_timeout, on_error,    on_exit_dispatcher};
    const long port = argc == 3 ? strtol(argv[2], NULL, 10) : 0;
    ipport here;
    pthread_t dispatcher;
    sigset_t signals;
    int signal_number;

    if (port < 1 || port > 65535) {
        fprintf(stderr, "usage: echo_service ADDRESS PORT\n");
        return 2;
    }
    if (ipport_string_convert_h2n(argv[1], (u16)port, &here) != 0) return fail("no address");

    /* Blocked in every thread: only main's sigwait takes them. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    setvbuf(stdout, NULL, _IOLBF, 0);
    if (socket_listen(&here, SOCKET_OPT_TCP, BACKLOG, &listener) != 0) return fail("cannot listen");
    capacity = room_for_clients();
    if (socket_select(listener, 0, 0, 200000, &handlers, &dispatcher) != 0)
        return fail("cannot start the dispatcher");
    printf("listening on %s:%ld\n", argv[1], port);

    sigwait(&signals, &signal_number);
    pthread_mutex_lock(&lock);
    asked_to_end = 1;
    while (!has_ended) pthread_cond_wait(&changed, &lock);
    pthread_mutex_unlock(&lock);
    socket_close(listener);
    printf("ended\n");
    return 0;
}
