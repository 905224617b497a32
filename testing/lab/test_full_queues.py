"""A link whose queue is full: no frame leaves it any more, and whoever waits for room waits for ever.

    router wan1 10.1.0.2 / fd00:1::2 -------- 10.1.0.1 / fd00:1::1 far1: responder; the queue of wan1 is stopped
    router wan2 10.2.0.2 / fd00:2::2 -------- 10.2.0.1 / fd00:2::1 far2: responder
"""

import errno

import pytest

from lab import configtext, waiting
from lab.blocked_queue import BlockedQueue
from lab.configtext import interface, ping, ping_ext, rule


def burst(target, **_):
    # One that is not answered ends with its first request.
    return ping_ext(target, count=2, period=1, timeout=1000, rtt=5000, jitter=5000)


class Pair:
    """Both links are probed in the same way, the first one's targets with a probe each."""

    def __init__(self, lab, test=ping, ipv6=False, targets=10):
        self.lab, self.ipv6, self.family = lab, ipv6, 6 if ipv6 else 4
        self.links = [lab.uplink(number, ipv6=ipv6) for number in (1, 2)]
        patience = waiting.milliseconds(900)
        sections = []
        for link, count in zip(self.links, (targets, 1)):
            others = [f"2001:db8::{at}" if ipv6 else f"198.51.100.{at}" for at in range(1, count)]
            targets = [self.gateway(link), *others]
            sections.append(interface(link.name, [test(target, resp_time=patience) for target in targets], ipv6=ipv6,
                                      success_ct=1, nexthop=self.gateway(link)))
        self.lb = lab.start_lb(configtext.build(sections, [
            rule(f"1_ipv{self.family}", {"wan1": 1, "wan2": 1}, {"::/0" if ipv6 else "0.0.0.0/0": None})]))
        self.wait("wan1", "active")
        self.wait("wan2", "active")

    def gateway(self, link):
        return link.gateway6 if self.ipv6 else link.gateway

    def wait(self, name, status):
        self.lb.wait_status(name, status, family=self.family)

    def forget(self, link):
        """What the kernel knows of the link's neighbours, so that the daemon has to ask."""
        self.lab.ip(f"-{self.family} neigh flush dev {link.name}")

    def check_second_link(self, meanwhile=lambda: None):
        """It is watched as ever: what becomes of it is noticed. meanwhile: called while it is cut."""
        self.links[1].cut()
        self.wait("wan2", "failed")
        meanwhile()
        self.links[1].restore()
        self.wait("wan2", "active")


@pytest.mark.parametrize("test, ipv6", [(ping, False), (ping, True), (burst, False)], ids=["ping", "ping6", "burst"])
def test_probes_that_find_no_room(lab, test, ipv6):
    """They fail by time-out, the other link is watched as ever, and with the queue's room the link comes back."""
    pair = Pair(lab, test, ipv6)
    queue = BlockedQueue(lab, pair.lb, "wan1")
    queue.wait_full()
    pair.check_second_link()
    pair.wait("wan1", "failed")
    lab.log.wait_for(f"error on sending icmp{'6' if ipv6 else ''} packet: {errno.EAGAIN}$")
    queue.release()
    pair.wait("wan1", "active")


@pytest.mark.parametrize("ipv6", [False, True], ids=["ARP", "neighbour discovery"])
def test_questions_that_find_no_room(lab, ipv6):
    """One socket asks for the neighbours of all links; the second link's neighbour is found all the same."""
    pair = Pair(lab, ipv6=ipv6, targets=3)  # each costs a cycle a tenth of a second
    first, second = pair.links
    first.responder.answer_arp = first.responder.answer_nd = False
    pair.forget(first)
    pair.wait("wan1", "failed")
    queue = BlockedQueue(lab, pair.lb, "wan1")
    queue.wait_full()
    pair.check_second_link(meanwhile=lambda: pair.forget(second))
    first.responder.answer_arp = first.responder.answer_nd = True
    queue.release()
    pair.wait("wan1", "active")
