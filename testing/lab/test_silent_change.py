"""A far end that becomes another machine and says nothing, while nobody else asks the kernel for it.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far: the kernel's answers

The far end asks nothing either: it has permanent entries for the router.
"""

import time

import pytest

from lab import responder, sniffer, waiting
from lab.daemon import CycleWatch
from lab.hardware import address_of, entry_of, wait_state
from lab.many_links import ManyLinks, Strand
from lab.watched_links import Watched

# Cycles from the change on, with the kernel's own times of doubting and asking. Each takes a second and little more
# where the machine has time for it; where it has not, the kernel's times are fewer of them.
SOON = 17


class Far:
    """The far ends of strands; those that fail are `touched`."""

    def __init__(self, lab, touched, control):
        self.lab = lab
        self.links = ManyLinks(lab, touched + control)
        for strand in self.links.strands:
            self._know_router(strand)
            if strand.ipv6:
                # What the daemon enters is confirmed when it is entered, and doubted after half to three halves of
                # this time; before five seconds are over the kernel asks at once.
                lab.sysctl(f"net.ipv6.neigh.{strand.name}.base_reachable_time_ms=12000")
        self.watched = Watched(lab, self.links.strands)
        for strand in touched:
            wait_state(lab, strand.name, strand.gateway, "STALE")

    def _know_router(self, strand, *before):
        near = [strand.address6, f"fe80::ff:fe00:{strand.number:x}02"] if strand.ipv6 else [strand.address]
        self.lab.ip(*before, *[f"neigh replace {address} lladdr {strand.mac} dev {strand.far_name} nud permanent"
                               for address in near], "link set lo up", netns=self.links.far)

    def replace(self, strand):
        """Returns the new hardware address."""
        mac = f"02:00:00:77:{strand.number:02x}:01"
        # The change drops the entries. Until they are back the far end gets no probe: these go to the old address.
        self._know_router(strand, f"link set {strand.far_name} address {mac}")
        return mac


def test_found_again_soon(lab):
    touched = [Strand(1), Strand(2, ipv6=True)]
    far = Far(lab, touched, [Strand(3), Strand(4, ipv6=True)])
    mark = lab.log.mark()
    macs = {strand: far.replace(strand) for strand in touched}
    cycles = {strand: lab.closing(CycleWatch(far.watched.lb, strand.family)) for strand in touched}
    for strand, mac in macs.items():
        back = lab.log.wait_for(f"interface {strand.name} changed state to active$", since=mark)
        # The clock of the log is not that of the reports.
        when = time.time() - (time.monotonic() - back.when)
        assert len([stamp for stamp in cycles[strand].stamps if stamp < when]) <= SOON
        assert address_of(lab, strand.name, strand.gateway) == mac
    far.watched.finish(touched, 1)


@pytest.mark.parametrize("ipv6", [False, True], ids=["ipv4", "ipv6"])
def test_permanent_entry_stays(lab, ipv6):
    """What an administrator has entered is not doubted, however dead the link."""
    touched = Strand(1, ipv6=ipv6)
    far = Far(lab, [touched], [Strand(2, ipv6=ipv6)])
    wrong = "02:00:00:00:ee:01"
    lab.ip(f"neigh replace {touched.gateway} lladdr {wrong} dev {touched.name} nud permanent")
    far.watched.wait("failed", touched)
    capture = far.links.sniffer(touched)
    far.watched.lb.wait_cycles(10, family=touched.family, timeout=90)
    assert entry_of(lab, touched.name, touched.gateway) == ["lladdr", wrong, "PERMANENT"]
    gateway = responder.address_bytes(touched.gateway)
    assert not capture.select(lambda frame: sniffer.asked_for(frame) == gateway)
    lab.ip(f"neigh replace {touched.gateway} lladdr {touched.far_mac} dev {touched.name} nud permanent")
    far.watched.wait("active", touched)
    far.watched.finish([touched], 1)


def test_healthy_link_sends_probes_alone(lab):
    """One a cycle, and no question for the gateway although the kernel's entry is not confirmed."""
    strands = [Strand(1), Strand(2, ipv6=True)]
    far = Far(lab, strands, [])
    probes = {4: sniffer.is_echo_request, 6: sniffer.is_echo6_request}
    captures = {strand: far.links.sniffer(strand) for strand in strands}
    # Of both families at once: where there are many other links, the kernel forgets an entry that it has not used for
    # a minute, and the daemon has to ask.
    cycles = [far.watched.lb.cycles(strand.family) for strand in strands]
    waiting.wait_until(lambda: min([seen() for seen in cycles]) >= 18, "18 more cycles of both families", timeout=90)
    for strand, capture in captures.items():
        assert "STALE" in entry_of(lab, strand.name, strand.gateway)
        sent = capture.select(lambda frame: not frame.outgoing)
        assert all(map(probes[strand.family], sent)), sent
        gaps = [after.when - before.when for before, after in zip(sent, sent[1:])]
        assert len(sent) > 6 and min(gaps) > 0.9, gaps
    far.watched.finish([], 0)
