"""The guide for VRFs, carried out on a machine that has nothing but the packages. The VRFs have the same addresses.

    machine  blue  eth0 192.0.2.10    2001:db8:1::10/64 ------- isp: 203.0.113.1, 2001:db8:ff::1
                   eth1 198.51.100.10 2001:db8:2::10/64 ------- isp: 203.0.113.2, 2001:db8:ff::2
             red   eth2 192.0.2.10    2001:db8:1::10/64 ------- isp: 203.0.113.1, 2001:db8:ff::1
                   eth3 198.51.100.10 2001:db8:2::10/64 ------- isp: 203.0.113.2, 2001:db8:ff::2
"""

import shutil

import pytest

from package_lab import guide
from package_lab.machine import wait_until

_FIRST = ("192.0.2.1/24", "2001:db8:1::1/64", "fe80::1/64", "203.0.113.1/32", "2001:db8:ff::1/128")
_SECOND = ("198.51.100.1/24", "2001:db8:2::1/64", "fe80::1/64", "203.0.113.2/32", "2001:db8:ff::2/128")
_BOTH_UP = {("blue", 4): ["eth0", "eth1"], ("blue", 6): ["eth0"], ("red", 4): ["eth2"], ("red", 6): ["eth2"]}


def _steps(number):
    return [step for step in guide.steps("vrfs.md") if step[0].startswith(number)]


def _default_route(machine, vrf, family):
    return machine.run("ip", "-n", vrf, f"-{family}", "route", "show", "default").stdout


def _devices(machine, vrf, family):
    """The devices of the VRF's default route, in order."""
    words = _default_route(machine, vrf, family).split()
    return sorted(word for at, word in enumerate(words) if at and words[at - 1] == "dev")


def _wait_devices(machine, expected):
    def told():
        return "\n".join([f"{expected}", *(_default_route(machine, *key) for key in expected), machine.journal(),
                          machine.run("lbctl", "status", check=False).stdout, machine.journal("bird-vrf@*")])

    wait_until(lambda: {key: _devices(machine, *key) for key in expected} == expected, told)


def _all_is_well(machine):
    wait_until(lambda: machine.run("lbctl", "status", check=False).returncode == 0,
               lambda: machine.run("lbctl", "status", check=False).stdout)


@pytest.fixture
def isps(machine):
    machine.run("sysctl", "-qw", "net.ipv6.conf.default.accept_dad=0")  # it takes seconds
    made = [machine.isp(f"eth{number}", *(_SECOND if number % 2 else _FIRST)) for number in range(4)]
    return made


@pytest.fixture
def router(machine, isps, tree, packages):
    """The machine after the guide's steps up to the last one."""
    shutil.copy(packages["wan-lb"], tree)  # where the commands are carried out
    machine.run("sh", "-ec", guide.installation("vrfs.md"))
    guide.carry_out(machine, _steps("2."))
    for vrf in ("blue", "red"):
        machine.run("ip", "netns", "exec", vrf, "sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0")
    for number in ("3.", "4."):
        guide.carry_out(machine, _steps(number))
    del isps
    _wait_devices(machine, _BOTH_UP)
    _all_is_well(machine)
    return machine


def test_guide(router, isps):
    before_it = set(router.run("systemctl", "show", "-P", "After", "wan-lb").stdout.split())
    assert {"vrf@blue.service", "vrf@red.service", "bird-vrf@blue.service", "bird-vrf@red.service"} <= before_it
    printed = guide.carry_out(router, _steps("5."))
    assert "blue1" in printed and "red2" in printed and "203.0.113.99 via" in printed and "failed" not in printed
    # A link of one VRF dies: the other VRF, which has the same addresses, does not notice.
    isps[0].answers(False)
    _wait_devices(router, {**_BOTH_UP, ("blue", 4): ["eth1"], ("blue", 6): ["eth1"]})
    assert router.run("lbctl", "status", check=False).returncode == 1
    isps[2].answers(False)
    _wait_devices(router, {("blue", 4): ["eth1"], ("blue", 6): ["eth1"], ("red", 4): ["eth3"], ("red", 6): ["eth3"]})
    for isp in (isps[0], isps[2]):
        isp.answers(True)
    _wait_devices(router, _BOTH_UP)
    _all_is_well(router)
    _restart_changes_no_route(router)
    _namespace_made_anew_is_entered(router)


def _namespace_made_anew_is_entered(router):
    """By the watchdog; a short one, so that nobody waits a minute."""
    threads = "readlink /proc/$(systemctl show -P MainPID wan-lb)/task/*/ns/net"

    def is_entered():
        namespace = "net:[" + router.run("stat", "-L", "-c", "%i", "/run/netns/red").stdout.strip() + "]"
        return namespace in router.run("sh", "-c", threads, check=False).stdout

    router.write("/etc/systemd/system/wan-lb.service.d/short.conf", "[Service]\nWatchdogSec=5\n")
    router.run("systemctl", "daemon-reload")
    router.run("systemctl", "restart", "wan-lb")
    # A thread that finds no namespace at its start ends: on a busy machine it may not have looked for it yet.
    wait_until(is_entered, router.journal)
    router.run("sh", "-ec", "ip netns delete red; ip netns add red")
    wait_until(is_entered, router.journal)


def _restart_changes_no_route(router):
    """Every change of the kernel's routes in either VRF from before the restart until well after it would be seen.
    One uplink takes longer to settle than the others: what is written before that would be seen too."""
    router.run("sed", "-i", "0,/interface blue2 {/s//&\\n        success-ct 6/", "/etc/wan_lb/lb.conf")
    routes = {key: _default_route(router, *key) for key in _BOTH_UP}
    for vrf in ("blue", "red"):
        router.watch_routes(vrf)
    router.run("systemctl", "restart", "wan-lb")
    router.wait_found_active(8)
    _all_is_well(router)
    assert routes == {key: _default_route(router, *key) for key in _BOTH_UP}
    for vrf in ("blue", "red"):
        seen = {" ".join(line.split()) for line in router.changed_routes(vrf)}
        # BIRD puts an IPv6 route with "onlink" in its own place at each scan; nothing else is to be seen.
        assert seen <= {" ".join(routes[vrf, 6].split())}, f"{seen}\n{router.journal()}"
