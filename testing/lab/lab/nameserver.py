"""A name server at 127.0.0.1 of the router that knows no name: it says so at once, or never answers."""

import socket
import threading


class NameServer:
    """Assign to `silent` at any time."""

    def __init__(self, lab, silent=False, timeout=2):
        """timeout: seconds that the resolver waits for an answer, once."""
        self.silent = silent
        lab.replace_etc("nsswitch.conf", "hosts: dns\n")
        lab.replace_etc("resolv.conf", f"nameserver 127.0.0.1\noptions timeout:{timeout} attempts:1\n")
        self._socket = lab.enclosure.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.1", 53))
        self._closing = False
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        self._socket.settimeout(0.1)
        while not self._closing:
            try:
                query, asker = self._socket.recvfrom(4096)
            except TimeoutError:
                continue
            if not self.silent:
                # The question comes back with "no such name" (RFC 1035, 4.1.1).
                self._socket.sendto(query[:2] + b"\x81\x83" + query[4:6] + bytes(6) + query[12:], asker)

    def close(self):
        self._closing = True
        self._thread.join()
        self._socket.close()
