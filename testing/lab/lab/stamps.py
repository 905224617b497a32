"""Times at which something was sent or came in, by the kernel's clock instead of the reader's.

A busy machine may let the lab's threads wait; what they read still says when it happened. The stamps are of the wall
clock, which may be set at any time, so they become times of the monotonic clock as soon as they are read.
"""

import socket
import struct
import time

SO_TIMESTAMPNS = 35


def monotonic_of(wall):
    """The monotonic clock at a moment of the past that the wall clock stamped."""
    while True:
        before, now, after = time.monotonic(), time.time(), time.monotonic()
        if after - before < 0.001:  # else something came between the two clocks
            return before - max(0.0, now - wall)


def enable(descriptor):
    descriptor.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)


def receive(descriptor, size=65536):
    """One message: its bytes, its address, and the wall clock when the kernel got it."""
    data, control, _, address = descriptor.recvmsg(size, 256)
    for level, kind, value in control:
        if level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS:
            seconds, nanoseconds = struct.unpack("qq", value[:16])
            return data, address, seconds + nanoseconds / 1e9
    return data, address, time.time()  # it came before stamps were asked for
