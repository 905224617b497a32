"""A tunnel's peer is its next hop, as long as the tunnel is there.

    router tun0 10.9.0.2 ======== 10.9.0.1 (program behind the device)
    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, rule

pytestmark = pytest.mark.usefixtures("tun_devices")


def test_peer_comes_and_goes(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build(
        [interface("tun0", [ping(resp_time=900)], success_ct=1, nexthop="tunnel"),
         interface("wan1", [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway)],
        [rule("1_ipv4", {"tun0": 2, "wan1": 1}, {"0.0.0.0/0": None})]))
    only_link = route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;")
    both = route_file("route 0.0.0.0/0 via 10.9.0.1 weight 2 via 10.1.0.1 weight 1;")
    lab.wait_text("usr_etc/routing-wlb.conf", only_link)
    peer = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.1")
    lab.wait_text("usr_etc/routing-wlb.conf", both)
    assert {request.target for request in peer.requests} == {"10.9.0.1"}
    waiting.wait_until(lambda: lb.outbounds()[0]["nexthop"] == "10.9.0.1")
    assert lb.outbounds()[0]["tunnel"] == 1

    # The tunnel is gone: its next hop too, and without a word.
    mark = lab.log.mark()
    peer.close()
    lab.wait_text("usr_etc/routing-wlb.conf", only_link)
    waiting.wait_until(lambda: lb.outbounds()[0]["nexthop"] == "")
    assert not lab.log.matching("WAN-W-WARN", mark)

    again = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.77")
    lab.wait_text("usr_etc/routing-wlb.conf", both.replace("10.9.0.1 ", "10.9.0.77 "))
    assert {request.target for request in again.requests} == {"10.9.0.1"}, "the target found first stays"


def test_dead_tunnel(lab):
    """The device is there, the other end is not."""
    peer = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.1")
    lb = lab.start_lb(configtext.build(
        [interface("tun0", [ping("198.51.100.9", resp_time=900)], success_ct=1, nexthop="tunnel")],
        [rule("1_ipv4", {"tun0": 2}, {"0.0.0.0/0": None})]))
    lab.ip("route add 198.51.100.0/24 dev tun0")
    lb.wait_status("tun0", "active")
    peer.echo = None
    lb.wait_status("tun0", "failed")
    lab.wait_text("usr_etc/routing-wlb.conf", "")


def test_ipv6_peer(lab):
    """The peer is found; probes on a device without ARP do not recognise their replies, so it stays failed."""
    lb = lab.start_lb(configtext.build(
        [interface("tun0", [ping(resp_time=900)], ipv6=True, success_ct=1, nexthop="tunnel")],
        [rule("1_ipv6", {"tun0": 2}, {"::/0": None})]))
    waiting.wait_until(lambda: lb.outbounds(6)[0]["nexthop"] == "")
    peer = lab.tun_peer("tun0", "fd00:9::2", "fd00:9::1")
    waiting.wait_until(lambda: lb.outbounds(6)[0]["nexthop"] == "fd00:9::1")
    peer.wait_requests(2)
    assert {request.target for request in peer.requests} == {"fd00:9::1"}
    assert lb.statuses(6) == {"tun0": "failed"}
    peer.close()
    waiting.wait_until(lambda: lb.outbounds(6)[0]["nexthop"] == "")
