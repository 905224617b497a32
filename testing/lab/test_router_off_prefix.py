"""Addresses of their own prefix, /32, with gateways that lie outside of it, as providers of virtual machines have it.

    198.51.100.1 far1: dnsmasq, 100.64.1.1 ---- wan1 10.1.0.N/32, dhclient \\
                                                                              router: bird + lb
    198.51.100.2 far2: dnsmasq, 100.64.2.1 ---- wan2 10.2.0.N/32, dhclient /
"""

import pytest

from lab import waiting
from lab.dhcp_clients import DhClient
from lab.home_router import ON_AND_OFF, HomeRouter


@pytest.mark.parametrize(**ON_AND_OFF)
def test_gateway_outside_of_the_prefix(lab, stock):
    """Without the options bird does not know where such a gateway is, and makes no route that works."""
    router = HomeRouter(lab)
    for link in router.links:
        gateway = f"100.64.{link.number}.1"
        link.ip(f"addr add {gateway}/32 dev {link.far_name}")
        link.serve(f"10.{link.number}.0.50", f"10.{link.number}.0.99", gateway,
                   "dhcp-option=option:netmask,255.255.255.255")
        DhClient(lab, link).wait_router(gateway)
        assert f"inet 10.{link.number}.0." in lab.ip_text(f"-4 addr show dev {link.name}")
        assert "/32 " in lab.ip_text(f"-4 addr show dev {link.name}")
    nexthop = "kernel" if stock else None
    router.start(router.config(lambda link: {"nexthop": nexthop or f"100.64.{link.number}.1"}, stock))
    if not stock:
        router.wait_statuses("active", "active")
        waiting.wait_until(lambda: router.bird.reconfigured() >= 1, router.state)
        waiting.wait_until(lambda: lab.read("usr_etc/routing-wlb.conf").count("via 100.64.") == 2, router.state)
        router.lb.wait_cycles(3)
        assert router.hops() == set()
        return
    router.wait_hops("100.64.1.1", "100.64.2.1")
    router.links[0].cut()
    router.wait_hops(None, "100.64.2.1")
    router.links[0].restore()
    router.wait_hops("100.64.1.1", "100.64.2.1")
