"""A dual-stack router with two uplinks, the real routing daemon and ours; for a scenario and for the demonstration.

    198.51.100.1 (far1) 10.1.0.1 ---- 10.1.0.2 wan1 \\
      2001:db8:1::1   fd00:1::1 ---- fd00:1::2        router: bird + lb, routes 0.0.0.0/0 and ::/0
    198.51.100.2 (far2) 10.2.0.1 ---- 10.2.0.2 wan2 /
      2001:db8:2::1   fd00:2::1 ---- fd00:2::2

Use:

    with TwoUplinks() as network:
        network.start()
        network.wait_both(); network.cut(1); network.wait_only(2); network.restore(1); network.wait_both()
        network.kernel_routes(6)
        print(network.leave_running())     # the command that enters the lab; nothing is torn down
"""

import os
import re

from . import configtext, waiting
from .bird import Bird
from .lab import Lab


class TwoUplinks:
    WEIGHTS = {1: 1, 2: 2}
    TARGETS = {1: ("198.51.100.1", "2001:db8:1::1"), 2: ("198.51.100.2", "2001:db8:2::1")}

    def __init__(self, lab=None, success_ct=1, failure_ct=1, resp_time=900):
        """Makes the network, in a lab of its own unless one is given. resp_time: milliseconds."""
        self._own = lab is None
        self.lab = lab or Lab()
        self.links = {number: self.lab.uplink(number, far_end="kernel", ipv6=True, target=self.TARGETS[number][0],
                                              target6=self.TARGETS[number][1]) for number in (1, 2)}
        self.bird = self.lb = None
        self.config_text = self._config(success_ct, failure_ct, resp_time)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _config(self, success_ct, failure_ct, resp_time):
        interfaces, members = [], {}
        for number, link in self.links.items():
            members[link.name] = self.WEIGHTS[number]
            for ipv6, gateway in ((False, link.gateway), (True, link.gateway6)):
                interfaces.append(configtext.interface(
                    link.name, [configtext.ping(self.TARGETS[number][ipv6], resp_time=resp_time)], ipv6=ipv6,
                    success_ct=success_ct, failure_ct=failure_ct, nexthop=gateway))
        rules = [configtext.rule("1_ipv4", members, {"0.0.0.0/0": None}),
                 configtext.rule("1_ipv6", members, {"::/0": None})]
        return configtext.build(interfaces, rules)

    def start(self):
        """Starts the routing daemon, then ours."""
        self.bird = Bird(self.lab)
        self.lb = self.lab.start_lb(self.config_text, "-i", self.lab.path("run/lb.pid"))

    def cut(self, number):
        """The far end of a link goes silent; the link itself stays up."""
        self.links[number].cut()

    def restore(self, number):
        self.links[number].restore()

    def state(self, number, family=4):
        """ "active" or "failed", as the status report says; None while there is no report."""
        if not os.path.exists(self.lb.report_path(family)):
            return None
        return self.lb.statuses(family).get(self.links[number].name)

    def report(self, family=4):
        return self.lb.report(family)

    def route_file(self, family=4):
        """Text of the file that our daemon writes for the routing daemon; empty when there is none."""
        name = "usr_etc/routing-wlb6.conf" if family == 6 else "usr_etc/routing-wlb.conf"
        return self.lab.read(name) if self.lab.exists(name) else ""

    def kernel_routes(self, family=4):
        """What `ip route show default` prints inside."""
        return self.lab.ip_text(f"-{family} route show default")

    def kernel_weights(self, family=4):
        """{next hop: weight} of the kernel's default route; weight 1 for a route with one next hop."""
        text = self.kernel_routes(family)
        return {found[1]: int(found[2] or 1)
                for found in re.finditer(r"via (\S+)[^\n]*?dev \S+(?:[^\n]*? weight (\d+))?", text)}

    def _gateways(self, family, numbers):
        return {(self.links[number].gateway6 if family == 6 else self.links[number].gateway): number
                for number in numbers}

    def uses_both(self, family=4):
        expected = {gateway: self.WEIGHTS[number] for gateway, number in self._gateways(family, (1, 2)).items()}
        return self.kernel_weights(family) == expected

    def uses_only(self, number, family=4):
        return set(self.kernel_weights(family)) == set(self._gateways(family, (number,)))

    def wait_both(self, families=(4, 6), timeout=waiting.PATIENCE):
        for family in families:
            waiting.wait_until(lambda f=family: self.uses_both(f), lambda f=family: self._seen(f), timeout=timeout,
                               interval=0.05)

    def wait_only(self, number, families=(4, 6), timeout=waiting.PATIENCE):
        for family in families:
            waiting.wait_until(lambda f=family: self.uses_only(number, f),
                               lambda f=family: self._seen(f), timeout=timeout, interval=0.05)

    def _seen(self, family):
        return (f"the kernel's IPv{family} default route:\n{self.kernel_routes(family)}\nroute file:\n"
                f"{self.route_file(family)}\nlog:\n{self.lab.log.text()}\nbird:\n{self.bird.log()}")

    def leave_running(self):
        """Everything goes on after this process; returns the commands that enter and that end the lab."""
        return self.lab.leave_running()

    def close(self):
        if self._own:
            self.lab.close()
