"""Tables and rules of the routing policy, as the samples make them at each start: those of the guide's ip commands.

    machine eth0 ------- isp1: 192.0.2.1,    fe80::1, DHCP and router advertisements
    machine eth1 ------- isp2: 198.51.100.1, fe80::1, DHCP and router advertisements
"""

import pytest

from package_lab import guide
from package_lab.machine import wait_until

_STEPS = guide.steps("beside-the-kernel.md")
_TABLES = ("101", "102")
_RULES_OF_THE_KERNEL = (0, 32766, 32767)


@pytest.fixture
def machine(clients_machine):
    return clients_machine


@pytest.fixture
def isps(providers):
    return providers


def _shown(machine, family, *what):
    """Without what tells only who made it."""
    return [{name: value for name, value in entry.items() if name not in ("protocol", "flags", "pref")}
            for entry in machine.ip_json(f"-{family}", *what)]


def _rules(machine):
    return {family: [rule for rule in _shown(machine, family, "rule") if rule["priority"] not in _RULES_OF_THE_KERNEL]
            for family in (4, 6)}


def _routes(machine, table):
    return {family: _shown(machine, family, "route", "show", "table", table) for family in (4, 6)}


def _policy(machine):
    return {"rules": _rules(machine), **{table: _routes(machine, table) for table in _TABLES}}


def _wait_policy(machine, expected):
    wait_until(lambda: _policy(machine) == expected, lambda: f"{expected}, but it is\n{_policy(machine)}\n"
               f"{machine.journal('systemd-networkd')}{machine.journal('networking')}")


@pytest.fixture
def by_hand(machine, isps):
    """What the guide's commands make; it is gone again."""
    del isps
    machine.run("sh", "-ec", "ip address add 192.0.2.10/24 dev eth0; ip address add 198.51.100.10/24 dev eth1")
    commands = [step for step in _STEPS if "rule add" in step[2]]
    assert [title[:2] for title, _, _ in commands] == ["2.", "2.", "6."]
    guide.carry_out(machine, commands)
    made = _policy(machine)
    assert [len(made["rules"][family]) for family in (4, 6)] == [5, 5]
    assert [len(made[table][family]) for table in _TABLES for family in (4, 6)] == [1] * 4
    for family, rules in made["rules"].items():
        for rule in rules:
            machine.run("ip", f"-{family}", "rule", "del", "pref", str(rule["priority"]))
        for table in _TABLES:
            machine.run("ip", f"-{family}", "route", "flush", "table", table)
    for device in ("eth0", "eth1"):
        machine.run("ip", "address", "flush", "dev", device, "scope", "global")
    assert _rules(machine) == {4: [], 6: []}
    return made


def _without_first(policy):
    return {**policy, "101": {4: [], 6: []}}


def test_ifupdown(machine, by_hand):
    guide.carry_out(machine, [step for step in _STEPS if "tables/ifupdown" in step[2]])
    assert _policy(machine) == by_hand
    machine.run("systemctl", "restart", "networking")
    assert _policy(machine) == by_hand
    machine.run("ifdown", "eth0")
    assert _policy(machine) == _without_first(by_hand)
    machine.run("ifup", "eth0")
    assert _policy(machine) == by_hand


def _edit(machine, name, *commands):
    machine.run("sed", "-i", ";".join(commands), f"/etc/systemd/network/{name}")


def _second_source(machine):
    """The addresses of the second uplink in the rules."""
    return sorted(rule["src"] for rule in _rules(machine)[4] if rule["priority"] == 112)


def _wait_second_source(machine, *addresses):
    wait_until(lambda: _second_source(machine) == sorted(addresses), lambda: f"{addresses} in {_rules(machine)}")


def test_networkd(machine, isps, by_hand):
    guide.carry_out(machine, [step for step in _STEPS if "tables/networkd" in step[2]])
    _wait_policy(machine, by_hand)

    # A cable is pulled: the uplink's routes go, the rules stay.
    isps[0].run("sysctl", "-qw", "net.ipv6.conf.customer.keep_addr_on_down=1")
    isps[0].run("ip", "link", "set", "customer", "down")
    _wait_policy(machine, _without_first(by_hand))
    wait_until(lambda: "192.0.2.10" not in machine.run("ip", "address", "show", "dev", "eth0").stdout,
               "networkd to see it")
    machine.run("networkctl", "status", "eth0")  # when it answers, it has done what it does then
    assert _policy(machine) == _without_first(by_hand)
    isps[0].run("ip", "link", "set", "customer", "up")
    isps[0].run("ip", "address", "add", "fe80::1/64", "dev", "customer", "nodad")  # no kernel keeps that
    _wait_policy(machine, by_hand)

    # A link is set up anew: what others made stays.
    machine.run("sh", "-ec", "ip rule add pref 200 fwmark 9 lookup 101\n"
                + next(text for _, _, text in _STEPS if text.startswith("ip -6 route replace unreachable")))
    others = _policy(machine)
    assert others != by_hand
    machine.watch_routes()
    machine.run("networkctl", "reconfigure", "eth0")
    wait_until(lambda: any(line.startswith("Deleted default via 192.0.2.1") for line in machine.changed_routes()),
               lambda: f"networkd to begin anew in\n{machine.changed_routes()}")
    _wait_policy(machine, others)
    machine.run("sh", "-ec", "ip rule del pref 200\n"
                + next(text for _, _, text in _STEPS if text.startswith("ip -6 route del unreachable")))

    # Gateways that come from the providers.
    for name in ("10-isp1.network", "10-isp2.network"):
        _edit(machine, name, "/^Address=/d", "s/^IPv6AcceptRA=no/IPv6AcceptRA=yes\\nDHCP=ipv4/",
              "s/^Gateway=fe80.*/Gateway=_ipv6ra/", "s/^Gateway=[0-9].*/Gateway=_dhcp4/")
    machine.run("networkctl", "reload")
    _wait_gateways(machine, "192.0.2.1")
    isps[0].serve(gateway=254)
    _wait_gateways(machine, "192.0.2.254")

    # A changed rule: the old one stays.
    _edit(machine, "10-rules.network", "s/198.51.100.10/198.51.100.11/")
    machine.run("systemctl", "restart", "systemd-networkd")
    _wait_second_source(machine, "198.51.100.10", "198.51.100.11")


def _wait_gateways(machine, first):
    """In the tables, in order; all that networkd made before is gone."""
    expected = [first, "fe80::1", "198.51.100.1", "fe80::1"]

    def found():
        return [route.get("gateway") for table in _TABLES for routes in _routes(machine, table).values()
                for route in routes]

    wait_until(lambda: found() == expected, lambda: f"{expected}, but it is {found()}")
