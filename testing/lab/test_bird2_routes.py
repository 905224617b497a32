"""Routes as BIRD 2 takes them, in the kernel: next hops with their device.

    198.51.100.1 far1 10.1.0.1 fe80::..0101 ---- wan1 \\
                                                        router: bird, lb
    198.51.100.2 far2 10.2.0.1 fe80::..0201 ---- wan2 /
"""

import re

import pytest

from lab import configtext, waiting
from lab.bird import Bird
from lab.configtext import interface, ping, rule
from lab.two_uplinks import TwoUplinks

BIRD2 = configtext.options("routing-daemon bird2")


def routes(lab, family=4):
    return lab.ip_text(f"-{family} route show proto bird")


def wait_routes(lab, pattern, family=4):
    waiting.wait_until(lambda: re.search(pattern, routes(lab, family)),
                       lambda: f"{pattern}\nkernel:\n{routes(lab, family)}\nlog:\n{lab.log.text()}")


def configuration(lab, members, targets, ipv6=False, failover=False, **gateways):
    interfaces = [interface(name, [ping(target, resp_time=900)], ipv6=ipv6, success_ct=1, nexthop=gateways[name])
                  for name, target in members.items()]
    weights = dict(zip(members, (1, 2)))
    return configtext.build(interfaces, [rule(f"1_ipv{6 if ipv6 else 4}", weights, targets, failover=failover)])


def test_link_local_gateways_of_both_uplinks(lab):
    network = TwoUplinks(lab)
    for number, link in network.links.items():
        lab.ip(f"addr add fe80::1/64 dev {link.far_name} nodad", netns=link.far)
    Bird(lab)
    lab.start_lb(BIRD2 + configuration(lab, {"wan1": "fe80::1", "wan2": "fe80::1"}, {"default": None}, ipv6=True,
                                       wan1="fe80::1", wan2="fe80::1"))
    for number, link in network.links.items():
        wait_routes(lab, rf"nexthop via fe80::1 dev {link.name} weight {number} ", 6)
    lab.wait_text("usr_etc/routing-wlb6.conf", configtext.route_file(
        "route ::/0 via fe80::1%'wan1' onlink weight 1 via fe80::1%'wan2' onlink weight 2;", ipv6=True))
    network.cut(1)
    wait_routes(lab, r"^default via fe80::1 dev wan2", 6)


@pytest.mark.parametrize("bird2", [True, False])
def test_gateway_outside_of_the_prefix(lab, bird2):
    """Without the device the routing daemon finds no way to such a gateway."""
    link = lab.uplink(1, far_end="kernel", target="198.51.100.1")
    lab.ip("addr del 10.1.0.2/24 dev wan1", "addr add 10.1.0.2/32 dev wan1")
    bird = Bird(lab)
    lb = lab.start_lb((BIRD2 if bird2 else "") + configuration(
        lab, {"wan1": "198.51.100.1"}, {"0.0.0.0/0": None}, wan1=link.gateway))
    lb.wait_status("wan1", "active")
    if bird2:
        wait_routes(lab, r"^default via 10\.1\.0\.1 dev wan1")
    else:
        waiting.wait_until(lambda: bird.reconfigured() >= 1)
        lb.wait_cycles(2)
        assert routes(lab) == ""


def test_metric_scaled_weights_and_what_is_left_out(lab):
    network = TwoUplinks(lab)
    bird = Bird(lab, bird_with_metrics(lab))
    text = configuration(
        lab, {"wan1": "198.51.100.1", "wan2": "198.51.100.2"},
        {"203.0.113.77/24": 7, "10.0.0.0/99": None, "192.0.2.0/25": None}, wan1="10.1.0.1", wan2="10.2.0.1")
    lab.start_lb(BIRD2 + text.replace("weight 1", "weight 1000").replace("weight 2", "weight 500"))
    wait_routes(lab, r"203\.0\.113\.0/24 metric 7[^\n]*\n"
                     r"\s*nexthop via 10\.1\.0\.1 dev wan1 weight 256[^\n]*\n"
                     r"\s*nexthop via 10\.2\.0\.1 dev wan2 weight 128")
    wait_routes(lab, r"192\.0\.2\.0/25[^\n]*\n\s*nexthop via 10\.1\.0\.1 dev wan1")
    lab.log.wait_for(r"^%WAN-W-WARN: wan_lb: rule 1_ipv4: destination '10\.0\.0\.0/99' left out: no IPv4 address or prefix$")
    assert bird.reconfigured() >= 1
    network.cut(1)
    wait_routes(lab, r"203\.0\.113\.0/24 via 10\.2\.0\.1 dev wan2 metric 7")


def bird_with_metrics(lab):
    """Metrics of single routes are in force where the protocol has none of its own."""
    from lab import bird
    config = bird.CONFIG.format(log=lab.path("bird.log"))
    return config.replace("scan time 1;\n  merge", "scan time 1; metric 0;\n  merge")


def test_failover_passes_over_a_member_without_a_next_hop(lab):
    """The heavier one has no lease, but its target answers all the same."""
    network = TwoUplinks(lab)
    lab.ip("link set wan1 arp off")
    Bird(lab)
    lab.ip("route add 198.51.100.1 via 10.1.0.1 dev wan1")
    lb = lab.start_lb(BIRD2 + configtext.build(
        [interface("wan1", [ping("198.51.100.1", resp_time=900)], success_ct=1, nexthop="dhcp"),
         interface("wan2", [ping("198.51.100.2", resp_time=900)], success_ct=1, nexthop="10.2.0.1")],
        [rule("1_ipv4", {"wan1": 9, "wan2": 1}, {"0.0.0.0/0": None}, failover=True)]))
    # Its frames go out unresolved otherwise: the far end is told where the answer goes.
    lab.ip(f"neigh replace 10.1.0.2 lladdr {network.links[1].mac} dev f1", netns="far1")
    lab.ip(f"link set wan1 address {network.links[1].mac}")
    wait_routes(lab, r"^default via 10\.2\.0\.1 dev wan2")
    # The kernel may have the route before the dump is written.
    waiting.wait_until(lambda: lb.routes()[0]["nexthop"] == "10.2.0.1", lambda: str(lb.routes()))
