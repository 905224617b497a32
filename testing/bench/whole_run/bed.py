"""The links of one case, and what is started on them.

    router wanNN ---- fNN   far: its kernel answers        (in a case with VRFs: vrf1 wanNN ---- fNN far)
"""

import os

from lab import configtext, waiting
from lab.configtext import interface, ping, rule
from lab.lab import Lab
from lab.many_links import ManyLinks, Strand

from .far_end import FarEnd

_BURST_GAP = 0.1  # milliseconds from probe to probe

# As a router logs: neither every message, nor every repeat.
_LOG_FLAGS = "34 2\n"


def link_local(mac):
    """The kernel's own address for a hardware address that begins with 02:00:00."""
    digits = mac.replace(":", "")
    return f"fe80::ff:fe{digits[6:8]}:{int(digits[8:], 16):x}"


class Bed:
    """Use as a context manager: what was started and made ends with it."""

    def __init__(self, case, silent=0):
        """`silent`: so many further links, at the far end of which nobody answers, not even ARP."""
        self.case = case
        self.lab = Lab()
        try:
            self._make(silent)
        except BaseException:
            self.lab.close()
            raise

    def _make(self, silent):
        case, lab = self.case, self.lab
        lab.write("etc/wan_lb/log-flags", _LOG_FLAGS)
        self.vrfs = [None] if case.vrfs == 1 else [f"vrf{number}" for number in range(1, case.vrfs + 1)]
        for vrf in self.vrfs:
            if vrf:
                lab.add_netns(vrf)
                os.makedirs(lab.path(f"var_vrfs/{vrf}/usr/etc"))
        self.strands = [Strand(number, case.family == 6, case.arp, self.vrfs[number % len(self.vrfs)])
                        for number in range(1, case.interfaces + silent + 1)]
        self.probed = self.strands[:case.interfaces]
        if case.family == 4:
            for vrf in self.vrfs:
                lab.sysctl("net.ipv6.conf.default.disable_ipv6=1", netns=vrf)
        self.links = ManyLinks(lab, self.strands, cuts=False)
        if silent:
            lab.ip(*[f"addr flush dev {strand.far_name}" for strand in self.strands[case.interfaces:]],
                   "link set lo up", netns=self.links.far)
        if case.permanent_neighbours:
            self._make_neighbours_permanent()
        self.far = FarEnd(lab, self.links.far, case.family)

    def _make_neighbours_permanent(self):
        near, far = {vrf: [] for vrf in self.vrfs}, []
        for strand in self.probed:
            near[strand.vrf].append(f"neigh replace {strand.gateway} lladdr {strand.far_mac} dev {strand.name} "
                                    "nud permanent")
            own = (strand.address6, link_local(strand.mac)) if strand.ipv6 else (strand.address,)
            for address in own:
                far.append(f"neigh replace {address} lladdr {strand.mac} dev {strand.far_name} nud permanent")
        for vrf, lines in near.items():
            self.lab.ip(*lines, "link set lo up", netns=vrf)
        self.lab.ip(*far, "link set lo up", netns=self.links.far)

    def _config(self, strands):
        case = self.case
        family6 = case.family == 6
        blocks = [interface(strand.name, [ping(strand.gateway, resp_time=case.resp_time)], ipv6=family6, success_ct=1,
                            nexthop=strand.gateway, **({"namespace": strand.vrf} if strand.vrf else {}))
                  for strand in strands]
        rules = [rule(f"{number}_ipv{case.family}",
                      {strand.name: 1 for strand in strands if strand.vrf == vrf},
                      {"::/0" if family6 else "0.0.0.0/0": None}, namespace=vrf)
                 for number, vrf in enumerate(self.vrfs, 1)]
        return configtext.build(blocks, rules)

    def start_lb(self, strands=None):
        """The daemon, when every interface has settled and every thread runs. It probes all that somebody answers."""
        case, lb = self.case, self.lab.start_lb(self._config(strands or self.probed))
        patience = 60 + case.interfaces / 4
        # What it does at its start, with sockets still to be made, is over with the first cycle.
        lb.wait_cycles(1, case.family, timeout=patience)
        if case.answered:
            wanted = {strand.name for strand in self.probed}
            waiting.wait_until(lambda: {name for name, status in lb.statuses(case.family).items()
                                        if status == "active"} == wanted,
                               lambda: f"all interfaces active; log:\n{self.lab.log.text()[-2000:]}",
                               timeout=patience, interval=0.1)
        return lb

    def start_fping(self, period, burst):
        """One fping for each VRF; `period` in seconds. They go on until they are ended.

        burst: all targets one after the other, as the daemon does, then nothing until the period is over. Else they
        follow each other evenly, and each probe finds its processor asleep.
        """
        started = []
        for vrf in self.vrfs:
            targets = [strand.gateway for strand in self.probed if strand.vrf == vrf]
            path = self.lab.write(f"run/targets{vrf or ''}", "\n".join(targets) + "\n")
            # A target's share of the period, and less, so that -p stays in charge: a probe that is late delays all
            # that follow by as much.
            share = 1000 * period / len(targets)
            gap = _BURST_GAP if burst else 0.9 * share if share > 5 else 0.4 * share
            started.append(self.lab.enclosure.spawn(
                ["fping", f"-{self.case.family}", "-l", "-q", "-p", f"{1000 * period:.0f}", "-i", f"{gap:.2f}",
                 "-f", path], netns=vrf))
        return started

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.lab.close()
