"""A client of the LAN: opens one connection after another and notes who has served it, or "lost".

Arguments: the server's address, the file of the notes, one a line, the seconds until a connection counts as lost.
"""

import socket
import sys
import time


def call(address, patience):
    try:
        with socket.create_connection((address, 8080), timeout=patience) as connection:
            return connection.recv(100).decode() or "lost"
    except OSError:
        return "lost"


with open(sys.argv[2], "w", encoding="ascii") as notes:
    while True:
        notes.write(call(sys.argv[1], float(sys.argv[3])) + "\n")
        notes.flush()
        time.sleep(0.01)
