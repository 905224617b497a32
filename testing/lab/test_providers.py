"""The lab's providers, DHCP clients and LAN prove themselves, without our daemon.

    198.51.100.1 far1: dnsmasq, gateway 10.1.0.1 / fe80::1 ---- wan1 \\
                                                                       router ---- LAN client
    198.51.100.2 far2: dnsmasq, gateway 10.2.0.1 / fe80::1 ---- wan2 /
"""

import os
import re

import pytest

from lab import kernel_routes, waiting
from lab.dhcp_clients import Dhcpcd, DhClient
from lab.home_router import HomeRouter
from lab.kernel_routes import Hop
from lab.lan import Lan
from lab.reach import reached


def host_files():
    """What the clients of a machine may write to, as it is outside: names, and contents of what is small."""
    directories = ("/var/lib/dhcp", "/var/lib/dhcpcd", "/etc/dhcp")
    found = {name: sorted(os.listdir(name)) for name in directories if os.access(name, os.R_OK)}
    for name in ("/etc/resolv.conf", "/etc/passwd", "/proc/sys/kernel/hostname"):
        if os.path.exists(name):
            with open(name, "rb") as file:
                found[name] = file.read()
    return found


def test_leases_and_routes_of_the_clients(lab):
    """dhclient on one link and dhcpcd on the other: addresses and routes in the kernel, the host as it was."""
    before = host_files()
    router = HomeRouter(lab)
    router.serve()
    client = DhClient(lab, router.links[0])
    Dhcpcd(lab, router.links[1:])
    client.wait_router("10.1.0.1")
    waiting.wait_until(lambda: len(kernel_routes.routes(lab)) == 2, lambda: lab.ip_text("route"))
    assert router.hops(protocol="boot") == {("10.1.0.1", "wan1")}
    assert router.hops(protocol="dhcp") == {("10.2.0.1", "wan2")}
    routes = {route["hops"][0].device: route["metric"] for route in kernel_routes.routes(lab)}
    assert routes["wan1"] == 1001 and routes["wan2"] > 1000
    assert '  interface "wan1";\n  fixed-address 10.1.0.' in client.leases()
    assert re.search(r"expire [0-6] 2", client.leases())  # the day of the week, and a date
    client.release()
    assert router.hops(protocol="boot") == set() and "10.1.0." not in lab.ip_text("-4 addr show dev wan1")
    assert host_files() == before


def test_router_changes_and_network_too(lab):
    """At the renewal both clients take another router, and after a refusal another network."""
    router = HomeRouter(lab)
    router.serve()
    first, second = router.links
    clients = [DhClient(lab, first), Dhcpcd(lab, [second])]
    clients[0].wait_router("10.1.0.1")
    waiting.wait_until(lambda: router.hops(protocol="dhcp") == {("10.2.0.1", "wan2")}, clients[1].log)
    for link in router.links:
        link.change_gateway(f"10.{link.number}.0.254/24")
        link.serve(f"10.{link.number}.0.50", f"10.{link.number}.0.99", f"10.{link.number}.0.254")
    clients[0].wait_router("10.1.0.254")
    waiting.wait_until(lambda: router.hops(protocol="dhcp") == {("10.2.0.254", "wan2")}, clients[1].log)
    # dhclient's script looks at routers with a new address only.
    assert router.hops(protocol="boot") == {("10.1.0.1", "wan1")}
    for link in router.links:
        link.stop_server(forget=True)
        link.change_gateway(f"10.{link.number}0.0.1/24")
        link.serve(f"10.{link.number}0.0.50", f"10.{link.number}0.0.99", f"10.{link.number}0.0.1")
    clients[0].wait_router("10.10.0.1")
    waiting.wait_until(lambda: router.hops(protocol="dhcp") == {("10.20.0.1", "wan2")}, clients[1].log)
    waiting.wait_until(lambda: router.hops(protocol="boot") == {("10.10.0.1", "wan1")}, clients[0].log)
    assert all("NAK" in client.log() for client in clients)


def test_router_advertisements_with_one_gateway(lab):
    """Both say fe80::1; what is behind it answers global addresses only."""
    router = HomeRouter(lab, ipv6=True)
    for link in router.links:
        lab.sysctl(f"net.ipv6.conf.{link.name}.accept_ra=2")
        link.advertise(f"2001:db8:{link.number}::")
    waiting.wait_until(lambda: router.hops(6, "ra") == {("fe80::1", "wan1"), ("fe80::1", "wan2")},
                       lambda: lab.ip_text("-6 route"))
    link = router.links[0]
    lab.ip(f"-6 route add {link.target6} via fe80::1 dev wan1")
    # The address comes after the route, and is looked for on the link first.
    waiting.wait_until(lambda: "src 2001:db8:1:" in lab.ip_text(f"-6 route get {link.target6}"),
                       lambda: lab.ip_text("-6 addr"))
    assert reached(lab, link.target6) and not reached(lab, link.target6, source=link.link_local, device="wan1")
    link.advertise("2001:db8:11::", "dhcp-range=2001:db8:1::,ra-only,64,deprecated")
    waiting.wait_until(lambda: "src 2001:db8:11:" in lab.ip_text(f"-6 route get {link.target6}"),
                       lambda: lab.ip_text("-6 addr"))
    link.disown("2001:db8:1::/64")
    assert reached(lab, link.target6)
    assert not reached(lab, link.target6, source="2001:db8:1::ff:fe00:102")


@pytest.mark.parametrize("percent", [0, 80])
def test_lan_client_behind_both_links(lab, percent):
    """Connections are spread over both, masqueraded; a link that loses packets, or all of them, loses connections."""
    router = HomeRouter(lab)
    router.give_addresses()
    lan = Lan(lab, router.links)
    lab.ip("route add default nexthop via 10.1.0.1 dev wan1 weight 2 nexthop via 10.2.0.1 dev wan2")
    assert kernel_routes.routes(lab)[0]["hops"] == [Hop("10.1.0.1", "wan1", 2), Hop("10.2.0.1", "wan2", 1)]
    if percent:
        router.links[0].lose(percent)
    lan.start_calling()
    if percent:
        waiting.wait_until(lambda: set(lan.calls()) >= {"far2", "lost"}, lambda: f"{lan.calls()}")
    else:
        served = lan.wait_calls(300)
        assert set(served) == {"far1", "far2"} and min(served.values()) > 40, served
    router.links[1].cut()
    before = len(lan.calls()) + 1
    waiting.wait_until(lambda: "lost" in lan.calls()[before:], lambda: f"{lan.calls()}")
    lan.stop_calling()
