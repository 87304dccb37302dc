/* ipc.c - queues, System V objects, sockets and key rings of the host. */
#include "probe.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/keyctl.h>
#include <mqueue.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

static void check_queue(const char* queue)
{
    char name[256];
    snprintf(name, sizeof name, "queue-%s-write", queue + 1);
    refused(name, mq_open(queue, O_WRONLY | O_NONBLOCK | O_CLOEXEC), ENOENT, 0);
    snprintf(name, sizeof name, "queue-%s-read", queue + 1);
    refused(name, mq_open(queue, O_RDONLY | O_NONBLOCK | O_CLOEXEC), ENOENT, 0);
    snprintf(name, sizeof name, "queue-%s-remove", queue + 1);
    refused(name, mq_unlink(queue), ENOENT, 0);
}

static void check_queues(void)
{
    char list[1024];
    snprintf(list, sizeof list, "%s", setting("QUEUES"));
    char* rest = list;
    for (char* queue; (queue = next_element(&rest)) != NULL;)
        check_queue(queue);
    unsigned entries = 0;
    DIR* dir = opendir("/dev/mqueue");
    while (dir != NULL && readdir(dir) != NULL)
        entries++;
    verdict("queues-in-sight", dir != NULL && entries == 2, "%u entries", entries);
    if (dir != NULL)
        closedir(dir);
}

static void check_system_v(void)
{
    char list[256];
    int number[6];
    struct shmid_ds shm;
    struct msqid_ds msg;
    const struct {
        long type;
        char text[1];
    } message = {1, {'x'}};
    snprintf(list, sizeof list, "%s", setting("SYSV"));
    char* rest = list;
    for (int i = 0; i < 6; i++) {
        const char* text = next_element(&rest);
        if (text == NULL)
            return;
        number[i] = atoi(text);
    }
    refused("shared-memory-by-key", shmget(number[0], 1, 0), ENOENT, 0);
    refused("shared-memory-state", shmctl(number[1], IPC_STAT, &shm), EINVAL, 0);
    refused("shared-memory-attach", shmat(number[1], NULL, 0) == (void*)-1 ? -1 : 0, EINVAL, 0);
    refused("shared-memory-remove", shmctl(number[1], IPC_RMID, NULL), EINVAL, 0);
    refused("messages-by-key", msgget(number[2], 0), ENOENT, 0);
    refused("messages-state", msgctl(number[3], IPC_STAT, &msg), EINVAL, 0);
    refused("messages-send", msgsnd(number[3], &message, 1, IPC_NOWAIT), EINVAL, 0);
    refused("semaphores-by-key", semget(number[4], 1, 0), ENOENT, 0);
    refused("semaphores-value", semctl(number[5], 0, GETVAL), EINVAL, 0);
    refused("semaphores-set", semctl(number[5], 0, SETVAL, 1), EINVAL, 0);
}

/* Abstract Unix sockets belong to the network namespace. */
static void check_network(void)
{
    char own[64] = "";
    verdict("network-namespace",
            readlink("/proc/self/ns/net", own, sizeof own - 1) > 0 &&
                strcmp(own, setting("NETWORK")) != 0,
            "%s is the host's", own);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    const size_t length = strlen(setting("SOCKET"));
    memcpy(address.sun_path + 1, setting("SOCKET"),
           length < sizeof address.sun_path - 1 ? length : sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    refused("abstract-socket",
            connect(fd, (const struct sockaddr*)&address,
                    (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + length)),
            ECONNREFUSED, 0);
    close(fd);
    struct if_nameindex* all = if_nameindex();
    char other[IF_NAMESIZE] = "";
    for (const struct if_nameindex* one = all; one != NULL && one->if_index != 0; one++)
        if (strcmp(one->if_name, "lo") != 0)
            snprintf(other, sizeof other, "%s", one->if_name);
    verdict("network-interfaces", all != NULL && *other == '\0', "%s is there", other);
    if (all != NULL)
        if_freenameindex(all);
}

/* No abstract socket of a component of this system may be visible. */
static void check_sockets(void)
{
    char line[512];
    char found[512] = "";
    FILE* list = fopen("/proc/net/unix", "re");
    while (list != NULL && fgets(line, sizeof line, list) != NULL) {
        const char* name = strchr(line, '@');
        if (name != NULL && (strstr(name, "znc") != NULL || strstr(name, "zarnel") != NULL))
            snprintf(found, sizeof found, "%s", name);
    }
    verdict("sockets-of-the-daemon", list != NULL && *found == '\0', "%s", found);
    if (list != NULL)
        fclose(list);
    refused("runtime-directory", access("/run/zarnel", F_OK), ENOENT, 0);
    refused("raw-packets", socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0), EPERM, EAFNOSUPPORT, 0);
    refused("raw-internet", socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP), EPERM,
            EAFNOSUPPORT, 0);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {.ifr_name = "lo"};
    const int mark = 1;
    ioctl(fd, SIOCGIFFLAGS, &request);
    refused("network-interface", ioctl(fd, SIOCSIFFLAGS, &request), EPERM, 0);
    refused("network-mark", setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark), EPERM, 0);
    close(fd);
}

static long keyctl(int operation, long a, long b, long c)
{
    return syscall(SYS_keyctl, operation, a, b, c, 0);
}

static int key_id;
static char key_name[128];
static char key_text[256];

static long read_key(void)
{
    return keyctl(KEYCTL_READ, key_id, (long)key_text, sizeof key_text);
}
static long search_key(void)
{
    return syscall(SYS_keyctl, KEYCTL_SEARCH, KEY_SPEC_USER_KEYRING, "user", key_name, 0);
}
static long request_key(void)
{
    return syscall(SYS_request_key, "user", key_name, NULL, 0);
}
static long list_keys(void)
{
    return keyctl(KEYCTL_READ, KEY_SPEC_USER_KEYRING, (long)key_text, sizeof key_text);
}
/* A key ring linked into one's own key ring is possessed, with all its keys. */
static long link_keys(void)
{
    keyctl(KEYCTL_JOIN_SESSION_KEYRING, 0, 0, 0);
    return keyctl(KEYCTL_LINK, KEY_SPEC_USER_KEYRING, KEY_SPEC_SESSION_KEYRING, 0);
}
static long add_key(void)
{
    const long key = syscall(SYS_add_key, "user", "probe-added", "x", 1, KEY_SPEC_USER_KEYRING);
    if (key >= 0)
        keyctl(KEYCTL_UNLINK, key, KEY_SPEC_USER_KEYRING, 0);
    return key;
}
static long session_keys(void)
{
    return keyctl(KEYCTL_GET_KEYRING_ID, KEY_SPEC_USER_SESSION_KEYRING, 0, 0);
}

static void check_keys(void)
{
    static const struct attempt kAttempts[] = {
        {"keys-list", list_keys, {EPERM}},     {"keys-link", link_keys, {EPERM}},
        {"keys-add", add_key, {EPERM}},        {"keys-of-the-session", session_keys, {EPERM}},
        {"key-read", read_key, {EPERM}},       {"key-search", search_key, {EPERM}},
        {"key-request", request_key, {EPERM}},
    };
    char list[192];
    snprintf(list, sizeof list, "%s", setting("KEY"));
    char* rest = list;
    const char* id = next_element(&rest);
    key_id = id != NULL ? atoi(id) : 0;
    snprintf(key_name, sizeof key_name, "%s", rest != NULL ? rest : "probe");
    refused_each(kAttempts, sizeof kAttempts / sizeof *kAttempts);
}

void check_ipc(void)
{
    check_queues();
    check_system_v();
    check_sockets();
    check_network();
    check_keys();
}

void fill_queues(void)
{
    char name[32];
    unsigned long made = 0;
    for (long size = 8192; size > 0; size /= 2) {
        struct mq_attr attr = {.mq_maxmsg = 1, .mq_msgsize = size};
        for (;;) {
            snprintf(name, sizeof name, "/fill-%lu", made);
            if (mq_open(name, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600, &attr) < 0)
                break;
            made++;
        }
    }
    verdict("queue-memory", errno == EMFILE || errno == ENOSPC, "%s", strerror(errno));
    close(open("/tmp/full", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    while (access("/tmp/stop", F_OK) != 0)
        usleep(1000);
}
