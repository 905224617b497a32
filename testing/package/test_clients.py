"""The guides for addresses and gateways that others fetch, with Debian's own clients and network managers.

    machine eth0 ------- isp1: dnsmasq, 192.0.2.1,    fe80::1, prefix 2001:db8:1::/64; 203.0.113.1, 2001:db8:ff::1
    machine eth1 ------- isp2: dnsmasq, 198.51.100.1, fe80::1, prefix 2001:db8:2::/64; 203.0.113.2, 2001:db8:ff::2
"""

import json
import subprocess

import pytest

from package_lab import clients, guide
from package_lab.machine import wait_until


@pytest.fixture
def machine(clients_machine):
    return clients_machine


@pytest.fixture
def isps(providers):
    return providers


def _routes(machine, family):
    return json.loads(machine.run("ip", "-j", f"-{family}", "route", "show", "default").stdout)


def _hops(machine, family=4):
    """(gateway, device) of BIRD's default route."""
    return sorted((hop["gateway"], hop["dev"]) for route in _routes(machine, family) if route["protocol"] == "bird"
                  for hop in route.get("nexthops", [route]))


def _wait_hops(machine, *hops, family=4):
    wait_until(lambda: _hops(machine, family) == list(hops), lambda: f"{hops} in\n" + "\n".join(
        machine.run(*command, check=False).stdout
        for command in (["ip", f"-{family}", "route"], ["ip", "address"], ["lbctl", "status"],
                        ["journalctl", "--no-pager", "-o", "cat", "-n", "60"])))


_FIRST, _SECOND, _OTHER = ("192.0.2.1", "eth0"), ("198.51.100.1", "eth1"), ("192.0.2.254", "eth0")
_FIRST6, _SECOND6 = ("fe80::1", "eth0"), ("fe80::1", "eth1")


def _follow(machine, client):
    """The page's steps for a client."""
    steps = guide.steps("addresses.md")
    assert any(step[0] == client for step in steps)
    for title in ("Forwarding", client, "Start"):
        guide.carry_out(machine, [step for step in steps if step[0] == title])
    _wait_hops(machine, _FIRST, _SECOND)
    _wait_hops(machine, _FIRST6, _SECOND6, family=6)
    wait_until(lambda: machine.run("lbctl", "status", check=False).returncode == 0, "all to be well")
    assert "proto bird" in guide.carry_out(machine, [step for step in steps if step[0] == "Look"])


def _check_shadows_nothing(machine, family, present=True):
    """The client's default routes are there, behind BIRD's."""
    metrics = [route["metric"] if "metric" in route else 0 for route in _routes(machine, family)
               if route["protocol"] != "bird"]
    assert bool(metrics) == present and all(metric > 1000 for metric in metrics), _routes(machine, family)


def _check_life(machine, isps):
    """Another gateway of the first is followed; the second dies meanwhile and is left, and taken again."""
    isps[0].serve(gateway=254)
    isps[1].answers(False)
    _wait_hops(machine, _OTHER)
    _wait_hops(machine, _FIRST6, family=6)
    isps[1].answers(True)
    _wait_hops(machine, _OTHER, _SECOND)
    _wait_hops(machine, _FIRST6, _SECOND6, family=6)


def _check_left_alone(machine, *command):
    """The command sets eth0 up anew, and removes no route of BIRD's."""
    machine.watch_routes()
    machine.run(*command)
    # Its own default routes go and come.
    wait_until(lambda: _gone_and_back(machine.changed_routes()) and "eth0" in _advertised(machine),
               lambda: "\n".join(["the client's routes in", *machine.changed_routes(), str(_routes(machine, 6))]))
    seen = machine.changed_routes()
    assert not [line for line in seen if line.startswith("Deleted") and "proto bird" in line], seen


def _gone_and_back(lines):
    """Whether the IPv4 default route of a client was made again after it had gone."""
    gone = [at for at, line in enumerate(lines) if line.startswith("Deleted default") and "proto dhcp" in line]
    return gone and any(line.startswith("default") and "proto dhcp" in line for line in lines[gone[0]:])


def _advertised(machine):
    """The devices of the default routes that advertisements gave the kernel or a client."""
    return {hop["dev"] for route in _routes(machine, 6) if route["protocol"] == "ra"
            for hop in route.get("nexthops", [route])}


def test_networkd(machine, isps):
    _follow(machine, "systemd-networkd")
    for family in (4, 6):
        _check_shadows_nothing(machine, family)
    _check_left_alone(machine, "networkctl", "reconfigure", "eth0")
    _check_life(machine, isps)


def test_network_manager(machine, isps):
    _follow(machine, "NetworkManager")
    for family in (4, 6):
        _check_shadows_nothing(machine, family)
    _check_left_alone(machine, "nmcli", "connection", "up", "isp1")
    _check_life(machine, isps)


def test_ifupdown_with_dhclient(machine, isps):
    """With the hook by which the tables of the routing policy follow, too."""
    step, = [step for step in guide.steps("beside-the-kernel.md") if "uplink-table" in step[2]]
    guide.carry_out(machine, [step])
    _follow(machine, "ifupdown with dhclient")
    _check_shadows_nothing(machine, 4, present=False)
    _check_shadows_nothing(machine, 6)
    _wait_tables(machine, _FIRST, _SECOND)
    _check_life(machine, isps)
    _wait_tables(machine, _OTHER, _SECOND)


def _wait_tables(machine, *hops):
    """The default routes of the tables 101 and 102."""
    def found():
        return [(route["gateway"], route["dev"]) for table in ("101", "102")
                for route in machine.ip_json("route", "show", "table", table)]

    wait_until(lambda: found() == list(hops), lambda: f"{hops}, but it is {found()}")


def test_dhcpcd(machine, isps):
    _follow(machine, "dhcpcd")
    for family in (4, 6):
        _check_shadows_nothing(machine, family)
    _check_life(machine, isps)


class Dynamic:
    """The guide's router with its LAN, and what the first provider sees."""

    def __init__(self, machine, isps):
        self.machine, self.isps = machine, isps
        for isp in isps:
            isp.run("ip", "address", "add", _EVERYBODYS, "dev", "lo")
        self.lan = machine.isp("eth2")
        self.prefixes = clients.PrefixServer(isps[0], self._addresses("eth0", "link")[0])

    def _addresses(self, device, scope="global"):
        text = self.machine.run("ip", "-j", "-6", "address", "show", "dev", device, "scope", scope,
                                "-deprecated").stdout
        return [address["local"] for link in json.loads(text) for address in link.get("addr_info", [])
                if address]  # what is filtered out is an empty one

    def wait_address(self, device, prefix):
        """The only one that is not deprecated."""
        wait_until(lambda: [address for address in self._addresses(device) if not address.startswith(prefix)] == []
                   and self._addresses(device), lambda: f"{prefix} in {self._addresses(device)}")

    def reaches(self):
        """Whether a host of the LAN has an answer from what is behind both."""
        try:
            self.lan.run("fping", "-6", "-q", "-c1", "-t500", _EVERYBODYS)
        except subprocess.CalledProcessError:
            return False
        return True


_EVERYBODYS = "2001:db8:ff::80"


@pytest.fixture
def dynamic(machine, isps):
    made = Dynamic(machine, isps)
    made.prefixes.delegate("2001:db8:100::")
    yield made
    made.prefixes.close()


def _probes_from(isp, prefix, directory):
    """How many of the provider's target have come from a prefix since it was first asked for."""
    path = directory / "counters"
    isp.run("sh", "-c", f"exec nft -j list counters table ip6 seen >{path}")
    for entry in json.loads(path.read_text())["nftables"]:
        if entry.get("counter", {}).get("name") == prefix:
            return entry["counter"]["packets"]
    raise AssertionError(path.read_text())


def _states(machine):
    """Every change that the daemon has told."""
    return [line for line in machine.journal().splitlines() if "changed state" in line]


def test_ipv6_dynamic(dynamic, machine, isps, tmp_path):
    steps = guide.steps("ipv6-dynamic.md")
    advertised = {"eth0", "eth1"}
    wait_until(lambda: _advertised(machine) == advertised, "the kernel's own default routes")
    guide.carry_out(machine, [step for step in steps if step[0].startswith("2.")])
    assert _advertised(machine) == advertised
    guide.carry_out(machine, [step for step in steps if step[0].startswith(("3.", "4.", "5."))])
    _wait_hops(machine, _FIRST6, family=6)
    wait_until(lambda: machine.run("lbctl", "status", check=False).returncode == 0, "all to be well")
    dynamic.wait_address("eth2", "2001:db8:100:")
    printed = guide.carry_out(machine, [step for step in steps if step[0].startswith("6.")])
    assert "fe80::1" in printed and "2001:db8:100:" in printed
    wait_until(dynamic.reaches, "the LAN to reach the first provider")

    # Another prefix: the old one is deprecated, then the provider knows it no more.
    isps[0].run("nft", "table ip6 seen { counter old { }; counter new { }; chain receive { type filter hook input "
                "priority 0; ip6 daddr 2001:db8:ff::1 ip6 saddr 2001:db8:1::/64 counter name old; "
                "ip6 daddr 2001:db8:ff::1 ip6 saddr 2001:db8:11::/64 counter name new; }; }")
    before = _states(machine)
    machine.watch_routes()
    wait_until(lambda: _probes_from(isps[0], "old", tmp_path) >= 2, "probes from the old prefix")
    isps[0].serve(1, "2001:db8:11::", "dhcp-range=2001:db8:1::,ra-only,64,deprecated")
    dynamic.wait_address("eth0", "2001:db8:11:")
    isps[0].run("nft", "insert rule ip6 seen receive ip6 saddr 2001:db8:1::/64 ip6 daddr 2001:db8:ff::/48 drop")
    wait_until(lambda: _probes_from(isps[0], "new", tmp_path) >= 8, "probes from the new prefix")
    assert _states(machine) == before and _hops(machine, 6) == [_FIRST6]
    seen = [line for line in machine.changed_routes() if "proto bird" in line]
    # BIRD puts its route in its own place at each scan; nothing else is to be seen.
    assert all(line.startswith("default via fe80::1 dev eth0") for line in seen), seen

    # Another delegated prefix: the LAN's hosts follow.
    dynamic.prefixes.delegate("2001:db8:200::")
    dynamic.wait_address("eth2", "2001:db8:200:")
    wait_until(dynamic.reaches, "the LAN to reach the first provider from its new prefix")

    isps[0].answers(False)
    _wait_hops(machine, _SECOND6, family=6)
    wait_until(dynamic.reaches, "the LAN to reach the second provider")
    isps[0].answers(True)
    _wait_hops(machine, _FIRST6, family=6)
