"""The guide for two ISPs, carried out on a machine that has nothing but the packages.

    machine eth0 192.0.2.10    2001:db8:1::10 ------- isp1: 203.0.113.1, 2001:db8:ff::1
    machine eth1 198.51.100.10 2001:db8:2::10 ------- isp2: 203.0.113.2, 2001:db8:ff::2
"""

import re

import pytest

from package_lab import guide
from package_lab.machine import wait_until

_DEFAULTS = {4: ["ip", "route", "show", "default"], 6: ["ip", "-6", "route", "show", "default"]}


@pytest.fixture
def isps(machine):
    made = [machine.isp("eth0", "192.0.2.1/24", "2001:db8:1::1/64", "fe80::1/64", "203.0.113.1/32",
                        "2001:db8:ff::1/128"),
            machine.isp("eth1", "198.51.100.1/24", "2001:db8:2::1/64", "fe80::1/64", "203.0.113.2/32",
                        "2001:db8:ff::2/128")]
    # No duplicate address detection, which takes seconds.
    machine.run("sysctl", "-qw", "net.ipv6.conf.eth0.accept_dad=0", "net.ipv6.conf.eth1.accept_dad=0")
    return made


def _devices(machine, family):
    """The devices of the default route, in order."""
    words = machine.run(*_DEFAULTS[family]).stdout.split()
    return sorted(word for at, word in enumerate(words) if at and words[at - 1] == "dev")


def _wait_devices(machine, family, devices):
    wait_until(lambda: _devices(machine, family) == devices,
               lambda: f"{devices} in\n{machine.run(*_DEFAULTS[family]).stdout}\n{machine.journal()}"
                       f"\n{machine.run('lbctl', 'status', check=False).stdout}\n{machine.journal('bird')}")


def _wait_status(machine, status):
    """All links active, or not; routes may say so a moment before or after."""
    wait_until(lambda: machine.run("lbctl", "status", check=False).returncode == status,
               lambda: machine.run("lbctl", "status", check=False).stdout)


@pytest.fixture
def router(machine, isps):
    """The machine after the guide's steps up to the last one; by the first one its tree was made."""
    for step in guide.steps("two-isps.md"):
        if step[0].startswith(("2.", "3.", "4.")):
            guide.carry_out(machine, [step])
    del isps
    _wait_devices(machine, 4, ["eth0", "eth1"])
    _wait_devices(machine, 6, ["eth0"])
    _wait_status(machine, 0)
    return machine


def test_guide(router, isps):
    printed = guide.carry_out(router, [step for step in guide.steps("two-isps.md")
                                       if step[0].startswith("5.")][:1])
    assert "isp1" in printed and "active" in printed
    isps[0].answers(False)
    _wait_devices(router, 4, ["eth1"])
    _wait_devices(router, 6, ["eth1"])
    _wait_status(router, 1)
    isps[0].answers(True)
    _wait_devices(router, 4, ["eth0", "eth1"])
    _wait_devices(router, 6, ["eth0"])
    _wait_status(router, 0)
    assert router.run("systemctl", "is-active", "wan-lb").stdout == "active\n"
    _go_back(router)


def _go_back(router):
    """The last section. The router always has its default routes."""
    remove, purge = [step for step in guide.steps("two-isps.md") if step[0].startswith("6.")]
    routes = {family: router.run(*_DEFAULTS[family]).stdout for family in _DEFAULTS}
    router.watch_routes()
    guide.carry_out(router, [remove])
    assert router.run("pidof", "lb", check=False).stdout == ""
    router.run("systemctl", "reload", "bird")
    assert routes == {family: router.run(*_DEFAULTS[family]).stdout for family in _DEFAULTS}
    # BIRD puts an IPv6 route with "onlink" in its own place at each scan; nothing else is to be seen.
    seen = {" ".join(line.split()) for line in router.changed_routes()}
    assert seen <= {" ".join(routes[6].split())}, seen
    router.run("systemctl", "restart", "bird")
    _wait_devices(router, 4, ["eth0", "eth1"])
    _wait_devices(router, 6, ["eth0"])
    guide.carry_out(router, [purge])
    for family, gateway in ((4, "192.0.2.1"), (6, "fe80::1")):
        wait_until(lambda shown=_DEFAULTS[family]: "proto bird" not in router.run(*shown).stdout, "BIRD's routes to go")
        assert f"via {gateway} dev eth0" in router.run(*_DEFAULTS[family]).stdout
    router.run("systemctl", "restart", "bird")
    assert router.run("systemctl", "is-active", "bird").stdout == "active\n"
    router.run("sh", "-ec", "[ ! -e /usr/etc ] && [ ! -e /etc/wan_lb ]")


def _pid(machine):
    return machine.run("systemctl", "show", "-P", "MainPID", "wan-lb").stdout.strip()


def test_reload_starts_anew_and_changes_no_route(router):
    """Every change of the kernel's routes from before the reload until well after it would be seen."""
    before = _pid(router)
    routes = {family: router.run(*_DEFAULTS[family]).stdout for family in _DEFAULTS}
    router.watch_routes()
    guide.carry_out(router, [step for step in guide.steps("two-isps.md") if step[0].startswith("5.")][1:])
    wait_until(lambda: _pid(router) not in (before, "0"), "another process of the daemon")
    router.wait_found_active(4)
    _wait_status(router, 0)
    # BIRD puts an IPv6 route with "onlink" in its own place at each scan; nothing else is to be seen.
    seen = {" ".join(line.split()) for line in router.changed_routes()}
    assert seen <= {" ".join(routes[6].split())}, router.journal()
    assert routes == {family: router.run(*_DEFAULTS[family]).stdout for family in _DEFAULTS}
    assert "Failed" not in router.journal()


def test_reload_with_errors_leaves_the_daemon_alone(router):
    before = _pid(router)
    router.run("sed", "-i", "s/nexthop 192.0.2.1/nexthop 192.0.2.300/", "/etc/wan_lb/lb.conf")
    assert router.run("systemctl", "reload", "wan-lb", check=False).returncode != 0
    wait_until(lambda: "192.0.2.300" in router.journal(), router.journal)
    assert _pid(router) == before


def test_daemon_that_hangs_is_started_anew(router):
    """The watchdog; a short one, so that nobody waits a minute."""
    router.write("/etc/systemd/system/wan-lb.service.d/short.conf", "[Service]\nWatchdogSec=5\n")
    router.run("systemctl", "daemon-reload")
    router.run("systemctl", "restart", "wan-lb")
    before = _pid(router)
    router.run("kill", "-STOP", before)
    wait_until(lambda: _pid(router) not in (before, "0"), "another process of the daemon")
    assert _devices(router, 4) == ["eth0", "eth1"]


def test_configuration_with_errors_is_not_started(machine):
    machine.write("/etc/wan_lb/lb.conf", "health {\n")
    assert machine.run("systemctl", "start", "wan-lb", check=False).returncode != 0
    wait_until(lambda: re.search("unbalanced|brackets", machine.journal()), machine.journal)


def test_sample_hook_as_a_service(router, isps):
    """As the guide has it installed: it tells of a dead uplink, and not of a daemon that is started anew."""
    step, = [step for step in guide.steps("beside-the-kernel.md") if "hooks/state-change" in step[2]]
    guide.carry_out(router, [step])
    started = router.run("systemctl", "show", "-P", "MainPID", "wan-lb-watch").stdout

    def told():
        """By its tag: of who ended at once the journal may not know the unit."""
        lines = router.run("journalctl", "-q", "--no-pager", "-o", "cat", "-t", "wan-lb").stdout.splitlines()
        return sorted(line.split(" since ")[0] for line in lines)

    def wait_told(*more):
        expected.extend(f"{name} (IPv{family}, VRF default) is {state}" for name, state in more for family in (4, 6))
        wait_until(lambda: told() == sorted(expected),
                   lambda: f"{expected}, but it told\n{told()}\n{router.journal('wan-lb-watch')}")

    expected = []
    isps[0].answers(False)
    wait_told(("isp1", "failed"))
    isps[0].answers(True)
    wait_told(("isp1", "active"))
    before = _pid(router)
    router.run("systemctl", "reload", "wan-lb")
    wait_until(lambda: _pid(router) not in (before, "0"), "another process of the daemon")
    router.wait_found_active(4)
    isps[1].answers(False)
    wait_told(("isp2", "failed"))
    assert router.run("systemctl", "show", "-P", "MainPID", "wan-lb-watch").stdout == started
