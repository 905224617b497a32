"""How many system calls the daemon makes per probe, over 64 links that are all healthy.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far: the kernel answers

strace is attached between two cycles and let go between two others, so that it sees whole cycles. What the far end got
tells how many probes there were.
"""

import collections
import re
import signal

from lab import configtext, waiting
from lab.lab import Lab
from lab.many_links import ManyLinks, Strand

LINKS = 64
CYCLES = 3

# Path: family, and whether the links have link-layer addresses.
PATHS = {"IPv4 frame": (4, True), "IPv4 raw": (4, False), "IPv6 frame": (6, True)}

# Made by being traced: every wait that strace interrupts goes on with one.
TRACERS = {"restart_syscall"}

_COUNTER = ("table inet count {{\nchain receive {{\ntype filter hook prerouting priority 0;\n"
            "{} type echo-request counter\n}}\n}}")


class _Router:
    def __init__(self, lab, family, arp):
        self.lab, self.family = lab, family
        self.links = ManyLinks(lab, [Strand(number, ipv6=family == 6, arp=arp) for number in range(1, LINKS + 1)])
        lab.nft(_COUNTER.format("icmpv6" if family == 6 else "icmp"), netns="far")
        gateways = {s.name: s.gateway6 if family == 6 else s.gateway4 for s in self.links.strands}
        interfaces = [configtext.interface(name, [configtext.ping()], ipv6=family == 6, success_ct=1, nexthop=gateway)
                      for name, gateway in gateways.items()]
        rules = [configtext.rule(f"1_ipv{family}", dict.fromkeys(gateways, 1),
                                 {"::/0" if family == 6 else "0.0.0.0/0": None})]
        self.lb = lab.start_lb(configtext.build(interfaces, rules))
        waiting.wait_until(lambda: set(self.lb.statuses(family).values()) == {"active"} and
                           len(self.lb.statuses(family)) == LINKS, "all links active", timeout=90)

    def probes(self):
        text = self.lab.run(["nft", "list", "table", "inet", "count"], "far").stdout
        return int(re.search(r"packets (\d+)", text)[1])

    def call_counts(self):
        """{call: number} of some whole cycles, and how many probes were in them."""
        summary = self.lab.path("strace")
        self.lb.wait_cycles(1, self.family)
        before = self.probes()
        tracer = self.lab.enclosure.spawn(["strace", "-f", "-c", "-U", "calls,name", "-o", summary,
                                           "-p", str(self.lb.pid)])
        waiting.wait_until(lambda: "attached" in tracer.stderr, lambda: f"strace: {tracer.stderr}")
        assert self.probes() == before, "strace came too late for the cycle's start"
        self.lb.wait_cycles(CYCLES, self.family)
        after = self.probes()
        tracer.signal(signal.SIGINT)
        tracer.wait()
        assert self.probes() == after, "strace was let go too late for the cycle's end"
        probes = after - before
        # A reply that is read late, since strace slows its receiver, leaves out the link's next probe.
        assert 0.95 <= probes / (CYCLES * LINKS) <= 1, f"{probes} probes in {CYCLES} cycles of {LINKS} links"
        with open(summary, encoding="ascii") as file:
            found = re.findall(r"^\s*(\d+) (\w+)$", file.read(), re.MULTILINE)
        calls = collections.Counter({name: int(number) for number, name in found if name != "total"})
        assert calls, tracer.stderr
        return calls, probes


def count_path(path):
    """{call: number per probe}"""
    with Lab() as lab:
        calls, probes = _Router(lab, *PATHS[path]).call_counts()
        problems = lab.finish()
        assert not problems, problems
    return {name: round(number / probes, 2) for name, number in calls.items() if name not in TRACERS}


def count():
    """{path: {call: number per probe}}"""
    return {path: count_path(path) for path in PATHS}
