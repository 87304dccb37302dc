/*
 * embed.c - a program that is its own container daemon: it serves the requests on a task of its
 * own, runs one container from a bundle and waits for it. No zncd is needed, and none may run. As
 * root:
 *
 *     cc -o embed embed.c $(pkg-config --cflags --libs zncontainer) -pthread
 *     ./embed BUNDLE
 *
 * Other processes can meanwhile use the daemon, with zncctl for example.
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

/* The queue is there a moment after the task was started. */
static int wait_for_daemon(void)
{
    const struct timespec moment = {0, 10000000};
    for (int i = 0; i < 500; i++) {
        if (zncDaemonIsAlive())
            return 0;
        nanosleep(&moment, NULL);
    }
    return failed("starting the daemon task");
}

static int run_container(const char* bundle)
{
    if (zncCreate("embedded", bundle, 0, NULL) != OK)
        return failed("create");
    /* The program has our streams. This waits for its end and gives its process id. */
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
    mq_unlink(ZNC_MSG_Q_NAME); /* one that died has left its queue */
    if (pthread_create(&task, NULL, serve, NULL) != 0)
        return failed("making a task");
    const int result = wait_for_daemon() != 0 ? 1 : run_container(argv[1]);

    /* The daemon task, and whatever it still has, ends with the process. Its queue does not. */
    mq_unlink(ZNC_MSG_Q_NAME);
    return result;
}
