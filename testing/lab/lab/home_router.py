"""A router at home or in a branch: two providers, bird with the lines of docs/running.md, and ours.

    198.51.100.1, 2001:db8:ff::1 far1 ---- wan1 \\
                                                 router: bird + lb, default routes of both families
    198.51.100.2, 2001:db8:ff::2 far2 ---- wan2 /

Which addresses the links have, and how they get them, is the scenario's. Each link is probed through its provider's
target, behind the gateway.
"""

from . import configtext, kernel_routes, waiting
from .bird import README_CONFIG, Bird
from .configtext import interface, ping, rule
from .provider import Provider

# All that stock Linux needs.
STOCK = ("routing-daemon bird2", "discovery linux", "replies wire", "keep-last-routes")

# A scenario with what stock Linux needs, and without: then it shows what comes of it.
ON_AND_OFF = {"argnames": "stock", "argvalues": [True, False], "ids": ["on", "off"]}


class HomeRouter:
    def __init__(self, lab, gateways=(None, None), ipv6=False):
        """gateways: of IPv4, ADDRESS/LENGTH; usually 10.1.0.1/24 and 10.2.0.1/24."""
        self.lab = lab
        lab.sysctl("net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1")
        self.links = [Provider(lab, number, gateway, ipv6) for number, gateway in enumerate(gateways, start=1)]
        self.bird = self.lb = None

    def give_addresses(self):
        """Static addresses: 10.1.0.2/24 and 10.2.0.2/24."""
        for link in self.links:
            self.lab.ip(f"addr add {link.address}/24 dev {link.name}")

    def serve(self):
        """Both providers' DHCP servers start, with their usual gateways."""
        for link in self.links:
            link.serve(f"10.{link.number}.0.50", f"10.{link.number}.0.99", link.gateway)

    def config(self, keywords_of, stock=True, family=4, targets_of=None, patience=None):
        """The daemon's configuration. keywords_of(link): a dictionary with its interface's keywords.

        targets_of(link): the addresses that it probes instead of its target; "" is the next hop.
        patience: milliseconds until a probe counts as lost.
        """
        if targets_of is None:
            def targets_of(link):
                return [link.target6 if family == 6 else link.target]
        patience = patience or waiting.milliseconds(1000)
        sections = [interface(link.name, [ping(target, resp_time=patience) for target in targets_of(link)],
                              ipv6=family == 6, **{"success_ct": 1, "failure_ct": 2, **keywords_of(link)})
                    for link in self.links]
        rules = [rule(f"1_ipv{family}", dict.fromkeys([link.name for link in self.links], 1),
                      {"::/0" if family == 6 else "0.0.0.0/0": None})]
        return configtext.options(*STOCK if stock else ()) + configtext.build(sections, rules)

    def start(self, config_text):
        """Starts bird, then ours."""
        for name in ("usr_etc/routing-wlb.conf", "usr_etc/routing-wlb6.conf"):
            if not self.lab.exists(name):
                self.lab.write(name, "")
        self.bird = Bird(self.lab, README_CONFIG.format(log=self.lab.path("bird.log")))
        self.lb = self.lab.start_lb(config_text)

    def hops(self, family=4, protocol="bird"):
        return kernel_routes.hops_of(self.lab, protocol, family)

    def wait_hops(self, *gateways, family=4, timeout=60):
        """Waits until bird's default route in the kernel has exactly those ways.

        gateways: of the first provider, of the second; None where its link is not to be used.
        """
        expected = {(gateway, link.name) for gateway, link in zip(gateways, self.links) if gateway}
        waiting.wait_until(lambda: self.hops(family) == expected, lambda: f"{expected}\n{self.state(family)}",
                           timeout=timeout, interval=0.05)

    def wait_statuses(self, *statuses, family=4, timeout=60):
        for link, status in zip(self.links, statuses):
            self.lb.wait_status(link.name, status, family=family, timeout=timeout)

    def state(self, family=4):
        """What to read when a scenario fails."""
        name = f"usr_etc/routing-wlb{'6' if family == 6 else ''}.conf"
        return (f"kernel:\n{self.lab.ip_text(f'-{family} route')}\n{name}:\n{self.lab.read(name)}\n"
                f"report:\n{self.lb.report(family)}\nlog:\n{self.lab.log.text()}\nbird:\n{self.bird.log()}")
