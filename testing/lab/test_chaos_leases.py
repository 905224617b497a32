"""Lease files that are cut, replaced, deleted, growing or without end, for both families.

    router wan1 10.1.0.2 / fd00:1::2 -------- 10.1.0.1 / fd00:1::1 far1: responder
    /var/db/dhclient_wan1.leases (IPv4), /var/db/dhcp6_clientwan1.leases (IPv6)
"""

import os
import threading

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, route_line, rule
from lab.growth import Growth
from lab.route_watch import RouteWatch

LEASE = ('lease {{\n  interface "wan1";\n  option subnet-mask 255.255.255.0;\n  option routers {};\n}}\n',
         "reason='BOUND6'\nnew_ip6='fd00::1'\nnew_routers='{}'\n")
NAMES = ("var_db/dhclient_wan1.leases", "var_db/dhcp6_clientwan1.leases")
GIB = 1 << 30


class Growing:
    """A program that writes on and on without ever naming a router."""

    def __init__(self, path):
        self._path, self._stop = path, threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        with open(self._path, "wb", 0) as file:
            while not self._stop.wait(0.0005) and file.tell() < 64 << 20:
                file.write(b"  option domain-name-servers 10.1.0.53;\n" * 100)

    def close(self):
        self._stop.set()
        self._thread.join()


class LeaseFaults:
    """Each puts something into the file's place in which there is no router."""

    def __init__(self, lab, path):
        self.lab, self.path, self.growing = lab, path, None

    def clear(self):
        if self.growing:
            self.growing.close()
            self.growing = None
        if os.path.isdir(self.path):
            os.rmdir(self.path)
        elif os.path.lexists(self.path):
            os.unlink(self.path)

    def truncated(self):
        with open(self.path, "r+", encoding="ascii") as file:
            file.truncate(0)

    def cut_before_the_router(self):
        with open(self.path, "r+", encoding="ascii") as file:
            file.truncate(file.read().index("router"))

    def deleted(self):
        os.unlink(self.path)

    def growing_while_read(self):
        self.clear()
        self.growing = Growing(self.path)

    def sparse_gigabytes(self):
        os.truncate(self.path, 0)
        os.truncate(self.path, 8 * GIB)

    def one_endless_line(self):
        with open(self.path, "wb") as file:
            file.write(b"x" * (17 << 20))

    def many_short_lines(self):
        with open(self.path, "wb") as file:
            file.write(b"a b=c\n" * (3 << 20))

    def device_without_end(self):
        os.unlink(self.path)
        os.symlink("/dev/zero", self.path)

    def fifo(self):
        os.unlink(self.path)
        os.mkfifo(self.path)

    def directory(self):
        os.unlink(self.path)
        os.mkdir(self.path)

    def symlink_to_itself(self):
        os.unlink(self.path)
        os.symlink(os.path.basename(self.path), self.path)


FAULTS = [name for name, value in vars(LeaseFaults).items() if not name.startswith("_") and name != "clear"]


FAMILIES = pytest.mark.parametrize("family", [4, 6], ids=["IPv4", "IPv6"])


@pytest.fixture(params=[4, 6], ids=["IPv4", "IPv6"])
def world(lab, request):
    return World(lab, request.param)


class World:
    def __init__(self, lab, family, failure_ct=1):
        self.lab, self.family = lab, family
        ipv6 = family == 6
        self.lease, self.path = LEASE[ipv6], lab.path(NAMES[ipv6])
        link = self.link = lab.uplink(1, ipv6=True)
        self.gateway = link.gateway6 if ipv6 else link.gateway
        self.route_file = f"usr_etc/routing-wlb{'6' if ipv6 else ''}.conf"
        self.routing = lab.routing_daemon()
        self.renew(self.gateway)
        self.watch_from_now()
        self.lb = lab.start_lb(configtext.build(
            [interface("wan1", [ping(self.gateway, resp_time=waiting.milliseconds(900))], ipv6=ipv6, success_ct=1,
                       failure_ct=failure_ct, nexthop="dhcp")],
            [rule(f"1_ipv{family}", {"wan1": 1}, {"::/0" if ipv6 else "0.0.0.0/0": None})]))
        self.lb.wait_status("wan1", "active", family=family)
        self.wait_routes(self.gateway)
        self.growth = Growth(lab, self.lb)

    def watch_from_now(self):
        """Routes by the first router: what a test does with another one lies before or behind."""
        self.watch = RouteWatch(self.lab, self.route_file,
                                lambda active: self.text(self.gateway) if active else "", family=self.family)

    def text(self, gateway):
        prefix = "::/0" if self.family == 6 else "0.0.0.0/0"
        return route_file(route_line(prefix, [(gateway, 1)]), ipv6=self.family == 6)

    def renew(self, router):
        """What a client does: a whole new file in the place of the old one."""
        with open(self.path + ".new", "w", encoding="ascii") as file:
            file.write(self.lease.format(router))
        os.rename(self.path + ".new", self.path)

    def wait_routes(self, gateway):
        self.lab.wait_text(self.route_file, self.text(gateway))

    def wait_cycles(self, count=2):
        """A worker that waits for a file does not make them, and none of them is much work."""
        used = self.lb.processor_seconds()
        self.lb.wait_cycles(count, family=self.family)
        assert self.lb.processor_seconds() - used < waiting.scaled(count + 1)


@pytest.mark.parametrize("faults", [FAULTS[:5], FAULTS[5:]], ids=lambda names: names[0])
def test_nothing_is_forgotten_and_nothing_hangs(lab, world, faults):
    """The router that was learnt stays in force through every fault, and the client's next file counts at once."""
    broken = LeaseFaults(lab, world.path)
    mark = lab.log.mark()
    for fault in faults:
        getattr(broken, fault)()
        world.wait_cycles()
        assert lab.read(world.route_file) == world.text(world.gateway), fault
        assert world.lb.outbounds(world.family)[0]["nexthop"] == world.gateway
        broken.clear()
        world.renew(world.gateway)
    world.wait_cycles()
    assert not lab.log.matching("changed state", mark) and len(world.routing.hups) == 1, "one change, at the start"
    world.growth.check()
    world.watch.verify()
    # A new router comes through after all of that.
    other = world.gateway + "1"
    world.renew(other)
    world.wait_routes(other)
    world.routing.wait_hups(2)


def test_a_thousand_renewals(lab, world):
    """Replaced under the reader's eyes all the time: it is one whole file or the other."""
    routers = [world.gateway, world.gateway + "1"]
    world.watch.verify()
    for number in range(1000):
        world.renew(routers[number % 2])
    world.wait_cycles()
    world.renew(world.gateway)
    world.wait_routes(world.gateway)
    texts = {text for _, text in world.watch.contents} - {""}
    assert texts <= {world.text(router) for router in routers}
    world.lb.wait_status("wan1", "active", family=world.family)
    world.watch_from_now()
    world.growth.check()
    world.wait_cycles(1)
    world.watch.verify()


@FAMILIES
def test_cut_within_the_address(lab, family):
    """What is left of it is taken for the router, whatever it is; a whole file puts that right."""
    # By what is left no probe gets out: the link has to last until the routes follow.
    world = World(lab, family, failure_ct=2)
    world.watch.verify()
    with open(world.path, "r+", encoding="ascii") as file:
        text = file.read()
        file.truncate(text.index(world.gateway) + 4)
    left = "fd00"[:-1] if world.family == 6 else "10.1"
    world.wait_routes(left)
    world.renew(world.gateway)
    world.wait_routes(world.gateway)
    world.lb.wait_status("wan1", "active", family=world.family)
    waiting.wait_until(lambda: world.lb.outbounds(world.family)[0]["nexthop"] == world.gateway)
    texts = {text for _, text in world.watch.contents} - {""}
    assert texts <= {world.text(world.gateway), world.text(left)}
    world.watch_from_now()
    world.growth.check()
    world.wait_cycles(1)
    world.watch.verify()
