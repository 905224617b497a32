"""A server on the Internet: tells each caller its own name, and hangs up. Arguments: its address, its name."""

import socket
import sys

listening = socket.create_server((sys.argv[1], 8080), backlog=128)
print("listening", flush=True)
while True:
    connection, _ = listening.accept()
    try:
        connection.sendall(sys.argv[2].encode())
    except OSError:  # The caller has given up.
        pass
    connection.close()
