"""Clients of the LAN behind a router with masquerading, and the servers on the Internet that they call.

    client 192.168.50.2 eth0 -------- lan0 192.168.50.1 router ---- wan1, wan2 ---- 203.0.113.80:8080 (at each provider)
"""

import os
import re
import sys
from collections import Counter

from . import waiting
from .provider import COMMON_TARGET

_FAKES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes")

_MASQUERADE = """table ip nat {
chain leaving {
type nat hook postrouting priority srcnat;
oifname "wan*" masquerade
}
}"""


class Lan:
    """A LAN with one client. The router spreads connections, not addresses, over its ways."""

    def __init__(self, lab, providers):
        self.lab = lab
        lab.add_netns("lan")
        lab.ip("link add lan0 type veth peer name eth0 netns lan")
        lab.ip("link set lan0 up", "addr add 192.168.50.1/24 dev lan0")
        lab.ip("link set eth0 up", "addr add 192.168.50.2/24 dev eth0", "route add default via 192.168.50.1",
               netns="lan")
        lab.sysctl("net.ipv4.fib_multipath_hash_policy=1")
        lab.nft(_MASQUERADE)
        self._calls = lab.path("calls")
        self._caller = None
        for provider in providers:
            server = lab.enclosure.spawn([sys.executable, os.path.join(_FAKES, "naming_server.py"), COMMON_TARGET,
                                          provider.far], netns=provider.far)
            waiting.wait_until(lambda s=server: "listening" in s.stdout or s.status is not None, "a server")
            assert server.status is None, server.stderr

    def start_calling(self):
        """The client opens connections one after another from now on, a hundred a second at most; two seconds are
        the end of one's patience."""
        self._caller = self.lab.enclosure.spawn(
            [sys.executable, os.path.join(_FAKES, "caller.py"), COMMON_TARGET, self._calls,
                                              str(waiting.scaled(2))], netns="lan")
        waiting.wait_until(lambda: os.path.exists(self._calls) or self._caller.status is not None, "the caller")

    def stop_calling(self):
        self._caller.signal(15)
        self._caller.wait()

    def calls(self):
        """One entry per connection that has ended: the name of the provider that served it, or "lost"."""
        with open(self._calls, encoding="ascii") as file:
            return re.findall(r"(\S+)\n", file.read())

    def wait_calls(self, count, since=0):
        """Waits for so many more calls; returns how many each provider served: {name: count}."""
        waiting.wait_until(lambda: len(self.calls()) >= since + count,
                           lambda: f"{count} calls, got {Counter(self.calls()[since:])}", timeout=60, interval=0.05)
        return Counter(self.calls()[since:])
