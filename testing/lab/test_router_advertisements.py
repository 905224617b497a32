"""Router advertisements of both providers, whose routers call themselves fe80::1, as most do.

    2001:db8:ff::1 far1: dnsmasq, fe80::1, prefix 2001:db8:1::/64 ---- wan1 \\
                                                                              router: kernel, bird + lb
    2001:db8:ff::2 far2: dnsmasq, fe80::1, prefix 2001:db8:2::/64 ---- wan2 /

The router forwards and takes advertisements all the same (accept_ra 2).
"""

import pytest

from lab import sniffer, waiting
from lab.dhcp_clients import DhClient
from lab.home_router import ON_AND_OFF, HomeRouter

AUTOMATIC = {"nexthop": "kernel", "source_address": "auto"}


def advertising(lab):
    router = HomeRouter(lab, ipv6=True)
    for link in router.links:
        lab.sysctl(f"net.ipv6.conf.{link.name}.accept_ra=2")
        link.advertise(f"2001:db8:{link.number}::")
    waiting.wait_until(lambda: router.hops(6, "ra") == {("fe80::1", "wan1"), ("fe80::1", "wan2")},
                       lambda: lab.ip_text("-6 route"))
    return router


def source_of_last(capture):
    return capture.select(sniffer.is_echo6_request)[-1].decode()["IPv6"].src


@pytest.mark.parametrize(**ON_AND_OFF)
def test_same_link_local_gateway(lab, stock):
    """Without the options both uplinks are found well, and bird makes nothing of the gateway: no packet passes."""
    router = advertising(lab)
    if not stock:
        router.start(router.config(lambda link: {"nexthop": "fe80::1"}, stock, 6, lambda link: [""]))
        router.wait_statuses("active", "active", family=6)
        waiting.wait_until(lambda: "via fe80::1 weight 1 via fe80::1 weight 1" in lab.read("usr_etc/routing-wlb6.conf"),
                           lambda: router.state(6))
        waiting.wait_until(lambda: "Invalid next hop fe80::1 of static route" in router.bird.log(),
                           lambda: router.state(6))
        router.lb.wait_cycles(3, family=6)
        assert router.hops(6) == set()
        return
    router.start(router.config(lambda link: AUTOMATIC, family=6))
    router.wait_hops("fe80::1", "fe80::1", family=6)
    router.links[0].cut()
    router.wait_hops(None, "fe80::1", family=6)
    router.links[0].restore()
    router.wait_hops("fe80::1", "fe80::1", family=6)


def test_prefix_changes(lab):
    """The old prefix is deprecated, and what is behind the provider's router is asked from the new one."""
    router = advertising(lab)
    link = router.links[0]
    router.start(router.config(lambda link: AUTOMATIC, family=6))
    router.wait_hops("fe80::1", "fe80::1", family=6)
    capture = link.sniff()
    capture.wait_for(sniffer.is_echo6_request)
    assert source_of_last(capture).startswith("2001:db8:1::")
    link.advertise("2001:db8:11::", "dhcp-range=2001:db8:1::,ra-only,64,deprecated")
    link.disown("2001:db8:1::/64")
    waiting.wait_until(lambda: source_of_last(capture).startswith("2001:db8:11::"),
                       lambda: lab.ip_text("-6 addr") + router.state(6), timeout=60)
    router.lb.wait_cycles(3, family=6)
    router.wait_statuses("active", "active", family=6)
    router.wait_hops("fe80::1", "fe80::1", family=6)


def test_addresses_by_dhcp_and_gateways_by_advertisements(lab):
    """A lease of DHCPv6 names no router: nothing is made up from it. The kernel knows one."""
    router = HomeRouter(lab, ipv6=True)
    for link in router.links:
        lab.sysctl(f"net.ipv6.conf.{link.name}.accept_ra=2", f"net.ipv6.conf.{link.name}.autoconf=0")
        prefix = f"2001:db8:{link.number}::"
        link.advertise(prefix, f"dhcp-range={prefix}a0,{prefix}af,64,2m")
    clients = [DhClient(lab, link, family=6) for link in router.links]
    for client, link in zip(clients, router.links):
        waiting.wait_until(lambda link=link: f"2001:db8:{link.number}::a" in lab.ip_text(f"-6 addr show {link.name}"),
                           client.log)
        assert "lease6 {" in client.leases()
    file = "/var/lib/dhcp/dhclient6.wan1.leases"
    router.start(router.config(lambda link: AUTOMATIC if link.number == 2 else {
        **AUTOMATIC, "nexthop": "dhcp", "lease_file": file}, family=6))
    router.wait_hops(None, "fe80::1", family=6)
    assert lab.log.wait_for("^%WAN-W-WARN: .*wan1.*" + file).level == 4
    assert router.lb.outbounds(6)[0]["nexthop"] == "" and router.lb.statuses(6)["wan1"] == "failed"
