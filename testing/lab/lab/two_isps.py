"""The guides' router: two ISPs, a LAN, and the samples and commands of the guides, under their own names.

    203.0.113.1, 2001:db8:ff::1 isp1 192.0.2.1, fe80::1    ---- eth0 192.0.2.10    \\
                                                                                     router ---- eth2 lan
    203.0.113.2, 2001:db8:ff::2 isp2 198.51.100.1, fe80::1 ---- eth1 198.51.100.10 /

    router eth2 192.168.50.1, 2001:db8:N000::1 ---- lan 192.168.50.2, 2001:db8:N000::2 (N: 1 and 2)

Behind both ISPs is everybody's 203.0.113.80 and 2001:db8:ff::80. Each ISP knows its own addresses and prefix only: what
reaches it from the other's is not answered.
"""

import itertools
import os
import select
import socket
import time

from . import configtext, kernel_routes, pages, waiting
from .bird import README_CONFIG, Bird
from .configtext import interface, ping, rule

EXAMPLES = os.path.join(pages.REPOSITORY, "packaging", "examples")
_INSTALLED_EXAMPLES = "/usr/share/doc/wan-lb/examples"

_NUMBERS = itertools.count()

SERVER, SERVER6 = "203.0.113.80", "2001:db8:ff::80"
STOCK = ("routing-daemon bird2", "discovery linux", "keep-last-routes")


def sample(name):
    with open(os.path.join(EXAMPLES, name), encoding="utf-8") as file:
        return file.read()


def without(text, *parts):
    """The text without the lines that have one of the parts; each is there."""
    for part in parts:
        assert part in text, f"{part!r} is not in\n{text}"
    return "\n".join(line for line in text.splitlines() if not any(part in line for part in parts)) + "\n"


def guide(name):
    """[(title of the section, "sh" or "conf", text)] of the blocks of a page in docs/guides, in order."""
    return [block for block in pages.all_blocks(f"docs/guides/{name}") if block[1] in ("sh", "conf")]


def own_directories(lab, *names):
    """Empty directories of the lab's own in /etc, in the place of the host's."""
    for name in names:
        if os.path.lexists(lab.path(f"etc/{name}")):
            lab.hide(name)
        os.mkdir(lab.path(f"etc/{name}"))


def carry_out(lab, blocks):
    """Does what the blocks of a guide say; what the package brings is taken from the repository. What was printed."""
    printed = ""
    for _, kind, text in blocks:
        if kind == "conf":
            path = text.split("\n", 1)[0].removeprefix("# ")
            assert path.startswith("/etc/"), path
            lab.write(path.removeprefix("/"), text)
        else:
            printed += lab.run(["sh", "-ec", text.replace(_INSTALLED_EXAMPLES, EXAMPLES)]).stdout
    return printed


class Isp:
    def __init__(self, lab, number, device, gateway, address):
        self.lab, self.number, self.name, self.gateway, self.address = lab, number, device, gateway, address
        self.far, self.far_name = f"isp{number}", f"f{number}"
        self.address6, self.prefix = f"2001:db8:{number}::10", f"2001:db8:{number}000::"
        self.target, self.target6 = f"203.0.113.{number}", f"2001:db8:ff::{number}"
        self.link_local = f"fe80::ff:fe00:{number}02"
        lab.add_netns(self.far)
        lab.ip(f"link add {device} address 02:00:00:00:0{number}:02 type veth peer name {self.far_name}"
               f" address 02:00:00:00:0{number}:01 netns {self.far}")
        lab.ip(f"link set {device} up", f"addr add {address}/24 dev {device}",
               f"addr add {self.address6}/64 dev {device} nodad")
        lab.ip(f"link set {self.far_name} up", f"addr add {gateway}/24 dev {self.far_name}",
               f"addr add fe80::1/64 dev {self.far_name} nodad",
               f"addr add 2001:db8:{number}::1/64 dev {self.far_name} nodad",
               f"route add {self.prefix}/56 via {self.link_local} dev {self.far_name}",
               *[f"addr add {address} dev lo" for address in (self.target, self.target6, SERVER, SERVER6)],
               netns=self.far)

    def cut(self):
        """It goes silent for all that comes in; the link stays up."""
        self.lab.cut(self.far)

    def restore(self):
        self.lab.restore(self.far)


class TwoIsps:
    def __init__(self, lab):
        self.lab = lab
        self.isps = [Isp(lab, 1, "eth0", "192.0.2.1", "192.0.2.10"),
                     Isp(lab, 2, "eth1", "198.51.100.1", "198.51.100.10")]
        lab.add_netns("lan")
        lab.ip("link add eth2 type veth peer name e netns lan")
        lab.ip("link set eth2 up", "addr add 192.168.50.1/24 dev eth2",
               *[f"addr add {isp.prefix}1/64 dev eth2 nodad" for isp in self.isps])
        lab.ip("link set e up", "addr add 192.168.50.2/24 dev e", "route add default via 192.168.50.1",
               *[f"addr add {isp.prefix}2/64 dev e nodad" for isp in self.isps],
               f"route add ::/0 via {self.isps[0].prefix}1", netns="lan")
        self.bird = self.lb = None
        self._sockets = []

    # The router's settings

    def firewall(self, *missing, devices=None, more=""):
        """Loads the sample, without the lines that have one of `missing`. devices: others in the places of its own."""
        text = without(sample("nftables/two-uplinks.nft"), *missing)
        for name, other in (devices or {}).items():
            text = text.replace(f'"{name}"', f'"{other}"')
        self.lab.nft(text + more)

    def settings(self, *missing):
        """The sample of sysctl settings, without the lines that have one of `missing`."""
        text = without(sample("sysctl/60-wan-lb.conf"), *missing)
        self.lab.sysctl(*[line.replace(" = ", "=") for line in text.splitlines() if line[:1] not in ("#", "")])

    def rules(self, *missing):
        """The rules and tables of the routing policy, as the guide has them, without the lines that have one of
        `missing`."""
        title, kind, text = next(block for block in guide("beside-the-kernel.md") if block[0].startswith("2."))
        carry_out(self.lab, [(title, kind, without(text, *missing))])

    def route(self, *isps, family=4):
        """The default route leads by these, as the load balancer would have it."""
        ways = [f"nexthop via {'fe80::1' if family == 6 else isp.gateway} dev {isp.name}" for isp in isps]
        self.lab.ip(f"-{family} route replace default {' '.join(ways)}")

    def start(self, options=STOCK, failover=False, families=(4,), tests=None, out=None, config=None, **keywords):
        """Starts bird, then ours; by default as the guide for two ISPs has it, but quicker.

        tests(isp, ipv6): those of its interface. out: the daemon's output directory. config: all of
        its configuration.
        """
        lab = self.lab
        config = config or self._config(options, failover, families, tests, keywords)
        for name in ("usr_etc/routing-wlb.conf", "usr_etc/routing-wlb6.conf"):
            lab.write(name, "")
        self.bird = Bird(lab, README_CONFIG.format(log=lab.path("bird.log")))
        self.lb = lab.start_lb(config, out=out)

    def _config(self, options, failover, families, tests, keywords):
        patience = waiting.milliseconds(1000)
        tests = tests or (lambda isp, ipv6: [ping(isp.target6 if ipv6 else isp.target, resp_time=patience)])
        sections, rules = [], []
        for family in families:
            ipv6 = family == 6
            for isp in self.isps:
                settings = {"origin": isp.name, "nexthop": "fe80::1" if ipv6 else isp.gateway, "success_ct": 1,
                            "failure_ct": 2, "source_address": "auto", **keywords}
                sections.append(interface(f"isp{isp.number}", tests(isp, ipv6), ipv6=ipv6, **settings))
            rules.append(rule(f"1_ipv{family}", {"isp1": 2, "isp2": 1} if failover else {"isp1": 1, "isp2": 1},
                              {"::/0" if ipv6 else "0.0.0.0/0": None}, failover=failover))
        return configtext.options(*options) + configtext.build(sections, rules)

    def wait_route(self, *isps, family=4):
        """Waits until the routing daemon's default route in the kernel leads by exactly these."""
        expected = {("fe80::1" if family == 6 else isp.gateway, isp.name) for isp in isps}
        waiting.wait_until(
            lambda: kernel_routes.hops_of(self.lab, "bird", family) == expected,
            lambda: f"{expected}, but it is\n{self.lab.ip_text(f'-{family} route')}\n{self.lb.report(family)}"
                    f"\n{self.lab.log.text()}\n{self.bird.log()}", timeout=60, interval=0.2)

    # Traffic

    def socket(self, kind, netns=None, address=("", 0), ipv6=False):
        """A bound socket (socket.SOCK_DGRAM or SOCK_STREAM) in the namespace, closed with the lab."""
        made = self.lab.closing(self.lab.enclosure.socket(socket.AF_INET6 if ipv6 else socket.AF_INET, kind, 0, netns))
        if address[1]:  # where the kernel chooses the port, it might give two sockets the same one
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.bind(address)
        if kind == socket.SOCK_STREAM:
            made.settimeout(waiting.scaled(waiting.PATIENCE))
        return made

    def listen(self, netns, address, ipv6=False):
        made = self.socket(socket.SOCK_STREAM, netns, address, ipv6)
        made.listen(64)
        return made


class Flow:
    """A client's UDP flow to port 7 of everybody's server, which each ISP has: who hears it, and what comes back."""

    def __init__(self, network, source="", ipv6=False):
        self.server = (SERVER6 if ipv6 else SERVER, 7)
        self.client = network.socket(socket.SOCK_DGRAM, "lan", (source, 0), ipv6)
        self.client.setblocking(False)
        self.sent = b""
        self.servers = {isp.far: network.socket(socket.SOCK_DGRAM, isp.far, self.server, ipv6)
                        for isp in network.isps}

    def send(self, patience=waiting.PATIENCE):
        """Sends a datagram; returns (ISP that heard it, source address that it saw), or None when nobody did.

        The server has answered it then, where it can.
        """
        # Its number tells it from an earlier one that nobody waits for any more.
        self.sent = str(next(_NUMBERS)).encode()
        self.client.sendto(self.sent, self.server)
        deadline = time.monotonic() + waiting.scaled(patience)
        while ready := select.select(list(self.servers.values()), [], [], max(0, deadline - time.monotonic()))[0]:
            for name, server in self.servers.items():
                if server not in ready:
                    continue
                heard, caller = server.recvfrom(10)
                if heard != self.sent:
                    continue
                try:
                    server.sendto(heard, caller)
                except OSError:  # nothing leads from here to such an address
                    pass
                return name, caller[0]
        return None

    def answered(self, patience=waiting.PATIENCE):
        """The client gets the answer to what it sent last."""
        deadline = time.monotonic() + waiting.scaled(patience)
        while select.select([self.client], [], [], max(0, deadline - time.monotonic()))[0]:
            if self.client.recv(10) == self.sent:
                return True
        return False

    def wait(self, expected, timeout=waiting.PATIENCE):
        """Sends until `expected` (ISP, source) hears it; returns how many were sent."""
        seen = []
        waiting.wait_until(lambda: seen.append(self.send(2)) or seen[-1] == expected,
                           lambda: f"{expected}; seen {seen}", timeout=timeout)
        return len(seen)
