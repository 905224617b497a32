"""A device that takes frames into its queue and sends none, and sockets of the daemon that this soon fills.

What waits in the queue counts against the buffer of the socket that it came from; with the smallest one a few frames
are enough, as some hundred are for one of the usual size.
"""

import json
import os
import socket
import sys

import pytest

from . import waiting

_SMALL_BUFFERS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes", "small_buffers.py")
BURST, LEAST_FRAME = 3000, 60


class BlockedQueue:
    """From its construction to `release`. The daemon's sockets are those that it has at the construction."""

    def __init__(self, lab, lb, device):
        self.lab, self.device = lab, device
        added = lab.run(["tc", "qdisc", "add", "dev", device, "root", "tbf", "rate", "8bit", "burst",
                         str(BURST), "limit", "10000000"], check=False)
        if "kind is unknown" in added.stderr:
            pytest.skip("the kernel has no token bucket filter, which is to hold the frames back")
        assert added.status == 0, added.stderr
        self._use_up_the_burst()
        self._buffers = lab.enclosure.spawn([sys.executable, _SMALL_BUFFERS, str(lb.pid)])

    def _use_up_the_burst(self):
        """So many bytes pass at once; what comes behind these frames stays."""
        sender = self.lab.enclosure.socket(socket.AF_PACKET, socket.SOCK_RAW, 0, None, self.device)
        with sender:
            for _ in range(2 * BURST // LEAST_FRAME):
                sender.send((b"\xff" * 6 + bytes(6) + b"\x88\xb5").ljust(LEAST_FRAME, b"\0"))
        queue, = json.loads(self.lab.run(["tc", "-s", "-j", "qdisc", "show", "dev", self.device]).stdout)
        assert queue["qlen"] > 0, queue

    def wait_full(self):
        """Waits until a socket of the daemon has no room for another frame."""
        waiting.wait_until(lambda: "full" in self._buffers.stdout or self._buffers.status not in (None, 0),
                           lambda: f"a full socket among {self._buffers.stdout}", timeout=60)
        assert "full" in self._buffers.stdout, self._buffers.stderr

    def release(self):
        self.lab.run(["tc", "qdisc", "del", "dev", self.device, "root"])
