"""A worker that hangs: the watchdog is left unfed, the other worker goes on, and afterwards all is right again.

    router wan1 10.1.0.2 ----------- 10.1.0.1 far1: responder
    router wan2 10.2.0.2 ----------- 10.2.0.1 far2: responder
    router wan3 fd00:3::2 ---------- fd00:3::1 far3: responder
"""

import os

import pytest

from lab import waiting
from lab.configtext import interface, ping, route_file, rule
from lab.stopped_threads import StoppedThreads
from lab.weighted_pair import WeightedPair

TIMEOUT = waiting.scaled(2.5)


class HangingCommand:
    """A shell command of the daemon that does not end, from the next change of routes until `end`."""

    def __init__(self, lab, name):
        self.path, self.fifo = lab.path(f"bin/{name}"), lab.path("fifo")
        os.mkfifo(self.fifo)
        lab.replace(f"bin/{name}", f'#!/bin/sh\nread line < {self.fifo}\n'
                                   f'PATH=/usr/sbin:/usr/bin:/sbin:/bin exec {name} "$@"\n')
        os.chmod(self.path, 0o755)

    def end(self):
        os.unlink(self.path)
        os.close(os.open(self.fifo, os.O_WRONLY | os.O_NONBLOCK))


@pytest.fixture
def world(lab):
    manager = lab.notify_socket()
    links, third = [lab.uplink(1), lab.uplink(2)], lab.uplink(3, ipv6=True)
    routing = lab.routing_daemon()
    pair = WeightedPair(lab, links=links, watched=False, sections=[
        interface("wan3", [ping(resp_time=waiting.milliseconds(900))], ipv6=True, success_ct=1,
                  nexthop=third.gateway6)],
        rules=[rule("1_ipv6", {"wan3": 1}, {"::/0": None})],
        env={"NOTIFY_SOCKET": lab.path("notify"), "WATCHDOG_USEC": str(int(TIMEOUT * 1e6))})
    # First of all what the IPv6 worker starts with its first test, for from the settled pair on nothing may grow.
    pair.lb.wait_status("wan3", "active", family=6)
    pair.wait_settled()
    # Two signals at the same instant are one, so only the cycles tell that both workers have sent theirs.
    pair.lb.wait_cycles(1)
    pair.lb.wait_cycles(1, family=6)
    manager.wait_for("WATCHDOG=1", count=4)
    return manager, pair, routing


def wait_silence(manager, pair, family):
    """The other worker makes cycle after cycle and says so, and nothing reaches the service manager."""
    seen = [0]

    def silent():
        before, seen[0] = seen[0], len(manager.matching("WATCHDOG=1"))
        pair.lb.wait_cycles(2, family=family)
        return before == seen[0]

    waiting.wait_until(silent, "the watchdog's silence")


@pytest.mark.parametrize("command", ["cat", "ip"])
def test_a_worker_hangs_in_the_outside_world(lab, world, command):
    manager, pair, routing = world
    pair.watch_from_now()
    hanging, hups = HangingCommand(lab, command), len(routing.hups)
    pair.change(wait=False)
    wait_silence(manager, pair, family=6)
    if command == "cat":  # for the routing daemon's pid
        assert lab.read(pair.route_file) == pair.current_text(), "written before the signal"
    mark, fed = lab.log.mark(), len(manager.matching("WATCHDOG=1"))
    hanging.end()
    manager.wait_for("WATCHDOG=1", count=fed + 3)
    routing.wait_hups(hups + 1)
    pair.lb.wait_cycles(2)
    assert not lab.log.matching("changed state to inactive", mark), "no link is blamed for the pause"
    pair.change()
    routing.wait_hups(hups + 2)
    pair.lb.wait_report(lambda text: text.count("Status:  active") == 2)
    assert pair.lb.statuses(6) == {"wan3": "active"}
    assert lab.read("usr_etc/routing-wlb6.conf") == route_file("route ::/0 via fd00:3::1 weight 1;", ipv6=True)
    pair.check()


def test_a_worker_is_stopped_in_its_tracks(lab, world):
    """One thread of the daemon is held by a debugger; the rest runs on."""
    manager, pair, _ = world
    pair.watch_from_now()
    stopped = StoppedThreads(lab, pair.lb, "worker")
    stamps = {family: os.stat(pair.lb.report_path(family)).st_mtime_ns for family in (4, 6)}
    moving = []

    def one_moves():
        moving[:] = [family for family in stamps
                     if os.stat(pair.lb.report_path(family)).st_mtime_ns > stamps[family] + 3e9]
        return moving

    waiting.wait_until(one_moves, "one worker that goes on")
    assert len(moving) == 1, "both workers go on"
    wait_silence(manager, pair, family=moving[0])
    mark, fed = lab.log.mark(), len(manager.matching("WATCHDOG=1"))
    stopped.release()
    manager.wait_for("WATCHDOG=1", count=fed + 3)
    pair.lb.wait_cycles(2)
    assert not lab.log.matching("changed state", mark)
    pair.change()
    pair.check()
