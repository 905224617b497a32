"""Sends prepared frames from one interface at a steady rate, over and over.

Arguments: interface, file of frames (each a 16-bit length and its bytes), frames a second, seconds at least, frames at
most (0: any number). It goes on until that number is reached or, after those seconds, SIGTERM has come. The last line
of the output is a JSON array: frames sent, frames that the device refused, seconds that it took.
"""

import json
import signal
import socket
import struct
import sys
import time

SOL_PACKET, PACKET_QDISC_BYPASS = 263, 20
# As often as a sleep is worth it; what a busy machine held up is made good, but not all at once.
PAUSE, LARGEST_BURST = 0.001, 200


def load(path):
    with open(path, "rb") as file:
        data = file.read()
    frames, at = [], 0
    while at < len(data):
        length = struct.unpack_from("!H", data, at)[0]
        frames.append(data[at + 2:at + 2 + length])
        at += 2 + length
    return frames


def main():
    interface, path, rate, seconds = sys.argv[1], sys.argv[2], float(sys.argv[3]), float(sys.argv[4])
    most = int(sys.argv[5]) or float("inf")
    told_to_end = []
    signal.signal(signal.SIGTERM, lambda *_: told_to_end.append(True))
    frames = load(path)
    # Without a protocol nothing is received, and past the queue no capture of this side sees the flood.
    sender = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    sender.setsockopt(SOL_PACKET, PACKET_QDISC_BYPASS, 1)
    sender.bind((interface, 0))
    sent = refused = 0
    start = time.monotonic()
    while sent < most and not (told_to_end and time.monotonic() - start >= seconds):
        due = min(int((time.monotonic() - start) * rate), most) - sent
        for _ in range(min(due, LARGEST_BURST)):
            try:
                sender.send(frames[sent % len(frames)])
            except OSError:
                refused += 1
            sent += 1
        if due < LARGEST_BURST:
            time.sleep(PAUSE)
    print(json.dumps([sent, refused, time.monotonic() - start]))


if __name__ == "__main__":
    main()
