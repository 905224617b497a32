"""Tells when the daemon has made what it makes of the answers that have come in.

It handles ARP replies, and advertisements, in the order in which they come by whatever interface; so once an answer
that counts has had its effect, all that came before it have had theirs. The kernel takes such an answer too where it
has an entry for the address already, and sooner: the entry is deleted first, and only the daemon makes one anew.
"""

import itertools

from . import responder, waiting
from .configtext import interface, ping
from .hardware import packed, wait_address

NAME = "sentinel"


class Sentinel:
    """An uplink with an honest far end. Its `section` is to be in the daemon's configuration."""

    def __init__(self, lab, ipv6):
        self.lab, self.ipv6 = lab, ipv6
        self._link = lab.uplink(99, NAME, ipv6=True)
        self._gateway = self._link.gateway6 if ipv6 else self._link.gateway
        self._numbers = itertools.count(1)
        self.section = interface(NAME, [ping(resp_time=waiting.milliseconds(900))], ipv6=ipv6, success_ct=1,
                                 failure_ct=1000, nexthop=self._gateway)

    def wait_handled(self):
        """Everything that was sent before this call; the sentinel has been active."""
        mac = f"02:00:00:99:99:{next(self._numbers):02x}"
        far = self._link.responder
        far.become(packed(mac))
        self.lab.ip(f"neigh del {self._gateway} dev {NAME}")
        near = self._link.link_local if self.ipv6 else self._link.address
        far.send_frame(responder.answer(packed(self._link.mac), near, far.mac, self._gateway))
        wait_address(self.lab, NAME, self._gateway, mac)
