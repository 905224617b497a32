"""Next hops and sources as the kernel has them: "nexthop kernel", "source_address auto".

    router wan1 10.1.0.2 / fd00:1::2 -------- f1 far1: responder, any gateway and target
    router wan2 10.2.0.2 / fd00:2::2 -------- f2 far2: responder

The scenario puts the kernel's default routes there, as a DHCP client or a router advertisement would.
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, rule
from lab.many_links import flapped, state_changes

WARNING = r"^%WAN-W-WARN: Failed to get default route from the kernel on interface wan1$"


def via(gateway, ipv6=False):
    prefix = "::/0" if ipv6 else "0.0.0.0/0"
    return route_file(f"route {prefix} via {gateway} weight 1;", ipv6=ipv6)


def wait_target(link, target):
    """Waits until the gateway is what is probed, and nothing else any more."""
    waiting.wait_until(lambda: link.responder.requests and link.responder.requests[-1].target == target, target)
    mark = len(link.responder.requests)
    assert {request.target for request in link.responder.wait_requests(2, since=mark)} == {target}


def test_route_comes_changes_and_goes(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(resp_time=waiting.milliseconds(3000))], nexthop="kernel",
                                        failure_ct=3))
    lab.log.wait_for(WARNING, count=2)
    assert lb.outbounds()[0]["nexthop"] == "" and not lab.exists("usr_etc/routing-wlb.conf")

    # The routing daemon's own route says nothing.
    lab.ip("route add default via 10.1.0.66 dev wan1 proto bird metric 10")
    mark = lab.log.mark()
    lb.wait_cycles(2)
    assert lab.log.matching(WARNING, mark)

    lab.ip("route add default via 10.1.0.1 dev wan1 proto dhcp metric 200")
    lb.wait_status("wan1", "active")
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.1"))
    assert lb.outbounds()[0]["nexthop"] == "10.1.0.1"
    assert (lb.outbounds()[0]["dhcp"], lb.outbounds()[0]["tunnel"]) == (0, 0)

    # Another one is better: route and target follow, without a change of state.
    lab.ip("route add default via 10.1.0.254 dev wan1 proto dhcp metric 100")
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.254"))
    wait_target(link, "10.1.0.254")
    assert "Target: 10.1.0.254" in lb.report() and "10.1.0.1\n" not in lb.report()

    # What was found last stays while there is none, and it is only said while there has been none.
    mark = lab.log.mark()
    lab.ip("route del default via 10.1.0.254 dev wan1", "route del default via 10.1.0.1 dev wan1")
    lb.wait_cycles(3)
    assert lb.outbounds()[0]["nexthop"] == "10.1.0.254" and not lab.log.matching(WARNING, mark)

    lab.ip("route add default via 10.1.0.7 dev wan1 proto static")
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.7"))
    wait_target(link, "10.1.0.7")
    assert state_changes(lab, "wan1") == flapped(0)


def test_new_gateway_that_is_dead(lab):
    """What was settled of the old one does not hold the interface up, nor does it take it down at once."""
    link = lab.uplink(1)
    link.responder.answer_arp = {"10.1.0.1"}
    lab.ip("route add default via 10.1.0.1 dev wan1 proto dhcp metric 200")
    lb = lab.start_lb(configtext.single(link, [ping(resp_time=waiting.milliseconds(900))], nexthop="kernel"))
    lb.wait_status("wan1", "active")
    lab.ip("route replace default via 10.1.0.254 dev wan1 proto dhcp metric 100")
    lb.wait_status("wan1", "failed")
    lab.log.wait_for(r"IP interface wan1 last check target 10\.1\.0\.254 failure$")
    link.responder.answer_arp = True
    lb.wait_status("wan1", "active")
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.254"))


def test_without_the_word_the_kernel_is_not_asked(lab):
    link = lab.uplink(1)
    lab.ip("route add default via 10.1.0.254 dev wan1 proto dhcp metric 100")
    lb = lab.start_lb(configtext.single(link))
    lb.wait_status("wan1", "active")
    lb.wait_cycles(2)
    lab.wait_text("usr_etc/routing-wlb.conf", via("10.1.0.1"))
    assert {request.target for request in link.responder.requests} == {"10.1.0.1"}


def test_same_link_local_gateway_on_both(lab):
    links = [lab.uplink(number, ipv6=True) for number in (1, 2)]
    for link in links:
        lab.ip(f"-6 route append default via fe80::1 dev {link.name} proto ra metric 1024")
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping(resp_time=waiting.milliseconds(3000))], ipv6=True, success_ct=1, nexthop="kernel")
         for link in links],
        [rule("1_ipv6", {link.name: 1 for link in links}, {"::/0": None})]))
    for link in links:
        lb.wait_status(link.name, "active", family=6)
        wait_target(link, "fe80::1")
        assert link.responder.requests[-1].source == link.link_local
    assert [record["nexthop"] for record in lb.outbounds(6)] == ["fe80::1", "fe80::1"]
    lab.ip("-6 route add default via fe80::2 dev wan1 proto ra metric 512")
    waiting.wait_until(lambda: [record["nexthop"] for record in lb.outbounds(6)] == ["fe80::2", "fe80::1"])
    wait_target(links[0], "fe80::2")
    assert state_changes(lab, "wan1", ipv6=True) == flapped(0)


def test_route_of_a_vrf(lab):
    lab.add_netns("blue")
    link = lab.uplink(1, vrf="blue")
    lab.ip("route add default via 10.1.0.1 dev wan1 proto dhcp", netns="blue")
    lb = lab.start_lb(configtext.single(link, nexthop="kernel"))
    lb.wait_status("wan1", "active")
    assert lb.outbounds()[0]["nexthop"] == "10.1.0.1"


TARGET6 = "2001:db8:7::7"


def sources_of(link, since):
    return {request.source for request in link.responder.wait_requests(2, since=since)}


@pytest.mark.parametrize("route", [True, False], ids=["with-route", "cold-start"])
def test_global_source_behind_the_provider(lab, route):
    link = lab.uplink(1, ipv6=True)
    if route:
        lab.ip("-6 route add default via fe80::1 dev wan1 proto ra")
    lb = lab.start_lb(configtext.single(link, [ping(TARGET6, resp_time=waiting.milliseconds(3000))], ipv6=True,
                                        nexthop="fe80::1", source_address="auto"))
    lb.wait_status("wan1", "active", family=6)
    assert {request.source for request in link.responder.requests} == {link.address6}
    assert lb.outbounds(6)[0]["source_address"] == ""

    # The provider renumbers.
    lab.ip(f"addr del {link.address6}/64 dev wan1", "addr add fd00:99::2/64 dev wan1 nodad")
    waiting.wait_until(lambda: link.responder.requests[-1].source == "fd00:99::2")
    assert sources_of(link, len(link.responder.requests)) == {"fd00:99::2"}
    lb.wait_status("wan1", "active", family=6)


def test_link_local_source_without_the_word(lab):
    link = lab.uplink(1, ipv6=True)
    lb = lab.start_lb(configtext.single(link, [ping(TARGET6)], ipv6=True, nexthop="fe80::1"))
    lb.wait_status("wan1", "active", family=6)
    assert {request.source for request in link.responder.requests} == {link.link_local}


def test_ipv4_source_follows(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping("198.51.100.7", resp_time=waiting.milliseconds(3000))],
                                        source_address="auto"))
    lb.wait_status("wan1", "active")
    assert {request.source for request in link.responder.requests} == {"10.1.0.2"}
    # A better route out of the device says otherwise.
    lab.ip("addr add 10.1.0.9/24 dev wan1", "route add 198.51.100.0/24 via 10.1.0.1 dev wan1 src 10.1.0.9")
    waiting.wait_until(lambda: link.responder.requests[-1].source == "10.1.0.9")
    # Without any address there is nothing to probe from.
    lab.ip("addr flush dev wan1")
    lb.wait_status("wan1", "failed")
    lab.ip("addr add 10.1.0.77/24 dev wan1")
    lb.wait_status("wan1", "active")
    assert link.responder.requests[-1].source == "10.1.0.77"
