/* main.c - the probe's main(), the reporting of results, and the other modes of the program. */
#include "probe.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static unsigned checks;
static unsigned escapes;

const char* setting(const char* name)
{
    char variable[64];
    snprintf(variable, sizeof variable, "PROBE_%s", name);
    const char* value = getenv(variable);
    return value != NULL ? value : "";
}

char* next_element(char** list)
{
    char* element;
    do {
        element = strsep(list, ",");
    } while (element != NULL && *element == '\0');
    return element;
}

void verdict(const char* name, bool held, const char* format, ...)
{
    checks++;
    if (held) {
        printf("ok %s\n", name);
        return;
    }
    escapes++;
    printf("ESCAPED %s: ", name);
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
}

void not_there(const char* name)
{
    checks++;
    printf("ok %s (not in this kernel)\n", name);
}

static bool is_listed(int error, va_list errors)
{
    for (int one; (one = va_arg(errors, int)) != 0;)
        if (one == error)
            return true;
    return false;
}

void refused(const char* name, long result, ...)
{
    const int error = errno;
    if (result >= 0) {
        verdict(name, false, "it works");
        return;
    }
    if (error == ENOSYS) {
        not_there(name);
        return;
    }
    va_list errors;
    va_start(errors, result);
    verdict(name, is_listed(error, errors), "not refused but \"%s\"", strerror(error));
    va_end(errors);
}

int in_child(int (*work)(void))
{
    fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(work());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return 255;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static long (*current)(void);

static int attempt_current(void)
{
    errno = 0;
    return current() >= 0 ? 0 : errno != 0 ? errno : 254;
}

void refused_each(const struct attempt* attempts, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        const struct attempt* one = &attempts[i];
        current = one->attempt;
        const int error = in_child(attempt_current);
        errno = error;
        refused(one->name, error == 0 ? 0 : -1, one->errors[0], one->errors[1], one->errors[2],
                one->errors[3], 0);
    }
}

const char* status_field(const char* name)
{
    static char line[256];
    const size_t len = strlen(name);
    FILE* status = fopen("/proc/self/status", "re");
    const char* value = "";
    while (status != NULL && fgets(line, sizeof line, status) != NULL) {
        if (strncmp(line, name, len) != 0 || line[len] != ':')
            continue;
        line[strcspn(line, "\n")] = '\0';
        value = line + len + 1 + strspn(line + len + 1, " \t");
        break;
    }
    if (status != NULL)
        fclose(status);
    return value;
}

/* Reports the capabilities that a set-ID program, or one with file capabilities, has obtained. */
static int report_power(void)
{
    const unsigned long long effective = strtoull(status_field("CapEff"), NULL, 16);
    return (geteuid() == 0 ? 1 : 0) | ((effective & ~PROBE_CAPABILITIES) != 0 ? 2 : 0);
}

static int run_all(void)
{
    check_identity();
    check_programs();
    check_root();
    check_mounts();
    check_kernel_files();
    check_devices();
    check_processes();
    check_ipc();
    check_calls();
    return 0;
}

int main(int argc, char** argv)
{
    const char* use = argc > 1 ? argv[1] : "all";
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (strcmp(use, "true") == 0)
        return 0;
    if (strcmp(use, "power") == 0)
        return report_power();
    if (strcmp(use, "all") == 0)
        run_all();
    else if (strcmp(use, "root") == 0) /* needs no /proc */
        check_root();
    else if (strcmp(use, "fill") == 0)
        fill_queues();
    else if (strcmp(use, "watch") == 0)
        watch_joins();
    else
        return 64;
    printf("%u checks, %u ways out\n", checks, escapes);
    return escapes == 0 ? 0 : 1;
}
