"""The guide for tunnels and PPP, with tun devices in the places of ppp0 and wg0: flags and packets are the same.

    router ppp0 100.64.0.2 ======== 100.64.0.1 (program behind the device, which answers all that is asked)
    router eth1 198.51.100.10 ----- 198.51.100.1, 203.0.113.2, 203.0.113.80 isp2
"""

import socket

import pytest

from lab import waiting
from lab.two_isps import SERVER, TwoIsps, carry_out, guide

pytestmark = pytest.mark.usefixtures("tun_devices")


def blocks(section, kind):
    return [block for block in guide("tunnels.md") if block[0].startswith(f"{section}.") and block[1] == kind]


class Tunnels(TwoIsps):
    """Of the two ISPs only the second one is used; its settings are as everywhere."""

    def start_guides(self, section):
        """Starts the routing daemon, and ours with the section's configuration."""
        carry_out(self.lab, blocks(section, "conf"))
        self.start(config=self.lab.read("etc/wan_lb/lb.conf"))

    def wait_default(self, *words):
        """Waits until the routing daemon's default route has exactly these words; returns the guide's look at it."""
        command, = blocks(2, "sh")

        def seen():
            return [line for line in carry_out(self.lab, [command]).splitlines() if "proto bird" in line]

        waiting.wait_until(lambda: [line for line in seen() if all(word in line for word in words)] == seen() != [],
                           lambda: f"{words}: {seen()}\n{self.lb.report()}\n{self.lab.log.text()}\n{self.bird.log()}",
                           timeout=60, interval=0.2)


@pytest.fixture
def network(lab):
    made = Tunnels(lab)
    made.settings()
    return made


def test_ppp_comes_and_goes(lab, network):
    """The line carries all; it dies; its device goes, and comes back with other addresses."""
    peer = lab.tun_peer("ppp0", "100.64.0.2", "100.64.0.1")
    assert "inet 100.64.0.2 peer 100.64.0.1/32" in carry_out(lab, blocks(1, "sh"))
    network.start_guides(2)
    network.wait_default("via 100.64.0.1 dev ppp0")
    # What is behind the line is probed, from the line's own address.
    assert {(request.target, request.source) for request in peer.requests} == {("203.0.113.1", "100.64.0.2")}

    # The other end is silent, while the device is there.
    peer.echo = None
    network.wait_default("via 198.51.100.1 dev eth1")
    peer.echo = lambda request: request.reply()
    network.wait_default("via 100.64.0.1 dev ppp0")

    peer.close()
    network.wait_default("via 198.51.100.1 dev eth1")
    lab.tun_peer("ppp0", "100.64.7.2", "100.64.7.1")
    network.wait_default("via 100.64.7.1 dev ppp0")


def test_peer_that_answers_alone(lab, network):
    """Why each test has a target: the peer says nothing of what is behind it."""
    peer = lab.tun_peer("ppp0", "100.64.0.2", "100.64.0.1")
    peer.echo = lambda request: request.reply() if request.target == "100.64.0.1" else None
    (_, _, text), = blocks(2, "conf")
    by_default = "\n".join(line for line in text.splitlines() if "target 203.0.113.1" not in line)
    network.start(config=by_default)
    network.wait_default("via 100.64.0.1 dev ppp0")
    network.lb.stop()
    network.lb = lab.start_lb(text)
    network.lb.wait_status("dsl", "failed")
    network.wait_default("via 198.51.100.1 dev eth1")


def test_mtu(lab, network):
    """TCP from the LAN fits the line."""
    peer = lab.tun_peer("ppp0", "100.64.0.2", "100.64.0.1")
    mtu, table = blocks(3, "sh")
    carry_out(lab, [mtu])
    network.rules()
    lab.ip("route del default table 101")
    carry_out(lab, [table])
    network.firewall(devices={"eth0": "ppp0"})
    lab.ip("route add default dev ppp0")
    client = network.socket(socket.SOCK_STREAM, "lan")
    client.setblocking(False)
    client.connect_ex((SERVER, 80))
    waiting.wait_until(lambda: [packet for packet in peer.packets if packet[9:10] == b"\x06"], "a SYN")
    syn = next(packet for packet in peer.packets if packet[9:10] == b"\x06")
    assert socket.inet_ntoa(syn[12:16]) == "100.64.0.2"
    # The first option: maximum segment size (RFC 9293, 3.2).
    assert syn[40:44] == bytes([2, 4]) + (1492 - 40).to_bytes(2, "big")
    assert " dev ppp0 " in lab.ip_text(f"route get {SERVER} mark 1")


def test_wireguard(lab, network):
    """A tunnel with a plain address: the other end's is configured."""
    peer = lab.tun_peer("wg0", "10.9.0.2", "10.9.0.2")
    lab.ip("addr flush dev wg0", "addr add 10.9.0.2/24 dev wg0")
    network.start_guides(4)

    def route():
        return lab.ip_text("route show 10.20.0.0/16 proto bird")

    waiting.wait_until(lambda: route().startswith("10.20.0.0/16 via 10.9.0.1 dev wg0"), route, timeout=60, interval=0.2)
    assert {(request.target, request.source) for request in peer.requests} == {("10.20.0.1", "10.9.0.2")}
    peer.echo = None
    network.lb.wait_status("office", "failed")
    # There is no other way: the last routes stay.
    network.lb.wait_cycles(2)
    assert route()


@pytest.mark.parametrize("peer_address", [True, False], ids=["peer", "plain"])
def test_nexthop_tunnel_takes_a_peer(lab, network, peer_address):
    """With a plain address it finds the router's own, by which nothing can be routed."""
    lab.tun_peer("wg0", "10.9.0.2", "10.9.0.1")
    if not peer_address:
        lab.ip("addr flush dev wg0", "addr add 10.9.0.2/24 dev wg0")
    text = blocks(4, "conf")[0][2].replace("nexthop 10.9.0.1", "nexthop tunnel").replace(
        "routing-daemon bird2", "routing-daemon bird2\n    discovery linux")
    network.start(config=text)
    network.lb.wait_status("office", "active")
    found = "10.9.0.1" if peer_address else "10.9.0.2"
    waiting.wait_until(lambda: network.lb.outbounds()[0]["nexthop"] == found)
    if peer_address:
        waiting.wait_until(lambda: "via 10.9.0.1" in lab.ip_text("route show proto bird"), "the route", interval=0.2)
    else:
        waiting.wait_until(lambda: "10.9.0.2%'wg0'" in lab.read("usr_etc/routing-wlb.conf"), "the routes' file")
        waiting.wait_until(lambda: network.bird.reconfigured() > 0, "the routing daemon")
        waiting.never(lambda: lab.ip_text("route show proto bird"), 1, interval=0.2)


def test_ipv6_cannot_be_probed(lab, network):
    peer = lab.tun_peer("ppp0", "fd00:9::2", "fd00:9::1")
    network.start(config="""health {
    interface6 dsl {
        origin ppp0
        nexthop fd00:9::1
        success-ct 1
        test 1 {
            type ping
            resp-time 500
        }
    }
}
rule 1_ipv6 {
    interface6 dsl {
        weight 1
    }
    target {
        address ::/0
    }
}
""")
    peer.wait_requests(4)
    assert network.lb.statuses(6) == {"dsl": "failed"}
