"""Several VRFs and both families at once, each with its own routing daemon.

    default: wan1 10.1.0.2 / fd00:1::2 ---- far1      /usr/etc/routing-wlb.conf, ...6.conf
    red:     wan2 10.2.0.2 / fd00:2::2 ---- far2      /var/vrfs/red/usr/etc/...
    blue:    wan3 10.3.0.2 / fd00:3::2 ---- far3      /var/vrfs/blue/usr/etc/...
"""

import os

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, rule

VRFS = {"default": 1, "red": 2, "blue": 3}


def directory(vrf):
    return "usr_etc/" if vrf == "default" else f"var_vrfs/{vrf}/usr/etc/"


def pid_file(vrf):
    return "run/routing.pid" if vrf == "default" else f"var_vrfs/{vrf}/usr/var/run/routing.pid"


def expected(vrf, ipv6):
    number = VRFS[vrf]
    return (route_file(f"route ::/0 via fd00:{number}::1 weight {number};", ipv6=True) if ipv6
            else route_file(f"route 0.0.0.0/0 via 10.{number}.0.1 weight {number};"))


def file_of(vrf, ipv6):
    return directory(vrf) + ("routing-wlb6.conf" if ipv6 else "routing-wlb.conf")


def config(links, vrfs):
    interfaces, rules = [], []
    for vrf in vrfs:
        link, number = links[vrf], VRFS[vrf]
        for ipv6 in (False, True):
            interfaces.append(interface(link.name, [ping(resp_time=900)], ipv6=ipv6, success_ct=1, namespace=vrf,
                                        nexthop=link.gateway6 if ipv6 else link.gateway))
            rules.append(rule(f"{number}_ipv{6 if ipv6 else 4}", {link.name: number},
                              {"::/0" if ipv6 else "0.0.0.0/0": None}, namespace=vrf))
    return configtext.build(interfaces, rules)


@pytest.fixture
def links(lab):
    for vrf in ("red", "blue"):
        lab.add_netns(vrf)
        os.makedirs(lab.path(directory(vrf)))
    return {vrf: lab.uplink(number, vrf=None if vrf == "default" else vrf, ipv6=True)
            for vrf, number in VRFS.items()}


def test_all_vrfs_and_families_at_once(lab, links):
    fakes = {vrf: lab.routing_daemon(pid_file(vrf), (file_of(vrf, False), file_of(vrf, True))) for vrf in VRFS}
    lb = lab.start_lb(config(links, VRFS))
    for vrf, number in VRFS.items():
        for family in (4, 6):
            lb.wait_status(f"wan{number}", "active", family=family)
            lab.wait_text(file_of(vrf, family == 6), expected(vrf, family == 6))
        fakes[vrf].wait_hups(1)
        inode = lab.netns_inode(None if vrf == "default" else vrf)
        waiting.wait_until(lambda i=inode: sorted(lab.ip_calls(i)) == ["-6 route flush cache", "route flush cache"],
                           lab.ip_calls)
    for family in (4, 6):
        lb.wait_cycles(1, family=family)
    # One VRF loses its link: only its own files change, only its own routing daemon is told.
    before = {vrf: len(fake.hups) for vrf, fake in fakes.items()}
    links["red"].cut()
    lab.wait_text(file_of("red", False), "")
    lab.wait_text(file_of("red", True), "")
    waiting.wait_until(lambda: any(set(files.values()) == {""} for _, files in fakes["red"].hups))
    for vrf in ("default", "blue"):
        assert len(fakes[vrf].hups) == before[vrf]
        assert lab.read(file_of(vrf, False)) == expected(vrf, False)
    links["red"].restore()
    lab.wait_text(file_of("red", False), expected("red", False))
    lab.wait_text(file_of("red", True), expected("red", True))
    for family in (4, 6):
        lb.wait_status("wan2", "active", family=family)
        assert lb.statuses(family) == {"wan1": "active", "wan2": "active", "wan3": "active"}
    assert [record["namespace"] for record in lb.outbounds()] == ["default", "red", "blue"]


def test_firewall_in_every_vrf(lab, links):
    """Each probe's record is made in the tracker of the namespace that the probe leaves from."""
    for vrf in VRFS:
        lab.drop_invalid(None if vrf == "default" else vrf)
    lb = lab.start_lb(config(links, VRFS))
    for number in VRFS.values():
        for family in (4, 6):
            lb.wait_status(f"wan{number}", "active", family=family)


def test_missing_namespace_ends_only_its_own_thread(lab, links):
    text = config(links, VRFS).replace("namespace blue", "namespace ghost")
    lb = lab.start_lb(text)
    for number in (1, 2):
        lb.wait_status(f"wan{number}", "active")
    assert lb.statuses()["wan3"] == "failed"
    assert not links["blue"].responder.requests and not links["blue"].responder.arp_requests
    assert not lab.log.matching("ghost") and not lab.exists("var_vrfs/ghost")
    # Only what belongs to a worker is announced.
    assert not lab.log.matching("interface wan3")


def test_family_needs_interfaces_and_rules_in_the_same_vrf(lab, links):
    """red has an IPv4 interface and only an IPv6 rule; default has both of IPv4."""
    interfaces = [interface("wan1", [ping()], success_ct=1, nexthop=links["default"].gateway),
                  interface("wan2", [ping()], success_ct=1, nexthop=links["red"].gateway, namespace="red")]
    rules = [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}),
             rule("2_ipv6", {"wan2": 1}, {"::/0": None}, namespace="red")]
    lb = lab.start_lb(configtext.build(interfaces, rules))
    lb.wait_status("wan1", "active")
    links["default"].responder.wait_requests(3)
    assert not links["red"].responder.requests and lb.statuses()["wan2"] == "failed"
    lab.wait_text(file_of("default", False), route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;"))
