/*
 * tutorial.c - runs the program of an image in a container and exits with its exit status.
 * docs/tutorial.md explains it step by step. Usage, as root, with zncd running:
 *
 *     cc -o tutorial tutorial.c $(pkg-config --cflags --libs zncontainer)
 *     ./tutorial LAYOUT BUNDLE ID
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zncontainer.h>

/* Prints which step failed, and the reason. */
static int failed(const char* step)
{
    const int number = errno; /* before anything else can change it */
    fprintf(stderr, "tutorial: %s failed\n", step);
    zncUtilShowErr(number);
    return -1;
}

/* Unpacks the image into a bundle unless that exists; many containers can use one bundle. */
static int unpack(const char* layout, const char* bundle)
{
    const ZNC_BUNDLE_ATTR platform = {"linux", "amd64"};
    if (access(bundle, F_OK) == 0)
        return 0;
    if (zncUnpack(bundle, layout, "latest", 0, &platform) != OK)
        return failed("unpack");
    return 0;
}

static int create(const char* id, const char* bundle)
{
    if (zncCreate(id, bundle, 0, NULL) != OK)
        return failed("create");
    return 0;
}

/* The program is our child and has our standard streams. Returns its process id, or -1. */
static pid_t start(const char* id)
{
    pid_t program = 0;
    if (zncStartPid(id, 0, &program) == OK)
        return program;
    failed("start");
    if (program > 0)
        waitpid(program, NULL, 0); /* it was started and has been sent TERM */
    return -1;
}

static void show(const char* id)
{
    char* const state = zncState(id);
    if (state == NULL)
        failed("state");
    else
        fprintf(stderr, "%s\n", state);
    free(state);
}

/* The exit status, or 128 plus the number of the signal that ended the program, as in shells. */
static int wait_for(pid_t program)
{
    int status = 0;
    while (waitpid(program, &status, 0) < 0) {
        if (errno != EINTR) {
            failed("wait");
            return 1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static int run(const char* id)
{
    const pid_t program = start(id);
    if (program <= 0)
        return 1;
    show(id);
    const int result = wait_for(program);
    fprintf(stderr, "%s is %s\n", id, zncUtilStateIdToString(zncStatusGet(id)));
    return result;
}

int main(int argc, char** argv)
{
    if (argc != 4) {
        fprintf(stderr, "usage: tutorial LAYOUT BUNDLE ID\n");
        return 64;
    }
    const char* const bundle = argv[2];
    const char* const id = argv[3];
    if (!zncDaemonIsAlive()) {
        fprintf(stderr, "tutorial: zncd does not answer\n");
        return 1;
    }
    if (unpack(argv[1], bundle) != 0 || create(id, bundle) != 0)
        return 1;
    int result = run(id);
    if (zncDelete(id, ZNC_OPT_WHOLE_NAMESPACE) != OK) {
        failed("delete");
        result = 1;
    }
    return result;
}
