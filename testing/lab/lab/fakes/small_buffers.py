"""Gives the sending sockets of a process the smallest buffers that the kernel allows, and tells when one is full.

Argument: the process. Prints a line once the buffers are small, and another once what waits to be sent fills one.
"""

import ctypes
import fcntl
import os
import socket
import struct
import sys
import termios
import time

SYS_PIDFD_GETFD = 438  # the same number on every architecture
_libc = ctypes.CDLL(None, use_errno=True)


def taken(process, number):
    """This process's copy of a descriptor of the other."""
    copy = _libc.syscall(SYS_PIDFD_GETFD, process, number, 0)
    if copy < 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))
    return copy


def raw_sockets(process):
    handle = os.pidfd_open(process)
    found = []
    for number in map(int, os.listdir(f"/proc/{process}/fd")):
        try:
            if not os.readlink(f"/proc/{process}/fd/{number}").startswith("socket:"):
                continue
            made = socket.socket(fileno=taken(handle, number))
        except OSError:  # closed meanwhile
            continue
        if made.type == socket.SOCK_RAW and made.family in (socket.AF_PACKET, socket.AF_INET, socket.AF_INET6):
            found.append(made)
    return found


def is_full(sender):
    waits = struct.unpack("i", fcntl.ioctl(sender, termios.TIOCOUTQ, bytes(4)))[0]
    return waits >= sender.getsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF)


def main():
    senders = raw_sockets(int(sys.argv[1]))
    for sender in senders:
        sender.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1)
    print(f"{len(senders)} sockets", flush=True)
    while not any(map(is_full, senders)):
        time.sleep(0.02)
    print("full", flush=True)


if __name__ == "__main__":
    main()
