/*
 * embed.c - a program with an embedded container daemon: it serves requests on a separate thread,
 * runs one container from a bundle and waits for it. It replaces zncd, which must not be running.
 * Run it as root:
 *
 *     cc -o embed embed.c $(pkg-config --cflags --libs zncontainer) -pthread
 *     ./embed BUNDLE
 *
 * While it runs, other processes can use the daemon, for example with zncctl.
 */
#include <errno.h>
#include <mqueue.h>
#include <pthread.h>
#include <stdio.h>
#include <time.h>
#include <zncprotocol.h>

static void* serve(void* unused)
{
    (void)unused;
    zncDaemonTask();
    return NULL;
}

static int failed(const char* what)
{
    fprintf(stderr, "embed: %s failed: ", what);
    fflush(stderr);
    zncUtilShowErr(errno);
    return 1;
}

/* The daemon thread needs a moment to create its queue. */
static int wait_for_daemon(void)
{
    const struct timespec moment = {0, 10000000};
    for (int i = 0; i < 500; i++) {
        if (zncDaemonIsAlive())
            return 0;
        nanosleep(&moment, NULL);
    }
    return failed("starting the daemon");
}

static int run_container(const char* bundle)
{
    if (zncCreate("embedded", bundle, 0, NULL) != OK)
        return failed("create");
    /* The program inherits our standard streams. This waits for it and returns its process id. */
    int result = zncStart("embedded", 0) == ERROR ? failed("start") : 0;
    if (zncDelete("embedded", ZNC_OPT_WHOLE_NAMESPACE) != OK)
        result = failed("delete");
    return result;
}

int main(int argc, char** argv)
{
    pthread_t task;
    if (argc != 2) {
        fprintf(stderr, "usage: embed BUNDLE\n");
        return 64;
    }
    if (zncDaemonIsAlive()) {
        fprintf(stderr, "embed: a daemon is running already\n");
        return 1;
    }
    mq_unlink(ZNC_MSG_Q_NAME); /* a daemon that died leaves its queue behind */
    if (pthread_create(&task, NULL, serve, NULL) != 0)
        return failed("creating a thread");
    const int result = wait_for_daemon() != 0 ? 1 : run_container(argv[1]);

    /* The daemon thread and its remaining containers end with the process, but the queue does not.
     */
    mq_unlink(ZNC_MSG_Q_NAME);
    return result;
}
