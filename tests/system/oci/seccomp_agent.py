#!/usr/bin/env python3
"""seccomp_agent.py SOCKET STATES ANSWER [READ]: receives the listeners of filters, appends the state document of
each to the file STATES, and answers each call: "continue", "silent" (never) or an error number. With READ, a
document is read in parts of that many bytes."""
import fcntl
import os
import select
import socket
import struct
import sys

RECV = 0xC0502100  # SECCOMP_IOCTL_NOTIF_RECV
SEND = 0xC0182101  # SECCOMP_IOCTL_NOTIF_SEND
CONTINUE = 1  # SECCOMP_USER_NOTIF_FLAG_CONTINUE

path, states, answer = sys.argv[1:4]
part = int(sys.argv[4]) if len(sys.argv) > 4 else 65536


def take(client):
    document, fds, _, _ = socket.recv_fds(client, part, 4)
    while more := client.recv(part):
        document += more
    assert len(fds) == 1, fds
    with open(states, "ab") as file:
        file.write(document + b"\n")
    return fds[0]


def reply(listener):
    request = bytearray(80)
    try:
        fcntl.ioctl(listener, RECV, request)
        if answer != "silent":
            error = 0 if answer == "continue" else -int(answer)
            flags = CONTINUE if answer == "continue" else 0
            fcntl.ioctl(listener, SEND, request[:8] + struct.pack("<qiI", 0, error, flags))
    except OSError:  # the process has been killed
        pass


server = socket.socket(socket.AF_UNIX)
server.bind(path)
server.listen(8)
poll = select.poll()
poll.register(server, select.POLLIN)
while True:
    for descriptor, events in poll.poll():
        if descriptor == server.fileno():
            client, _ = server.accept()
            with client:
                client.settimeout(30)
                poll.register(take(client), select.POLLIN)
        elif events & select.POLLIN:
            reply(descriptor)
        else:  # all processes with the filter have ended
            poll.unregister(descriptor)
            os.close(descriptor)
