"""Debian's dhclient on both uplinks: gateways from its lease files, or from the default routes that it makes.

    198.51.100.1 far1: dnsmasq, gateway 10.1.0.1 ---- wan1, dhclient \\
                                                                       router: bird + lb
    198.51.100.2 far2: dnsmasq, gateway 10.2.0.1 ---- wan2, dhclient /

Without the options the lease file's first lease counts, however old it is.
"""

import pytest

from lab import waiting
from lab.dhcp_clients import DhClient
from lab.home_router import ON_AND_OFF, HomeRouter

NEXTHOPS = pytest.mark.parametrize("nexthop", ["dhcp", "kernel"])

# A lease of seconds, which no server of the lab gives.
SHORT = "supersede dhcp-lease-time 12; supersede dhcp-renewal-time 4; supersede dhcp-rebinding-time 8;\n"


def lease_file(link, stock):
    """Where Debian has it; without the options it has to be where ours looks."""
    return f"var_lib_dhcp/dhclient.{link.name}.leases" if stock else f"var_db/dhclient_{link.name}.leases"


def keywords(stock, nexthop):
    def of_link(link):
        more = {"lease_file": f"/var/lib/dhcp/dhclient.{link.name}.leases"} if stock and nexthop == "dhcp" else {}
        return {"nexthop": nexthop, **more}

    return of_link


def started(lab, stock=True, nexthop="dhcp", conf=""):
    """Both uplinks run; `conf` is for the first one's client. Returns the router and the clients."""
    router = HomeRouter(lab)
    router.serve()
    clients = [DhClient(lab, link, lease_file=lease_file(link, stock), conf=text)
               for link, text in zip(router.links, (conf, ""))]
    for client, link in zip(clients, router.links):
        client.wait_router(link.gateway)
    router.start(router.config(keywords(stock, nexthop), stock))
    router.wait_hops("10.1.0.1", "10.2.0.1")
    return router, clients


def check_first_lease_stays(router):
    """What is known: the first lease's gateway, which has gone. So only the other uplink is used, from now on."""
    router.wait_hops(None, "10.2.0.1")
    router.lb.wait_cycles(4)
    assert router.hops() == {("10.2.0.1", "wan2")} and router.lb.statuses()["wan1"] == "failed"
    assert router.lb.outbounds()[0]["nexthop"] == "10.1.0.1"


@pytest.mark.parametrize(**ON_AND_OFF)
def test_gateway_changes_at_renewal(lab, stock):
    """The script of dhclient leaves its default route as it was: only the lease file tells."""
    router, (client, _) = started(lab, stock)
    link = router.links[0]
    link.change_gateway("10.1.0.254/24")
    link.serve("10.1.0.50", "10.1.0.99", "10.1.0.254")
    client.wait_router("10.1.0.254")
    if stock:
        router.wait_hops("10.1.0.254", "10.2.0.1")
        router.wait_statuses("active", "active")
    else:
        check_first_lease_stays(router)


@pytest.mark.parametrize(**ON_AND_OFF)
def test_provider_renumbers(lab, stock):
    router, (client, _) = started(lab, stock)
    link = router.links[0]
    link.stop_server(forget=True)
    link.change_gateway("10.11.0.1/24")
    link.serve("10.11.0.50", "10.11.0.99", "10.11.0.1")
    client.wait_router("10.11.0.1")
    assert "DHCPNAK" in client.log() and "DHCPNAK" in link.server_log()
    if stock:
        router.wait_hops("10.11.0.1", "10.2.0.1")
        router.wait_statuses("active", "active")
    else:
        check_first_lease_stays(router)


def test_provider_renumbers_and_the_kernel_tells(lab):
    """The address goes, and the client's default route with it, before there are new ones."""
    router, _ = started(lab, nexthop="kernel")
    link = router.links[0]
    link.stop_server(forget=True)
    link.change_gateway("10.11.0.1/24")
    link.serve("10.11.0.50", "10.11.0.99", "10.11.0.1")
    router.wait_hops("10.11.0.1", "10.2.0.1")
    router.wait_statuses("active", "active")


@NEXTHOPS
def test_lease_expires(lab, nexthop):
    """The server is silent until the lease is over: the address goes. Then the server is back."""
    router, (client, _) = started(lab, nexthop=nexthop, conf=SHORT)
    link = router.links[0]
    link.stop_server()
    waiting.wait_until(lambda: "10.1.0." not in lab.ip_text("-4 addr show dev wan1"), client.log)
    router.wait_hops(None, "10.2.0.1")
    router.wait_statuses("failed", "active")
    link.serve("10.1.0.50", "10.1.0.99", "10.1.0.1")
    router.wait_hops("10.1.0.1", "10.2.0.1")
    router.wait_statuses("active", "active")


@pytest.mark.parametrize(**ON_AND_OFF)
def test_start_with_an_expired_lease(lab, stock):
    """It tells nothing any more; the warning names the file. Without the options it is believed."""
    router = HomeRouter(lab)
    link, other = router.links
    other.serve("10.2.0.50", "10.2.0.99", "10.2.0.1")
    DhClient(lab, other, lease_file=lease_file(other, stock)).wait_router("10.2.0.1")
    lab.write(lease_file(link, stock),
              'lease {\n  interface "wan1";\n  fixed-address 10.1.0.50;\n  option routers 10.1.0.77;\n'
              "  expire 0 2020/03/01 12:00:00;\n}\n")
    router.start(router.config(keywords(stock, "dhcp"), stock))
    router.wait_hops(None, "10.2.0.1")
    if not stock:
        assert router.lb.outbounds()[0]["nexthop"] == "10.1.0.77"
        return
    record = lab.log.wait_for("^%WAN-W-WARN: .*/var/lib/dhcp/dhclient.wan1.leases")
    assert record.level == 4 and router.lb.outbounds()[0]["nexthop"] == ""
    link.serve("10.1.0.50", "10.1.0.99", "10.1.0.1")
    DhClient(lab, link).wait_router("10.1.0.1")
    router.wait_hops("10.1.0.1", "10.2.0.1")


@NEXTHOPS
def test_client_stops(lab, nexthop):
    """Killed, it leaves what it has made, and all goes on. Released, its address goes, and comes back."""
    router, (client, second) = started(lab, nexthop=nexthop)
    second.kill()
    client.release()
    router.wait_hops(None, "10.2.0.1")
    router.wait_statuses("failed", "active")
    client.start()
    router.wait_hops("10.1.0.1", "10.2.0.1")
    router.wait_statuses("active", "active")
