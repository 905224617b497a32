"""The soak's router: three VRFs, both families, every kind of link and test, bird2 and the daemon.

    default  wan1 kernel far end                     wan4 raw path (no ARP), IPv4 only
             wan2 responder                          wan5 responder, extended ping over IPv4
             wan3 responder, next hop by DHCP        rules: weighted default route, failover for 203.0.113.0/24
    blue     wan6 kernel far end   wan7 responder    rules: weighted default route
    red      wan8 responder                          rules: default route

Every VRF also has a local network, from which somebody sends forged answers. Every link but wan4 has both families. A
probe may take a second; three failures in a row fail a link, and two successes bring it back.
"""

import os

from lab import capabilities, configtext
from lab.bird import Bird
from lab.configtext import interface, ping, ping_ext, route_file, route_line, rule
from lab.route_watch import RouteWatch

SUCCESSES, FAILURES, REPLY_MILLISECONDS = 2, 3, 1000
VRFS = {"default": (1, 2, 3, 4, 5), "blue": (6, 7), "red": (8,)}
KERNEL, RAW, DHCP, EXTENDED = (1, 6), 4, 3, 5
LEASE = 'lease {{\n  interface "wan3";\n  option routers {};\n}}\n'


class Router:
    def __init__(self, lab):
        self.lab = lab
        self.bird = self.lb = None
        self.watches = []
        self._answered_before = 0  # probes that went to far ends that are gone
        lab.write("etc/wan_lb/log-flags", "34 3\n")
        for vrf in VRFS:
            if vrf != "default":
                lab.add_netns(vrf)
                os.makedirs(lab.path(self.route_directory(vrf)))
        self.links = {number: self._uplink(number) for numbers in VRFS.values() for number in numbers}
        self.lans = {vrf: lab.uplink(number, name=f"lan{number}", vrf=self._netns(vrf), ipv6=True)
                     for number, vrf in enumerate(VRFS, 20)}
        lab.write("var_db/dhclient_wan3.leases", LEASE.format(self.links[DHCP].gateway))

    @staticmethod
    def route_directory(vrf):
        return "usr_etc/" if vrf == "default" else f"var_vrfs/{vrf}/usr/etc/"

    @staticmethod
    def _netns(vrf):
        return None if vrf == "default" else vrf

    @staticmethod
    def vrf_of(number):
        return next(vrf for vrf, numbers in VRFS.items() if number in numbers)

    @staticmethod
    def families(number):
        return (4,) if number == RAW else (4, 6)

    def keys(self, number, families=(4, 6)):
        """What the ledger calls a link's switches."""
        return [(family, self.links[number].name) for family in families if family in self.families(number)]

    def _uplink(self, number):
        link = self.lab.uplink(number, vrf=self._netns(self.vrf_of(number)), arp=number != RAW, ipv6=number != RAW,
                               far_end="kernel" if number in KERNEL else "responder")
        for netns in (link.vrf, link.far):
            self.lab.sysctl("net.ipv6.conf.all.keep_addr_on_down=1", netns=netns)
        return link

    # What happens to links

    def remove(self, number):
        """The interface and its far end go away."""
        link = self.links[number]
        self._answered_before += self._answered(link)
        if link.responder:
            self.lab.discard(link.responder)
            link.responder = None
        self.lab.ip(f"link del {link.name}", netns=link.vrf)
        self.lab.ip(f"netns del {link.far}")

    def make_again(self, number):
        self.links[number] = self._uplink(number)

    # The daemons

    def start(self):
        for vrf in VRFS:
            for family in (4, 6):
                self.watches.append(RouteWatch(
                    self.lab, self.route_directory(vrf) + f"routing-wlb{6 if family == 6 else ''}.conf",
                    lambda active, v=vrf, f=family: self.routes(v, f, active), family))
        self.bird = Bird(self.lab)
        self.lb = self.lab.start_lb(self.config(), prefix=capabilities.only(),
                                    env={"NOTIFY_SOCKET": self.lab.path("notify"), "WATCHDOG_USEC": "30000000"})

    def restart_bird(self):
        self.bird.kill()
        self.bird = Bird(self.lab)

    def config(self):
        interfaces, rules = [], []
        for vrf, numbers in VRFS.items():
            for number in numbers:
                for family in self.families(number):
                    interfaces.append(self._interface(vrf, number, family))
            for family in (4, 6):
                weights = {self.links[number].name: number for number in self._members(numbers, family)}
                rules.append(rule(f"{len(rules) + 10}_ipv{family}", weights,
                                  {"0.0.0.0/0" if family == 4 else "::/0": None}, namespace=vrf))
        rules.append(rule("30_ipv4", {"wan1": 5, "wan2": 4, "wan3": 4}, {"203.0.113.0/24": None}, failover=True))
        return configtext.build(interfaces, rules)

    def _members(self, numbers, family):
        return [number for number in numbers if family in self.families(number)]

    def _interface(self, vrf, number, family):
        link, ipv6 = self.links[number], family == 6
        nexthop = link.gateway6 if ipv6 else "dhcp" if number == DHCP else link.gateway
        test = (ping_ext(link.gateway, period=1, count=3, timeout=REPLY_MILLISECONDS, loss=50, rtt=900, jitter=900)
                if number == EXTENDED and not ipv6 else
                ping(link.gateway6 if ipv6 else link.gateway, resp_time=REPLY_MILLISECONDS))
        return interface(link.name, [test], ipv6=ipv6, success_ct=SUCCESSES, failure_ct=FAILURES, namespace=vrf,
                         nexthop=nexthop)

    def routes(self, vrf, family, active):
        """The route file that the documentation asks for with these interfaces active."""
        up = [number for number in self._members(VRFS[vrf], family) if self.links[number].name in active]
        lines = [route_line("0.0.0.0/0" if family == 4 else "::/0", [(self._gateway(n, family), n) for n in up])]
        if vrf == "default" and family == 4:
            weights = {1: 5, 2: 4, 3: 4}
            best = [number for number in weights if number in up][:1]
            lines.append(route_line("203.0.113.0/24", [(self._gateway(n, family), weights[n]) for n in best]))
        return route_file(*lines, ipv6=family == 6)

    @staticmethod
    def _gateway(number, family):
        return f"fd00:{number:x}::1" if family == 6 else f"10.{number}.0.1"

    def kernel_next_hops(self, family):
        text = self.lab.ip_text(f"-{family} route show default")
        return {number for number in self._members(VRFS["default"], family)
                if f"via {self._gateway(number, family)} " in text}

    # Counting

    def _answered(self, link):
        if link.responder:
            return len(link.responder.requests)
        text = self.lab.run(["cat", "/proc/net/snmp", "/proc/net/snmp6"], link.far).stdout
        lines = [line.split() for line in text.splitlines()]
        names, values = [line for line in lines if line[0] == "Icmp:"]
        return (int(values[names.index("InEchos")])
                + sum(int(line[1]) for line in lines if line[0] == "Icmp6InEchos"))

    def probes(self):
        """Echo requests that reached a far end so far."""
        return self._answered_before + sum(self._answered(link) for link in self.links.values())
