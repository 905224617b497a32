"""A daemon over many links, with all that is to hold while these suffer."""

from . import configtext, waiting
from .configtext import interface, ping, rule
from .growth import Growth
from .many_links import explained_by, flapped, state_changes
from .route_watch import RouteWatch

# Below a second, the time between two looks: a probe has the time that it would have without a limit.
PATIENT = {"resp_time": 900}


def config(strands, tests=None, failure_ct=1):
    """One rule per family over all links. tests: {strand: lines of its test}, else a ping of the gateway."""
    blocks = [interface(strand.name, [(tests or {}).get(strand) or ping(strand.gateway, **PATIENT)],
                        ipv6=strand.ipv6, success_ct=1, failure_ct=failure_ct, nexthop=strand.gateway)
              for strand in strands]
    rules = []
    for family, prefix in ((4, "0.0.0.0/0"), (6, "::/0")):
        members = {strand.name: 1 for strand in strands if strand.family == family}
        if members:
            rules.append(rule(f"1_ipv{family}", members, {prefix: None}))
    return configtext.build(blocks, rules)


class Watched:
    """Made when the links are; the daemon is `lb`. Each `finish` or `settle` holds everything against the log.

    failure_ct: with 2, a fault may cost a link one probe.
    """

    def __init__(self, lab, strands, tests=None, failure_ct=1):
        self.lab, self.strands = lab, list(strands)
        families = sorted({strand.family for strand in strands})
        self.routes = [RouteWatch(lab, f"usr_etc/routing-wlb{6 if family == 6 else ''}.conf", explained_by(
            [strand for strand in self.strands if strand.family == family], family), family) for family in families]
        self.lb = lab.start_lb(config(strands, tests, failure_ct))
        self.wait("active", *strands)
        self.growth = Growth(lab, self.lb)

    def wait(self, status, *strands, timeout=waiting.PATIENCE):
        for family in (4, 6):
            names = {strand.name for strand in strands if strand.family == family}
            if names:
                waiting.wait_until(
                    lambda f=family, n=names: {self.lb.statuses(f).get(name) for name in n} == {status},
                    lambda f=family, n=names: f"{sorted(n)} {status}; now {self.lb.statuses(f)}",
                    timeout=timeout, interval=0.05)

    def changes(self, strand):
        return state_changes(self.lab, strand.name, strand.ipv6)

    def expect_flaps(self, strand, times):
        """A message may come a moment after the report that shows its change."""
        waiting.wait_until(lambda: self.changes(strand) == flapped(times),
                           lambda: f"{strand.name}: {self.changes(strand)}, not {flapped(times)}")

    def finish(self, touched, flaps):
        """Each of `touched` went and came `flaps` times, the others never; nothing else is left of it all."""
        for strand in self.strands:
            self.expect_flaps(strand, flaps if strand in touched else 0)
        self.settle()

    def settle(self):
        self.wait("active", *self.strands)
        self.growth.check()
        for watch in self.routes:
            watch.verify()
