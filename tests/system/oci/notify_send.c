/* notify_send.c - sends each argument as one message to the socket in NOTIFY_SOCKET, with a
 * descriptor, as a program does that says it is ready. */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

static int send_one(int fd, char* text)
{
    struct iovec part = {text, strlen(text)};
    union {
        char bytes[CMSG_SPACE(sizeof(int))];
        struct cmsghdr header;
    } control;
    struct msghdr message = {0};
    struct cmsghdr* header;
    memset(&control, 0, sizeof control);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof control;
    header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &fd, sizeof fd);
    return sendmsg(fd, &message, 0) < 0;
}

int main(int argc, char** argv)
{
    const char* path = getenv("NOTIFY_SOCKET");
    struct sockaddr_un address = {AF_UNIX, ""};
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (path == NULL || strlen(path) >= sizeof address.sun_path)
        return 2;
    strcpy(address.sun_path, path);
    if (fd < 0 || connect(fd, (const struct sockaddr*)&address, sizeof address) != 0) {
        perror("notify_send");
        return 1;
    }
    for (int i = 1; i < argc; i++)
        if (send_one(fd, argv[i]) != 0) {
            perror("notify_send");
            return 1;
        }
    return 0;
}
