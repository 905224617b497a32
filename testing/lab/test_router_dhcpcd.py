"""dhcpcd on both uplinks, whose gateways stand nowhere but in the kernel's routes.

    198.51.100.1 far1: dnsmasq, gateway 10.1.0.1 ---- wan1 \\
                                                             router: dhcpcd, bird + lb
    198.51.100.2 far2: dnsmasq, gateway 10.2.0.1 ---- wan2 /
"""

import pytest

from lab import kernel_routes
from lab.dhcp_clients import Dhcpcd
from lab.home_router import ON_AND_OFF, HomeRouter


def started(lab):
    router = HomeRouter(lab)
    router.serve()
    client = Dhcpcd(lab, router.links)
    router.start(router.config(lambda link: {"nexthop": "kernel"}))
    router.wait_hops("10.1.0.1", "10.2.0.1")
    return router, client


@pytest.mark.parametrize(**ON_AND_OFF)
def test_routes_of_the_client_beside_birds(lab, stock):
    """The client's have the higher metric: bird's carry the traffic, and the client's are what ours reads.

    Without the keyword there is nothing to be read: dhcpcd's lease files are of another kind.
    """
    router = HomeRouter(lab)
    router.serve()
    Dhcpcd(lab, router.links)
    router.start(router.config(lambda link: {"nexthop": "kernel" if stock else "dhcp"}, stock))
    if not stock:
        for link in router.links:
            lab.log.wait_for(f"Failed to get routers option from DHCP on interface {link.name}", count=3)
        assert router.hops() == set() and set(router.lb.statuses().values()) == {"failed"}
        return
    router.wait_hops("10.1.0.1", "10.2.0.1")
    assert router.hops(protocol="dhcp") == {("10.1.0.1", "wan1"), ("10.2.0.1", "wan2")}
    metrics = {route["protocol"]: route.get("metric", 0) for route in kernel_routes.routes(lab)}
    assert metrics["bird"] < metrics["dhcp"], metrics
    assert "proto bird" in lab.ip_text("route get fibmatch 203.0.113.1")
    router.lb.wait_cycles(3)
    assert router.hops(protocol="dhcp") == {("10.1.0.1", "wan1"), ("10.2.0.1", "wan2")}


def test_gateway_changes_at_renewal(lab):
    router, _ = started(lab)
    link = router.links[0]
    link.change_gateway("10.1.0.254/24")
    link.serve("10.1.0.50", "10.1.0.99", "10.1.0.254")
    router.wait_hops("10.1.0.254", "10.2.0.1")
    router.wait_statuses("active", "active")


def test_provider_renumbers(lab):
    router, client = started(lab)
    link = router.links[0]
    link.stop_server(forget=True)
    link.change_gateway("10.11.0.1/24")
    link.serve("10.11.0.50", "10.11.0.99", "10.11.0.1")
    router.wait_hops("10.11.0.1", "10.2.0.1")
    router.wait_statuses("active", "active")
    assert "NAK" in client.log()


def test_client_stops(lab):
    """Addresses and its routes go: no uplink works, the routes that were last in force are kept. Then it starts."""
    router, client = started(lab)
    client.stop()
    assert router.hops(protocol="dhcp") == set()
    router.wait_statuses("failed", "failed")
    client.start()
    router.wait_statuses("active", "active")
    router.wait_hops("10.1.0.1", "10.2.0.1")


def test_the_only_uplink_loses_its_address_and_has_it_again(lab):
    """The kernel drops bird's route with the address, and the file, whose last routes are kept, never changes."""
    router = HomeRouter(lab, gateways=(None,))
    router.serve()
    client = Dhcpcd(lab, router.links)
    router.start(router.config(lambda link: {"nexthop": "kernel"}))
    router.wait_hops("10.1.0.1")
    client.stop()
    assert router.hops() == set()
    router.wait_statuses("failed")
    text = lab.read("usr_etc/routing-wlb.conf")
    assert "via 10.1.0.1%'wan1'" in text
    client.start()
    router.wait_statuses("active")
    router.wait_hops("10.1.0.1", timeout=15)
    assert lab.read("usr_etc/routing-wlb.conf") == text
