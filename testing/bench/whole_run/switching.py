"""How soon a silent far end is noticed, and how soon the kernel's routes follow, through a running bird2.

    router wan01 ... wan20   each in a failover rule of its own, with wan21 as the standby   far: kernel

Links are cut at random moments, many at a time, by rules at the far end that drop everything; each one is timed.
"""

import random
import time
from dataclasses import dataclass, field

from lab import configtext, stamps
from lab.bird import Bird
from lab.configtext import interface, options, ping, rule
from lab.daemon import CycleWatch
from lab.lab import Lab
from lab.many_links import ManyLinks, Strand
from lab.route_watch import STATE_CHANGE

from .route_events import RouteEvents

LINKS = 20
RESP_TIME = 900  # milliseconds
_PATIENCE = 60.0  # seconds until a cut or a restored link is given up


@dataclass
class Cut:
    """Moments of the monotonic clock: silence, FAILED, the route by the standby; and of the way back."""

    link: str
    silent: float
    failed: float = None
    switched: float = None
    restored: float = None
    active: float = None
    returned: float = None


@dataclass
class Switching:
    """Seconds. `bounds`: for each cut, resp_time and twice the longest cycle of its time."""

    family: int
    resp_time: float
    detection: list = field(default_factory=list)
    bounds: list = field(default_factory=list)
    switch: list = field(default_factory=list)
    back: list = field(default_factory=list)


def destination(strand):
    return f"2001:db8:{strand.number:x}::" if strand.ipv6 else f"198.18.{strand.number}.0"


def config(strands, standby):
    ipv6 = standby.ipv6
    blocks = [interface(strand.name, [ping(strand.gateway, resp_time=RESP_TIME)], ipv6=ipv6, success_ct=1,
                        nexthop=strand.gateway) for strand in (*strands, standby)]
    rules = [rule(f"{strand.number}_ipv{strand.family}", {strand.name: 2, standby.name: 1},
                  {f"{destination(strand)}/{48 if ipv6 else 24}": None}, failover=True) for strand in strands]
    return options("routing-daemon bird2") + configtext.build(blocks, rules)


def bound(cut, cycles, resp_time):
    """resp_time and twice the longest of the cycles that were going on between silence and FAILED.

    cycles: the moments of their ends.
    """
    spans = [later - earlier for earlier, later in zip(cycles, cycles[1:])
             if later >= cut.silent and earlier <= cut.failed]
    return resp_time + 2 * max(spans, default=1.0)


class Cutter:
    """Cuts links that are active and have their routes, and restores those that have failed and lost them.

    `log` and `routes` grow by themselves: `records` of the one, `seen` of the other.
    """

    def __init__(self, links, strands, standby, log, routes, seed):
        self._links, self._log, self._routes = links, log, routes
        self._strands = {strand.name: strand for strand in strands}
        self._of_destination = {destination(strand): strand for strand in strands}
        self._standby = standby
        self._random = random.Random(seed)
        self._log_read = self._routes_read = 0
        self._active, self._by_own = set(), set()  # links that are, and whose route is by themselves
        self._open = {}  # link: its cut
        self.done = []

    def _take_in(self):
        """What the log and the kernel have said since the last call."""
        records = self._log.records[self._log_read:]
        self._log_read += len(records)
        for record in records:
            found = STATE_CHANGE.search(record.text)
            if not found or found[2] not in self._strands or bool(found[1]) != self._standby.ipv6:
                continue
            name, active = found[2], found[3] == "active"
            (self._active.add if active else self._active.discard)(name)
            cut = self._open.get(name)
            if cut and not active and cut.failed is None:
                cut.failed = record.when
            elif cut and active and cut.restored is not None and cut.active is None:
                cut.active = record.when
        events = self._routes.seen[self._routes_read:]
        self._routes_read += len(events)
        for when, target, gateway in events:
            strand = self._of_destination.get(target)
            if strand is None:
                continue
            cut = self._open.get(strand.name)
            if gateway == strand.gateway:
                self._by_own.add(strand.name)
                if cut and cut.restored is not None and cut.returned is None:
                    cut.returned = when
            elif gateway == self._standby.gateway:
                self._by_own.discard(strand.name)
                if cut and cut.switched is None:
                    cut.switched = when

    def run(self, count):
        """`count` cuts, each to its end."""
        due, last = {}, time.monotonic()
        while len(self.done) < count:
            self._take_in()
            now = time.monotonic()
            for name in sorted((self._active & self._by_own) - self._open.keys() - due.keys()):
                due[name] = now + self._random.uniform(0.0, 1.5)
            ripe = [name for name, when in due.items() if when <= now]
            if ripe and len(self.done) + len(self._open) < count:
                # Told before it is so: what the command takes makes the result no better.
                cut = Cut(ripe[0], time.monotonic())
                self._links.silence(self._strands[ripe[0]])
                self._open[ripe[0]] = cut
                del due[ripe[0]]
            for name, cut in list(self._open.items()):
                if cut.switched is not None and cut.failed is not None and cut.restored is None:
                    cut.restored = time.monotonic()
                    self._links.restore(self._strands[name])
                elif cut.returned is not None and cut.active is not None:
                    self.done.append(self._open.pop(name))
                    last = now
            if now - last > _PATIENCE:
                raise RuntimeError(f"no cut came to its end in {_PATIENCE:g} s: {self._open or due}")
            time.sleep(0.002)


def switching(family, cuts, seed=1):
    """Times of `cuts` cuts."""
    with Lab() as lab:
        lab.write("etc/wan_lb/log-flags", "34 2\n")
        strands = [Strand(number, ipv6=family == 6) for number in range(1, LINKS + 2)]
        standby = strands.pop()
        links = ManyLinks(lab, [*strands, standby])
        routes = RouteEvents(lab, family)
        Bird(lab)
        lb = lab.start_lb(config(strands, standby))
        lb.wait_cycles(1, family)
        watch = CycleWatch(lb, family)
        cutter = Cutter(links, strands, standby, lab.log, routes, seed)
        try:
            cutter.run(cuts)
        finally:
            watch.close()
        ends = [stamps.monotonic_of(stamp) for stamp in watch.stamps]
        result = Switching(family, RESP_TIME / 1000)
        for cut in cutter.done:
            result.detection.append(cut.failed - cut.silent)
            result.bounds.append(bound(cut, ends, result.resp_time))
            result.switch.append(cut.switched - cut.failed)
            result.back.append(cut.returned - cut.active)
        return result
