"""A router with 64 links that are all healthy, for what the daemon costs there.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far: the kernel answers
"""

import re

from lab import configtext, waiting
from lab.many_links import ManyLinks, Strand

LINKS = 64

# How probes go out: family, and whether the links have link-layer addresses.
PATHS = {"IPv4 frame": (4, True), "IPv4 raw": (4, False), "IPv6 frame": (6, True)}

_COUNTER = ("table inet count {{\nchain receive {{\ntype filter hook prerouting priority 0;\n"
            "{} type echo-request counter\n}}\n}}")


class HealthyLinks:
    def __init__(self, lab, path):
        self.lab = lab
        self.family, arp = PATHS[path]
        ipv6 = self.family == 6
        strands = [Strand(number, ipv6=ipv6, arp=arp) for number in range(1, LINKS + 1)]
        ManyLinks(lab, strands)
        lab.nft(_COUNTER.format("icmpv6" if ipv6 else "icmp"), netns="far")
        interfaces = [configtext.interface(s.name, [configtext.ping()], ipv6=ipv6, success_ct=1, nexthop=s.gateway)
                      for s in strands]
        rules = [configtext.rule(f"1_ipv{self.family}", {s.name: 1 for s in strands},
                                 {"::/0" if ipv6 else "0.0.0.0/0": None})]
        self._config = configtext.build(interfaces, rules)

    def start_lb(self, prefix=()):
        """A daemon whose links are all active; `prefix` is a command that starts it."""
        lb = self.lab.start_lb(self._config, prefix=prefix)
        waiting.wait_until(lambda: list(lb.statuses(self.family).values()) == ["active"] * LINKS,
                           "all links active", timeout=90)
        return lb

    def probes(self):
        """So many have come to the far end."""
        text = self.lab.run(["nft", "list", "table", "inet", "count"], "far").stdout
        return int(re.search(r"packets (\d+)", text)[1])
