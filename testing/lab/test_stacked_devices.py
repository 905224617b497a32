"""Uplinks that are devices on top of another: their answers are those that come by them, not by the lower one.

    router up0 10.1.0.2 / fd00:1::2 on wan1 -------- f1 far1 (with a VLAN g0 on f1): responder
    router sentinel                         -------- tells when an answer has been handled
"""

import pytest

from lab import configtext, responder, sentinel
from lab.configtext import interface, ping, rule
from lab.enclosure import CommandFailed
from lab.hardware import address_of, packed
from lab.responder import Responder
from lab.sentinel import Sentinel

MAC, FORGED = "02:00:00:00:aa:02", "02:00:00:00:ee:01"
LINK_LOCAL = "fe80::ff:fe00:aa02"

# How each is made.
DEVICES = {
    "vlan": ["link add link wan1 name up0 address {mac} type vlan id 10"],
    "macvlan": ["link add link wan1 name up0 address {mac} type macvlan mode bridge"],
    "bridge": ["link add up0 address {mac} type bridge", "link set wan1 master up0"],
}


class Stacked:
    def __init__(self, lab, kind, ipv6):
        self.lab, self.ipv6, self.link = lab, ipv6, lab.uplink(1)
        self.gateway = self.link.gateway6 if ipv6 else self.link.gateway
        self.near = LINK_LOCAL if ipv6 else self.link.address
        try:
            lab.ip(*[line.format(mac=MAC) for line in DEVICES[kind]], "link set lo up")
        except CommandFailed as failure:
            if "Unknown device type" in str(failure):
                pytest.skip(f"this kernel has no {kind} devices")
            raise
        lab.ip("addr flush dev wan1", "link set up0 up",
               f"addr add {self.link.address}/24 dev up0", f"addr add {self.link.address6}/64 dev up0 nodad")
        self.lower_mac = self.link.mac
        self.far = self.link.responder
        if kind == "vlan":
            # It hears the frames of the VLAN too, and would answer them without its tag.
            self.link.responder.silent = True
            lab.ip("link add link f1 name g0 type vlan id 10", "link set g0 up", netns=self.link.far)
            self.far = lab.closing(Responder(lab.enclosure, "g0", self.link.far))
        if kind == "bridge":
            # What is for the bridge's port is the bridge's; only what is for others stays below.
            self.lower_mac = "02:00:00:00:bb:02"

    def forged_for_lower_device(self):
        return responder.answer(packed(self.lower_mac), self.near, packed(FORGED), self.gateway)

    def start(self, honest):
        return self.lab.start_lb(configtext.build(
            [interface("up0", [ping(resp_time=900)], ipv6=self.ipv6, success_ct=1, nexthop=self.gateway),
             honest.section],
            [rule(f"1_ipv{6 if self.ipv6 else 4}", {"up0": 1, sentinel.NAME: 1},
                  {"::/0" if self.ipv6 else "0.0.0.0/0": None})]))


@pytest.mark.parametrize("ipv6", [False, True], ids=["ipv4", "ipv6"])
@pytest.mark.parametrize("kind", DEVICES)
def test_answers_of_a_stacked_device(lab, kind, ipv6):
    """One that only the lower device gets counts for nothing; that which comes by the device does."""
    stacked, honest = Stacked(lab, kind, ipv6), Sentinel(lab, ipv6)
    family = 6 if ipv6 else 4
    stacked.far.answer_arp = stacked.far.answer_nd = False
    lb = stacked.start(honest)
    lb.wait_status(sentinel.NAME, "active", family=family)
    lb.wait_report("  -Test:", family=family)
    stacked.link.responder.send_frame(stacked.forged_for_lower_device())
    honest.wait_handled()
    assert address_of(lab, "up0", stacked.gateway) is None
    stacked.far.answer_arp = stacked.far.answer_nd = True
    lb.wait_status("up0", "active", family=family)
    assert packed(address_of(lab, "up0", stacked.gateway)) == stacked.far.mac
    assert {request.source for request in stacked.far.requests} == {stacked.near}
    # While all is well neither.
    stacked.link.responder.send_frame(stacked.forged_for_lower_device())
    honest.wait_handled()
    assert packed(address_of(lab, "up0", stacked.gateway)) == stacked.far.mac
