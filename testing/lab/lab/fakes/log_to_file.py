"""The simplest system log: appends every message that reaches a datagram socket to a file."""

import os
import socket
import sys


def main():
    path, target = sys.argv[1:]
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as reader, open(target, "ab", buffering=0) as out:
        reader.bind(path)
        os.chmod(path, 0o666)
        while True:
            out.write(reader.recv(65536).rstrip(b"\0\n") + b"\n")


if __name__ == "__main__":
    main()
