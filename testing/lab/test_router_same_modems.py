"""Two modems of one make: each is 192.168.1.1 and gives addresses of 192.168.1.0/24.

    198.51.100.1 far1: dnsmasq, 192.168.1.1 ---- wan1, dhclient \\
                                                                  router: masquerading, bird + lb ---- LAN client
    198.51.100.2 far2: dnsmasq, 192.168.1.1 ---- wan2, dhclient /
"""

import pytest

from lab import waiting
from lab.dhcp_clients import DhClient
from lab.home_router import ON_AND_OFF, HomeRouter
from lab.lan import Lan


@pytest.mark.parametrize(**ON_AND_OFF)
def test_both_modems_are_used(lab, stock):
    """Without the options bird finds both ways on one link: the report says that both are active, and one idles."""
    router = HomeRouter(lab, gateways=("192.168.1.1/24", "192.168.1.1/24"))
    for link in router.links:
        link.serve(f"192.168.1.{link.number}0", f"192.168.1.{link.number}9", "192.168.1.1")
        DhClient(lab, link).wait_router("192.168.1.1")
    lan = Lan(lab, router.links)
    router.start(router.config(lambda link: {"nexthop": "kernel" if stock else "192.168.1.1"}, stock))
    if not stock:
        router.wait_statuses("active", "active")
        waiting.wait_until(lambda: lab.read("usr_etc/routing-wlb.conf").count("via 192.168.1.1") == 2, router.state)
        waiting.wait_until(lambda: router.hops() and router.bird.reconfigured() >= 1, router.state)
        lan.start_calling()
        lan.wait_calls(100)
        assert len({device for _, device in router.hops()}) == 1
        assert len(set(lan.calls()) - {"lost"}) <= 1
        return
    router.wait_hops("192.168.1.1", "192.168.1.1")
    lan.start_calling()
    served = lan.wait_calls(100)
    assert set(served) == {"far1", "far2"} and min(served.values()) > 20, served
    router.links[0].cut()
    router.wait_hops(None, "192.168.1.1")
    router.links[0].restore()
    router.wait_hops("192.168.1.1", "192.168.1.1")
