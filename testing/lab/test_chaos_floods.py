"""Hostile neighbours: floods of frames.

    router wan1 10.1.0.2 / fd00:1::2 ---- f01 far: 10.1.0.1 / fd00:1::1 and a process that sends floods
           wan2 ... wan5             ---- f02 ... f05: never flooded, but every raw socket of the namespace hears all
"""

import fcntl
import json

import pytest

from lab import configtext, daemon, flood, sniffer, waiting
from lab.configtext import interface, ping, ping_ext, rule
from lab.growth import Growth
from lab.many_links import ManyLinks, Strand, explained_by, flapped, state_changes
from lab.route_watch import RouteWatch

PLAIN = not daemon.has_sanitizer(daemon.program())
# A sanitizer makes a frame some ten times as dear to the daemon.
RATE = 10000 if PLAIN else 1500
# Milliseconds for a reply. One that is lost shows all the same, in the time until the next probe.
PATIENCE = waiting.milliseconds(900)
# A busy machine sends less, and that is a flood still: hundreds of frames for each probe.
LEAST_RATE = 0.2 * RATE
# Of these frames, as a busy machine may drop some before the interface counts them.
LEAST_SHARE = 0.8


class Flooded:
    """Five links and a daemon that probes them in every way; floods come in by the first.

    failure_ct: with 2, a link may lose one probe.
    """

    def __init__(self, lab, turns, failure_ct):
        self.lab, self.turns = lab, turns
        frame, control, burst, raw, raw_burst = [Strand(1, ipv6=True), Strand(2, ipv6=True), Strand(3),
                                                 Strand(4, arp=False), Strand(5, arp=False)]
        self.first, self.control = frame, control
        self.links = ManyLinks(lab, [frame, control, burst, raw, raw_burst])
        counts = {"success_ct": 1, "failure_ct": failure_ct}
        blocks = [interface(strand.name, [self._test(strand, strand in (burst, raw_burst))], nexthop=strand.gateway4,
                            **counts) for strand in self.links.strands]
        blocks += [interface(strand.name, [ping(strand.gateway6, resp_time=PATIENCE)], ipv6=True,
                             nexthop=strand.gateway6, **counts) for strand in (frame, control)]
        both = [frame, control]
        self.routes = [RouteWatch(lab, "usr_etc/routing-wlb.conf", explained_by(self.links.strands, 4)),
                       RouteWatch(lab, "usr_etc/routing-wlb6.conf", explained_by(both, 6), 6)]
        self.lb = lab.start_lb(configtext.build(blocks, [
            rule("1_ipv4", {strand.name: 1 for strand in self.links.strands}, {"0.0.0.0/0": None}),
            rule("1_ipv6", {strand.name: 1 for strand in (frame, control)}, {"::/0": None})]))
        self.watched = [(strand.name, 4) for strand in self.links.strands] + [(frame.name, 6), (control.name, 6)]
        for name, family in self.watched:
            self.lb.wait_status(name, "active", family=family)
        self.target, self.other = [flood.Target(strand.mac, strand.far_mac, strand.address, strand.gateway4,
                                                strand.address6, strand.gateway6) for strand in both]
        self.growth = Growth(lab, self.lb)

    @staticmethod
    def _test(strand, burst):
        if burst:
            return ping_ext(strand.gateway4, count=3, period=1, timeout=1000, rtt=5000, jitter=5000)
        return ping(strand.gateway4, resp_time=PATIENCE)

    def take_turn(self):
        """Waits until nobody else floods; the turn lasts until `finish`."""
        fcntl.flock(self.turns, fcntl.LOCK_EX)

    def flood(self, frames, seconds=3.0, most=0):
        """Starts one when it is its turn; the frames come in by the first link. frames: a list, or what makes it."""
        self.take_turn()
        return flood.Flood(self.lab, self.links.far, self.first.far_name, frames() if callable(frames) else frames,
                           RATE, seconds, most)

    def finish(self, running):
        """Ends a flood, which was one."""
        rate = running.finish()
        fcntl.flock(self.turns, fcntl.LOCK_UN)
        assert rate > LEAST_RATE / waiting.scaled(1), f"only {rate:.0f} frames a second were sent"

    def arrived(self):
        """Frames that have come in by the first link."""
        return json.loads(self.lab.ip_text(f"-s -j link show {self.first.name}"))[0]["stats64"]["rx"]["packets"]

    def arrive(self, running):
        """Waits until a flood that has just begun comes in."""
        before = self.arrived()
        waiting.wait_until(lambda: self.arrived() - before > 100, "the flood")
        assert running.running

    def key(self, ipv6):
        """The key of a probe that has just left by the first link."""
        capture = self.links.sniffer(self.first)
        request = capture.wait_for(sniffer.is_echo6_request if ipv6 else sniffer.is_echo_request)[0]
        self.lab.discard(capture)
        return sniffer.echo_key(request)

    def stand(self, frames, seconds=3.0, meanwhile=None):
        """A flood that nothing comes of: every link is probed once a cycle, goes on to be, and stays as it is.

        meanwhile: called with the flood once it comes in.
        """
        self.take_turn()
        probes = {4: sniffer.is_echo_request, 6: sniffer.is_echo6_request}
        captures = {strand: self.links.sniffer(strand) for strand in (self.first, self.control)}
        watches = {family: self.lab.closing(daemon.CycleWatch(self.lb, family)) for family in probes}
        before = self.arrived()
        running = self.flood(frames, seconds)
        self.arrive(running)
        since = {strand: len(capture.frames) for strand, capture in captures.items()}
        if meanwhile:
            meanwhile(running)
        for strand, capture in captures.items():
            for is_probe in probes.values():
                capture.wait_for(is_probe, count=3, since=since[strand], what="probe in the flood")
        assert running.running
        self.finish(running)
        assert self.arrived() - before >= LEAST_SHARE * running.sent
        for family in probes:
            self.lb.wait_cycles(1, family=family)
        self.check()
        for family, is_probe in probes.items():
            self.lab.discard(watches[family])
            for strand, capture in captures.items():
                requests = capture.select(is_probe)
                self._once_a_cycle(requests, watches[family].stamps, f"IPv{family} {strand.name}")
                assert max(map(sniffer.echo_key, requests)) < min(flood.UNUSED_KEYS)
        for capture in captures.values():
            self.lab.discard(capture)

    @staticmethod
    def _once_a_cycle(requests, cycles, name):
        """The time between two probes is held against the cycles of the same time: a busy machine stretches both."""
        times = [frame.when for frame in requests]
        gaps = [after - before for before, after in zip(times, times[1:])]
        longest = max(after - before for before, after in zip(cycles, cycles[1:]))
        # A reply that is late for the look at it is seen in the next cycle, and the next request leaves in the third.
        assert max(gaps) < 2 * longest + 0.5, f"{name}: {gaps}, while cycles took {longest} s at most"
        assert min(gaps) > 0.9, f"{name}: {gaps}"
        between = [when for when in times if cycles[0] <= when <= cycles[-1]]
        assert len(between) >= (len(cycles) - 1) / 2 - 1, f"{name}: {len(between)} probes in {len(cycles) - 1} cycles"

    def check(self):
        """Nothing has changed."""
        for name, family in self.watched:
            assert self.lb.statuses(family)[name] == "active"
            changes = state_changes(self.lab, name, family == 6)
            assert changes == flapped(0), f"IPv{family} {name}: {changes}"

    def settle(self):
        """All is as it was before the floods."""
        self.check()
        self.growth.check()
        for watch in self.routes:
            watch.verify()


@pytest.fixture
def flooded(lab, request):
    # One flood at a time, of all labs of this checkout: it takes a good part of a processor.
    with open(__file__, encoding="utf-8") as turns:
        yield Flooded(lab, turns, getattr(request, "param", 1))


def test_answers_to_nobodys_question(flooded):
    """ARP replies, then advertisements: malformed ones, those of strangers, the watched neighbour's own, and forged
    ones for the neighbour of another link."""
    flooded.stand(flood.arp_flood(flooded.target, flooded.other))
    flooded.stand(flood.advertisement_flood(flooded.target, flooded.other))
    flooded.settle()


def test_echo_replies_to_nobodys_request(flooded):
    for ipv6 in (False, True):
        flooded.stand(flood.foreign_echo_flood(flooded.target, ipv6))
    flooded.settle()


def test_echo_replies_with_the_keys_of_probes(flooded):
    """A key is all that an answer needs: whatever is right or wrong about the rest, probes succeed.

    That the flood meets probes on their way shows while nothing else answers them.
    """
    keys = {}

    def frames():
        # As many as are used up meanwhile, and no more: the flood is to come round to each within milliseconds.
        for ipv6, a_second in ((False, 8), (True, 4)):
            first = flooded.key(ipv6)
            keys[ipv6] = range(first, first + int(a_second * (6.0 + waiting.scaled(2.0))))
        return [frame for ipv6, wanted in keys.items()
                for frame in flood.matching_echo_flood(flooded.target, ipv6, wanted)]

    def deaf_far_end(running):
        capture = flooded.links.sniffer(flooded.first)
        flooded.links.deafen(flooded.first)
        capture.settle()
        since = len(capture.frames)
        for ipv6, request in ((False, sniffer.is_echo_request), (True, sniffer.is_echo6_request)):
            probes = capture.wait_for(request, count=2, since=since)
            assert set(map(sniffer.echo_key, probes)) <= set(keys[ipv6])
        replies = capture.select(lambda frame: sniffer.is_echo_reply(frame) or sniffer.is_echo6_reply(frame), since)
        assert not replies, "the far end was to be deaf"
        flooded.links.undeafen(flooded.first)
        assert running.running

    flooded.stand(frames, meanwhile=deaf_far_end)
    flooded.settle()


def test_everything_at_once(flooded):
    target, other = flooded.target, flooded.other

    def frames():
        first = flooded.key(False)
        return (flood.garbage_flood(target) + flood.arp_flood(target, other) + flood.advertisement_flood(target, other)
                + flood.foreign_echo_flood(target, False) + flood.foreign_echo_flood(target, True)
                + flood.matching_echo_flood(target, False, range(first, first + 50)))

    flooded.stand(frames, seconds=4.0)
    flooded.settle()


def test_link_that_dies_in_a_flood(flooded):
    """The flood does not hide it: no frame of it answers a probe."""
    running = flooded.flood(flood.foreign_echo_flood(flooded.target, False)
                            + flood.foreign_echo_flood(flooded.target, True))
    flooded.arrive(running)
    flooded.links.silence(flooded.control)
    for family in (4, 6):
        flooded.lb.wait_status(flooded.control.name, "failed", family=family)
    assert running.running
    flooded.links.restore(flooded.control)
    flooded.finish(running)
    for family in (4, 6):
        flooded.lb.wait_status(flooded.control.name, "active", family=family)
        # A message may come a moment after the report that shows its change.
        waiting.wait_until(lambda v6=family == 6: state_changes(flooded.lab, flooded.control.name, v6) == flapped(1))
    flooded.watched = [link for link in flooded.watched if link[0] != flooded.control.name]
    flooded.settle()


@pytest.mark.parametrize("flooded", [2], indirect=True, ids=["one-probe-may-be-lost"])
def test_neighbours_resolved_in_a_flood(flooded):
    """The answer that counts comes among ten thousand a second that do not. On a busy machine one may come too late."""
    frames = (flood.arp_flood(flooded.target, flooded.other)
              + flood.advertisement_flood(flooded.target, flooded.other))
    captures = [flooded.links.sniffer(strand) for strand in (flooded.first, flooded.control)]
    running = flooded.flood([frame for frame in frames if flooded.target.far_mac not in frame[14:]])
    flooded.arrive(running)
    since = [len(capture.frames) for capture in captures]
    for _ in range(3):
        for family in (4, 6):
            # The report ends a cycle's work: the next one has to resolve anew.
            flooded.lb.wait_cycles(1, family=family)
            for strand in (flooded.first, flooded.control):
                flooded.lab.ip(f"-{family} neigh flush dev {strand.name}")
    for ipv6 in (False, True):
        # Not each time: a request of the far end teaches the kernel too.
        waiting.wait_until(lambda: any(sniffer.answered_resolutions(capture.frames[start:], ipv6)
                                       for capture, start in zip(captures, since)), "an answer in the flood")
    assert running.running
    flooded.finish(running)
    for family in (4, 6):
        flooded.lb.wait_cycles(2, family=family)
    flooded.settle()


@pytest.mark.parametrize("frames", [flood.distinct_arp, flood.distinct_advertisements])
def test_answers_of_very_many(flooded, frames):
    """50,000 addresses that nobody asked for: each is one that could be remembered, and must not be."""
    count = 50000 if PLAIN else 10000
    flooded.take_turn()
    before = flooded.arrived()
    running = flooded.flood(frames(flooded.target, count), most=count)
    flooded.finish(running)
    assert running.sent == count
    assert flooded.arrived() - before >= LEAST_SHARE * count
    for family in (4, 6):
        flooded.lb.wait_cycles(2, family=family)
    flooded.settle()
