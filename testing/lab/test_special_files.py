"""A FIFO, a socket or a device in the place of a file: it is refused, said so, and holds nobody up.

    router wan1 10.1.0.2 / fd00:1::2 -------- 10.1.0.1 / fd00:1::1 far1: responder; IPv4 by the router of its lease
"""

import os
import socket

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, route_line, rule

ROUTES = "usr_etc/routing-wlb.conf"


def fifo(path):
    os.mkfifo(path)


def unix_socket(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as made:
        made.bind(path)


def device(path):
    os.symlink("/dev/zero", path)


# Name below the lab's directory, what is said of it, and the family whose worker uses it.
FILES = {
    "pid file": ("run/lb.pid", "Can't fopen pid lock file {}, continuing", 4),
    "routing daemon's pid file": ("run/routing.pid", "wan_lb: pid file '{}' is no regular file, routing daemon not"
                                                     " signalled", 4),
    "route file": (ROUTES, "wan_lb: error writing file '{}', errno = 22", 4),
    "route file IPv6": ("usr_etc/routing-wlb6.conf", "wan_lb: error writing file '{}', errno = 22", 6),
    "lease file": ("var_db/dhclient_wan1.leases", "wan_lb: lease file '{}' is no regular file, not read", 4),
    "report": ("out/wlb_ipv4.out", "wan_lb: error ordering output file {}", 4),
    "report IPv6": ("out/wlb_ipv6.out", "wan_lb: error ordering output file {}", 6),
    "outbounds": ("out/wlb_dump/wlb_ipv4_outbounds.bin", "wan_lb: error open file for writing '{}'", 4),
    "outbounds IPv6": ("out/wlb_dump/wlb_ipv6_outbounds.bin", "wan_lb: error open file for writing '{}'", 6),
    "rules": ("out/wlb_dump/wlb_rules.bin", "wan_lb: Error open file for writing '{}'", 4),
    "routes": ("out/wlb_dump/wlb_routes.bin", "wan_lb: Error open file for writing '{}'", 4),
}
# What the daemon does not know by the lab's own path.
SHOWN = {"run/routing.pid": "/var/run/routing.pid", ROUTES: "/usr/etc/routing-wlb.conf",
         "usr_etc/routing-wlb6.conf": "/usr/etc/routing-wlb6.conf",
         "var_db/dhclient_wan1.leases": "/var/db/dhclient_wan1.leases"}


class World:
    def __init__(self, lab):
        self.lab = lab
        # As on a machine where nobody has asked for more: repeats are held back for a minute.
        os.unlink(lab.path("etc/wan_lb/log-flags"))
        self.link = lab.uplink(1, ipv6=True)
        lab.write("var_db/dhclient_wan1.leases", f"option routers {self.link.gateway};\n")
        os.makedirs(lab.path("out/wlb_dump"))

    def put(self, name, make):
        path = self.lab.path(name)
        if os.path.lexists(path):
            os.unlink(path)
        make(path)

    def start(self):
        patience = waiting.milliseconds(900)
        self.lb = self.lab.start_lb(configtext.build(
            [interface("wan1", [ping(self.link.gateway, resp_time=patience)], success_ct=1, nexthop="dhcp"),
             interface("wan1", [ping(self.link.gateway6, resp_time=patience)], ipv6=True, success_ct=1,
                       nexthop=self.link.gateway6)],
            [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None}), rule("1_ipv6", {"wan1": 1}, {"::/0": None})]),
            "-i", self.lab.path("run/lb.pid"), out=self.lab.path("out"))

    def wait_said(self, name, text):
        shown = SHOWN.get(name, self.lab.path(name))
        self.lab.log.wait_for(f"^%WAN-W-(ERR|WARN): {text.format(shown)}$")

    def wait_probes(self, family, count=3):
        """Of some cycles from now on."""
        def seen():
            return sum(request.ipv6 == (family == 6) for request in self.link.responder.requests)

        before = seen()
        waiting.wait_until(lambda: seen() >= before + count, f"probes of IPv{family}")


@pytest.mark.parametrize("name, text, family", FILES.values(), ids=FILES)
def test_fifo(lab, name, text, family):
    world = World(lab)
    world.put(name, fifo)
    world.start()
    if name.startswith("var_db"):  # without the lease there is no router to probe
        world.lb.report()
        world.lb.wait_cycles(2)
    else:
        world.wait_probes(family)
    world.wait_said(name, text)
    assert len(lab.log.matching(SHOWN.get(name, lab.path(name)))) == 1, "once a minute"


@pytest.mark.parametrize("make", [unix_socket, device])
def test_everything_at_once(lab, make):
    """The worker of each family goes on, and whatever is mended is written again."""
    world = World(lab)
    for name, _, _ in FILES.values():
        if not name.startswith("var_db"):
            world.put(name, make)
    world.start()
    for name, text, _ in FILES.values():
        # Without a rules file no routes file is opened.
        if not name.startswith("var_db") and not name.endswith("_routes.bin"):
            world.wait_said(name, text)
    for family in (4, 6):
        world.wait_probes(family)
    world.put("var_db/dhclient_wan1.leases", make)
    world.wait_said("var_db/dhclient_wan1.leases", FILES["lease file"][1])
    for name, _, _ in FILES.values():
        os.unlink(lab.path(name))
    lab.write("var_db/dhclient_wan1.leases", f"option routers {world.link.gateway};\n")
    for family in (4, 6):
        world.lb.wait_status("wan1", "active", family=family)
        assert len(world.lb.outbounds(family)) == 1
    # Each family's worker writes them, maybe before the other's route is there.
    waiting.wait_until(lambda: len(world.lb.rules()) == len(world.lb.routes()) == 2, "both rules and both routes")
    world.link.cut()
    world.lb.wait_status("wan1", "failed")
    world.link.restore()
    lab.wait_text(ROUTES, route_file(route_line("0.0.0.0/0", [(world.link.gateway, 1)])))
