"""Two uplinks whose providers gave their gateways the same address, as fe80::1 is with many.

    router wan1 192.0.2.11 / fe80::ff:fe00:102 -------- f1 far1: responder for 192.0.2.1 / fe80::1
    router wan2 192.0.2.12 / fe80::ff:fe00:202 -------- f2 far2: responder for 192.0.2.1 / fe80::1
"""

import pytest

from lab import configtext, responder, waiting
from lab.configtext import interface, ping, rule
from lab.hardware import address_of, packed, wait_address
from lab.many_links import flapped, state_changes


@pytest.mark.parametrize("gateway", ["192.0.2.1", "fe80::1"])
def test_each_has_its_own_gateway(lab, gateway):
    """One gateway fails, and comes back as another machine: the other uplink has nothing to do with it."""
    ipv6 = ":" in gateway
    family = 6 if ipv6 else 4
    links = [lab.uplink(number, ipv6=True) for number in (1, 2)]
    for link in links:
        lab.ip(f"addr del {link.address}/24 dev {link.name}", f"addr add 192.0.2.1{link.number}/24 dev {link.name}")
    patience = waiting.milliseconds(3000)  # the far ends are threads of the test, and only a cut is to be a fault
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping(f"2001:db8::{link.number}" if ipv6 else f"198.51.100.{link.number}",
                                    resp_time=patience)], ipv6=ipv6, success_ct=1, nexthop=gateway) for link in links],
        [rule(f"1_ipv{family}", {link.name: 1 for link in links}, {"::/0" if ipv6 else "0.0.0.0/0": None})]))
    for link in links:
        lb.wait_status(link.name, "active", family=family)
        assert address_of(lab, link.name, gateway) == link.far_mac
    first, second = links
    for change in (1, 2):
        first.cut()
        lb.wait_status(first.name, "failed", family=family)
        mac = f"02:00:00:00:ee:{change:02x}"
        first.responder.become(packed(mac))
        first.restore()
        near = first.link_local if ipv6 else "192.0.2.11"
        first.responder.send_frame(responder.answer(packed(first.mac), near, packed(mac), gateway))
        wait_address(lab, first.name, gateway, mac)
        lb.wait_status(first.name, "active", family=family)
        lb.wait_cycles(2, family=family)
        assert address_of(lab, second.name, gateway) == second.far_mac
    assert state_changes(lab, first.name, ipv6) == flapped(2)
    assert state_changes(lab, second.name, ipv6) == flapped(0)
    assert {request.target[-1] for request in first.responder.requests} == {"1"}
    assert {request.target[-1] for request in second.responder.requests} == {"2"}
