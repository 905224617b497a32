"""The routing daemon dies, moves and leaves nonsense in its pid file; ours goes on and signals nobody else.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1        /var/run/routing.pid
    router wan2 10.2.0.2 -------- 10.2.0.1 far2        /usr/etc/routing-wlb.conf
"""

import os
import signal

import pytest

from lab import waiting
from lab.bird import Bird
from lab.configtext import route_file, route_line
from lab.growth import Growth
from lab.route_watch import RouteWatch
from lab.two_uplinks import TwoUplinks
from lab.weighted_pair import PLAIN_OWNER, WeightedPair

PID_FILE = "run/routing.pid"


class PidFileFaults:
    """Puts things into the place of the pid file."""

    def __init__(self, lab, bystander):
        self.lab, self.path, self.bystander = lab, lab.path(PID_FILE), bystander

    def clear(self):
        if os.path.isdir(self.path) and not os.path.islink(self.path):
            os.rmdir(self.path)
        elif os.path.lexists(self.path):
            os.unlink(self.path)

    def put(self, fault):
        self.clear()
        getattr(self, fault)()

    def write(self, text):
        self.lab.write(PID_FILE, text)

    def missing(self):
        pass

    def empty(self):
        self.write("")

    def blank_line(self):
        self.write("\n")

    def text(self):
        self.write("bird\n")

    def zero(self):
        self.write("0\n")

    def everything(self):
        self.write("-1\n")

    def group(self):
        """Of the bystander, who leads one."""
        self.write(f"-{self.bystander.pid}\n")

    def huge(self):
        self.write("9" * 40 + "\n")

    def wraps_around(self):
        """The bystander's number in the lower half."""
        self.write(f"{(1 << 32) + self.bystander.pid}\n")

    def nobody(self):
        self.write(f"{(1 << 31) - 1}\n")

    def directory(self):
        os.mkdir(self.path)

    def unreadable(self):
        self.write(f"{self.bystander.pid}\n")
        os.chmod(self.path, 0)

    def symlink_to_nowhere(self):
        os.symlink("/nowhere/at/all", self.path)

    def without_end(self):
        os.symlink("/dev/zero", self.path)

    def long_text(self):
        self.write("x" * (1 << 22) + f"\n{self.bystander.pid}\n")


FAULTS = [("missing", "empty", "blank_line"), ("text", "zero", "everything"), ("group", "huge", "wraps_around"),
          ("nobody", "directory", "unreadable"), ("symlink_to_nowhere", "without_end", "long_text")]


@pytest.mark.parametrize("faults", FAULTS, ids=lambda faults: faults[0])
def test_nonsense_for_the_pid_file(lab, faults):
    routing = lab.routing_daemon()
    bystander = lab.routing_daemon(pid_file="")
    pair = WeightedPair(lab, prefix=PLAIN_OWNER)
    pair.wait_settled()
    files = PidFileFaults(lab, bystander)
    pair.lb.wait_cycles(1)
    for fault in faults:
        hups = len(routing.hups)
        files.put(fault)
        pair.change()
        pair.lb.wait_cycles(1)
        assert len(routing.hups) == hups, fault
        files.clear()
        files.write(f"{routing.pid}\n")
        pair.change()
        waiting.wait_until(lambda: len(routing.hups) == hups + 1, fault)
        assert routing.hups[-1][1]["routing-wlb.conf"] == pair.current_text()
    assert pair.lb.alive and bystander.alive and routing.alive and bystander.hups == []
    pair.check()


def test_routing_daemon_killed_and_started_again(lab):
    """Between its death and its return nobody is signalled; under its new number it hears of the next change."""
    first = lab.routing_daemon()
    pair = WeightedPair(lab)
    pair.wait_settled()
    first.wait_hups(1)
    first.stop()
    pair.change()
    lab.log.wait_for(rf"can't send SIGHUP to the routing daemon \(pid {first.pid}\), errno = 3")
    second = lab.routing_daemon(pid_file="run/second.pid")
    assert second.pid != first.pid
    lab.replace(PID_FILE, lab.read("run/second.pid"))
    pair.change()
    second.wait_hups(1)
    pair.check()
    assert len(second.hups) == 1


def routes_of(network, family, active):
    """The route file of that family while those links are active."""
    vias = [(link.gateway6 if family == 6 else link.gateway, network.WEIGHTS[number])
            for number, link in network.links.items() if link.name in active]
    return route_file(route_line("::/0" if family == 6 else "0.0.0.0/0", vias), ipv6=family == 6)


def test_bird_killed_and_started_again(lab):
    """Routes that changed while it was dead are the kernel's as soon as it is back, and the next change reaches it."""
    network = TwoUplinks(lab)
    network.start()
    network.wait_both()
    watches = [RouteWatch(lab, f"usr_etc/routing-wlb{'6' if family == 6 else ''}.conf",
                          lambda active, f=family: routes_of(network, f, active), family) for family in (4, 6)]
    growth = Growth(lab, network.lb)
    killed = network.bird.process
    killed.signal(signal.SIGKILL)
    killed.wait()
    network.cut(1)
    for family in (4, 6):
        network.lb.wait_status("wan1", "failed", family=family)
        waiting.wait_until(lambda f=family: "wan1" not in network.route_file(f) and network.links[1].gateway
                           not in network.route_file(f) and network.links[1].gateway6 not in network.route_file(f))
    assert network.uses_both(), "the dead daemon's routes are still the kernel's"
    os.unlink(lab.path(PID_FILE))
    network.bird = Bird(lab)
    assert network.bird.process.pid != killed.pid
    network.wait_only(2)
    network.restore(1)
    network.wait_both()
    growth.check()
    for watch in watches:
        assert watch.verify() >= 3, "both links, one, both"
