"""What the service manager hears, over a notification socket of the lab.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, rule


@pytest.fixture
def manager(lab):
    return lab.notify_socket()


def environment(lab, **more):
    return {"NOTIFY_SOCKET": lab.path("notify"), "WATCHDOG_USEC": "30000000", **more}


def test_ready_then_once_a_cycle(lab, manager):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]), env=environment(lab))
    ready = manager.wait_for("READY=1")
    assert f"MAINPID={lb.pid}" in ready.text.splitlines()
    manager.wait_for("WATCHDOG=1", count=7)
    assert manager.records.index(ready) == 0
    mark = manager.mark()
    lb.wait_cycles(4)
    assert len(manager.matching("WATCHDOG=1", mark)) >= 3
    times = [record.when for record in manager.matching("WATCHDOG=1")]
    gaps = sorted(later - earlier for earlier, later in zip(times, times[1:]))
    assert sum(gaps) / len(gaps) >= 0.95 and 0.5 < gaps[0] < 1.6, f"once in each cycle of a second: {gaps}"


def test_detached_daemon_names_its_child(lab, manager):
    link = lab.uplink(1)
    started = lab.start_lb(configtext.single(link), "-d", "-i", lab.path("run/lb.pid"), env=environment(lab))
    assert started.expect_end() == 0
    manager.wait_for("WATCHDOG=1")
    child = lab.adopt_daemon(int(lab.read("run/lb.pid")), started.out)
    mains = {line for record in manager.records for line in record.text.splitlines() if line.startswith("MAINPID=")}
    assert mains == {f"MAINPID={child.pid}"}


def test_no_service_manager(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    lb.wait_status("wan1", "active")


def test_idle_interfaces_feed_the_watchdog(lab, manager):
    """Interfaces without any result still make cycles."""
    lab.start_lb(configtext.build([interface("wan9", nexthop="dhcp")],
                                  [rule("1_ipv4", {"wan9": 1}, {"0.0.0.0/0": None})]), env=environment(lab))
    manager.wait_for("WATCHDOG=1", count=3)


def test_a_hanging_worker_is_not_covered_up(lab, manager):
    """One worker waits for a name server for longer than the time-out: what the other one reports is not enough."""
    slow, other = lab.uplink(1, arp=False), lab.uplink(2, ipv6=True)
    names = lab.name_server(timeout=12)
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping("no.such.name", resp_time=100)], nexthop=slow.gateway),
         interface("wan2", [ping(resp_time=500)], ipv6=True, success_ct=1, nexthop=other.gateway6)],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None}), rule("1_ipv6", {"wan2": 1}, {"::/0": None})]),
        env=environment(lab, WATCHDOG_USEC="3000000"))
    lb.wait_status("wan2", "active", family=6)
    manager.wait_for("WATCHDOG=1", count=4)
    names.silent = True

    def silence():
        records = manager.matching("WATCHDOG=1")
        return max(later.when - earlier.when for earlier, later in zip(records, records[1:])) > 4

    waiting.wait_until(silence, timeout=90)
    assert lb.alive
