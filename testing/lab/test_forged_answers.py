"""Answers that are not the gateway's: by another interface, from afar, or no answers at all.

    router wan1 10.1.0.2 / fd00:1::2 -------- f1 far1: responder for 10.1.0.1 / fd00:1::1
    router wan2 10.2.0.2 / fd00:2::2 -------- f2 far2: responder for 10.2.0.1 / fd00:2::1
    router lan  10.3.0.2 / fd00:3::2 -------- f3 far3: a forger
    router sentinel                  -------- tells when a forged answer has been handled
"""

import struct

import pytest

from lab import configtext, responder, sentinel, waiting
from lab.configtext import interface, ping, rule
from lab.hardware import address_of, packed
from lab.sentinel import Sentinel

FAMILIES = pytest.mark.parametrize("ipv6", [False, True], ids=["ipv4", "ipv6"])
FORGED = "02:00:00:00:ee:01"
# Milliseconds for a reply: the far ends are threads of the test, and no link is to be lost here.
PATIENCE = 3000
ZERO, MULTICAST, BROADCAST = "00:00:00:00:00:00", "33:33:00:00:00:01", "ff:ff:ff:ff:ff:ff"


class World:
    def __init__(self, lab, ipv6):
        self.lab, self.ipv6, self.family = lab, ipv6, 6 if ipv6 else 4
        self.wan1, self.wan2 = [lab.uplink(number, ipv6=True) for number in (1, 2)]
        self.lan = lab.uplink(3, "lan", ipv6=True)
        self.sentinel = Sentinel(lab, ipv6)
        self.lb = None

    def start(self):
        links = [self.wan1, self.wan2]
        names = [link.name for link in links] + [sentinel.NAME]
        self.lb = self.lab.start_lb(configtext.build(
            [interface(link.name, [ping(resp_time=waiting.milliseconds(PATIENCE))], ipv6=self.ipv6, success_ct=1,
                       nexthop=self.gateway(link)) for link in links] + [self.sentinel.section],
            [rule(f"1_ipv{self.family}", dict.fromkeys(names, 1), {"::/0" if self.ipv6 else "0.0.0.0/0": None})]))
        for name in names[1:]:
            self.lb.wait_status(name, "active", family=self.family)

    def gateway(self, link):
        return link.gateway6 if self.ipv6 else link.gateway

    def answer(self, by, mac, claims=None):
        """The frame of an answer to the router's end of `by`: `mac` claims to be the gateway of `claims`."""
        near = by.link_local if self.ipv6 else by.address
        return responder.answer(packed(by.mac), near, packed(mac), self.gateway(claims or by), by.responder.mac)

    def send(self, by, frame):
        """By a link, and waits until the daemon has made of it what it makes."""
        by.responder.send_frame(frame)
        self.sentinel.wait_handled()

    def known(self):
        """The hardware address that the kernel has for wan1's gateway; None without one."""
        return address_of(self.lab, self.wan1.name, self.gateway(self.wan1))


@FAMILIES
def test_answer_by_another_interface(lab, ipv6):
    """The LAN and the other uplink's far end claim an uplink's gateway: before it has answered, and later on."""
    world = World(lab, ipv6)
    forgers = (world.lan, world.wan2)
    world.wan1.responder.answer_arp = world.wan1.responder.answer_nd = False
    world.start()
    for forger in forgers:
        world.send(forger, world.answer(forger, FORGED, claims=world.wan1))
        assert world.known() is None
    world.wan1.responder.answer_arp = world.wan1.responder.answer_nd = True
    world.lb.wait_status("wan1", "active", family=world.family)
    lab.log.wait_for("interface wan1 changed state to active$")
    mark = lab.log.mark()
    for forger in forgers:
        world.send(forger, world.answer(forger, FORGED, claims=world.wan1))
        assert world.known() == world.wan1.far_mac
        assert not address_of(lab, forger.name, world.gateway(world.wan1))
    world.lb.wait_cycles(3, family=world.family)
    assert world.lb.statuses(world.family)["wan1"] == "active"
    assert not lab.log.matching("changed state", mark)


def rewritten(frame, *changes):
    """Changes are pairs of an offset and the bytes to be there."""
    for at, data in changes:
        frame = frame[:at] + data + frame[at + len(data):]
    return frame


# Of a frame with an advertisement (RFC 8200, RFC 4861): IPv6 begins at 14, ICMPv6 at 54.
NEXT_HEADER, HOP_LIMIT, PORTS, OPTION = 20, 21, 54, 78
UDP = b"\x11"
# The first byte of the source port is where an advertisement has its type.
LOOKS_LIKE_AN_ADVERTISEMENT = struct.pack("!HH", 136 << 8, 53)

NO_ADVERTISEMENTS = {
    "UDP": lambda frame: rewritten(frame, (NEXT_HEADER, UDP), (PORTS, LOOKS_LIKE_AN_ADVERTISEMENT)),
    "a hop-by-hop header": lambda frame: rewritten(frame, (NEXT_HEADER, b"\0")),
    "from another link": lambda frame: rewritten(frame, (HOP_LIMIT, b"\x40")),
    "one hop away": lambda frame: rewritten(frame, (HOP_LIMIT, b"\xfe")),
    "without option": lambda frame: frame[:OPTION],
    "padded without option": lambda frame: frame[:OPTION] + bytes(8),
    "the source's address": lambda frame: rewritten(frame, (OPTION, b"\x01")),
    "an empty option": lambda frame: rewritten(frame, (OPTION + 1, b"\0")),
}


@pytest.mark.parametrize("forge", NO_ADVERTISEMENTS.values(), ids=NO_ADVERTISEMENTS)
def test_no_advertisement(lab, forge):
    """The gateway is asked for and does not answer; what has the place of its answer is none. Then it answers."""
    world = World(lab, ipv6=True)
    world.wan1.responder.answer_nd = False
    world.start()
    world.send(world.wan1, forge(world.answer(world.wan1, FORGED)))
    assert world.known() is None
    world.wan1.responder.answer_nd = True
    world.lb.wait_status("wan1", "active", family=6)


@FAMILIES
@pytest.mark.parametrize("mac", [ZERO, MULTICAST, BROADCAST])
def test_address_of_no_station(lab, ipv6, mac):
    world = World(lab, ipv6)
    world.wan1.responder.answer_nd = world.wan1.responder.answer_arp = False
    world.start()
    world.send(world.wan1, world.answer(world.wan1, mac))
    assert world.known() is None
    world.wan1.responder.answer_nd = world.wan1.responder.answer_arp = True
    world.lb.wait_status("wan1", "active", family=world.family)
    assert world.known() == world.wan1.far_mac
