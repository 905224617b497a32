"""Next hops as stock clients leave them: "discovery linux", "lease-file".

    router wan1 10.1.0.2 -------- f1 far1: responder, any router address

The interface is called "dsl" in the configuration; the scenario writes what a DHCP client would.
"""

import time

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, rule
from lab.many_links import flapped, state_changes

LINUX = "options {\n    discovery linux\n}\n"
LEASE = """lease {{
  interface "{device}";
  fixed-address 10.1.0.2;
  option subnet-mask 255.255.255.0;
  option routers {router};
  renew 3 2020/11/25 01:02:03;
  expire {end};
}}
"""
FILE = "var_db/dhclient_wan1.leases"


def lease(router, seconds=3600, device="wan1"):
    return LEASE.format(router=router, device=device, end=time.strftime("%w %Y/%m/%d %H:%M:%S",
                                                                        time.gmtime(time.time() + seconds)))


def config(options=LINUX, ipv6=False, **keywords):
    settings = {"success_ct": 1, "failure_ct": 3, "nexthop": "dhcp", "origin": "wan1", **keywords}
    family, prefix = (6, "::/0") if ipv6 else (4, "0.0.0.0/0")
    return options + configtext.build(
        [interface("dsl", [ping(resp_time=waiting.milliseconds(3000))], ipv6=ipv6, **settings)],
        [rule(f"1_ipv{family}", {"dsl": 1}, {prefix: None})])


def warning(path=None):
    place = rf" \(lease file '{path}'\)" if path else ""
    return rf"^%WAN-W-WARN: Failed to get routers option from DHCP on interface wan1{place}$"


def wait_nexthop(lb, address, family=4):
    waiting.wait_until(lambda: lb.outbounds(family)[0]["nexthop"] == address,
                       lambda: f"{address}; it is {lb.outbounds(family)[0]['nexthop']}")


def via(gateway):
    return route_file(f"route 0.0.0.0/0 via {gateway} weight 1;")


def test_newest_lease_that_holds(lab):
    link = lab.uplink(1)
    lab.write("var_db/dhclient_dsl.leases", lease("10.1.0.66"))
    lb = lab.start_lb(config())
    lab.log.wait_for(warning("/var/db/dhclient_wan1.leases"))

    # Of the leases that a client has appended: another interface's, one that is over, and ours.
    leases = lease("10.1.0.1") + lease("10.1.0.67", device="wan2") + lease("10.1.0.68", seconds=-1)
    lab.replace(FILE, leases)
    lb.wait_status("dsl", "active")
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.1"))
    assert {request.target for request in link.responder.requests} == {"10.1.0.1"}

    # Renewed with another router: route and target follow. When that lease is over, the older one holds again.
    lab.replace(FILE, leases + lease("10.1.0.254, 10.1.0.69", seconds=waiting.scaled(8)))
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.254"))
    waiting.wait_until(lambda: link.responder.requests[-1].target == "10.1.0.254")
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.1"))
    waiting.wait_until(lambda: link.responder.requests[-1].target == "10.1.0.1")

    # A file that is being written, and none at all, leave what was found.
    mark = lab.log.mark()
    lab.replace(FILE, lease("10.1.0.70")[:-3])
    lb.wait_cycles(2)
    lab.run(["rm", "/var/db/dhclient_wan1.leases"])
    lb.wait_cycles(2)
    assert lb.outbounds()[0]["nexthop"] == "10.1.0.1" and not lab.log.matching("WAN-W-WARN", mark)
    assert state_changes(lab, "wan1") == flapped(0)


def test_without_the_option_the_first_lease_under_the_configured_name(lab):
    link = lab.uplink(1)
    lab.write(FILE, lease("10.1.0.66"))
    lb = lab.start_lb(config(options=""))
    lab.log.wait_for(warning())
    lab.replace("var_db/dhclient_dsl.leases", lease("10.1.0.1", seconds=-1) + lease("10.1.0.2"))
    lb.wait_status("dsl", "active")
    lab.replace("var_db/dhclient_dsl.leases", lease("10.1.0.254"))
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.254"))
    link.responder.wait_requests(2, since=len(link.responder.requests))
    assert {request.target for request in link.responder.requests} == {"10.1.0.1"}


@pytest.mark.parametrize("options, router", [(LINUX, "10.1.0.7"), ("", "10.1.0.1")], ids=["linux", "documented"])
def test_lease_file_elsewhere(lab, options, router):
    lab.uplink(1)
    path = lab.path("run/dhclient.wan1.leases")
    for name in ("dsl", "wan1"):
        lab.write(f"var_db/dhclient_{name}.leases", lease("10.1.0.66"))
    lb = lab.start_lb(config(options, lease_file=path))
    lab.log.wait_for(warning(path))
    lab.replace("run/dhclient.wan1.leases", lease("10.1.0.1") + lease("10.1.0.7"))
    wait_nexthop(lb, router)


@pytest.mark.parametrize("options, router", [(LINUX, "fd00:1::12"), ("", "fd00:1::1")], ids=["linux", "documented"])
def test_ipv6_file(lab, options, router):
    lab.uplink(1, ipv6=True)
    lb = lab.start_lb(config(options, ipv6=True))
    lease6 = 'lease6 {\n  interface "wan1";\n  ia-na 1:2 {\n    iaaddr fd00:1::5 {\n    }\n  }\n}\n'
    for name in ("dsl", "wan1"):
        lab.replace(f"var_db/dhcp6_client{name}.leases", lease6)
    lab.log.wait_for(warning("/var/db/dhcp6_clientwan1.leases" if options else None), count=2)
    for name in ("dsl", "wan1"):
        lab.replace(f"var_db/dhcp6_client{name}.leases", lease6 + "new_routers='fd00:1::12 fd00:1::13'\n")
    wait_nexthop(lb, router, family=6)
    lb.wait_status("dsl", "active", family=6)


@pytest.mark.usefixtures("tun_devices")
@pytest.mark.parametrize("options", [LINUX, ""], ids=["linux", "documented"])
def test_tunnel(lab, options):
    """Looked up under the Linux name; the peer of a tunnel that was made anew is the target from then on."""
    lb = lab.start_lb(options + configtext.build(
        [interface("vpn", [ping(resp_time=900)], success_ct=1, nexthop="tunnel", origin="tun0")],
        [rule("1_ipv4", {"vpn": 1}, {"0.0.0.0/0": None})]))
    peer = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.1")
    if not options:
        lb.wait_cycles(3)
        assert lb.outbounds()[0]["nexthop"] == "" and not peer.requests
        return
    wait_nexthop(lb, "10.9.0.1")
    lb.wait_status("vpn", "active")
    peer.close()
    wait_nexthop(lb, "")
    again = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.77")
    wait_nexthop(lb, "10.9.0.77")
    waiting.wait_until(lambda: again.requests and again.requests[-1].target == "10.9.0.77")
    lb.wait_status("vpn", "active")
